// What the cache writer, the direct cache reader, the read-through cache and
// the inspection share: slot access within the table and the data area,
// and the tick order of slots.
//
// A cache sector's slots are given out from 0 upward and keep their place
// until a reset: slot k holds dwPrimarySize bytes at dwStartOffset +
// k * dwPrimarySize, and iPrimaryBoundary names the last one given out.
// Slots are not in tick order: every read is a scan of at most 36 slots.
//
// The direct writer and reader take no lock (one writer per sector); the
// read-through path allocates under the sector's semaphore. Every word
// another process may change is loaded and stored as one aligned word.
#ifndef MOLK_FRAMESTORE_CACHE_H
#define MOLK_FRAMESTORE_CACHE_H

#include <cstdint>

#include "framestore/clock.h"
#include "framestore/ring.h"

namespace shm {

constexpr int kLastSlot = kCacheEntries - 1;
// A slot that a search for the next item passes over: hidden, given up or
// being written.
constexpr uint32_t kSlotUnreadable = SHM_FRAME_FORBIDDEN | SHM_FRAME_ERROR | SHM_FRAME_WRITING;
// A slot the writer may not take without a search: unread or being written.
constexpr uint32_t kSlotKept = SHM_FRAME_UNREAD | SHM_FRAME_WRITING;

inline SharedMemCacheHeader *CacheOf(SharedMemHandle *handle) {
    return reinterpret_cast<SharedMemCacheHeader *>(handle->ptHeader);
}

inline bool InCacheTable(int slot) { return slot >= 0 && slot <= kLastSlot; }

// The highest slot a walk may touch: iPrimaryBoundary, never past the
// table, whatever the segment says. -1 when no slot was given out.
inline int LastPrimarySlot(const SharedMemCacheHeader *cache) {
    int boundary = LoadIndex(cache->iPrimaryBoundary);
    return boundary < kLastSlot ? boundary : kLastSlot;
}

// The same for iSecondaryEnd, the last slot a release may name.
inline int LastNamedSlot(const SharedMemCacheHeader *cache) {
    int end = LoadIndex(cache->iSecondaryEnd);
    return end < kLastSlot ? end : kLastSlot;
}

inline uint32_t SlotTick(const SharedMemCacheHeader *cache, int slot) {
    return LoadWord(cache->atCache[slot].dwTimeTick);
}
inline uint32_t SlotFlags(const SharedMemCacheHeader *cache, int slot) {
    return __atomic_load_n(&cache->atCache[slot].dwFlags, __ATOMIC_ACQUIRE);
}
// Publishes a slot's flag word after its tick and size.
inline void PublishSlotFlags(SharedMemCacheEntry &entry, uint32_t flags) {
    __atomic_store_n(&entry.dwFlags, flags, __ATOMIC_RELEASE);
}

// The slot holds the read-through copy named by `key` of a frame of `size`
// bytes. Acquire: a copy published without the lock is whole once its key
// shows.
inline bool HoldsCopy(const SharedMemCacheEntry &slot, uint32_t key, uint32_t size) {
    return __atomic_load_n(&slot.dwFlags, __ATOMIC_ACQUIRE) == key &&
           LoadWord(slot.dwSize) == size;
}

// Address of a slot's data when its first `length` bytes lie inside the
// sector's data area, else null: the offset comes from the segment.
uint8_t *SlotData(void *base, const SharedMemCacheHeader *cache, int slot, uint32_t length);

// The index of the sector's oldest or latest slot when it names a slot of
// the table, else -1.
int OldestSlot(const SharedMemCacheHeader *cache);
int LatestSlot(const SharedMemCacheHeader *cache);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_CACHE_H
