// Opening a sector handle by index or tag, with a ring's companion cache.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "framestore/log.h"
#include "framestore/paths.h"
#include "framestore/pin_column.h"
#include "framestore/segment.h"

namespace {

// A starting reader drops what a former holder of its AttachID left in the
// cache. No lock: the counters are this AttachID's alone.
void DropCachePins(SharedMemCacheHeader *cache, int attachId) {
    if (!shm::PinsSomething(attachId)) return;
    shm::ClearPinColumn(cache->atCache, shm::kCacheEntries, attachId);
}

void AttachCompanionCache(SharedMemBlockInfo *info, SharedMemHandle *handle) {
    switch (handle->iAttachId) {
    case 0:
    case 1:
        SharedMem_AddCache(info, handle, shm::kStreamingTag);
        break;
    case 2:
        if (SharedMem_AddCache(info, handle, shm::kRecorderTag) != 0) {
            SharedMem_AddCache(info, handle, shm::kStreamingTag);
        }
        break;
    default:
        break;
    }
}

}  // namespace

extern "C" {

MOLK_API void *SharedMem_FindTag(void *pvHeaderBase, const char *szTag, int iSectorNum,
                                 int *piIndex) {
    if (pvHeaderBase == nullptr || szTag == nullptr) return nullptr;
    for (int i = 0; i < iSectorNum; ++i) {
        void *slot = shm::SlotAt(pvHeaderBase, i);
        if (strncmp(szTag, shm::TagOf(slot), shm::kTagMax) == 0) {
            if (piIndex != nullptr) *piIndex = i;
            return slot;
        }
        if (*shm::HasNextOf(slot) != 1) break;
    }
    return nullptr;
}

MOLK_API int SharedMem_AddCache(SharedMemBlockInfo *ptInfo, SharedMemHandle *ptHandle,
                                const char *szTag) {
    if (ptInfo == nullptr || ptHandle == nullptr || szTag == nullptr) return -1;
    int index = -1;
    void *slot = SharedMem_FindTag(ptInfo->pvHeaderBase, szTag, ptInfo->iSectorNum, &index);
    // A ring that carries a cache's tag must not be written as a cache.
    if (slot == nullptr || !shm::IsCacheSlot(slot)) {
        ptHandle->ptCacheHeader = nullptr;
        printf("Addon Caching fail!");
        return -1;
    }
    ptHandle->ptCacheHeader = static_cast<SharedMemCacheHeader *>(slot);
    ptHandle->iCacheIndex = index;
    if (ptHandle->iAttachId != 2) DropCachePins(ptHandle->ptCacheHeader, ptHandle->iAttachId);
    printf("Addon Caching %p\n", slot);
    return 0;
}

MOLK_API int SharedMem_Initial(SharedMemBlockInfo *ptInfo, SharedMemHandle **pptHandle,
                               int iSectorIndex, int iAttachId) {
    if (ptInfo == nullptr || pptHandle == nullptr) return -1;
    if (iSectorIndex < 0 || iSectorIndex >= ptInfo->iSectorNum) {
        fputs("Shared Memory initialized failed: invalid index\n", stderr);
        return -1;
    }
    SharedMemHandle *handle = static_cast<SharedMemHandle *>(calloc(1, sizeof *handle));
    if (handle == nullptr) return -1;
    void *slot = shm::SlotAt(ptInfo->pvHeaderBase, iSectorIndex);
    handle->pvBase = ptInfo->pvDataBase;
    handle->ptHeader = static_cast<SharedMemSectorHeader *>(slot);
    handle->iAttachId = iAttachId;
    handle->iSemId = ptInfo->iSemId;
    handle->iSectorIndex = iSectorIndex;
    handle->iCacheIndex = -1;
    *pptHandle = handle;
    SHM_LOG(shm::kLevelTrace, "Shared Memory Sector %d Tag %s initialized head: %p ptr: %p\n",
            iSectorIndex, shm::TagOf(slot), handle->pvBase, slot);
    if (!shm::IsCacheSlot(slot)) AttachCompanionCache(ptInfo, handle);
    return 0;
}

MOLK_API int SharedMem_InitialByTag(SharedMemBlockInfo *ptInfo, SharedMemHandle **pptHandle,
                                    const char *szTag, int iAttachId) {
    if (ptInfo == nullptr || szTag == nullptr) return -1;
    int index = -1;
    if (SharedMem_FindTag(ptInfo->pvHeaderBase, szTag, ptInfo->iSectorNum, &index) == nullptr) {
        SHM_LOG(shm::kLevelConflict, "tag %s not found??\n", szTag);
        return -1;
    }
    return SharedMem_Initial(ptInfo, pptHandle, index, iAttachId);
}

MOLK_API int SharedMem_Release(SharedMemHandle **pptHandle) {
    if (pptHandle == nullptr || *pptHandle == nullptr) return -1;
    SharedMemHandle *handle = *pptHandle;
    if (handle->pdwAdaptiveStamp != nullptr) munmap(handle->pdwAdaptiveStamp, sizeof(uint32_t));
    free(handle);
    *pptHandle = nullptr;
    return 0;
}

}  // extern "C"
