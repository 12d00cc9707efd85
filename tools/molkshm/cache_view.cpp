// The slot table of a cache sector in `molkshm info`. Read without the
// lock: a slot that a writer or a copying reader is filling may show half
// of its new state.
#include <cstdio>
#include <cstring>

#include "molkshm.h"

namespace {

// A read-through slot's flag word is its key: (ring entry << 16) | (ring
// sector << 8). Its first data word holds the ring frame's tick, which
// tells whether the ring entry still holds the frame that was copied.
void PrintReadThroughKey(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache,
                         const SharedMemCacheEntry &e) {
    uint32_t entry = e.dwFlags >> 16, sector = (e.dwFlags >> 8) & 0xFF;
    printf(" ring sector %u entry %u", sector, entry);
    bool keyShaped = (e.dwFlags & 0xFF) == 0 && entry < SHM_FRAME_ENTRIES;
    if (!keyShaped || sector >= static_cast<uint32_t>(info->iSectorNum) ||
        SectorAt(info, static_cast<int>(sector))->dwSectorType != SHM_SECTOR_RING) {
        printf(" (not a ring of this block)");
        return;
    }
    if (e.dwOffset < cache->dwStartOffset || e.dwOffset > cache->dwEndOffset - 4) return;
    uint32_t copied;
    memcpy(&copied, static_cast<const uint8_t *>(info->pvDataBase) + e.dwOffset, 4);
    const SharedMemSectorHeader *ring = SectorAt(info, static_cast<int>(sector));
    printf(" %s", ring->atFrame[entry].dwTimeTick == copied ? "(current)" : "(ring moved on)");
}

void PrintItemFlags(uint32_t flags) {
    if (flags >> 16 != 0) printf(" class %u", flags >> 16);
    if (flags & SHM_FRAME_P) printf(" P");
    if (flags & SHM_FRAME_UNREAD) printf(" unread");
    if (flags & SHM_FRAME_FORBIDDEN) printf(" hidden");
}

void PrintSlot(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache, int i) {
    const SharedMemCacheEntry &e = cache->atCache[i];
    printf("      slot %2d %s%s size %7u tick %10u flags 0x%08x", i,
           i == cache->iLatestIndex ? "+" : " ", i == cache->iOldestIndex ? "-" : " ", e.dwSize,
           e.dwTimeTick, e.dwFlags);
    if (e.dwFlags == SHM_FRAME_WRITING) {
        printf(" being written");
    } else if (e.dwFlags == SHM_FRAME_ERROR) {
        printf(" given up");
    } else if (e.dwTimeTick == 0) {
        printf(" empty");
    } else if (IsReadThroughCache(cache)) {
        PrintReadThroughKey(info, cache, e);
    } else {
        PrintItemFlags(e.dwFlags);
    }
    bool first = true;
    for (int id = 0; id < SHM_ATTACH_IDS; ++id) {
        if (e.abyAccessCount[id] == 0) continue;
        printf("%s%d:%d", first ? " pins " : " ", id, e.abyAccessCount[id]);
        first = false;
    }
    printf("\n");
}

}  // namespace

void PrintCacheDetail(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache) {
    if (cache->iPrimaryBoundary < 0) {
        printf("    no slot assigned\n");
        return;
    }
    int last = cache->iPrimaryBoundary < SHM_CACHE_ENTRIES ? cache->iPrimaryBoundary
                                                           : SHM_CACHE_ENTRIES - 1;
    printf("    slots (+ latest, - oldest)%s:\n",
           IsReadThroughCache(cache) ? ", keyed by the ring frame they copy" : "");
    for (int i = 0; i <= last; ++i) PrintSlot(info, cache, i);
}
