#include "framestore/sector_check.h"

#include "framestore/attachments.h"
#include "framestore/cache.h"

namespace shm {
namespace {

bool Refuse(const void *slot, const char *field, long long value) {
    LogError("sector %.35s: %s %lld out of range\n", TagOf(const_cast<void *>(slot)), field,
             value);
    return false;
}

bool Within(int value, int low, int high) { return value >= low && value <= high; }

// The data area is the one the block's layout gives the sector. A layout
// that changed as a whole (a repartition) is taken as the new one.
bool AreaOfLayout(const void *slot, uint32_t start, uint32_t end, SegmentBounds bounds,
                  Attachment *a) {
    int k = bounds.sector;
    if (start == a->layout.start[k] && end == a->layout.end[k]) return true;
    Layout now;
    if (ReadLayout(a->base, a->size, a->layout.sectors, &now) && now.start[k] == start &&
        now.end[k] == end) {
        a->layout = now;
        return true;
    }
    bool moved = start != a->layout.start[k];
    return Refuse(slot, moved ? "dwStartOffset" : "dwEndOffset", moved ? start : end);
}

// The data area lies behind the header slots and inside the segment, where
// the block's layout puts it when the layout is known.
bool DataAreaIntact(const void *slot, SegmentBounds bounds) {
    const SharedMemSectorHeader *h = static_cast<const SharedMemSectorHeader *>(slot);
    uint32_t start = h->dwStartOffset;
    uint32_t end = h->dwEndOffset;
    Attachment *a = bounds.attachment;
    if (a != nullptr && bounds.sector >= 0 && bounds.sector < a->layout.sectors) {
        return AreaOfLayout(slot, start, end, bounds, a);
    }
    if (start < bounds.headerEnd || start > bounds.size) return Refuse(slot, "dwStartOffset", start);
    if (end < start || end > bounds.size) return Refuse(slot, "dwEndOffset", end);
    return true;
}

}  // namespace

SegmentBounds BoundsOf(const SharedMemHandle *handle) {
    const SharedMemSectorHeader *first = static_cast<const SharedMemSectorHeader *>(handle->pvBase);
    Attachment *a = AttachmentAt(handle->pvBase);
    uint32_t size = a != nullptr ? a->size : first->dwTotalSize;
    uint32_t own = static_cast<uint32_t>(handle->iSectorIndex + 1) * kSlotSize;
    uint32_t slots = first->dwStartOffset <= size ? first->dwStartOffset : 0;
    return {size, own > slots ? own : slots, a, handle->iSectorIndex};
}

// A caller with only a header: its indices are judged, while its offsets
// become pointers only through a handle, which judges them too.
SegmentBounds BoundsOf(const void *) { return {UINT32_MAX, 0, nullptr, -1}; }

bool RingIntact(const SharedMemSectorHeader *ring, SegmentBounds bounds) {
    if (ring->dwSectorType != SHM_SECTOR_RING) {
        LogError("sector %.35s is not a ring\n", TagOf(const_cast<SharedMemSectorHeader *>(ring)));
        return false;
    }
    if (!DataAreaIntact(ring, bounds)) return false;
    uint32_t write = LoadWord(ring->dwWriteOffset);
    if (write < ring->dwStartOffset || write > ring->dwEndOffset) {
        return Refuse(ring, "dwWriteOffset", write);
    }
    int max = LoadIndex(ring->iMaxIndex);
    if (!Within(max, 0, kLastEntry)) return Refuse(ring, "iMaxIndex", max);
    const struct {
        const char *name;
        int value, low, high;
    } indices[] = {
        {"iOldestIndex", LoadIndex(ring->iOldestIndex), -1, max},
        {"iLatestIndex", LoadIndex(ring->iLatestIndex), -1, max},
        {"iBoundaryIndex", LoadIndex(ring->iBoundaryIndex), -1, max},
        {"iWriteIndex", LoadIndex(ring->iWriteIndex), 0, max + 1},
    };
    for (const auto &i : indices) {
        if (!Within(i.value, i.low, i.high)) return Refuse(ring, i.name, i.value);
    }
    return true;
}

bool CacheIntact(const SharedMemCacheHeader *cache, SegmentBounds bounds) {
    if (cache->dwSectorType != SHM_SECTOR_CACHE) {
        LogError("Must be mode %d sector!!\n", static_cast<int>(SHM_SECTOR_CACHE));
        return false;
    }
    if (!DataAreaIntact(cache, bounds)) return false;
    const struct {
        const char *name;
        int value, low;
    } indices[] = {
        {"iOldestIndex", LoadIndex(cache->iOldestIndex), -1},
        {"iLatestIndex", LoadIndex(cache->iLatestIndex), -1},
        {"iWriteIndex", LoadIndex(cache->iWriteIndex), 0},
        {"iPrimaryBoundary", LoadIndex(cache->iPrimaryBoundary), -1},
        {"iSecondaryBoundary", LoadIndex(cache->iSecondaryBoundary), -1},
        {"iSecondaryEnd", LoadIndex(cache->iSecondaryEnd), -1},
    };
    for (const auto &i : indices) {
        if (!Within(i.value, i.low, kLastSlot)) return Refuse(cache, i.name, i.value);
    }
    return true;
}

}  // namespace shm
