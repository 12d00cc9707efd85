// Creating and deleting blocks, and the kernel's limit on a segment's size.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/sem.h>
#include <sys/shm.h>

#include "framestore/lock.h"
#include "framestore/log.h"
#include "framestore/paths.h"
#include "framestore/sector_desc.h"
#include "framestore/segment.h"
#include "framestore/wait.h"

namespace {

using shm::SectorDesc;

struct Layout {
    uint32_t total;
    int count;
    uint64_t used;  // R: bytes given out so far, header slots included
    const SharedMemBlockConfig *config;
};

// The size a description gave, after clamping: for sector 0 it counts the
// header slots too, since that sector's area begins at offset 0.
uint32_t StatedSize(int index, uint32_t start, uint32_t end) {
    return index == 0 ? end : end - start;
}

uint32_t StartOfSector(void *base, int index, int count) {
    if (index == 0) return static_cast<uint32_t>(count) * shm::kSlotSize;
    return static_cast<SharedMemSectorHeader *>(shm::SlotAt(base, index - 1))->dwEndOffset;
}

void FillCommon(SharedMemSectorHeader *slot, uint32_t type, const Layout &layout,
                uint32_t start, uint32_t end) {
    slot->dwSectorType = type;
    slot->dwMemoryType = layout.config->dwMemoryType;
    slot->dwTotalSize = layout.total;
    slot->dwPhysicalBase = 0;
    slot->dwEndOffset = end;
    slot->dwStartOffset = start;
}

void FillRing(SharedMemSectorHeader *ring, const SectorDesc &desc, const Layout &layout,
              int index, uint32_t start, uint32_t end) {
    FillCommon(ring, SHM_SECTOR_RING, layout, start, end);
    ring->dwWriteOffset = start;
    ring->dwDuration = 0;
    ring->iOldestIndex = -1;
    ring->iLatestIndex = -1;
    ring->iWriteIndex = 0;
    ring->iBoundaryIndex = -1;
    ring->iMaxIndex = shm::kFrameEntries - 1;
    shm::CopyTag(ring->szTag, desc.tag);
    shm::CopyTag(ring->szSecondTag, desc.secondTag);
    ring->byTimeshift = desc.timeshift ? 1 : 0;
    ring->byHasNext = 1;
    printf("Sector[%d]%s = %u, %s %s\n", index, desc.timeshift ? " timeshift" : "",
           StatedSize(index, start, end), ring->szTag, ring->szSecondTag);
}

int FillCache(SharedMemCacheHeader *cache, const SectorDesc &desc, const Layout &layout,
              int index, uint32_t start, uint32_t end) {
    FillCommon(reinterpret_cast<SharedMemSectorHeader *>(cache), SHM_SECTOR_CACHE, layout,
               start, end);
    cache->dwOverwrittenFlags = 0;
    cache->dwPrimarySize = desc.hasSlotSize ? desc.slotSize : layout.config->dwPrimarySize;
    cache->dwSecondarySize = layout.config->dwSecondarySize;
    cache->dwLeftSize = end - start;
    cache->iOldestIndex = -1;
    cache->iLatestIndex = -1;
    cache->iWriteIndex = 0;
    cache->iPrimaryBoundary = -1;
    cache->iSecondaryBoundary = -1;
    cache->iSecondaryEnd = shm::kCacheEntries - 1;
    shm::CopyTag(cache->szTag, desc.tag);
    cache->byHasNext = 1;
    if (cache->dwPrimarySize > cache->dwLeftSize || cache->dwSecondarySize > cache->dwLeftSize) {
        printf("Cache Buffer size %u or %u is larger than left size %u!!\n",
               cache->dwPrimarySize, cache->dwSecondarySize, cache->dwLeftSize);
        return -1;
    }
    printf("Cache[%d] = %u, %s\n", index, StatedSize(index, start, end), cache->szTag);
    return 0;
}

// Parses description i and fills slot i. The size of sector 0 counts from
// offset 0 and so covers all header slots.
int FillSector(void *base, int index, char *text, Layout *layout) {
    SectorDesc desc = {};
    if (text != nullptr) desc = shm::ParseAllocationDesc(text);
    if (layout->count == 1) desc.size = layout->total;
    uint32_t size = shm::ClampToRemaining(&layout->used, desc.size, layout->total);
    uint32_t start = StartOfSector(base, index, layout->count);
    uint32_t end = index == 0 ? size : start + size;
    if (end < start) {
        // Sector 0's size counts the header slots; one that doesn't cover
        // them would put every later data area on top of the headers.
        printf("Allocate memory small than header size?");
        return -1;
    }
    void *slot = shm::SlotAt(base, index);
    if (desc.isCache) {
        return FillCache(static_cast<SharedMemCacheHeader *>(slot), desc, *layout, index, start,
                         end);
    }
    FillRing(static_cast<SharedMemSectorHeader *>(slot), desc, *layout, index, start, end);
    return 0;
}

bool DescriptionsUsable(int count, char **descs) {
    if (count < 1) return false;
    if (descs == nullptr) return count == 1;
    for (int i = 0; i < count; ++i) {
        if (descs[i] == nullptr) return false;
    }
    return true;
}

int LayOutSectors(void *base, int count, char **descs, Layout *layout) {
    memset(base, 0, static_cast<size_t>(count) * shm::kSlotSize);
    for (int i = 0; i < count; ++i) {
        if (FillSector(base, i, descs != nullptr ? descs[i] : nullptr, layout) != 0) return -1;
    }
    return 0;
}

int CreateSemaphores(key_t key, int count) {
    int semId = semget(key, count, IPC_CREAT | 0666);
    if (semId == -1) {
        perror("fail to get semaphore.");
        return -1;
    }
    return shm::InitSemaphoresOnce(semId, count);
}

void *MapSegment(int shmId) {
    void *base = shmat(shmId, nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) {
        fputs("Shared Memory attach fail!\n", stderr);
        return nullptr;
    }
    return base;
}

}  // namespace

