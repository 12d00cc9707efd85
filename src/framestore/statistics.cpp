// Figures of a sector for tools: its form, duration, frames and bytes, and
// a ring's recent bit rate; and a printed view of rings and cache tables.
// Nothing here takes a lock, so a writer is never disturbed: a figure may
// mix two moments.
#include <cstdio>

#include "framestore/cache.h"
#include "framestore/sector_check.h"

namespace {

// Elements of SharedMem_QueryInfo's vector.
enum InfoElement {
    kInfoType,
    kInfoMemory,
    kInfoDataSize,
    kInfoForm,
    kInfoDuration,
    kInfoIntervals,
    kInfoBytes,
    kInfoBitRate,
    kInfoElements,
};

constexpr uint32_t kWindowRequest = 0xABCD0000u;
constexpr uint32_t kDefaultWindow = 30;
constexpr uint32_t kMinWindow = 10;
constexpr uint32_t kMaxWindow = 1024;
constexpr int kFewFramesSlack = 4;  // frames beyond the window an estimate needs
constexpr size_t kCacheTextSize = 4096;

uint32_t WindowOf(uint32_t request) {
    uint32_t window = request & 0xFFFFu;
    bool valid = (request & 0xFFFF0000u) == kWindowRequest && window >= kMinWindow &&
                 window <= kMaxWindow;
    return valid ? window : kDefaultWindow;
}

// One consistent reading of a ring's indices, every one inside the table.
struct RingView {
    const SharedMemSectorHeader *ring;
    int oldest, latest, boundary;
    uint32_t off(int i) const { return shm::LoadWord(ring->atFrame[i].dwOffset); }
    uint32_t end(int i) const { return off(i) + shm::LoadWord(ring->atFrame[i].dwSize); }
    uint32_t ms(int from, int to) const {  // wrap-aware distance of two entries' ticks
        uint32_t d = 0;
        SharedMem_DWComparator(shm::LoadWord(ring->atFrame[from].dwTimeTick),
                               shm::LoadWord(ring->atFrame[to].dwTimeTick), &d);
        return d;
    }
    bool twoGenerations() const { return oldest > latest; }
};

bool ReadView(const SharedMemSectorHeader *ring, RingView *v) {
    v->ring = ring;
    v->oldest = shm::LoadIndex(ring->iOldestIndex);
    v->latest = shm::LoadIndex(ring->iLatestIndex);
    v->boundary = shm::LoadIndex(ring->iBoundaryIndex);
    // Loaded once after the header was judged; a value that has moved out
    // of the table since is not used.
    // A ring that stores frames has an oldest and a latest one.
    auto fits = [](int i) { return i >= -1 && i <= shm::kLastEntry; };
    bool stored = v->boundary >= 0;
    return fits(v->oldest) && fits(v->latest) && fits(v->boundary) &&
           (!stored || (v->oldest >= 0 && v->latest >= 0));
}

uint32_t Intervals(const RingView &v) {
    if (v.boundary <= 0) return 0;
    int n = v.twoGenerations() ? v.boundary + (v.latest - v.oldest + 1) : v.boundary;
    return static_cast<uint32_t>(n);
}

uint32_t BytesStored(const RingView &v) {
    if (v.boundary <= 0) return 0;
    uint32_t bytes = v.end(v.boundary) - v.ring->dwStartOffset;
    if (v.twoGenerations()) bytes += v.end(v.latest) - v.off(v.oldest);
    return bytes;
}

// Bits per millisecond over the last `window` frames, reaching back over
// the wrap when the newer generation is too short; the average over the
// whole ring when too few frames are stored or no time passed.
uint32_t BitRate(const RingView &v, uint32_t window, uint32_t intervals, uint32_t bytesStored) {
    uint32_t duration = v.ring->dwDuration;
    if (duration == 0) return 0;
    uint64_t average = static_cast<uint64_t>(bytesStored) * 8 / duration;
    int w = static_cast<int>(window);
    int latest = v.latest;
    if (latest < 0 || v.boundary < 1) return static_cast<uint32_t>(average);  // a damaged ring
    uint64_t bytes = 0;
    uint32_t ms = 0;
    if (w < latest) {
        bytes = v.off(latest) - v.off(latest - w);
        ms = v.ms(latest - w, latest - 1);
    } else if (intervals <= window + kFewFramesSlack) {
        return static_cast<uint32_t>(average);
    } else {
        int rest = w;
        if (latest > 3) {
            bytes = v.off(latest) - v.ring->dwStartOffset;
            ms = v.ms(0, latest - 1);
            rest = w + 1 - latest;
        }
        if (latest <= 3 || rest >= kFewFramesSlack) {
            int from = v.boundary - rest;
            if (from < 0) return static_cast<uint32_t>(average);
            bytes += v.off(v.boundary) - v.off(from);
            ms += v.ms(from, v.boundary - 1);
        }
    }
    return static_cast<uint32_t>(ms != 0 ? bytes * 8 / ms : average);
}

int QueryRing(const SharedMemSectorHeader *ring, uint32_t *info, uint32_t count) {
    RingView v;
    if (!ReadView(ring, &v)) {
        shm::LogError("sector %.35s: indices O %d L %d B %d do not fit together\n", ring->szTag,
                      v.oldest, v.latest, v.boundary);
        return -1;
    }
    uint32_t intervals = Intervals(v);
    uint32_t bytes = BytesStored(v);
    uint32_t form = v.boundary < 0 ? 0 : v.twoGenerations() ? 2 : 1;
    uint32_t figures[kInfoElements] = {0, 0, 0, form, ring->dwDuration, intervals, bytes, 0};
    for (uint32_t e = kInfoForm; e < count && e < kInfoBitRate; ++e) info[e] = figures[e];
    if (count > kInfoBitRate) {
        info[kInfoBitRate] = BitRate(v, WindowOf(info[kInfoBitRate]), intervals, bytes);
    }
    return 0;
}

void ShowRing(const SharedMemSectorHeader *ring, const uint32_t *info) {
    bool timed = info[kInfoForm] != 0 && info[kInfoDuration] != 0;
    uint32_t average = timed ? static_cast<uint32_t>(static_cast<uint64_t>(info[kInfoBytes]) * 8 /
                                                     info[kInfoDuration])
                             : 0;
    int fps = timed ? static_cast<int>(static_cast<uint64_t>(info[kInfoIntervals]) * 1000000 /
                                       info[kInfoDuration])
                    : -1;
    printf("%.35s: Off. [0x%x - 0x%x] Dur. %u Br. %u/%u OI %d LI %d BI %d FPS %d\n", ring->szTag,
           ring->dwStartOffset, ring->dwEndOffset, info[kInfoDuration], info[kInfoBitRate],
           average, shm::LoadIndex(ring->iOldestIndex), shm::LoadIndex(ring->iLatestIndex),
           shm::LoadIndex(ring->iBoundaryIndex), fps);
}

// The whole table in one buffer, printed at once.
void ShowCache(const SharedMemCacheHeader *cache) {
    char text[kCacheTextSize];
    size_t used = 0;
    int latest = shm::LoadIndex(cache->iLatestIndex);
    int oldest = shm::LoadIndex(cache->iOldestIndex);
    for (int i = 0; i <= shm::LastPrimarySlot(cache) && used < sizeof text; ++i) {
        const SharedMemCacheEntry &e = cache->atCache[i];
        used += static_cast<size_t>(snprintf(
            text + used, sizeof text - used, "Primary Cache[%d]%s%s: Size %u,\tTimeTick %u,Flag %08x ",
            i, i == latest ? "+" : " ", i == oldest ? "-" : " ", shm::LoadWord(e.dwSize),
            shm::LoadWord(e.dwTimeTick), shm::LoadWord(e.dwFlags)));
        for (int a = 0; a < shm::kAttachIds && used < sizeof text; ++a) {
            used += static_cast<size_t>(
                snprintf(text + used, sizeof text - used, "%d", e.abyAccessCount[a]));
        }
        if (used < sizeof text) used += static_cast<size_t>(snprintf(text + used, sizeof text - used, "\n"));
    }
    text[used < sizeof text ? used : sizeof text - 1] = '\0';
    printf("%s\n", text);
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_QueryInfo(SharedMemHandle *ptHandle, uint32_t *pdwInfo, uint32_t dwSize) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr) return -1;
    const SharedMemSectorHeader *header = ptHandle->ptHeader;
    uint32_t count = dwSize / sizeof(uint32_t);
    if (count > 0 && pdwInfo == nullptr) return -1;
    uint32_t common[] = {header->dwSectorType, header->dwMemoryType,
                         header->dwEndOffset - header->dwStartOffset};
    for (uint32_t e = 0; e < count && e <= kInfoDataSize; ++e) pdwInfo[e] = common[e];
    if (header->dwSectorType != SHM_SECTOR_RING || count <= kInfoForm) return 0;
    if (!shm::RingIntact(ptHandle)) return -1;
    return QueryRing(header, pdwInfo, count);
}

MOLK_API int SharedMem_ShowInfo(SharedMemHandle *ptHandle) {
    uint32_t info[kInfoElements] = {};
    if (SharedMem_QueryInfo(ptHandle, info, sizeof info) != 0) return -1;
    if (info[kInfoType] == SHM_SECTOR_RING) {
        ShowRing(ptHandle->ptHeader, info);
    } else if (info[kInfoType] == SHM_SECTOR_CACHE) {
        ShowCache(shm::CacheOf(ptHandle));
    }
    return 0;
}

}  // extern "C"
