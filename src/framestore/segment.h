// The one place that knows how a block's memory is laid out.
//
// Map of a segment with N sectors:
//   0 .. N*41088-1            N header slots, slot i at i*41088, any type
//   N*41088 .. end(sector 0)  data area of sector 0 (its size counts from 0)
//   end(i-1) .. end(i)        data area of sector i
//
// Ring header slot (SharedMemSectorHeader), every word native byte order:
//   OFFSET  SIZE  FIELD            NOTE
//        0     4  dwSectorType     1
//        4     4  dwMemoryType     1 = System V
//        8     4  dwTotalSize      whole segment, same in every slot
//       12     4  dwPhysicalBase   0
//       16     4  dwEndOffset      one past the data area
//       20     4  dwStartOffset    first byte of the data area
//       24     4  dwWriteOffset    where the next frame goes
//       28     4  dwDuration       ms from oldest to latest tick
//       32     4  iOldestIndex     -1 = none
//       36     4  iLatestIndex     -1 = none
//       40     4  iWriteIndex      may stand at 1280
//       44     4  iBoundaryIndex   last used entry before the wrap
//       48     4  iMaxIndex        1279
//       52    36  szTag            NUL-padded, at most 35 characters
//       88    36  szSecondTag      adaptive-timestamp file path, or empty
//      124     2  reserved
//      126     1  byTimeshift
//      127     1  byHasNext        0 in the last slot
//      128 40960  atFrame[1280]    32 bytes each
//
// Cache header slot (SharedMemCacheHeader), 1256 bytes used, rest zero:
//   OFFSET  SIZE  FIELD
//        0    24  as in a ring (type 2) up to dwStartOffset
//       24     4  dwOverwrittenFlags
//       28     4  dwPrimarySize    multiple of 4
//       32     4  dwSecondarySize
//       36     4  dwLeftSize
//       40    24  iOldestIndex iLatestIndex iWriteIndex
//                 iPrimaryBoundary iSecondaryBoundary iSecondaryEnd(35)
//       64    36  szTag
//      100     3  reserved
//      103     1  byHasNext
//      104  1152  atCache[36]
//
// Readers load the index words without the sector lock, so each of them is
// 4-aligned and written in one store.
#ifndef MOLK_FRAMESTORE_SEGMENT_H
#define MOLK_FRAMESTORE_SEGMENT_H

#include <cstddef>
#include <cstdint>

#include "sharedmem.h"

