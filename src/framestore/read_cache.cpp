// The read-through cache: a ring frame that a reader must not pin for long
// is copied once into a slot of the handle's companion cache sector, and
// every reader of that sector that asks for the same frame gets the same
// copy. The ring entry is free as soon as the query returns.
//
// A copy's key is (ring entry << 16) | (ring sector << 8), kept as the
// slot's flag word; the slot's first 4 bytes hold the ring frame's tick,
// which proves the copy, since the ring reuses its entry numbers. The
// frame's bytes follow from slot offset 4.
//
// Locks: the cache sector's for finding or assigning the slot and pinning
// it, none for the copy (the slot's pin guards it), then the ring's for
// dropping the ring pin. Never two at once.
#include <cstring>

#include "framestore/cache.h"
#include "framestore/lock.h"
#include "framestore/read_cache.h"
#include "framestore/sector_check.h"

namespace {

constexpr uint32_t kStampSize = 4;  // the ring tick ahead of a copy's bytes

uint32_t KeyOf(const SharedMemHandle *handle, const SharedMemBufClient *client) {
    return (static_cast<uint32_t>(client->iLastIndex) << 16) |
           (static_cast<uint32_t>(handle->iSectorIndex) << 8);
}

// Under the cache lock a copier pins every slot it takes before the lock
// goes, and its key replaces SHM_FRAME_WRITING when the copy is published.
// A slot still marked as being written with no pin on it was left by a
// copier that died (its supervisor cleared its pins) or could not publish:
// nobody will complete it, so it is given up and may be taken again.
// Without this, every copier killed mid-copy would cost the sector a slot
// for good. Returns how many slots were given up.
int GiveUpAbandonedSlots(SharedMemCacheHeader *cache) {
    int given = 0;
    for (int i = 0; i <= shm::LastPrimarySlot(cache); ++i) {
        SharedMemCacheEntry &entry = cache->atCache[i];
        if (shm::SlotFlags(cache, i) == SHM_FRAME_WRITING && !shm::HasPins(entry.abyAccessCount)) {
            shm::PublishSlotFlags(entry, SHM_FRAME_ERROR);
            ++given;
        }
    }
    if (given != 0) {
        SHM_LOG(shm::kLevelConflict, "%.35s: %d cache slots left half-copied, given up\n",
                cache->szTag, given);
    }
    return given;
}

// A slot for a new copy: the allocation of the cache writer, once more
// after giving up abandoned slots when it finds none.
int TakeSlotForCopy(SharedMemCacheHeader *cache, uint32_t size) {
    if (SharedMem_QueryWriteCache_Internal(cache, size) == 0) return 0;
    if (GiveUpAbandonedSlots(cache) == 0) return -1;
    return SharedMem_QueryWriteCache_Internal(cache, size);
}

// Finds or makes the slot under the cache sector's lock. 0 with the slot
// pinned and the data's offset set.
int ClaimCopy(SharedMemHandle *handle, SharedMemBufClient *client, uint32_t key, uint32_t *found,
              uint32_t *offset) {
    shm::SectorLock lock(handle->iSemId, handle->iCacheIndex);
    if (!lock.held()) return -1;
    return SharedMem_QueryCacheforReadBuffer(handle, client, found, offset, key);
}

// Gives back the pin of a copy that could not be published.
void DropCopyPin(SharedMemHandle *handle, int slot) {
    shm::SectorLock lock(handle->iSemId, handle->iCacheIndex);
    if (!lock.held() || !shm::InCacheTable(slot)) return;
    shm::LowerPin(handle->ptCacheHeader->atCache[slot].abyAccessCount, slot, handle->iAttachId);
}

// The copy, found or made. 0 with the copy held.
int HoldCopy(SharedMemHandle *handle, SharedMemBufClient *client, SharedMemReadRequest *request,
             const uint8_t *frame, uint32_t size, uint8_t **copy) {
    uint32_t key = KeyOf(handle, client);
    uint32_t found = 0;
    uint32_t offset = 0;
    if (ClaimCopy(handle, client, key, &found, &offset) != 0) return -1;
    *copy = shm::AtOffset(handle->pvBase, offset);
    if (!found) {
        memcpy(*copy, frame, size);
        if (SharedMem_UpdateCacheforReadBuffer(handle->ptCacheHeader, client, key,
                                               request->dwRefTimeTick, size) != 0) {
            DropCopyPin(handle, client->iCacheSlot);
            return -1;
        }
    }
    client->dwHoldType = shm::kHoldCache;
    return 0;
}

// The ring pin goes whatever became of the copy: the frame was pinned all
// along, so no validity test is needed.
void DropRingPin(SharedMemHandle *handle, int index) {
    bool lowered = true;
    {
        shm::SectorLock lock(handle->iSemId, handle->iSectorIndex);
        if (lock.held()) {
            lowered = shm::LowerPin(handle->ptHeader->atFrame[index].abyAccessCount, index,
                                    handle->iAttachId);
        }
    }
    if (!lowered) SHM_LOG(shm::kLevelConflict, "release unoccupied buffer?");
}

}  // namespace

