// Reader clients: the per-process cursor record and the pin it holds, the
// test that judges a client against a ring that has moved on under it, and
// the release of the pin.
//
// A client's proof that its entry still carries its frame is the tick the
// entry had when the cursor went there (dwLastTimeTick). A reader may give
// back the pin of a frame that is no longer live as long as the entry still
// carries that frame; it may not go on reading from it.
#include <cstdio>
#include <cstdlib>

#include "framestore/lock.h"
#include "framestore/log.h"
#include "framestore/ring.h"
#include "framestore/sector_check.h"

namespace {

// What the validity test of a client saw. The test and the telling are
// apart so that a release, which tests under the sector lock, tells after
// giving the lock back.
struct Validity {
    int result = -1;
    bool failed = false;  // the client's entry moved on: a verdict to tell
    int latest = 0;
    int oldest = 0;
    int boundary = 0;
    int index = 0;
    uint32_t tick = 0;
};

// A release may give back the pin of a frame that is no longer live as
// long as its entry still carries it.
Validity Judge(const SharedMemSectorHeader *ring, const SharedMemBufClient *client, bool release) {
    Validity v;
    v.index = client->iLastIndex;
    if (v.index < 0 || v.index > shm::MaxIndex(ring)) return v;
    v.tick = shm::LoadWord(ring->atFrame[v.index].dwTimeTick);
    if (v.tick == 0) return v;  // the ring has been reset under the client

    v.latest = shm::LoadIndex(ring->iLatestIndex);
    v.oldest = shm::LoadIndex(ring->iOldestIndex);
    v.boundary = shm::LoadIndex(ring->iBoundaryIndex);
    bool same = v.tick == client->dwLastTimeTick;
    v.failed = !(same && shm::IsLive(v.index, v.latest, v.oldest, v.boundary));
    v.result = same && (release || !v.failed) ? 0 : -1;
    return v;
}

// A release complaint is a warning (level 4, also to syslog); a failed
// query is everyday flow, since the client is simply placed anew (level 6,
// never to syslog).
void TellInvalid(const SharedMemSectorHeader *ring, const SharedMemBufClient *client,
                 const char *purpose, const Validity &v) {
    if (!v.failed) return;
    int attachId = client->ptHandle != nullptr ? client->ptHandle->iAttachId : -1;
#define SHM_VALIDITY_LINE "%.35s[%d] %s validity check fail, L:%d O:%d B:%d La:%d, %u:%u\n"
    if (purpose[0] == 'r') {
        shm::LogWarning(SHM_VALIDITY_LINE, ring->szTag, attachId, purpose, v.latest, v.oldest,
                        v.boundary, v.index, v.tick, client->dwLastTimeTick);
    } else {
        SHM_LOG(shm::kLevelConflict, SHM_VALIDITY_LINE, ring->szTag, attachId, purpose, v.latest,
                v.oldest, v.boundary, v.index, v.tick, client->dwLastTimeTick);
    }
#undef SHM_VALIDITY_LINE
}

void TellUnoccupied(bool lowered) {
    if (!lowered) SHM_LOG(shm::kLevelConflict, "release unoccupied buffer?");
}

// Lowers the pin of a ring hold, under the ring's lock. A client whose
// entry no longer carries its frame (rewritten, or the ring was reset) has
// lost its pin with it: nothing is lowered and the cursor is given up.
void DropRingHold(SharedMemBufClient *client) {
    SharedMemHandle *handle = client->ptHandle;
    SharedMemSectorHeader *ring = handle->ptHeader;
    if (ring == nullptr) {
        client->iLastIndex = -1;
        return;
    }
    Validity v;
    bool lowered = true;
    {
        // A lock that cannot be taken has been logged; the count is still
        // brought right, since the pin would otherwise never go away.
        shm::SectorLock lock(handle->iSemId, handle->iSectorIndex);
        v = Judge(ring, client, true);
        if (v.result == 0) {
            lowered = shm::LowerPin(ring->atFrame[v.index].abyAccessCount, v.index,
                                    handle->iAttachId);
        }
    }
    TellInvalid(ring, client, "release", v);
    TellUnoccupied(lowered);
    if (v.result != 0) client->iLastIndex = -1;
}

// Lowers the pin of a copy held in the handle's cache sector, under that
// sector's lock. Cache slots carry no cursor proof: no validity test.
void DropCacheHold(SharedMemBufClient *client) {
    SharedMemHandle *handle = client->ptHandle;
    SharedMemCacheHeader *cache = handle->ptCacheHeader;
    int slot = client->iCacheSlot;
    bool lowered = true;
    {
        shm::SectorLock lock(handle->iSemId, handle->iCacheIndex);
        if (cache != nullptr && slot >= 0 && slot < shm::kCacheEntries) {
            lowered = shm::LowerPin(cache->atCache[slot].abyAccessCount, slot, handle->iAttachId);
        }
    }
    TellUnoccupied(lowered);
}

void DropHold(SharedMemBufClient *client) {
    if (client->dwHoldType == shm::kHoldRing) {
        DropRingHold(client);
    } else if (client->dwHoldType == shm::kHoldCache) {
        DropCacheHold(client);
    }
}

}  // namespace

