// Every value in the segment is outside data: any process of the device
// can leave anything in a sector header. Before an operation uses a
// header's offsets and indices, these checks say whether they describe a
// sector of the operation's kind whose data area lies behind the header
// slots and inside the segment, and whose indices lie inside its table.
// A header that fails is refused with one logged line naming the sector
// and the field; nothing is written and no pointer is handed out.
//
// Entries' own offsets and sizes are checked where they become pointers
// (FrameData in ring.h, SlotData in cache.h).
#ifndef MOLK_FRAMESTORE_SECTOR_CHECK_H
#define MOLK_FRAMESTORE_SECTOR_CHECK_H

#include <cstdint>

#include "sharedmem.h"

namespace shm {

// The bounds a header is judged against: the bytes of the segment, where
// the header slots end, and, for a sector of an attached block, the data
// area of the layout its headers last described as a whole (a sector may
// not move its area on its own).
struct Attachment;
struct SegmentBounds {
    uint32_t size;
    uint32_t headerEnd;
    Attachment *attachment;  // the attached segment's record, or null
    int sector;              // the sector's index in it
};

// For a handle: the segment's real size (taken at attach), and the header
// slots in front of sector 0's data area, at least up to the handle's own.
SegmentBounds BoundsOf(const SharedMemHandle *handle);
// For a caller that has only a header: no bounds on the offsets, which
// such callers never turn into pointers.
SegmentBounds BoundsOf(const void *header);

bool RingIntact(const SharedMemSectorHeader *ring, SegmentBounds bounds);
bool CacheIntact(const SharedMemCacheHeader *cache, SegmentBounds bounds);

// A handle on a ring, on a cache sector, and a ring handle's companion cache.
inline bool RingIntact(const SharedMemHandle *handle) {
    return handle != nullptr && handle->ptHeader != nullptr &&
           RingIntact(handle->ptHeader, BoundsOf(handle));
}
inline bool CacheIntact(const SharedMemHandle *handle) {
    return handle != nullptr && handle->ptHeader != nullptr &&
           CacheIntact(reinterpret_cast<const SharedMemCacheHeader *>(handle->ptHeader),
                       BoundsOf(handle));
}
inline bool CompanionIntact(const SharedMemHandle *handle) {
    SegmentBounds bounds = BoundsOf(handle);
    bounds.sector = handle->iCacheIndex;
    return handle->ptCacheHeader != nullptr && CacheIntact(handle->ptCacheHeader, bounds);
}
// Header-only callers.
inline bool RingIntact(const SharedMemSectorHeader *ring) {
    return ring != nullptr && RingIntact(ring, BoundsOf(ring));
}
inline bool CacheIntact(const SharedMemCacheHeader *cache) {
    return cache != nullptr && CacheIntact(cache, BoundsOf(cache));
}

}  // namespace shm

#endif  // MOLK_FRAMESTORE_SECTOR_CHECK_H
