// A sector's figures for `info` and `top`. Nothing here takes a lock: the
// figures of a sector under a running writer may mix two moments, and a
// read-through slot being filled may count with its former frame.
#include <cstring>

#include "molkshm.h"

namespace {

constexpr int kInfoWords = 8;  // up to the recent bit rate
constexpr uint32_t kDefaultWindow = 0;  // not a request word: 30 frames

uint32_t Ratio(uint64_t numerator, uint32_t denominator) {
    return denominator == 0 ? 0 : static_cast<uint32_t>(numerator / denominator);
}

SectorFigures RingFigures(SharedMemHandle *handle) {
    SectorFigures f = {};
    uint32_t word[kInfoWords] = {};
    word[7] = kDefaultWindow;
    if (SharedMem_QueryInfo(handle, word, sizeof word) != 0) return f;
    // word 3: 0 empty, 1 or 2 generations; word 5: stored frames minus one.
    f.ok = true;
    f.durationMs = word[4];
    f.frames = word[3] == 0 ? 0 : word[5] + 1;
    f.bytes = word[6];
    f.kbpsNow = word[7];
    f.kbpsAverage = word[3] == 0 ? 0 : Ratio(uint64_t{word[6]} * 8, word[4]);
    f.fpsMilli = word[3] == 0 ? 0 : Ratio(uint64_t{word[5]} * 1000000, word[4]);
    f.slotsUsed = f.slotsTotal = 0;
    return f;
}

bool IsCompleted(const SharedMemCacheEntry &e) {
    return e.dwTimeTick != 0 && (e.dwFlags & (SHM_FRAME_WRITING | SHM_FRAME_ERROR)) == 0;
}

// When the item was made. A read-through slot's own tick is that of the
// reader's request; the copied frame's tick is its first data word.
uint32_t ItemTick(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache,
                  const SharedMemCacheEntry &e) {
    if (!IsReadThroughCache(cache)) return e.dwTimeTick;
    if (e.dwOffset < cache->dwStartOffset || e.dwOffset > cache->dwEndOffset - 4) return 0;
    uint32_t tick;
    memcpy(&tick, static_cast<const uint8_t *>(info->pvDataBase) + e.dwOffset, 4);
    return tick;
}

SectorFigures CacheFigures(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache) {
    SectorFigures f = {};
    f.ok = true;
    int last = cache->iPrimaryBoundary < SHM_CACHE_ENTRIES ? cache->iPrimaryBoundary
                                                           : SHM_CACHE_ENTRIES - 1;
    f.slotsUsed = last + 1;
    uint32_t area = cache->dwEndOffset - cache->dwStartOffset;
    uint32_t fit = cache->dwPrimarySize == 0 ? 0 : area / cache->dwPrimarySize;
    f.slotsTotal = fit < SHM_CACHE_ENTRIES ? static_cast<int>(fit) : SHM_CACHE_ENTRIES;
    uint32_t oldest = 0, newest = 0;
    for (int i = 0; i <= last; ++i) {
        const SharedMemCacheEntry &e = cache->atCache[i];
        if (!IsCompleted(e)) continue;
        uint32_t tick = ItemTick(info, cache, e);
        if (f.frames == 0 || SharedMem_DWComparator(tick, oldest, nullptr) < 0) oldest = tick;
        if (f.frames == 0 || SharedMem_DWComparator(tick, newest, nullptr) > 0) newest = tick;
        ++f.frames;
        f.bytes += e.dwSize;
    }
    SharedMem_DWComparator(newest, oldest, &f.durationMs);
    if (f.frames > 1) {
        f.fpsMilli = Ratio(uint64_t{f.frames - 1} * 1000000, f.durationMs);
        f.kbpsAverage = Ratio(uint64_t{f.bytes} * 8, f.durationMs);
    }
    return f;
}

}  // namespace

SectorFigures QueryFigures(SharedMemBlockInfo *info, int index) {
    const SharedMemSectorHeader *sector = SectorAt(info, index);
    if (sector->dwSectorType == SHM_SECTOR_CACHE) {
        return CacheFigures(info, reinterpret_cast<const SharedMemCacheHeader *>(sector));
    }
    // AttachID 16: a handle that pins nothing and clears no cache counters.
    SharedMemHandle *handle = nullptr;
    if (SharedMem_Initial(info, &handle, index, 16) != 0) return SectorFigures{};
    SectorFigures f = RingFigures(handle);
    SharedMem_Release(&handle);
    return f;
}

void SumPins(const uint8_t *counts, size_t stride, int entries, unsigned pins[16]) {
    for (int id = 0; id < 16; ++id) pins[id] = 0;
    for (int i = 0; i < entries; ++i, counts += stride) {
        for (int id = 0; id < 16; ++id) pins[id] += counts[id];
    }
}
