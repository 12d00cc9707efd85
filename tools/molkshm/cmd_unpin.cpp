// molkshm unpin: takes the pins of a dead reader's AttachID off every ring
// entry and cache slot, and says what it took off in each sector. The
// counts per sector are read before the clearing: an AttachID nobody uses
// any more does not change under it.
#include <cstdio>

#include "molkshm.h"

namespace {

unsigned PinsOf(const SharedMemSectorHeader *sector, int attachId) {
    unsigned pins[SHM_ATTACH_IDS];
    if (sector->dwSectorType == SHM_SECTOR_CACHE) {
        const auto *cache = reinterpret_cast<const SharedMemCacheHeader *>(sector);
        SumPins(cache->atCache[0].abyAccessCount, sizeof cache->atCache[0], SHM_CACHE_ENTRIES,
                pins);
    } else if (sector->dwSectorType == SHM_SECTOR_RING) {
        SumPins(sector->atFrame[0].abyAccessCount, sizeof sector->atFrame[0], SHM_FRAME_ENTRIES,
                pins);
    } else {
        return 0;
    }
    return pins[attachId];
}

const char *TagOf(const SharedMemSectorHeader *sector) {
    return sector->dwSectorType == SHM_SECTOR_CACHE
               ? reinterpret_cast<const SharedMemCacheHeader *>(sector)->szTag
               : sector->szTag;
}

}  // namespace

int CmdUnpin(int argc, char **argv) {
    key_t key;
    unsigned long attachId;
    if (argc != 3) return Fail("usage: molkshm unpin KEY ATTACHID");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    if (!ParseUnsigned(argv[2], &attachId) || attachId >= SHM_ATTACH_IDS) {
        return Fail("bad AttachID '%s': 0 to %d", argv[2], SHM_ATTACH_IDS - 1);
    }
    SharedMemBlockInfo *info = AttachOrFail(key);
    if (info == nullptr) return 1;
    const int id = static_cast<int>(attachId);
    for (int i = 0; i < info->iSectorNum; ++i) {
        const SharedMemSectorHeader *sector = SectorAt(info, i);
        unsigned pins = PinsOf(sector, id);
        if (pins == 0) continue;
        printf("sector %d '%.35s': %u pins of AttachID %d\n", i, TagOf(sector), pins, id);
    }
    int cleared = SharedMemBlock_ClearAttachId(info, id);
    SharedMemBlock_Detach(&info);
    if (cleared < 0) return Fail("could not clear AttachID %d", id);
    printf("AttachID %d: %d pins cleared\n", id, cleared);
    return 0;
}
