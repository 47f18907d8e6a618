// The pool of uuid-index entries. Entries come from 64 KiB slabs, so that
// the entries of a large index lie close together: a lookup walking a bucket
// chain then stays within a few pages instead of landing on a new page, among
// the element records, at every entry. Slabs are shared by all contexts and
// freed once empty.
//
// Invariants, all under pool.lock:
//  1. pool.slabs holds the address of every live slab, each once, in
//     ascending order; slab_count of them, within capacity.
//  2. A slab's live count is the number of its slots handed out and not
//     freed; a slab whose count drops to 0 is unregistered and freed at once.
//  3. A slab is on the open list exactly when it has room (live below
//     usable_slots); the flag open says which, and entries come from the
//     first open slab.
//  4. Slots below fresh were handed out at least once; a slot that is free
//     again is on its slab's free_slots list, and under AddressSanitizer
//     poisoned until handed out again.
#define ZR_SOURCE "src/entry_pool"
#include "internal.h"
#include "entry_pool.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>

// Slots the pool holds free are poisoned under AddressSanitizer, so that an
// entry used after cfg_delete_elem or cfg_free_element is reported as it
// would be for a malloc'd one. Elsewhere the two calls do nothing.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZR_POOL_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ZR_POOL_ASAN 1
#endif
#ifdef ZR_POOL_ASAN
#include <sanitizer/asan_interface.h>
#define ZR_POISON(address, size) ASAN_POISON_MEMORY_REGION((address), (size))
#define ZR_UNPOISON(address, size) ASAN_UNPOISON_MEMORY_REGION((address), (size))
#else
#define ZR_POISON(address, size) ((void)(address), (void)(size))
#define ZR_UNPOISON(address, size) ((void)(address), (void)(size))
#endif

namespace {

constexpr size_t slab_bytes = 64 * 1024;

union slot {
    cfg_index_entry entry;
    slot *next_free;
};

// The head of a slab; the slots follow it.
struct slab {
    slab *prev_open;
    slab *next_open;
    slot *free_slots; // slots freed since the slab was made
    size_t live;
    size_t fresh; // the first slot never handed out
    bool open;    // on the list of slabs with room
};

constexpr size_t first_slot = (sizeof(slab) + sizeof(slot) - 1) / sizeof(slot);
constexpr size_t slot_count = slab_bytes / sizeof(slot);
constexpr size_t usable_slots = slot_count - first_slot;

slot *slots_of(slab *s)
{
    return reinterpret_cast<slot *>(s);
}

// Every slab's address in ascending order, in a plain malloc'd array so
// that nothing is left allocated once the last entry is gone.
struct pool_state {
    std::mutex lock;
    slab *open = nullptr; // slabs with room; entries come from the first
    slab *open_last = nullptr;
    uintptr_t *slabs = nullptr;
    size_t slab_count = 0;
    size_t capacity = 0;
};
pool_state pool;

// The slab holding address, or null when no slab does.
slab *slab_holding(const void *address)
{
    auto at = reinterpret_cast<uintptr_t>(address);
    uintptr_t *end = pool.slabs + pool.slab_count;
    uintptr_t *after = std::upper_bound(pool.slabs, end, at);
    if (after == pool.slabs || at - after[-1] >= slab_bytes)
        return nullptr;
    return reinterpret_cast<slab *>(after[-1]);
}

// Keeps invariant 1. Running out of memory here ends the process with
// status -1, as the index's own allocations do.
bool register_slab(slab *s)
{
    if (pool.slab_count == pool.capacity) {
        size_t capacity = pool.capacity != 0 ? 2 * pool.capacity : 16;
        void *grown = realloc(pool.slabs, capacity * sizeof(uintptr_t));
        if (grown == nullptr)
            exit(-1);
        pool.slabs = static_cast<uintptr_t *>(grown);
        pool.capacity = capacity;
    }
    auto at = reinterpret_cast<uintptr_t>(s);
    uintptr_t *end = pool.slabs + pool.slab_count;
    uintptr_t *place = std::upper_bound(pool.slabs, end, at);
    std::move_backward(place, end, end + 1);
    *place = at;
    pool.slab_count++;
    return true;
}

void unregister_slab(slab *s)
{
    auto at = reinterpret_cast<uintptr_t>(s);
    uintptr_t *end = pool.slabs + pool.slab_count;
    uintptr_t *place = std::lower_bound(pool.slabs, end, at);
    std::move(place + 1, end, place);
    if (--pool.slab_count == 0) {
        free(pool.slabs);
        pool.slabs = nullptr;
        pool.capacity = 0;
    }
}

// A new slab goes first, to be filled next; a full one that regains room
// goes last, so that the slab being filled stays the same.
void open_slab(slab *s, bool first)
{
    s->open = true;
    s->prev_open = first ? nullptr : pool.open_last;
    s->next_open = first ? pool.open : nullptr;
    (s->prev_open != nullptr ? s->prev_open->next_open : pool.open) = s;
    (s->next_open != nullptr ? s->next_open->prev_open : pool.open_last) = s;
}

void close_slab(slab *s)
{
    (s->prev_open != nullptr ? s->prev_open->next_open : pool.open) = s->next_open;
    (s->next_open != nullptr ? s->next_open->prev_open : pool.open_last) = s->prev_open;
    s->open = false;
}

slab *new_slab()
{
    auto *s = static_cast<slab *>(malloc(slab_bytes));
    if (s == nullptr)
        exit(-1); // an index allocation: ends the process, as the index does
    if (!register_slab(s)) {
        free(s);
        return nullptr;
    }
    *s = slab{};
    s->fresh = first_slot;
    ZR_POISON(&slots_of(s)[first_slot], usable_slots * sizeof(slot));
    open_slab(s, true);
    return s;
}

slot *take_slot(slab *s)
{
    slot *taken = s->free_slots != nullptr ? s->free_slots : &slots_of(s)[s->fresh++];
    ZR_UNPOISON(taken, sizeof *taken);
    if (taken == s->free_slots)
        s->free_slots = taken->next_free;
    return taken;
}

} // namespace

// Keeps invariants 2 to 4.
cfg_index_entry *zr::new_index_entry()
{
    std::lock_guard<std::mutex> guard(pool.lock);
    slab *s = pool.open != nullptr ? pool.open : new_slab();
    if (s == nullptr)
        return nullptr;
    slot *taken = take_slot(s);
    if (++s->live == usable_slots)
        close_slab(s);
    memset(taken, 0, sizeof *taken);
    return &taken->entry;
}

// An entry the pool did not make (a caller's own malloc'd one) is freed.
// Keeps invariants 1 to 4.
void zr::free_index_entry(cfg_index_entry *entry)
{
    if (entry == nullptr)
        return;
    std::lock_guard<std::mutex> guard(pool.lock);
    slab *s = slab_holding(entry);
    if (s == nullptr) {
        free(entry);
        return;
    }
    auto *freed = reinterpret_cast<slot *>(entry);
    freed->next_free = s->free_slots;
    s->free_slots = freed;
    ZR_POISON(freed, sizeof *freed);
    if (--s->live == 0) {
        if (s->open)
            close_slab(s);
        unregister_slab(s);
        ZR_UNPOISON(s, slab_bytes);
        free(s);
    } else if (!s->open) {
        open_slab(s, false);
    }
}
