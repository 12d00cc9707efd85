// SharedMem_SearchNextBufferIndex: the next slot after a tick by plain
// unsigned comparison. Where the sector's ticks have wrapped past 0 (the
// oldest item's tick above the latest's), the slots fall into two ranges:
// the normal one from the oldest tick up to 0xFFFFFFFF, and the overflow
// one from 0 up to the latest tick, which comes after it in time. It tells
// its reasoning on standard output, whatever the debug word says.
#include <cstdio>

#include "framestore/cache.h"
#include "framestore/sector_check.h"

namespace {

// The smallest tick of a range; of equal ticks the highest slot wins, so
// slots are taken in order and a tie replaces the best.
struct Smallest {
    int slot = -1;
    uint32_t tick = 0xFFFFFFFFu;
    void Offer(int i, uint32_t t) {
        if (slot < 0 || t <= tick) {
            slot = i;
            tick = t;
        }
    }
};

// Which slots one search looks at.
struct Range {
    int first;
    int last;
};

bool RangeOf(const SharedMemCacheHeader *cache, uint32_t type, Range *range) {
    if (type == SHM_BUFFER_PRIMARY) {
        range->first = 0;
        range->last = shm::LastPrimarySlot(cache);
        if (range->last < 0) {
            printf("No primary buffer!!");
            return false;
        }
    } else if (type == SHM_BUFFER_SECONDARY) {
        range->first = shm::LoadIndex(cache->iSecondaryBoundary);
        range->last = shm::LastNamedSlot(cache);
        if (range->first < 0) {
            printf("No secondary buffer!!");
            return false;
        }
    } else {
        printf("Invalid buffer type");
        return false;
    }
    return range->first <= range->last;
}

bool Passes(const SharedMemCacheHeader *cache, int i, uint32_t filter) {
    const SharedMemCacheEntry &entry = cache->atCache[i];
    return !shm::FilterRejects(filter, shm::SlotFlags(cache, i), entry.abyAccessCount);
}

void TraceSlot(int i, uint32_t tick, uint32_t reference, uint32_t best) {
    printf("%d=> dwTimeTick: %u, dwRefTimeTick: %u, dwRequestTimeTick: %u\n", i, tick, reference,
           best);
}

// No wrap in the sector: the smallest tick above the reference.
int NextInOrder(const SharedMemCacheHeader *cache, Range r, uint32_t reference, uint32_t filter) {
    Smallest best;
    for (int i = r.first; i <= r.last; ++i) {
        uint32_t tick = shm::SlotTick(cache, i);
        if (tick > reference && Passes(cache, i, filter)) best.Offer(i, tick);
    }
    return best.slot;
}

// The reference lies behind the wrap: only the overflow range is after it.
int NextBehindWrap(const SharedMemCacheHeader *cache, Range r, uint32_t reference,
                   uint32_t latestTick, uint32_t filter) {
    Smallest best;
    for (int i = r.first; i <= r.last; ++i) {
        uint32_t tick = shm::SlotTick(cache, i);
        TraceSlot(i, tick, reference, best.tick);
        if (tick > reference && tick <= latestTick && Passes(cache, i, filter)) best.Offer(i, tick);
        printf("iRequestIndex: %d\n", best.slot);
    }
    return best.slot;
}

// The reference lies in the normal range: what follows it there comes
// first, and the overflow range only after the normal range is done.
int NextBeforeWrap(const SharedMemCacheHeader *cache, Range r, uint32_t reference,
                   uint32_t oldestTick, uint32_t latestTick, uint32_t filter) {
    Smallest normal;
    Smallest overflow;
    for (int i = r.first; i <= r.last; ++i) {
        uint32_t tick = shm::SlotTick(cache, i);
        TraceSlot(i, tick, reference, normal.slot >= 0 ? normal.tick : overflow.tick);
        if (Passes(cache, i, filter)) {
            if (tick >= oldestTick && tick > reference) normal.Offer(i, tick);
            if (tick <= latestTick) overflow.Offer(i, tick);
        }
        int request = normal.slot >= 0 ? normal.slot : overflow.slot;
        printf("iNormalRangeIndex: %d. iOverFlowIndex: %d. iRequestIndex: %d\n", normal.slot,
               overflow.slot, request);
    }
    return normal.slot >= 0 ? normal.slot : overflow.slot;
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_SearchNextBufferIndex(SharedMemCacheHeader *ptHeader,
                                             uint32_t dwRefTimeTick, uint32_t dwBufferType,
                                             uint32_t dwFilter) {
    if (!shm::CacheIntact(ptHeader)) return -1;
    Range range;
    if (!RangeOf(ptHeader, dwBufferType, &range)) return -1;
    int oldest = shm::OldestSlot(ptHeader);
    int latest = shm::LatestSlot(ptHeader);
    if (oldest < 0 || latest < 0) return -1;
    uint32_t oldestTick = shm::SlotTick(ptHeader, oldest);
    uint32_t latestTick = shm::SlotTick(ptHeader, latest);
    if (oldestTick <= latestTick) return NextInOrder(ptHeader, range, dwRefTimeTick, dwFilter);

    printf("Time tick overflow.");
    if (dwRefTimeTick <= latestTick) {
        printf("dwRefTimeTick <= dwLatestTimeTick");
        return NextBehindWrap(ptHeader, range, dwRefTimeTick, latestTick, dwFilter);
    }
    if (dwRefTimeTick < oldestTick) {
        printf("RefTimeTick is out of date!!");
        return oldest;
    }
    printf("dwRefTimeTick >= dwOldestTimeTick");
    return NextBeforeWrap(ptHeader, range, dwRefTimeTick, oldestTick, latestTick, dwFilter);
}

}  // extern "C"
