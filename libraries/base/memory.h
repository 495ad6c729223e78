// memory.h - the library's one allocation seam. Every malloc-family call of
// the library goes through these functions; they stay malloc underneath
// because callers release some results with the standard free. Tests can
// count live blocks and make the Nth allocation fail.
#ifndef ZLDAP_MEMORY_H
#define ZLDAP_MEMORY_H

#include <cstddef>

namespace zldap {

void *mem_malloc(size_t size);
void *mem_calloc(size_t count, size_t size);
// Like realloc, but on failure the old block stays valid and owned by the caller.
void *mem_realloc(void *ptr, size_t size);
char *mem_strdup(const char *text);
// Copies at most len bytes and always appends a NUL.
char *mem_strndup(const char *text, size_t len);
void mem_free(void *ptr);
// The octets a block from this seam spans (at least the size asked for).
// A pointer into that span cannot be a block of its own: release functions
// use it to tell results made in one block from results made piecewise.
size_t mem_block_size(const void *block);

// Test hooks. While tracking is on, allocations and releases through the
// seam are counted; fail_at N makes the Nth allocation from now fail
// (0: none fails).
struct AllocCounters {
    long allocations; // allocations attempted since tracking began
    long live;        // blocks allocated and not yet released
};
void mem_tracking_start(long fail_at);
AllocCounters mem_tracking_stop();

} // namespace zldap

#endif
