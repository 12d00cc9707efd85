// molkshm info: every sector of a block, as the people running a device
// need to see it.
#include <cstdio>

#include "molkshm.h"

namespace {

void PrintPinsPerAttachId(const uint8_t (*counts)[16], size_t stride, int entries) {
    // counts points at the abyAccessCount of entry 0; entries are `stride` apart.
    const uint8_t *entry = reinterpret_cast<const uint8_t *>(counts);
    unsigned pinned[16] = {0};
    for (int i = 0; i < entries; ++i, entry += stride) {
        for (int id = 0; id < 16; ++id) pinned[id] += entry[id] != 0;
    }
    printf("    pinned entries per AttachID:");
    bool any = false;
    for (int id = 0; id < 16; ++id) {
        if (pinned[id] == 0) continue;
        printf(" %d:%u", id, pinned[id]);
        any = true;
    }
    printf("%s\n", any ? "" : " none");
}

void PrintRingFigures(SharedMemBlockInfo *info, int index) {
    SectorFigures f = QueryFigures(info, index);
    if (!f.ok) return;
    printf("    %u.%03u fps, %u kbit/s now, %u kbit/s average, %u ms, %u frames, %u bytes stored\n",
           f.fpsMilli / 1000, f.fpsMilli % 1000, f.kbpsNow, f.kbpsAverage, f.durationMs, f.frames,
           f.bytes);
}

void PrintRing(SharedMemBlockInfo *info, int index, const SharedMemSectorHeader *ring) {
    printf("sector %d: ring%s tag '%s' second tag '%s'\n", index,
           ring->byTimeshift ? " (timeshift)" : "", ring->szTag, ring->szSecondTag);
    printf("    data %u..%u (%u bytes), write offset %u, duration %u ms\n", ring->dwStartOffset,
           ring->dwEndOffset, ring->dwEndOffset - ring->dwStartOffset, ring->dwWriteOffset,
           ring->dwDuration);
    printf("    oldest %d latest %d write %d boundary %d max %d\n", ring->iOldestIndex,
           ring->iLatestIndex, ring->iWriteIndex, ring->iBoundaryIndex, ring->iMaxIndex);
    PrintRingFigures(info, index);
    PrintPinsPerAttachId(&ring->atFrame[0].abyAccessCount, sizeof ring->atFrame[0],
                         SHM_FRAME_ENTRIES);
    PrintRingDetail(ring);
}

void PrintCache(const SharedMemBlockInfo *info, int index, const SharedMemCacheHeader *cache) {
    printf("sector %d: cache tag '%s'\n", index, cache->szTag);
    printf("    data %u..%u (%u bytes), slot %u bytes, secondary %u, left %u\n",
           cache->dwStartOffset, cache->dwEndOffset, cache->dwEndOffset - cache->dwStartOffset,
           cache->dwPrimarySize, cache->dwSecondarySize, cache->dwLeftSize);
    printf("    oldest %d latest %d write %d primary boundary %d secondary %d..%d\n",
           cache->iOldestIndex, cache->iLatestIndex, cache->iWriteIndex, cache->iPrimaryBoundary,
           cache->iSecondaryBoundary, cache->iSecondaryEnd);
    PrintPinsPerAttachId(&cache->atCache[0].abyAccessCount, sizeof cache->atCache[0],
                         SHM_CACHE_ENTRIES);
    PrintCacheDetail(info, cache);
}

}  // namespace

int CmdInfo(int argc, char **argv) {
    key_t key;
    if (argc != 2) return Fail("usage: molkshm info KEY");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    SharedMemBlockInfo *info = AttachOrFail(key);
    if (info == nullptr) return 1;
    const SharedMemSectorHeader *first = SectorAt(info, 0);
    printf("block 0x%x: %u bytes, %d sectors, semaphore set %d\n", static_cast<unsigned>(key),
           first->dwTotalSize, info->iSectorNum, info->iSemId);
    for (int i = 0; i < info->iSectorNum; ++i) {
        const SharedMemSectorHeader *slot = SectorAt(info, i);
        if (slot->dwSectorType == SHM_SECTOR_CACHE) {
            PrintCache(info, i, reinterpret_cast<const SharedMemCacheHeader *>(slot));
        } else {
            PrintRing(info, i, slot);
        }
    }
    SharedMemBlock_Detach(&info);
    return 0;
}
