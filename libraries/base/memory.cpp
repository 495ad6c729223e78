// memory.cpp - the allocation seam and its test counters.
#include "base/memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace zldap {
namespace {

// Tracking is off in normal use: one relaxed load per allocation.
std::atomic<bool> g_tracking{false};
std::atomic<long> g_allocations{0};
std::atomic<long> g_live{0};
std::atomic<long> g_fail_at{0};

// Counts one allocation attempt; false when this one is to fail.
bool admit_allocation()
{
    if (!g_tracking.load(std::memory_order_relaxed))
        return true;
    long n = g_allocations.fetch_add(1, std::memory_order_relaxed) + 1;
    return n != g_fail_at.load(std::memory_order_relaxed);
}

void count_live(long delta)
{
    if (g_tracking.load(std::memory_order_relaxed))
        g_live.fetch_add(delta, std::memory_order_relaxed);
}

} // namespace

void *mem_malloc(size_t size)
{
    if (!admit_allocation())
        return nullptr;
    void *p = std::malloc(size == 0 ? 1 : size);
    if (p)
        count_live(1);
    return p;
}

// Small zeroed blocks come from malloc and are cleared here: glibc's calloc
// bypasses its per-thread cache, so the small blocks it hands out are
// cached when freed and never taken again, and once that cache is full
// they pile up in the bins that every large allocation then consolidates.
constexpr size_t kClearedHere = 1024;

void *mem_calloc(size_t count, size_t size)
{
    if (!admit_allocation())
        return nullptr;
    count = count == 0 ? 1 : count;
    size = size == 0 ? 1 : size;
    void *p;
    if (size <= kClearedHere && count <= kClearedHere / size) {
        p = std::malloc(count * size);
        if (p) {
            // Without this barrier the compiler merges malloc and memset
            // back into a call of calloc.
            __asm__ volatile("" : : "r"(p) : "memory");
            std::memset(p, 0, count * size);
        }
    } else {
        p = std::calloc(count, size);
    }
    if (p)
        count_live(1);
    return p;
}

void *mem_realloc(void *ptr, size_t size)
{
    if (!ptr)
        return mem_malloc(size);
    if (!admit_allocation())
        return nullptr;
    return std::realloc(ptr, size == 0 ? 1 : size);
}

char *mem_strdup(const char *text)
{
    if (!text)
        return nullptr;
    return mem_strndup(text, std::strlen(text));
}

char *mem_strndup(const char *text, size_t len)
{
    if (!text)
        return nullptr;
    size_t n = strnlen(text, len);
    char *copy = static_cast<char *>(mem_malloc(n + 1));
    if (copy) {
        std::memcpy(copy, text, n);
        copy[n] = '\0';
    }
    return copy;
}

void mem_free(void *ptr)
{
    if (!ptr)
        return;
    count_live(-1);
    std::free(ptr);
}

size_t mem_block_size(const void *block) { return block ? malloc_usable_size(const_cast<void *>(block)) : 0; }

void mem_tracking_start(long fail_at)
{
    g_allocations.store(0, std::memory_order_relaxed);
    g_live.store(0, std::memory_order_relaxed);
    g_fail_at.store(fail_at, std::memory_order_relaxed);
    g_tracking.store(true, std::memory_order_seq_cst);
}

AllocCounters mem_tracking_stop()
{
    g_tracking.store(false, std::memory_order_seq_cst);
    g_fail_at.store(0, std::memory_order_relaxed);
    return {g_allocations.load(std::memory_order_relaxed), g_live.load(std::memory_order_relaxed)};
}

} // namespace zldap