namespace shm {

constexpr uint32_t kSlotSize = SHM_HEADER_SLOT_SIZE;
constexpr uint32_t kCacheHeaderUsed = SHM_CACHE_HEADER_USED;
constexpr int kFrameEntries = SHM_FRAME_ENTRIES;
constexpr int kCacheEntries = SHM_CACHE_ENTRIES;
constexpr int kAttachIds = SHM_ATTACH_IDS;
constexpr size_t kTagMax = SHM_TAG_MAX;
constexpr uint32_t kFrameAlign = 4;       // ring frames are rounded up to this
constexpr uint32_t kRingEntriesOffset = offsetof(SharedMemSectorHeader, atFrame);
constexpr uint32_t kCacheEntriesOffset = offsetof(SharedMemCacheHeader, atCache);

// The whole format is a contract between processes of both word sizes:
// a field that moves breaks every other process on the device.
#define SHM_AT(rec, field, off) \
    static_assert(offsetof(rec, field) == (off), #rec "." #field " is shared at byte " #off)

static_assert(sizeof(SharedMemFrameEntry) == 32, "1280 entries fill 40960 bytes");
static_assert(sizeof(SharedMemCacheEntry) == 32, "36 entries fill 1152 bytes");
SHM_AT(SharedMemFrameEntry, dwFlags, 0);
SHM_AT(SharedMemFrameEntry, dwTimeTick, 4);
SHM_AT(SharedMemFrameEntry, dwOffset, 8);
SHM_AT(SharedMemFrameEntry, dwSize, 12);
SHM_AT(SharedMemFrameEntry, abyAccessCount, 16);
SHM_AT(SharedMemCacheEntry, dwFlags, 0);
SHM_AT(SharedMemCacheEntry, dwTimeTick, 4);
SHM_AT(SharedMemCacheEntry, dwOffset, 8);
SHM_AT(SharedMemCacheEntry, dwSize, 12);
SHM_AT(SharedMemCacheEntry, abyAccessCount, 16);

static_assert(sizeof(SharedMemSectorHeader) == 41088, "a ring header fills its slot exactly");
SHM_AT(SharedMemSectorHeader, dwSectorType, 0);
SHM_AT(SharedMemSectorHeader, dwMemoryType, 4);
SHM_AT(SharedMemSectorHeader, dwTotalSize, 8);
SHM_AT(SharedMemSectorHeader, dwPhysicalBase, 12);
SHM_AT(SharedMemSectorHeader, dwEndOffset, 16);
SHM_AT(SharedMemSectorHeader, dwStartOffset, 20);
SHM_AT(SharedMemSectorHeader, dwWriteOffset, 24);
SHM_AT(SharedMemSectorHeader, dwDuration, 28);
SHM_AT(SharedMemSectorHeader, iOldestIndex, 32);
SHM_AT(SharedMemSectorHeader, iLatestIndex, 36);
SHM_AT(SharedMemSectorHeader, iWriteIndex, 40);
SHM_AT(SharedMemSectorHeader, iBoundaryIndex, 44);
SHM_AT(SharedMemSectorHeader, iMaxIndex, 48);
SHM_AT(SharedMemSectorHeader, szTag, 52);
SHM_AT(SharedMemSectorHeader, szSecondTag, 88);
SHM_AT(SharedMemSectorHeader, abyReserved, 124);
SHM_AT(SharedMemSectorHeader, byTimeshift, 126);
SHM_AT(SharedMemSectorHeader, byHasNext, 127);
SHM_AT(SharedMemSectorHeader, atFrame, 128);

static_assert(sizeof(SharedMemCacheHeader) == 1256, "the allocator reports 1256 per cache");
SHM_AT(SharedMemCacheHeader, dwSectorType, 0);
SHM_AT(SharedMemCacheHeader, dwMemoryType, 4);
SHM_AT(SharedMemCacheHeader, dwTotalSize, 8);
SHM_AT(SharedMemCacheHeader, dwPhysicalBase, 12);
SHM_AT(SharedMemCacheHeader, dwEndOffset, 16);
SHM_AT(SharedMemCacheHeader, dwStartOffset, 20);
SHM_AT(SharedMemCacheHeader, dwOverwrittenFlags, 24);
SHM_AT(SharedMemCacheHeader, dwPrimarySize, 28);
SHM_AT(SharedMemCacheHeader, dwSecondarySize, 32);
SHM_AT(SharedMemCacheHeader, dwLeftSize, 36);
SHM_AT(SharedMemCacheHeader, iOldestIndex, 40);
SHM_AT(SharedMemCacheHeader, iLatestIndex, 44);
SHM_AT(SharedMemCacheHeader, iWriteIndex, 48);
SHM_AT(SharedMemCacheHeader, iPrimaryBoundary, 52);
SHM_AT(SharedMemCacheHeader, iSecondaryBoundary, 56);
SHM_AT(SharedMemCacheHeader, iSecondaryEnd, 60);
SHM_AT(SharedMemCacheHeader, szTag, 64);
SHM_AT(SharedMemCacheHeader, abyReserved, 100);
SHM_AT(SharedMemCacheHeader, byHasNext, 103);
SHM_AT(SharedMemCacheHeader, atCache, 104);
static_assert(alignof(SharedMemSectorHeader) == 4 && alignof(SharedMemCacheHeader) == 4,
              "word alignment only: no 8-byte member may creep in on either ABI");

#undef SHM_AT

// Both header kinds share their first 24 bytes, so the type word and the
// offsets can be read through either view.
inline uint32_t SlotType(const void *slot) {
    return static_cast<const SharedMemSectorHeader *>(slot)->dwSectorType;
}
inline bool IsCacheSlot(const void *slot) { return SlotType(slot) == SHM_SECTOR_CACHE; }

inline void *SlotAt(void *headerBase, int index) {
    return static_cast<uint8_t *>(headerBase) + static_cast<size_t>(index) * kSlotSize;
}

// byHasNext sits at byte 103 in a cache slot and at byte 127 otherwise.
inline uint8_t *HasNextOf(void *slot) {
    return IsCacheSlot(slot) ? &static_cast<SharedMemCacheHeader *>(slot)->byHasNext
                             : &static_cast<SharedMemSectorHeader *>(slot)->byHasNext;
}
// szTag sits at byte 64 in a cache slot and at byte 52 otherwise.
inline char *TagOf(void *slot) {
    return IsCacheSlot(slot) ? static_cast<SharedMemCacheHeader *>(slot)->szTag
                             : static_cast<SharedMemSectorHeader *>(slot)->szTag;
}

// Pointer to the byte at a segment offset. Offsets come from the segment,
// so a caller that cannot trust one checks it with OffsetInside first.
inline uint8_t *AtOffset(void *base, uint32_t offset) {
    return static_cast<uint8_t *>(base) + offset;
}
inline bool OffsetInside(uint32_t totalSize, uint32_t offset, uint32_t size) {
    return offset <= totalSize && size <= totalSize - offset;
}

// Copies a tag of at most 35 characters into a 36-byte field, NUL-padded.
void CopyTag(char (&field)[SHM_TAG_SIZE], const char *text);

// Walks the chain of slots from slot 0 and returns the number of sectors.
// The walk never goes past maxSlots, the slots the mapping really holds.
int CountSectors(void *headerBase, int maxSlots);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_SEGMENT_H