namespace shm {

int ClientValid(const SharedMemSectorHeader *ring, const SharedMemBufClient *client,
                const char *purpose) {
    Validity v = Judge(ring, client, purpose[0] == 'r');
    TellInvalid(ring, client, purpose, v);
    return v.result;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_CheckIndexValid(SharedMemSectorHeader *ptHeader, int iIndex,
                                       uint32_t dwTimeTick, uint32_t *pdwNextIndex) {
    if (!shm::RingIntact(ptHeader) || iIndex < 0 || iIndex > shm::MaxIndex(ptHeader)) return -1;
    int latest = shm::LoadIndex(ptHeader->iLatestIndex);
    int oldest = shm::LoadIndex(ptHeader->iOldestIndex);
    int boundary = shm::BoundaryOf(latest, shm::LoadIndex(ptHeader->iBoundaryIndex));
    bool same = shm::LoadWord(ptHeader->atFrame[iIndex].dwTimeTick) == dwTimeTick;
    if (pdwNextIndex != nullptr) {
        *pdwNextIndex = iIndex < boundary ? static_cast<uint32_t>(iIndex + 1) : 0u;
    }
    return same && shm::IsLive(iIndex, latest, oldest, boundary) ? 0 : -1;
}

MOLK_API int SharedMem_CheckClientValid(SharedMemSectorHeader *ptHeader,
                                        SharedMemBufClient *ptClient, const char *szPurpose) {
    if (ptClient == nullptr || !shm::RingIntact(ptHeader)) return -1;
    return shm::ClientValid(ptHeader, ptClient, szPurpose != nullptr ? szPurpose : "query");
}

MOLK_API int SharedMem_ReleaseReadBuffer(SharedMemBufClient *ptClient) {
    if (ptClient == nullptr || ptClient->ptHandle == nullptr) return -1;
    if (ptClient->dwHeld == 0) return 0;
    DropHold(ptClient);
    ptClient->dwHeld = 0;
    return 0;
}

MOLK_API int SharedMem_QueryLastBufClient(SharedMemBufClient *ptClient) {
    return ptClient != nullptr ? ptClient->iLastIndex : -2;
}

MOLK_API int SharedMem_FreeBufClient(SharedMemBufClient **pptClient) {
    if (pptClient == nullptr) return -1;
    SharedMemBufClient *client = *pptClient;
    if (client == nullptr) return 0;
    if (client->ptHandle != nullptr && client->dwHeld != 0) DropHold(client);
    printf("SharedMem_FreeBufClient %p\n", static_cast<void *>(client));
    free(client);
    *pptClient = nullptr;
    return 0;
}

// The cache reader's test: the client's tick must lie within the ticks of
// the sector's oldest and latest entries, compared as plain numbers; when
// oldest >= latest the range has wrapped past 0.
MOLK_API int SharedMem_CheckClientValidByTimeTick(SharedMemCacheHeader *ptHeader,
                                                  SharedMemBufClient *ptClient) {
    if (ptHeader == nullptr || ptClient == nullptr) return -1;
    int oldestIndex = shm::LoadIndex(ptHeader->iOldestIndex);
    int latestIndex = shm::LoadIndex(ptHeader->iLatestIndex);
    if (oldestIndex < 0 || oldestIndex >= shm::kCacheEntries || latestIndex < 0 ||
        latestIndex >= shm::kCacheEntries) {
        return -1;  // nothing written yet: no range at all
    }
    uint32_t oldest = shm::LoadWord(ptHeader->atCache[oldestIndex].dwTimeTick);
    uint32_t latest = shm::LoadWord(ptHeader->atCache[latestIndex].dwTimeTick);
    uint32_t tick = ptClient->dwLastTimeTick;
    bool inside = oldest < latest ? (oldest <= tick && tick <= latest)
                                  : (tick >= oldest || tick <= latest);
    return inside ? 0 : -1;
}

}  // extern "C"
