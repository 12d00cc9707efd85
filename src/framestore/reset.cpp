// Emptying a sector under its lock. Pins go with the entries: a reader that
// still holds a frame learns of it at its release.
#include <cstring>

#include "framestore/lock.h"
#include "framestore/log.h"
#include "framestore/segment.h"

namespace {

void EmptyRing(SharedMemSectorHeader *ring) {
    memset(ring->atFrame, 0, sizeof ring->atFrame);
    ring->iOldestIndex = -1;
    ring->iLatestIndex = -1;
    ring->iBoundaryIndex = -1;
    ring->iWriteIndex = 0;
    ring->dwDuration = 0;
    ring->dwWriteOffset = ring->dwStartOffset;
}

// All slots are given up and handed out anew from 0; dwOverwrittenFlags stays.
void EmptyCache(SharedMemCacheHeader *cache) {
    cache->iOldestIndex = -1;
    cache->iLatestIndex = -1;
    cache->iPrimaryBoundary = -1;
    cache->iSecondaryBoundary = -1;
    cache->iWriteIndex = 0;
    memset(reinterpret_cast<uint8_t *>(cache) + shm::kCacheEntriesOffset, 0,
           shm::kSlotSize - shm::kCacheEntriesOffset);
    cache->dwLeftSize = cache->dwEndOffset - cache->dwStartOffset;
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_ResetHeader(void *ptHeader, int iSemId, int iSectorIndex) {
    if (ptHeader == nullptr) return -1;
    uint32_t type = shm::SlotType(ptHeader);
    if (type != SHM_SECTOR_RING && type != SHM_SECTOR_CACHE) {
        shm::LogError("SharedMem_ResetHeader Unknown type %x\n", type);
        return -1;
    }
    shm::SectorLock lock(iSemId, iSectorIndex);
    if (!lock.held()) return 0;
    if (type == SHM_SECTOR_RING) {
        EmptyRing(static_cast<SharedMemSectorHeader *>(ptHeader));
    } else {
        EmptyCache(static_cast<SharedMemCacheHeader *>(ptHeader));
    }
    return 0;
}

MOLK_API int SharedMem_Reset(SharedMemHandle *ptHandle) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return -1;
    return SharedMem_ResetHeader(ptHandle->ptHeader, ptHandle->iSemId, ptHandle->iSectorIndex);
}

}  // extern "C"
