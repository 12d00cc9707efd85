// The hand-off of a pinned ring frame to the handle's cache sector, so that
// the ring entry is free at once and readers of that cache share one copy.
#ifndef MOLK_FRAMESTORE_READ_CACHE_H
#define MOLK_FRAMESTORE_READ_CACHE_H

#include "sharedmem.h"

namespace shm {

// The frame stays where it lies, pinned in the ring entry iLastIndex, and
// the client holds it there. -1, with the pin given back, for an entry
// whose place lies outside the ring's data area.
int HoldInRing(SharedMemHandle *handle, SharedMemBufClient *client, uint8_t **ppbyData,
               uint32_t *pdwSize);

// Takes over a query whose frame is pinned in the ring entry iLastIndex
// and must travel through the handle's cache sector (SHM_READ_VIA_CACHE):
// the copy is found or made, and the ring pin is dropped either way.
// Returns the query's result; on 0 the client holds the copy, on -1 it
// holds nothing and the frame is lost to this reader.
int DeliverViaCache(SharedMemHandle *handle, SharedMemBufClient *client, uint8_t **ppbyData,
                    uint32_t *pdwSize, SharedMemReadRequest *request);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_READ_CACHE_H
