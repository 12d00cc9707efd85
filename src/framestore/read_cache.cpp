// The read-through cache's entry point. Until cache sectors hand out slots
// to the ring reader, a frame bound for the cache is delivered where it
// lies, pinned in its ring entry: the reader gets the same bytes and the
// writer the same protection, only without the early release of the entry.
#include "framestore/read_cache.h"

namespace shm {

int DeliverViaCache(SharedMemHandle *handle, SharedMemBufClient *client, uint8_t **ppbyData,
                    uint32_t *pdwSize, SharedMemReadRequest *request) {
    (void)request;
    return HoldInRing(handle, client, ppbyData, pdwSize);
}

}  // namespace shm
