// Administrative changes to a living block: renaming a ring, flushing one
// reader's cache pins, laying the rings out anew.
#include <cstdio>
#include <cstring>

#include "framestore/attachments.h"
#include "framestore/log.h"
#include "framestore/paths.h"
#include "framestore/pin_column.h"
#include "framestore/sector_desc.h"
#include "framestore/segment.h"

namespace {

bool SectorInRange(const SharedMemBlockInfo *info, int index) {
    return info != nullptr && index >= 0 && index < info->iSectorNum;
}

// Drops the pins of all primary slots handed out so far; a cache sector's
// layout and contents stay.
void ClearCachePins(SharedMemCacheHeader *cache) {
    int last = cache->iPrimaryBoundary < shm::kCacheEntries ? cache->iPrimaryBoundary
                                                            : shm::kCacheEntries - 1;
    for (int k = 0; k <= last; ++k) {
        cache->atCache[k].dwFlags = 0;
        memset(cache->atCache[k].abyAccessCount, 0, sizeof cache->atCache[k].abyAccessCount);
    }
}

void PlaceRing(SharedMemBlockInfo *info, int index, const char *text, uint64_t *used) {
    SharedMemSectorHeader *ring =
        static_cast<SharedMemSectorHeader *>(shm::SlotAt(info->pvHeaderBase, index));
    shm::RepartitionDesc desc = shm::ParseRepartitionDesc(text);
    // The rings are laid inside the segment the kernel gave, whatever slot 0
    // says its size is.
    uint32_t total = shm::SegmentSize(
        info->pvDataBase, static_cast<SharedMemSectorHeader *>(info->pvHeaderBase)->dwTotalSize);
    uint32_t size = shm::ClampToRemaining(used, desc.size, total);
    if (index == 0) {
        ring->dwStartOffset = static_cast<uint32_t>(info->iSectorNum) * shm::kSlotSize;
        ring->dwEndOffset = size;
    } else {
        const SharedMemSectorHeader *previous =
            static_cast<SharedMemSectorHeader *>(shm::SlotAt(info->pvHeaderBase, index - 1));
        ring->dwStartOffset = previous->dwEndOffset;
        ring->dwEndOffset = ring->dwStartOffset + size;
    }
    ring->dwWriteOffset = ring->dwStartOffset;
    if (desc.timeshift >= 0) ring->byTimeshift = static_cast<uint8_t>(desc.timeshift);
    printf("Sector[%d]%s = %u\n", index, ring->byTimeshift ? " timeshift" : "", size);
}

}  // namespace

extern "C" {

MOLK_API int SharedMemBlock_UpdateTagName(SharedMemBlockInfo *ptInfo, int iSectorIndex,
                                          const char *szText) {
    if (!SectorInRange(ptInfo, iSectorIndex)) return -1;
    const char *minus = szText != nullptr ? strchr(szText, '-') : nullptr;
    if (minus == nullptr) {
        printf("Update tag name failed");
        return -1;
    }
    SharedMemSectorHeader *ring =
        static_cast<SharedMemSectorHeader *>(shm::SlotAt(ptInfo->pvHeaderBase, iSectorIndex));
    shm::CopyTag(ring->szTag, minus + 1);
    printf("Sector[%d] = %s\n", iSectorIndex, ring->szTag);
    return 0;
}

MOLK_API int SharedMemBlock_FlushAccessCountWithAttachId(SharedMemBlockInfo *ptInfo,
                                                         int iAttachId) {
    if (ptInfo == nullptr || iAttachId > shm::kAttachIds - 1 || iAttachId < 0) return -1;
    void *slot = SharedMem_FindTag(ptInfo->pvHeaderBase, shm::kStreamingTag, ptInfo->iSectorNum,
                                   nullptr);
    if (slot == nullptr || !shm::IsCacheSlot(slot)) return 0;
    shm::ClearPinColumn(static_cast<SharedMemCacheHeader *>(slot)->atCache, shm::kCacheEntries,
                        iAttachId);
    return 0;
}

MOLK_API int SharedMemBlock_Repartition(SharedMemBlockInfo *ptInfo, int iDescNum,
                                        char **pszSectorDesc) {
    if (ptInfo == nullptr || iDescNum < 0 || iDescNum > ptInfo->iSectorNum) return -1;
    if (iDescNum > 0 && pszSectorDesc == nullptr) return -1;
    uint64_t used = 0;
    for (int i = 0; i < ptInfo->iSectorNum; ++i) {
        void *slot = shm::SlotAt(ptInfo->pvHeaderBase, i);
        if (shm::IsCacheSlot(slot)) {
            ClearCachePins(static_cast<SharedMemCacheHeader *>(slot));
            continue;
        }
        if (SharedMem_ResetHeader(slot, ptInfo->iSemId, i) != 0) return -1;
        if (i < iDescNum && pszSectorDesc[i] != nullptr) {
            PlaceRing(ptInfo, i, pszSectorDesc[i], &used);
        }
    }
    return 0;
}

}  // extern "C"
