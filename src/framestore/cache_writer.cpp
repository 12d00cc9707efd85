// The cache writer: which slot the next item goes to, and its publication.
//
// New slots are given out while the data area has room for one, so that no
// item is destroyed before it must be; after that the oldest slot that
// nobody holds is taken again. A slot's flag word says where it stands:
// 0 never used, exactly SHM_FRAME_WRITING while taken, the caller's word
// once completed, exactly SHM_FRAME_ERROR when given up.
//
// The direct writer takes no lock (one writer per sector). Readers of a
// ring that copy frames into the sector allocate under its semaphore.
#include <cstdio>

#include "framestore/cache.h"
#include "framestore/clock.h"

namespace {

using shm::kTraceCacheSearch;

// Search mask of SharedMem_SearchOldestBufferIndex.
enum SearchMask : uint32_t {
    kSkipPinned = 1,
    kSkipWriting = 2,
    kStopAtStrange = 4,
    kSkipUnreadOnce = 8,
};

bool HasPins(const SharedMemCacheHeader *cache, int slot) {
    return shm::HasPins(cache->atCache[slot].abyAccessCount);
}

// True when slot i must be passed over under `mask`. Passing over an
// unread slot with the flag word last overwritten forgives it once.
bool PassOver(SharedMemCacheHeader *cache, int i, uint32_t mask) {
    uint32_t flags = shm::SlotFlags(cache, i);
    if ((mask & kSkipPinned) && HasPins(cache, i)) {
        SHM_TRACE(kTraceCacheSearch, "caching search %d been occupied\n", i);
        return true;
    }
    if ((mask & kSkipWriting) && (flags & SHM_FRAME_WRITING)) {
        SHM_TRACE(kTraceCacheSearch, "caching search %d been writing\n", i);
        return true;
    }
    if ((mask & kSkipUnreadOnce) && (flags & SHM_FRAME_UNREAD) &&
        flags == cache->dwOverwrittenFlags) {
        cache->dwOverwrittenFlags = 0;
        SHM_TRACE(kTraceCacheSearch, "caching search %d w %08x has not been read\n", i, flags);
        return true;
    }
    return false;
}

// The slot taken becomes the writer's. When it held the oldest item, the
// next oldest is found first; a slot alone keeps the indices as they are.
void TakeSlot(SharedMemCacheHeader *cache, int slot) {
    shm::PublishSlotFlags(cache->atCache[slot], SHM_FRAME_WRITING);
    if (slot != shm::LoadIndex(cache->iOldestIndex)) {
        shm::StoreIndex(cache->iWriteIndex, slot);
        return;
    }
    // Pins and flags play no part here: any other slot may be the oldest.
    int oldest = SharedMem_SearchOldestBufferIndex(cache, slot, kStopAtStrange);
    if (oldest < 0) {
        SHM_TRACE(kTraceCacheSearch, "found no oldest index???");
        return;
    }
    shm::StoreIndex(cache->iOldestIndex, oldest);
    shm::StoreIndex(cache->iWriteIndex, slot);
}

// Which slot to take again: the one the writer gave up, else the oldest
// when it is free, else the oldest free one a search finds. -1 for none.
int ReusableSlot(SharedMemCacheHeader *cache) {
    int writing = shm::LoadIndex(cache->iWriteIndex);
    if (shm::InCacheTable(writing) && (shm::SlotFlags(cache, writing) & SHM_FRAME_ERROR)) {
        return writing;
    }
    int last = shm::LastPrimarySlot(cache);
    if (last < 0) {
        printf("No buffer!!");
        return -1;
    }
    int oldest = shm::LoadIndex(cache->iOldestIndex);
    if (oldest >= 0 && oldest <= last && !HasPins(cache, oldest) &&
        !(shm::SlotFlags(cache, oldest) & shm::kSlotKept)) {
        return oldest;
    }
    uint32_t mask = kSkipPinned | kSkipWriting | kStopAtStrange;
    if (cache->dwOverwrittenFlags != 0) mask |= kSkipUnreadOnce;
    int found = SharedMem_SearchOldestBufferIndex(cache, -1, mask);
    if (found < 0) return -1;
    uint32_t flags = shm::SlotFlags(cache, found);
    if (flags & SHM_FRAME_UNREAD) {
        cache->dwOverwrittenFlags = flags;
        SHM_TRACE(shm::kTraceCacheFailure, "overwrite write cache[%d] w %08x\n", found, flags);
    }
    return found;
}

bool IsCacheSector(const SharedMemCacheHeader *cache) {
    if (cache->dwSectorType == SHM_SECTOR_CACHE) return true;
    shm::LogError("Must be mode %d sector!!\n", static_cast<int>(SHM_SECTOR_CACHE));
    return false;
}

// The tick an update stamps: the caller's, or the clock's. Two stamps in
// one millisecond would give two items one tick; the second goes one past
// the latest item instead, so that ticks in a sector stay distinct.
uint32_t StampTick(SharedMemHandle *handle, const SharedMemCacheHeader *cache, uint32_t given) {
    if (given != 0) return given;
    uint32_t tick = shm::CurrentTick();
    if (tick != handle->dwLastCacheTick) {
        handle->dwLastCacheTick = tick;
        return tick;
    }
    SHM_LOG(shm::kLevelTrace, "Two frames get the same tick time %d\n", static_cast<int>(tick));
    int latest = shm::LatestSlot(cache);
    uint32_t next = (latest >= 0 ? shm::SlotTick(cache, latest) : tick) + 1;
    return next != 0 ? next : 1;
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_AssignNewBuffer(SharedMemCacheHeader *ptHeader, uint32_t dwBufferType) {
    if (ptHeader == nullptr) return -1;
    if (dwBufferType != SHM_BUFFER_PRIMARY) {
        SHM_LOG(shm::kLevelTrace, "Not support secondary buffer for now!");
        return -1;
    }
    if (ptHeader->dwLeftSize < ptHeader->dwPrimarySize) {
        printf("No memory for new primary buffer!!");
        return -1;
    }
    int slot = shm::LoadIndex(ptHeader->iPrimaryBoundary) + 1;
    if (!shm::InCacheTable(slot)) {
        printf("Cache buffer NOT enough !!");
        return -1;
    }
    uint32_t offset = ptHeader->dwStartOffset + static_cast<uint32_t>(slot) * ptHeader->dwPrimarySize;
    shm::StoreWord(ptHeader->atCache[slot].dwOffset, offset);
    ptHeader->dwLeftSize -= ptHeader->dwPrimarySize;
    shm::StoreIndex(ptHeader->iWriteIndex, slot);
    shm::StoreIndex(ptHeader->iPrimaryBoundary, slot);
    SHM_LOG(shm::kLevelTrace,
            "Assign index: %d, dwLeftSize: %u. Boundary: Primary=%d, Secondary=%d\n", slot,
            ptHeader->dwLeftSize, slot, ptHeader->iSecondaryBoundary);
    return 0;
}

MOLK_API int SharedMem_SearchOldestBufferIndex(SharedMemCacheHeader *ptHeader, int iSkipIndex,
                                               uint32_t dwMask) {
    if (ptHeader == nullptr) return -1;
    int latest = shm::LatestSlot(ptHeader);
    if (shm::OldestSlot(ptHeader) < 0 || latest < 0 || shm::LastPrimarySlot(ptHeader) < 0) {
        return -1;
    }
    uint32_t latestTick = shm::SlotTick(ptHeader, latest);
    uint32_t best = latestTick;
    int found = -1;
    for (int i = 0; i <= shm::LastPrimarySlot(ptHeader); ++i) {
        if (i == iSkipIndex) {
            SHM_TRACE(kTraceCacheSearch, "caching search skip %d\n", i);
            continue;
        }
        if (PassOver(ptHeader, i, dwMask)) continue;
        uint32_t tick = shm::SlotTick(ptHeader, i);
        if ((dwMask & kStopAtStrange) && shm::TickLater(tick, latestTick)) {
            SHM_TRACE(kTraceCacheSearch, "found strange cache %d %u newer than latest one %u\n",
                      i, tick, latestTick);
            return i;
        }
        if (shm::TickLater(tick, best)) continue;
        best = tick;
        found = i;
        SHM_TRACE(kTraceCacheSearch, "caching search older one %d\n", i);
    }
    return found;
}

MOLK_API int SharedMem_AssignAvailableWriteBuffer(SharedMemCacheHeader *ptHeader,
                                                  uint32_t dwBufferType) {
    if (ptHeader == nullptr) return -1;
    if (dwBufferType != SHM_BUFFER_PRIMARY) {
        printf("No buffer!!");
        return -1;
    }
    int slot = ReusableSlot(ptHeader);
    if (slot < 0) return -1;
    TakeSlot(ptHeader, slot);
    return 0;
}

MOLK_API int SharedMem_QueryWriteCache_Internal(SharedMemCacheHeader *ptHeader, uint32_t dwSize) {
    if (ptHeader == nullptr || !IsCacheSector(ptHeader)) return -1;
    uint32_t slotSize = ptHeader->dwPrimarySize;
    if (dwSize > slotSize) {
        shm::LogError("request too large %u > %u\n", dwSize, slotSize);
        return -1;
    }
    if (slotSize <= ptHeader->dwLeftSize) {
        if (SharedMem_AssignNewBuffer(ptHeader, SHM_BUFFER_PRIMARY) != 0) {
            SHM_LOG(shm::kLevelCacheFailure, "Fail to assign new buffer to write!");
            return -1;
        }
        SHM_LOG(shm::kLevelConflict, "Assign new buffer for write successully!");
    } else if (SharedMem_AssignAvailableWriteBuffer(ptHeader, SHM_BUFFER_PRIMARY) != 0) {
        SHM_LOG(shm::kLevelCacheFailure, "No available buffers to write!");
        return -1;
    }
    int boundary = shm::LoadIndex(ptHeader->iPrimaryBoundary);
    if (boundary < 0 || shm::LoadIndex(ptHeader->iWriteIndex) > boundary) {
        SHM_LOG(shm::kLevelCacheFailure, "Queried invalid write cache?");
        return -1;
    }
    return 0;
}

MOLK_API int SharedMem_QueryWriteCache(SharedMemHandle *ptHandle, uint8_t **ppbyBuffer,
                                       uint32_t dwSize) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return -1;
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    if (SharedMem_QueryWriteCache_Internal(cache, dwSize) != 0) return -1;
    int slot = shm::LoadIndex(cache->iWriteIndex);
    uint8_t *data = shm::SlotData(ptHandle->pvBase, cache, slot, cache->dwPrimarySize);
    if (data == nullptr) {
        shm::LogError("%.35s: cache slot %d lies outside the data area\n", cache->szTag, slot);
        return -1;
    }
    shm::PublishSlotFlags(cache->atCache[slot], SHM_FRAME_WRITING);
    if (ppbyBuffer != nullptr) *ppbyBuffer = data;
    return 0;
}

MOLK_API int SharedMem_UpdateWritedCache(SharedMemHandle *ptHandle, SharedMemWriteInfo *ptInfo) {
    if (ptHandle == nullptr || ptInfo == nullptr || ptHandle->ptHeader == nullptr) {
        shm::LogError("Invalid argument!!");
        return -1;
    }
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    if (!IsCacheSector(cache)) return -1;
    if (ptInfo->dwSize > cache->dwPrimarySize) {
        shm::LogError("Written size %u is larger than buffer size %u!!\n", ptInfo->dwSize,
                      cache->dwPrimarySize);
        return -1;
    }
    int slot = shm::LoadIndex(cache->iWriteIndex);
    if (!shm::InCacheTable(slot)) {
        shm::LogError("%.35s: write slot %d out of range\n", cache->szTag, slot);
        return -1;
    }
    ptInfo->dwTimeTick = StampTick(ptHandle, cache, ptInfo->dwTimeTick);
    SharedMemCacheEntry &entry = cache->atCache[slot];
    // A slot given up keeps its former size.
    bool givenUp = (ptInfo->dwFlags & SHM_FRAME_ERROR) != 0;
    if (!givenUp) shm::StoreWord(entry.dwSize, ptInfo->dwSize);
    shm::StoreWord(entry.dwTimeTick, ptInfo->dwTimeTick);
    shm::PublishSlotFlags(entry, givenUp ? SHM_FRAME_ERROR : ptInfo->dwFlags);
    if (shm::LoadIndex(cache->iOldestIndex) < 0) shm::StoreIndex(cache->iOldestIndex, slot);
    shm::StoreIndex(cache->iLatestIndex, slot);
    return 0;
}

}  // extern "C"
