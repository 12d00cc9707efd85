// The direct cache reader: next item by tick, a known item by its pointer,
// the release of a pin, and showing a hidden slot.
//
// A direct reader's place is the tick of the item it read last
// (dwLastTimeTick), not its slot: slots are reused in any order, so time
// alone says what comes next. A reader whose tick fell out of the sector's
// range starts again at the oldest slot. Nothing here takes a lock: each
// AttachID owns its own pin byte, and the one writer never waits.
#include <cstdio>
#include <cstdlib>

#include "framestore/cache.h"

namespace {

constexpr uint32_t kNoClass = 0xFFFFFFFFu;  // shown for a query without a request

// Guards shared by every direct read. On false the failure was reported.
bool ReadableCache(SharedMemHandle *handle) {
    if (handle == nullptr || handle->ptHeader == nullptr) {
        shm::LogError("Invalid argument!!");
        return false;
    }
    if (shm::CacheOf(handle)->dwSectorType != SHM_SECTOR_CACHE) {
        shm::LogError("Must be mode %d sector!!\n", static_cast<int>(SHM_SECTOR_CACHE));
        return false;
    }
    return true;
}

bool HasItems(const SharedMemCacheHeader *cache) {
    if (shm::LoadIndex(cache->iOldestIndex) >= 0 && shm::LoadIndex(cache->iLatestIndex) >= 0) {
        return true;
    }
    SHM_LOG(shm::kLevelTrace, "No frame in buffer!!");
    return false;
}

// The client of a query: the caller's, or a new one left zero.
SharedMemBufClient *ClientOf(SharedMemBufClient **pptClient, SharedMemReadRequest *request) {
    if (*pptClient == nullptr) {
        *pptClient = static_cast<SharedMemBufClient *>(calloc(1, sizeof **pptClient));
        if (*pptClient == nullptr) {
            if (request != nullptr) request->dwReason = SHM_REASON_NO_MEMORY;
            shm::LogError("malloc client buffer fail!");
        }
    }
    return *pptClient;
}

// The client now stands on `slot`: its place, the read mark, its pin.
void Take(SharedMemHandle *handle, SharedMemBufClient *client, SharedMemCacheHeader *cache,
          int slot) {
    SharedMemCacheEntry &entry = cache->atCache[slot];
    client->iLastIndex = slot;
    client->dwLastTimeTick = shm::LoadWord(entry.dwTimeTick);
    __atomic_fetch_and(&entry.dwFlags, ~SHM_FRAME_UNREAD, __ATOMIC_RELAXED);
    shm::RaisePin(entry.abyAccessCount, slot, handle->iAttachId);
}

// The segment offset of a pointer into this handle's mapping; false for a
// pointer outside it.
bool OffsetOfPointer(const SharedMemHandle *handle, const uint8_t *data, uint32_t *offset) {
    const uint8_t *base = static_cast<const uint8_t *>(handle->pvBase);
    if (data < base || static_cast<uint64_t>(data - base) > UINT32_MAX) return false;
    *offset = static_cast<uint32_t>(data - base);
    return true;
}

// The first slot, from 0, whose data starts at `data`; -1 for none.
int SlotAtPointer(const SharedMemHandle *handle, const SharedMemCacheHeader *cache,
                  const uint8_t *data) {
    uint32_t offset = 0;
    if (!OffsetOfPointer(handle, data, &offset)) return -1;
    for (int i = 0; i <= shm::LastPrimarySlot(cache); ++i) {
        if (shm::LoadWord(cache->atCache[i].dwOffset) == offset) return i;
    }
    return -1;
}

// Whether a slot found by its pointer may be handed out.
bool PointerSlotReadable(const SharedMemCacheHeader *cache, int slot) {
    if (slot < 0) return false;
    uint32_t flags = shm::SlotFlags(cache, slot);
    const char *why = (flags & SHM_FRAME_WRITING) ? ">>>>>>>>>>>>>>>>>>>>>>> WRITING ..."
                      : (flags & SHM_FRAME_ERROR) ? ">>>>>>>>>>>>>>>>>>>>>>> FrameError ..."
                                                  : nullptr;
    if (why != nullptr) {
        printf("[%s] %s\n", "SharedMem_QueryReadCacheByPointer", why);
        return false;
    }
    return slot <= shm::LastNamedSlot(cache);
}

// Lowers this handle's pin on `slot`. No lock: the byte is this AttachID's.
int DropPin(SharedMemHandle *handle, int slot) {
    if (!shm::PinsCounted(handle->iAttachId)) return 0;
    SharedMemCacheHeader *cache = shm::CacheOf(handle);
    if (!shm::InCacheTable(slot) || slot > shm::LastNamedSlot(cache)) {
        shm::LogError("Attempt to release out-bounded cache");
        return -1;
    }
    if (!shm::LowerPin(cache->atCache[slot].abyAccessCount, slot, handle->iAttachId)) {
        SHM_LOG(shm::kLevelConflict, "release unoccupied buffer?");
    }
    return 0;
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_SearchNextCacheIndex(SharedMemCacheHeader *ptHeader,
                                            uint32_t dwRefTimeTick,
                                            SharedMemReadRequest *ptRequest) {
    if (ptHeader == nullptr) return -1;
    uint32_t wanted = ptRequest != nullptr ? ptRequest->dwCacheClass : 0;
    int best = -1;
    uint32_t bestTick = 0;
    for (int i = 0; i <= shm::LastPrimarySlot(ptHeader); ++i) {
        uint32_t flags = shm::SlotFlags(ptHeader, i);
        uint32_t tick = shm::SlotTick(ptHeader, i);
        if (wanted != 0 && wanted != (flags >> 16)) continue;
        if (!shm::TickLater(tick, dwRefTimeTick) || (flags & shm::kSlotUnreadable)) continue;
        // Of equal ticks the lower slot stands.
        if (best < 0 || shm::TickLater(bestTick, tick)) {
            best = i;
            bestTick = tick;
        }
    }
    return best;
}

MOLK_API int SharedMem_QueryReadCache_Internal(SharedMemHandle *ptHandle,
                                               SharedMemBufClient *ptClient,
                                               SharedMemReadRequest *ptRequest) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr || ptClient == nullptr) return -1;
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    int latest = shm::LatestSlot(cache);
    int oldest = shm::OldestSlot(cache);
    if (latest < 0 || oldest < 0) return -1;
    if (ptClient->iLastIndex == latest && shm::SlotTick(cache, latest) == ptClient->dwLastTimeTick) {
        SHM_LOG(shm::kLevelTrace, "already latest cache!");
        return -1;
    }
    // A reader that fell out of the sector's range starts at the oldest.
    bool inRange = SharedMem_CheckClientValidByTimeTick(cache, ptClient) == 0;
    uint32_t reference = inRange ? ptClient->dwLastTimeTick : shm::SlotTick(cache, oldest) - 1;
    int why = inRange ? 0 : 1;
    int slot = SharedMem_SearchNextCacheIndex(cache, reference, ptRequest);
    if (shm::LoadIndex(cache->iPrimaryBoundary) < 0 || slot > shm::LastPrimarySlot(cache)) {
        slot = -1;
        why = 4;
    }
    if (slot < 0 || slot > shm::LastNamedSlot(cache)) {
        SHM_TRACE(shm::kTraceCacheFailure, "Query next read cache fail! %d case %d, %u %08x\n",
                  slot, why, reference, ptRequest != nullptr ? ptRequest->dwCacheClass : kNoClass);
        return -1;
    }
    Take(ptHandle, ptClient, cache, slot);
    return 0;
}

