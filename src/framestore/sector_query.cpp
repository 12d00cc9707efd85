// Small questions a caller asks of an open handle, and the raw dump.
#include <cstdio>

#include "framestore/segment.h"
#include "framestore/attachments.h"

extern "C" {

MOLK_API int SharedMem_CheckTimeshift(SharedMemHandle *ptHandle, uint32_t *pdwDuration) {
    if (pdwDuration != nullptr) *pdwDuration = 0;
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return -1;
    const SharedMemSectorHeader *ring = ptHandle->ptHeader;
    if (shm::IsCacheSlot(ring)) return -1;
    if (pdwDuration != nullptr) *pdwDuration = ring->dwDuration;
    return ring->byTimeshift ? 0 : -1;
}

MOLK_API int SharedMem_QuerySetting(SharedMemHandle *ptHandle, uint32_t *pdwSectorType,
                                    uint32_t *pdwMemoryType) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return -1;
    if (pdwSectorType != nullptr) *pdwSectorType = ptHandle->ptHeader->dwSectorType;
    if (pdwMemoryType != nullptr) *pdwMemoryType = ptHandle->ptHeader->dwMemoryType;
    return 0;
}

MOLK_API int SharedMem_Dump(SharedMemHandle *ptHandle, FILE *ptFile) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr || ptFile == nullptr) return -1;
    // The segment's real size: the header's word may say anything.
    size_t total = shm::SegmentSize(ptHandle->pvBase, ptHandle->ptHeader->dwTotalSize);
    return fwrite(ptHandle->pvBase, 1, total, ptFile) == total ? 0 : -1;
}

MOLK_API uint32_t SharedMem_GetPhyAddress(SharedMemHandle *ptHandle, void *pvAddress) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return 0;
    const uint8_t *base = static_cast<const uint8_t *>(ptHandle->pvBase);
    const uint8_t *address = static_cast<const uint8_t *>(pvAddress);
    if (address < base) return 0;
    uint32_t type = ptHandle->ptHeader->dwMemoryType;
    if (type != 2 && type != 3) return 0;
    return static_cast<uint32_t>(address - base) + ptHandle->ptHeader->dwPhysicalBase;
}

}  // extern "C"
