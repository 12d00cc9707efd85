// SharedMem_QueryReadBuffer: the one call by which a reader gets a frame
// from a ring. Frames are never copied for in-place readers: the pointer
// handed out points into the ring, pinned until the release.
#include <cstdio>
#include <cstdlib>

#include "framestore/clock.h"
#include "framestore/reader.h"
#include "framestore/read_cache.h"
#include "framestore/sector_check.h"

namespace {

constexpr uint32_t kFirstDeliveryLead = 100;  // ms before the first reference

bool RingEmpty(const SharedMemSectorHeader *ring) {
    return shm::LoadIndex(ring->iOldestIndex) < 0 || shm::LoadIndex(ring->iLatestIndex) < 0;
}

// A client of `handle` with no place in the ring yet.
void StartClient(SharedMemBufClient *client, SharedMemHandle *handle) {
    *client = SharedMemBufClient{};
    client->ptHandle = handle;
    client->iLastIndex = -1;
    client->iDeliveredIndex = -1;
}

SharedMemBufClient *NewClient(SharedMemHandle *handle, const SharedMemReadRequest *request) {
    SharedMemBufClient *client = static_cast<SharedMemBufClient *>(calloc(1, sizeof *client));
    if (client == nullptr) return nullptr;
    printf("SharedMem_CallocBufClient %p\n", static_cast<void *>(client));
    StartClient(client, handle);
    client->dwDeliveredTimeTick = request->dwRefTimeTick - kFirstDeliveryLead;
    if (request->dwReadFlags & SHM_READ_NEW_ONLY) client->dwLastTimeTick = request->dwRefTimeTick;
    return client;
}

// The client this query works with. 0 to go on, -1 to end.
int ReadyClient(SharedMemHandle *handle, SharedMemBufClient **pptClient,
                SharedMemBufClient *temporary, SharedMemReadRequest *request, bool empty,
                SharedMemBufClient **client) {
    if (pptClient == nullptr) {
        StartClient(temporary, handle);
        *client = temporary;
        return 0;
    }
    if (*pptClient == nullptr) {
        *pptClient = NewClient(handle, request);
        if (*pptClient == nullptr) {
            request->dwReason = SHM_REASON_NO_MEMORY;
            shm::LogError("malloc client buffer fail!");
            return -1;
        }
        if (empty) {  // the client exists now, and its start tick is fixed
            SHM_LOG(shm::kLevelConflict, "empty queue!");
            return -1;
        }
        *client = *pptClient;
        return 0;
    }
    *client = *pptClient;
    if ((*client)->ptHandle != handle) {
        request->dwReason = SHM_REASON_MISUSE;
        shm::LogError("miss use bufclient! Source %p != This %p\n",
                      static_cast<void *>((*client)->ptHandle), static_cast<void *>(handle));
        return -1;
    }
    if ((*client)->dwHeld) {
        const SharedMemSectorHeader *ring = handle->ptHeader;
        shm::LogError("query twice before release.%d %d, %d %d %u\n", (*client)->iLastIndex,
                      (*client)->iCacheSlot, shm::LoadIndex(ring->iOldestIndex),
                      shm::LoadIndex(ring->iLatestIndex), shm::LoadWord(ring->dwWriteOffset));
        SharedMem_ReleaseReadBuffer(*client);
    }
    return 0;
}

bool StaysInRing(const SharedMemHandle *handle, const SharedMemReadRequest *request,
                 uint32_t size) {
    return (request->dwReadFlags & SHM_READ_IN_PLACE) || handle->ptCacheHeader == nullptr ||
           static_cast<uint64_t>(size) + 4 > handle->ptCacheHeader->dwPrimarySize;
}

}  // namespace

namespace shm {

int HoldInRing(SharedMemHandle *handle, SharedMemBufClient *client, uint8_t **ppbyData,
               uint32_t *pdwSize) {
    int index = client->iLastIndex;
    client->dwHoldType = kHoldRing;
    client->dwHeld = 1;
    uint8_t *frame = FrameData(handle->pvBase, handle->ptHeader, index);
    if (frame == nullptr) {
        LogError("%.35s: entry %d lies outside the data area\n", handle->ptHeader->szTag, index);
        SharedMem_ReleaseReadBuffer(client);
        return -1;
    }
    if (ppbyData != nullptr) *ppbyData = frame;
    if (pdwSize != nullptr) *pdwSize = LoadWord(handle->ptHeader->atFrame[index].dwSize);
    return 0;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_QueryReadBuffer(SharedMemHandle *ptHandle, SharedMemBufClient **pptClient,
                                       uint8_t **ppbyData, uint32_t *pdwSize,
                                       SharedMemReadRequest *ptRequest) {
    if (!shm::RingIntact(ptHandle)) return -1;
    SharedMemSectorHeader *ring = ptHandle->ptHeader;
    bool empty = RingEmpty(ring);
    if (empty && (ptRequest == nullptr || !(ptRequest->dwReadFlags & SHM_READ_NEW_ONLY))) {
        SHM_LOG(shm::kLevelConflict, "empty queue!");
        return -1;
    }
    SharedMemReadRequest fallback = shm::kDefaultRequest;
    SharedMemReadRequest *request = ptRequest != nullptr ? ptRequest : &fallback;
    if (request->dwRefTimeTick == 0) request->dwRefTimeTick = shm::CurrentTick();

    SharedMemBufClient temporary;
    SharedMemBufClient *client = nullptr;
    if (ReadyClient(ptHandle, pptClient, &temporary, request, empty, &client) != 0) return -1;
    request->dwReason = SHM_REASON_NONE;
    if (!ring->byTimeshift && !(request->dwReadFlags & SHM_READ_CROSSOVER)) request->dwDelay = 0;

    uint32_t distance = 0;
    if (shm::QueryJudgedRing(ptHandle, client, request, &distance) != 0) {
        client->dwHeld = 0;
        return -1;
    }
    int result = StaysInRing(ptHandle, request, ring->atFrame[client->iLastIndex].dwSize)
                     ? shm::HoldInRing(ptHandle, client, ppbyData, pdwSize)
                     : shm::DeliverViaCache(ptHandle, client, ppbyData, pdwSize, request);
    if (result == 0) request->dwDelay = distance;
    // Nobody can release a temporary client's pin: it must not outlive the call.
    if (client == &temporary && result == 0) SharedMem_ReleaseReadBuffer(client);
    return result;
}

}  // extern "C"