namespace shm {

int DeliverViaCache(SharedMemHandle *handle, SharedMemBufClient *client, uint8_t **ppbyData,
                    uint32_t *pdwSize, SharedMemReadRequest *request) {
    int index = client->iLastIndex;
    uint32_t size = LoadWord(handle->ptHeader->atFrame[index].dwSize);
    const uint8_t *frame = FrameData(handle->pvBase, handle->ptHeader, index);
    uint8_t *copy = nullptr;
    int result = -1;
    if (frame == nullptr) {
        LogError("%.35s: entry %d lies outside the data area\n", handle->ptHeader->szTag, index);
    } else if ((request->dwReadFlags & SHM_READ_VIA_CACHE) && CompanionIntact(handle)) {
        result = HoldCopy(handle, client, request, frame, size, &copy);
    }
    DropRingPin(handle, index);
    if (result != 0) {
        client->dwHeld = 0;
        return result;
    }
    if (ppbyData != nullptr) *ppbyData = copy;
    if (pdwSize != nullptr) *pdwSize = size;
    client->dwHeld = 1;
    return 0;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_MatchFrame(SharedMemCacheEntry *ptCacheEntry, uint32_t dwKey,
                                  SharedMemFrameEntry *ptFrameEntry) {
    if (ptCacheEntry == nullptr || ptFrameEntry == nullptr) return 0;
    return shm::HoldsCopy(*ptCacheEntry, dwKey, shm::LoadWord(ptFrameEntry->dwSize));
}

MOLK_API int SharedMem_SearchCaching(SharedMemCacheHeader *ptHeader, uint32_t dwKey,
                                     SharedMemFrameEntry *ptEntry) {
    if (ptEntry == nullptr || !shm::CacheIntact(ptHeader)) return -1;
    uint32_t size = shm::LoadWord(ptEntry->dwSize);
    for (int i = 0; i <= shm::LastPrimarySlot(ptHeader); ++i) {
        if (shm::HoldsCopy(ptHeader->atCache[i], dwKey, size)) return i;
    }
    return -1;
}

// The caller holds the cache sector's lock.
MOLK_API int SharedMem_QueryCacheforReadBuffer(SharedMemHandle *ptHandle,
                                               SharedMemBufClient *ptClient, uint32_t *pdwFound,
                                               uint32_t *pdwOffset, uint32_t dwKey) {
    if (ptClient == nullptr || pdwFound == nullptr || pdwOffset == nullptr ||
        !shm::RingIntact(ptHandle) || !shm::CompanionIntact(ptHandle) ||
        !shm::InTable(ptClient->iLastIndex)) {
        return -1;
    }
    SharedMemCacheHeader *cache = ptHandle->ptCacheHeader;
    SharedMemFrameEntry &frame = ptHandle->ptHeader->atFrame[ptClient->iLastIndex];
    uint32_t tick = shm::LoadWord(frame.dwTimeTick);
    uint32_t slotSize = cache->dwPrimarySize;
    ptClient->iCacheSlot = -1;
    *pdwFound = 0;
    int slot = SharedMem_SearchCaching(cache, dwKey, &frame);
    uint8_t *data = shm::SlotData(ptHandle->pvBase, cache, slot, slotSize);
    if (data != nullptr) {
        uint32_t stored;
        memcpy(&stored, data, sizeof stored);
        if (stored == tick) {
            *pdwFound = 1;
            ptClient->iCacheSlot = slot;
        } else {
            SHM_LOG(shm::kLevelConflict, "Cache timestamp mismatch %d != %d !!!\n",
                    static_cast<int>(stored), static_cast<int>(tick));
        }
    }
    if (!*pdwFound && TakeSlotForCopy(cache, shm::LoadWord(frame.dwSize)) == 0) {
        ptClient->iCacheSlot = shm::LoadIndex(cache->iWriteIndex);
    }
    slot = ptClient->iCacheSlot;
    data = shm::SlotData(ptHandle->pvBase, cache, slot, slotSize);
    if (data == nullptr) return -1;
    shm::RaisePin(cache->atCache[slot].abyAccessCount, slot, ptHandle->iAttachId);
    memcpy(data, &tick, kStampSize);
    *pdwOffset = shm::LoadWord(cache->atCache[slot].dwOffset) + kStampSize;
    return 0;
}

// Publishes the copy in the client's slot. The latest (and, in a fresh
// sector, the oldest) item is that slot: another reader may have taken the
// sector's write index for a copy of its own since this one was assigned.
MOLK_API int SharedMem_UpdateCacheforReadBuffer(SharedMemCacheHeader *ptHeader,
                                                SharedMemBufClient *ptClient, uint32_t dwKey,
                                                uint32_t dwTimeTick, uint32_t dwSize) {
    if (ptClient == nullptr || !shm::CacheIntact(ptHeader)) return -1;
    int slot = ptClient->iCacheSlot;
    if (slot < 0 || slot > shm::LastPrimarySlot(ptHeader)) {
        SHM_LOG(shm::kLevelCacheFailure, "update cache out-of-date?");
        return -1;
    }
    SharedMemCacheEntry &entry = ptHeader->atCache[slot];
    shm::StoreWord(entry.dwTimeTick, dwTimeTick);
    shm::StoreWord(entry.dwSize, dwSize);
    shm::PublishSlotFlags(entry, dwKey);
    if (shm::LoadIndex(ptHeader->iOldestIndex) < 0) shm::StoreIndex(ptHeader->iOldestIndex, slot);
    shm::StoreIndex(ptHeader->iLatestIndex, slot);
    return 0;
}

}  // extern "C"
