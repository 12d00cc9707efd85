// Clearing a dead reader's pins: a supervisor that knows which AttachID a
// process used takes that AttachID's counters off every ring entry and
// every cache slot, so that the writer no longer refuses the places the
// dead reader held.
#include <sys/shm.h>

#include "framestore/lock.h"
#include "framestore/pin_column.h"
#include "framestore/segment.h"

namespace {

// The sector count of the info, but never more header slots than the
// segment really holds: the count is the caller's, the slots are read.
int SectorsToWalk(const SharedMemBlockInfo *info) {
    int count = info->iSectorNum;
    struct shmid_ds ds;
    if (shmctl(info->iShmId, IPC_STAT, &ds) == 0) {
        size_t slots = ds.shm_segsz / shm::kSlotSize;
        if (slots < static_cast<size_t>(count)) count = static_cast<int>(slots);
    }
    return count;
}

// Under the sector's own lock: a reader pins ring entries under the ring's
// lock and cache slots (read-through) under the cache sector's. A lock
// that cannot be taken has been logged; the dead reader's counters are
// cleared all the same, as a release does.
int ClearSector(const SharedMemBlockInfo *info, int index, int attachId) {
    void *slot = shm::SlotAt(info->pvHeaderBase, index);
    switch (shm::SlotType(slot)) {
    case SHM_SECTOR_RING: {
        shm::SectorLock lock(info->iSemId, index);
        return shm::ClearPinColumn(static_cast<SharedMemSectorHeader *>(slot)->atFrame,
                                   shm::kFrameEntries, attachId);
    }
    case SHM_SECTOR_CACHE: {
        shm::SectorLock lock(info->iSemId, index);
        return shm::ClearPinColumn(static_cast<SharedMemCacheHeader *>(slot)->atCache,
                                   shm::kCacheEntries, attachId);
    }
    default:
        return 0;
    }
}

}  // namespace

extern "C" {

MOLK_API int SharedMemBlock_ClearAttachId(SharedMemBlockInfo *ptInfo, int attachId) {
    if (ptInfo == nullptr || ptInfo->pvHeaderBase == nullptr || !shm::PinsSomething(attachId)) {
        return -1;
    }
    int cleared = 0;
    const int sectors = SectorsToWalk(ptInfo);
    for (int i = 0; i < sectors; ++i) cleared += ClearSector(ptInfo, i, attachId);
    return cleared;
}

}  // extern "C"