extern "C" {

MOLK_API int CheckShmMax(uint32_t dwSize) {
    FILE *file = fopen(shm::kShmMaxPath, "r");
    if (file == nullptr) {
        shm::LogError("can't open %s", shm::kShmMaxPath);
        return -1;
    }
    // The limit is 64 bits wide on a 64-bit kernel; read it whole.
    unsigned long long limit = 0;
    if (fscanf(file, "%llu", &limit) != 1) limit = 0;
    fclose(file);
    if (limit >= dwSize) return 0;

    shm::LogWarning("dwShmSize %u > dwShmMax %u\n", dwSize, static_cast<uint32_t>(limit));
    file = fopen(shm::kShmMaxPath, "w");
    if (file == nullptr) return -1;  // the caller's shmget decides
    fprintf(file, "%u", dwSize);
    fclose(file);
    return 0;
}

MOLK_API int SharedMemBlock_Allocate(key_t key, char *szTotalSize, int iSectorNum,
                                     SharedMemBlockConfig *ptConfig, char **pszSectorDesc) {
    Layout layout = {};
    layout.total = szTotalSize != nullptr ? shm::ParseTotalSize(szTotalSize) : 0;
    layout.count = iSectorNum;
    layout.config = ptConfig;
    printf("Header Size %lu/per Sector, %lu/per Cache\n",
           static_cast<unsigned long>(shm::kSlotSize),
           static_cast<unsigned long>(shm::kCacheHeaderUsed));
    if (ptConfig == nullptr || ptConfig->dwMemoryType != SHM_MEMORY_SYSV) {
        printf("Invalid memory type!!");
        return -1;
    }
    if (!DescriptionsUsable(iSectorNum, pszSectorDesc)) {
        printf("Invalid sector descriptions!!\n");
        return -1;
    }
    if (layout.total < static_cast<uint64_t>(iSectorNum) * shm::kSlotSize) {
        printf("Allocate memory small than header size?");
        return -1;
    }
    CheckShmMax(layout.total);

    int shmId = shmget(key, layout.total, IPC_CREAT | IPC_EXCL | 0600);
    if (shmId == -1) {
        printf("shmget fail: %s\n", strerror(errno));
        return -1;
    }
    void *base = MapSegment(shmId);
    if (base == nullptr) return -1;
    fprintf(stderr, "Shared Memory %d Segment ID: %d Size: %u SectNum: %d\n", static_cast<int>(key),
            shmId, layout.total, iSectorNum);

    int result = LayOutSectors(base, iSectorNum, pszSectorDesc, &layout);
    if (result == 0) result = CreateSemaphores(key, iSectorNum);
    if (result == 0) *shm::HasNextOf(shm::SlotAt(base, iSectorNum - 1)) = 0;
    if (result == 0) shm::MakeWaitArea(key);
    shmdt(base);
    return result;
}

MOLK_API int SharedMemBlock_Delete(key_t key) {
    shm::RemoveWaitArea(key);
    int shmId = shmget(key, 0, 0);
    if (shmId != -1 && shmctl(shmId, IPC_RMID, nullptr) == 0) {
        fprintf(stderr, "Shared Memory %d Segment ID: %d removed\n", static_cast<int>(key), shmId);
    }
    int semId = semget(key, 0, 0);
    if (semId != -1 && semctl(semId, 0, IPC_RMID) == 0) {
        fprintf(stderr, "Semaphore %d ID %d removed\n", static_cast<int>(key), semId);
    } else {
        perror("Oops~");
    }
    return 0;
}

}  // extern "C"
