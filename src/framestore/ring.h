// What the ring writer, the reader clients and the tick searches share:
// entry access, the live test, pins, and how index words are loaded and
// stored while other processes look at them.
//
// Indices, O = iOldestIndex, L = iLatestIndex, W = iWriteIndex,
// B = iBoundaryIndex. The ring is always in one of four forms:
//   empty            O = L = B = -1, W = 0, dwWriteOffset = dwStartOffset
//   one generation   O = 0, L = B = W - 1                 live: 0..L
//   just rewound     O = W = 0, L = B, dwWriteOffset = dwStartOffset
//                                                        live: 0..B
//   two generations  0 <= L, W = L + 1, W <= O <= B      live: O..B, 0..L
// so an index i names a live frame when i <= B and not (L < i < O).
//
// Only the writer process stores the index words and the entries' offsets,
// sizes and ticks; readers load them without any lock. Every such word is
// accessed as one aligned 32-bit load or store (relaxed atomics: plain
// ldr/str on ARM, but the compiler may neither tear nor re-read them).
// Pin counters change only under the sector lock, and so does the setting
// of SHM_FRAME_WRITING on an entry a reader might pin. Entries the writer
// has marked are its own: it rewrites their flag word without the lock,
// and the mark of the entry it publishes goes only after the last index.
#ifndef MOLK_FRAMESTORE_RING_H
#define MOLK_FRAMESTORE_RING_H

#include <cstdint>
#include <cstring>

#include "framestore/log.h"
#include "framestore/segment.h"

namespace shm {

constexpr int kLastEntry = kFrameEntries - 1;

// Where a reader client's held frame is pinned (SharedMemBufClient.dwHoldType).
enum HoldType : uint32_t { kHoldRing = 1, kHoldCache = 2 };
constexpr uint32_t kRingPinMask = 0xFu;  // AttachIDs 0..15 own a counter

inline int LoadIndex(const int &word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }
inline uint32_t LoadWord(const uint32_t &word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }
inline void StoreIndex(int &word, int value) { __atomic_store_n(&word, value, __ATOMIC_RELAXED); }
inline void StoreWord(uint32_t &word, uint32_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// What a missing read request stands for: an in-place read of zeros.
constexpr SharedMemReadRequest kDefaultRequest = {SHM_READ_IN_PLACE, 0, 0, 0, 0, 0, 0, 0};

// Ring frames occupy their size rounded up to 4 bytes. Done in 64 bits so
// that a size near 2^32 cannot round to 0.
inline uint64_t RoundFrameSize(uint32_t size) {
    return (static_cast<uint64_t>(size) + (kFrameAlign - 1)) & ~static_cast<uint64_t>(kFrameAlign - 1);
}

// The highest entry index a walk may touch: iMaxIndex, but never outside
// the table, whatever the segment says.
inline int MaxIndex(const SharedMemSectorHeader *ring) {
    int max = LoadIndex(ring->iMaxIndex);
    return max < 0 ? 0 : max < kLastEntry ? max : kLastEntry;
}

inline bool InTable(int index) { return index >= 0 && index <= kLastEntry; }

// The last entry a walk over the older generation may touch: B, never past
// the highest entry.
inline int LastOldEntry(const SharedMemSectorHeader *ring) {
    int boundary = LoadIndex(ring->iBoundaryIndex);
    int max = MaxIndex(ring);
    return boundary < max ? boundary : max;
}

// Bytes from `from` to the end of the data area; 0 if `from` lies beyond.
inline uint32_t RoomFrom(const SharedMemSectorHeader *ring, uint32_t from) {
    uint32_t end = ring->dwEndOffset;
    return from < end ? end - from : 0;
}

// B as a reader must use it. In every form L <= B; a reader loads L above
// B only while the writer publishes a frame that extends the one
// generation (or the first frame of an empty ring): L is stored before B,
// and B is about to become L. Taken as it stands, that B would judge the
// newest frame dead, and would send a reader whose cursor is on the frame
// before it back to entry 0, the oldest.
inline int BoundaryOf(int latest, int boundary) { return latest > boundary ? latest : boundary; }

// The live test on one set of index values.
inline bool IsLive(int index, int latest, int oldest, int boundary) {
    return index <= BoundaryOf(latest, boundary) && !(latest < index && index < oldest);
}

// The live test on the ring as it stands now. The words are loaded one by
// one: a writer may move them in between, which callers tolerate by
// testing the tick and, before a pin, SHM_FRAME_WRITING under the lock.
inline bool IsLive(const SharedMemSectorHeader *ring, int index) {
    return IsLive(index, LoadIndex(ring->iLatestIndex), LoadIndex(ring->iOldestIndex),
                  LoadIndex(ring->iBoundaryIndex));
}

// The validity test of a client on a ring whose header has been judged
// (SharedMem_CheckClientValid judges it first).
int ClientValid(const SharedMemSectorHeader *ring, const SharedMemBufClient *client,
                const char *purpose);

// True when any of the entry's 16 pin counters is not zero.
inline bool HasPins(const uint8_t (&counts)[16]) {
    return memcmp(counts, g_abyNULLArray, sizeof counts) != 0;
}

// Address of entry `index`'s frame when its offset and size lie inside
// the ring's data area, else null: both come from the segment.
inline uint8_t *FrameData(void *base, const SharedMemSectorHeader *ring, int index) {
    if (!InTable(index)) return nullptr;
    uint32_t offset = LoadWord(ring->atFrame[index].dwOffset);
    uint32_t size = LoadWord(ring->atFrame[index].dwSize);
    uint32_t end = ring->dwEndOffset;
    if (offset < ring->dwStartOffset || end > ring->dwTotalSize || offset > end ||
        size > end - offset) {
        return nullptr;
    }
    return AtOffset(base, offset);
}

// The filters of the tick and slot searches: SHM_SEARCH_COMPLETE passes
// over entries being written or given up, SHM_SEARCH_UNPINNED over pinned
// ones, SHM_SEARCH_ANY over none.
inline bool FilterRejects(uint32_t filter, uint32_t flags, const uint8_t (&counts)[16]) {
    if (filter == SHM_SEARCH_COMPLETE) return (flags & (SHM_FRAME_WRITING | SHM_FRAME_ERROR)) != 0;
    if (filter == SHM_SEARCH_UNPINNED) return HasPins(counts);
    return false;
}

inline bool PinsCounted(int attachId) {
    return static_cast<uint32_t>(attachId) <= kRingPinMask;
}

// Raises this AttachID's counter of an entry. Sector lock held. 8 bits,
// unchecked: staying below 256 holds per AttachID is the caller's part.
inline void RaisePin(uint8_t (&counts)[16], int index, int attachId) {
    if (!PinsCounted(attachId)) return;
    uint8_t now = ++counts[attachId];
    SHM_TRACE(kTracePins, "\trequest %d, AttachID %d count to %d\n", index, attachId, now);
}

// Lowers it again. Sector lock held. A counter at 0 is never wrapped: the
// result is false, for the caller to report once the lock is given back.
inline bool LowerPin(uint8_t (&counts)[16], int index, int attachId) {
    if (!PinsCounted(attachId)) return true;
    if (counts[attachId] == 0) return false;
    uint8_t now = --counts[attachId];
    SHM_TRACE(kTracePins, "\trelease %d, AttachID %d count to %d\n", index, attachId, now);
    return true;
}

}  // namespace shm

#endif  // MOLK_FRAMESTORE_RING_H