MOLK_API int SharedMem_QueryReadCache(SharedMemHandle *ptHandle, SharedMemBufClient **pptClient,
                                      uint8_t **ppbyData, uint32_t *pdwSize,
                                      SharedMemReadRequest *ptRequest) {
    if (pptClient == nullptr) ptHandle = nullptr;  // reported as an invalid argument
    if (!ReadableCache(ptHandle)) return -1;
    SharedMemBufClient *client = ClientOf(pptClient, ptRequest);
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    if (client == nullptr || !HasItems(cache)) return -1;
    if (SharedMem_QueryReadCache_Internal(ptHandle, client, ptRequest) != 0) return -1;
    int slot = client->iLastIndex;
    uint32_t size = shm::LoadWord(cache->atCache[slot].dwSize);
    uint8_t *data = shm::SlotData(ptHandle->pvBase, cache, slot, size);
    if (data == nullptr) {
        shm::LogError("%.35s: cache slot %d lies outside the data area\n", cache->szTag, slot);
        DropPin(ptHandle, slot);
        return -1;
    }
    if (ppbyData != nullptr) *ppbyData = data;
    if (pdwSize != nullptr) *pdwSize = size;
    return 0;
}

MOLK_API int SharedMem_QueryReadCacheByPointer(SharedMemHandle *ptHandle,
                                               SharedMemBufClient **pptClient, uint8_t *pbyData) {
    if (pptClient == nullptr) ptHandle = nullptr;
    if (!ReadableCache(ptHandle)) return -1;
    SharedMemBufClient *client = ClientOf(pptClient, nullptr);
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    if (client == nullptr || !HasItems(cache)) return -1;
    int slot = SlotAtPointer(ptHandle, cache, pbyData);
    if (!PointerSlotReadable(cache, slot)) {
        SHM_TRACE(shm::kTraceCacheFailure, "Query specific cache fail!");
        return -1;
    }
    Take(ptHandle, client, cache, slot);
    return 0;
}

MOLK_API int SharedMem_ClearFobiddenReadCacheByPointer(SharedMemHandle *ptHandle,
                                                       uint8_t *pbyData) {
    if (!ReadableCache(ptHandle)) return -1;
    SharedMemCacheHeader *cache = shm::CacheOf(ptHandle);
    if (!HasItems(cache)) return -1;
    uint32_t offset = 0;
    if (!OffsetOfPointer(ptHandle, pbyData, &offset)) return -1;
    bool matched = false;
    for (int i = 0; i <= shm::LastPrimarySlot(cache); ++i) {
        SharedMemCacheEntry &entry = cache->atCache[i];
        if (shm::LoadWord(entry.dwOffset) != offset) continue;
        uint32_t flags = shm::SlotFlags(cache, i);
        shm::PublishSlotFlags(entry, (flags & ~SHM_FRAME_FORBIDDEN) | SHM_FRAME_UNREAD);
        matched = true;
    }
    return matched ? 0 : -1;
}

MOLK_API int SharedMem_ReleaseReadCache(SharedMemHandle *ptHandle, SharedMemBufClient *ptClient) {
    if (ptClient == nullptr) ptHandle = nullptr;
    if (!ReadableCache(ptHandle)) return -1;
    return DropPin(ptHandle, ptClient->iLastIndex);
}

MOLK_API int SharedMem_ReleaseReadCacheIndex(SharedMemHandle *ptHandle, int iSlot) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) {
        shm::LogError("Invalid argument!!");
        return -1;
    }
    // The slot is judged before the sector's type.
    if (!shm::InCacheTable(iSlot) || iSlot > shm::LastNamedSlot(shm::CacheOf(ptHandle))) {
        shm::LogError("Attempt to release out-bounded cache");
        return -1;
    }
    if (!ReadableCache(ptHandle)) return -1;
    return DropPin(ptHandle, iSlot);
}

}  // extern "C"
