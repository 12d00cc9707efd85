#include "framestore/cache.h"

namespace shm {

uint8_t *SlotData(void *base, const SharedMemCacheHeader *cache, int slot, uint32_t length) {
    if (!InCacheTable(slot)) return nullptr;
    uint32_t offset = LoadWord(cache->atCache[slot].dwOffset);
    uint32_t start = cache->dwStartOffset;
    uint32_t end = cache->dwEndOffset;
    if (offset < start || end > cache->dwTotalSize || offset > end || length > end - offset) {
        return nullptr;
    }
    return AtOffset(base, offset);
}

int OldestSlot(const SharedMemCacheHeader *cache) {
    int slot = LoadIndex(cache->iOldestIndex);
    return InCacheTable(slot) ? slot : -1;
}

int LatestSlot(const SharedMemCacheHeader *cache) {
    int slot = LoadIndex(cache->iLatestIndex);
    return InCacheTable(slot) ? slot : -1;
}

}  // namespace shm
