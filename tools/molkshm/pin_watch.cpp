// Sampling of the pins of every ring entry and cache slot, for `top`.
#include "pin_watch.h"

namespace {

double SinceBefore(const PinWatch &old, const PinSeen &pin, double now) {
    for (int i = 0; i < old.count; ++i) {
        const PinSeen &p = old.seen[i];
        if (p.sector == pin.sector && p.entry == pin.entry && p.attachId == pin.attachId &&
            p.tick == pin.tick) {
            return p.since;
        }
    }
    return now;
}

void Add(PinWatch *next, const PinWatch &old, PinSeen pin, double now) {
    if (next->count == PinWatch::kMax) return;
    pin.since = SinceBefore(old, pin, now);
    next->seen[next->count++] = pin;
}

// Ring entries and cache slots: two types with the same fields.
template <typename Entry>
void SampleSector(PinWatch *next, const PinWatch &old, int sector, const Entry *entries,
                  int count, double now) {
    for (int i = 0; i < count; ++i) {
        for (int id = 0; id < SHM_ATTACH_IDS; ++id) {
            if (entries[i].abyAccessCount[id] == 0) continue;
            Add(next, old, {sector, i, id, entries[i].dwTimeTick, 0}, now);
        }
    }
}

}  // namespace

void SamplePins(PinWatch *watch, const SharedMemBlockInfo *info, double now) {
    static PinWatch next;  // kept off the stack
    next.count = 0;
    for (int s = 0; s < info->iSectorNum; ++s) {
        const SharedMemSectorHeader *sector = SectorAt(info, s);
        if (sector->dwSectorType == SHM_SECTOR_CACHE) {
            const SharedMemCacheHeader *cache =
                reinterpret_cast<const SharedMemCacheHeader *>(sector);
            SampleSector(&next, *watch, s, cache->atCache, SHM_CACHE_ENTRIES, now);
        } else {
            SampleSector(&next, *watch, s, sector->atFrame, SHM_FRAME_ENTRIES, now);
        }
    }
    *watch = next;
}
