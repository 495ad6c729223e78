// ber_element.cpp - BER element memory: allocation with the inline buffer,
// growth, copying in and out, resetting for reading, and freeing.
#include "ber/ber_internal.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

namespace {

// The record and its string settings: all that an element read from a
// connection needs, so a response can carry it inside its own record.
struct fber_head {
    berelement record;
    uint32_t no_xlate;
    int32_t version;
};

// A block from fber_alloc_t: the head, then the sequence stack, then the
// inline buffer; the stack stays aligned whatever the buffer size.
struct fber_block {
    fber_head head;
    ber_sos_stack stack;
    char inline_buffer[];
};

fber_head *head_of(BerElement *ber) { return reinterpret_cast<fber_head *>(ber); }

// Only blocks carry a stack, so only they have an inline buffer.
bool owns_buffer(BerElement *ber)
{
    return ber->ber_buf && !(ber->ber_sos && ber->ber_buf == reinterpret_cast<fber_block *>(ber)->inline_buffer);
}

// What the element owns outside its head.
void free_owned(BerElement *ber)
{
    if (owns_buffer(ber))
        zldap::mem_free(ber->ber_buf);
    if (ber->ber_version != &head_of(ber)->version)
        zldap::mem_free(ber->ber_version);
    if (ber->ber_no_xlate != &head_of(ber)->no_xlate)
        zldap::mem_free(ber->ber_no_xlate);
}

void init_record(berelement *ber)
{
    *ber = berelement{};
    ber->ber_tag = LBER_DEFAULT;
    ber->ber_options = kFberMarker;
}

} // namespace

BerElement *fber_alloc_t(int size)
{
    size_t capacity = size < 0 ? 0 : static_cast<size_t>(size);
    auto *block = static_cast<fber_block *>(zldap::mem_malloc(sizeof(fber_block) + capacity));
    if (!block)
        return nullptr;
    BerElement *ber = &block->head.record;
    init_record(ber);
    block->stack.sos_count = 0;
    ber->ber_buf = block->inline_buffer;
    ber->ber_ptr = ber->ber_buf;
    ber->ber_end = ber->ber_buf + capacity;
    ber->ber_sos = &block->stack;
    return ber;
}

size_t fber_reader_size() { return sizeof(fber_head); }

BerElement *fber_place_reader(void *memory)
{
    auto *head = new (memory) fber_head{};
    init_record(&head->record);
    return &head->record;
}

void fber_release_reader(BerElement *ber)
{
    if (ber)
        free_owned(ber);
}

BerElement *fber_alloc() { return fber_alloc_t(kFberDefaultSize); }

void fber_free(BerElement *ber)
{
    if (!ber)
        return;
    free_owned(ber);
    zldap::mem_free(ber);
}

void fber_set_string_settings(BerElement *ber, uint32_t no_xlate, int32_t version)
{
    fber_head *head = head_of(ber);
    head->no_xlate = no_xlate;
    head->version = version;
    ber->ber_no_xlate = &head->no_xlate;
    ber->ber_version = &head->version;
}

int fber_realloc(BerElement *ber, ber_len_t needed)
{
    size_t used = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
    size_t extra = std::max<size_t>(used, needed);
    if (extra > std::numeric_limits<ptrdiff_t>::max() - used)
        return -1;
    size_t capacity = used + extra;
    char *buffer = static_cast<char *>(zldap::mem_malloc(capacity));
    if (!buffer)
        return -1;
    if (used)
        std::memcpy(buffer, ber->ber_buf, used);
    if (owns_buffer(ber))
        zldap::mem_free(ber->ber_buf);
    ber->ber_buf = buffer;
    ber->ber_ptr = buffer + used;
    ber->ber_end = buffer + capacity;
    return 0;
}

long fber_write(BerElement *ber, const char *bytes, ber_len_t count)
{
    if (!ber || (!bytes && count) || count > static_cast<ber_len_t>(std::numeric_limits<long>::max()))
        return -1;
    if (count == 0)
        return 0;
    if (zldap::ber_reserve(ber, count) != 0)
        return -1;
    std::memcpy(ber->ber_ptr, bytes, count);
    ber->ber_ptr += count;
    return static_cast<long>(count);
}

void fber_reset(BerElement *ber, int was_writing)
{
    if (!ber)
        return;
    if (was_writing) {
        ber->ber_end = ber->ber_ptr;
        ber->ber_ptr = ber->ber_buf;
    } else {
        ber->ber_ptr = ber->ber_end;
    }
    ber->ber_rwptr = nullptr;
}

BerElement *fber_init2(const struct berval *bv)
{
    if (!bv)
        return nullptr;
    BerElement *ber = fber_alloc();
    if (!ber)
        return nullptr;
    if (fber_write(ber, bv->bv_val, bv->bv_len) < 0) {
        fber_free(ber);
        return nullptr;
    }
    fber_reset(ber, 1);
    return ber;
}

int fber_flatten(BerElement *ber, struct berval **bvp)
{
    if (!bvp)
        return -1;
    auto *bv = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
    if (bv && ber) {
        size_t len = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
        bv->bv_val = static_cast<char *>(zldap::mem_malloc(len + 1));
        if (bv->bv_val) {
            if (len)
                std::memcpy(bv->bv_val, ber->ber_buf, len);
            bv->bv_val[len] = '\0';
            bv->bv_len = len;
        } else {
            zldap::mem_free(bv);
            bv = nullptr;
        }
    }
    *bvp = bv;
    return bv ? 0 : -1;
}

void ber_bvfree(struct berval *bv)
{
    if (!bv)
        return;
    zldap::mem_free(bv->bv_val);
    zldap::mem_free(bv);
}

// The decoder makes an array, its bervals and their bytes in one block; a
// caller may build one piece by piece, or put its own values into ours.
// Whatever lies inside the array's block belongs to the block; whatever
// lies outside was allocated on its own.
void ber_bvecfree(struct berval **bvec)
{
    if (!bvec)
        return;
    auto start = reinterpret_cast<uintptr_t>(bvec);
    size_t size = zldap::mem_block_size(bvec);
    auto inside = [start, size](const void *p) { return reinterpret_cast<uintptr_t>(p) - start < size; };
    for (struct berval **p = bvec; *p; p++) {
        if (!inside(*p))
            ber_bvfree(*p);
        else if (!inside((*p)->bv_val))
            zldap::mem_free((*p)->bv_val);
    }
    zldap::mem_free(bvec);
}
