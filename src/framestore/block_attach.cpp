// Attaching a process to a block and detaching it.
#include <cstdio>
#include <cstdlib>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include "framestore/attachments.h"
#include "framestore/log.h"
#include "framestore/segment.h"
#include "framestore/wait.h"

namespace {

// The segment's real size, which no value inside it can change.
uint32_t SegmentBytes(int shmId) {
    struct shmid_ds stat;
    if (shmctl(shmId, IPC_STAT, &stat) != 0) return 0;
    return stat.shm_segsz > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(stat.shm_segsz);
}

// The header slots a walk of the sector chain may visit: those in front of
// sector 0's data area, and never past the mapping, so that a chain of
// byHasNext in a damaged or foreign segment stops where the headers end.
int HeaderSlots(const void *base, uint32_t bytes) {
    uint32_t dataStart = static_cast<const SharedMemSectorHeader *>(base)->dwStartOffset;
    uint32_t limit = dataStart < bytes ? dataStart : bytes;
    return static_cast<int>(limit / shm::kSlotSize);
}

}  // namespace

extern "C" {

MOLK_API int SharedMemBlock_Attach(SharedMemBlockInfo **pptInfo, uint32_t dwReserved, key_t key) {
    (void)dwReserved;
    if (pptInfo == nullptr || *pptInfo != nullptr) return -1;
    int shmId = shmget(key, 0, 0);
    if (shmId == -1) {
        printf("Shared Memory %d get nothing?\n", static_cast<int>(key));
        return -1;
    }
    int semId = semget(key, 0, IPC_CREAT | 0666);
    if (semId == -1) {
        perror("fail to get semaphore.");
        return -1;
    }
    void *base = shmat(shmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) {
        fputs("Shared Memory attach fail!\n", stderr);
        return -1;
    }
    SharedMemBlockInfo *info = static_cast<SharedMemBlockInfo *>(calloc(1, sizeof *info));
    if (info == nullptr) {
        shmdt(base);
        return -1;
    }
    shm::ApplyDebugEnvironment();
    uint32_t bytes = SegmentBytes(shmId);
    int slots = bytes >= shm::kSlotSize ? HeaderSlots(base, bytes) : 0;
    if (bytes >= shm::kSlotSize && slots < 1) {
        shm::LogError("sector 0: dwStartOffset %u leaves no room for a header\n",
                      static_cast<SharedMemSectorHeader *>(base)->dwStartOffset);
    }
    if (slots < 1 || static_cast<SharedMemSectorHeader *>(base)->dwMemoryType != SHM_MEMORY_SYSV) {
        printf("Invalid memory type!!");
        shmdt(base);
        free(info);
        return -1;
    }
    info->pvDataBase = base;
    info->pvHeaderBase = base;
    info->iShmId = shmId;
    info->iSemId = semId;
    info->iSectorNum = shm::CountSectors(base, slots);
    *pptInfo = info;
    shm::WaitArea *wait = shm::OpenWaitArea(key);
    if (!shm::Remember(base, bytes, info->iSectorNum, wait)) shm::CloseWaitArea(wait);
    gShm_Clktck = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
    SHM_LOG(shm::kLevelTrace, "Shared Memory %d SectorNum %d attached to %p.\n",
            static_cast<int>(key), info->iSectorNum, base);
    return 0;
}

MOLK_API int SharedMemBlock_Detach(SharedMemBlockInfo **pptInfo) {
    if (pptInfo == nullptr || *pptInfo == nullptr) return -1;
    SharedMemBlockInfo *info = *pptInfo;
    SHM_LOG(shm::kLevelTrace, "Shared Memory %p detach!\n", info->pvHeaderBase);
    shm::CloseWaitArea(shm::Forget(info->pvDataBase));
    shmdt(info->pvHeaderBase);
    free(info);
    *pptInfo = nullptr;
    return 0;
}

}  // extern "C"
