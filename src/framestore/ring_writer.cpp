// The writing side of a ring: one process per ring asks for a place, fills
// the frame's bytes in place without any lock, and publishes the frame.
//
// The sector lock is held only while the entries in the way are tested and
// marked SHM_FRAME_WRITING, so that a reader's pin (tested under the same
// lock) and the writer's mark exclude each other: either the pin comes
// first and the writer refuses the place, or the mark comes first and the
// reader is refused. A refusal leaves every index and offset as it was
// (but for a finished rewind); the marks stay, and the next attempt passes
// over them again.
//
// Offsets are bytes from the data base; sizes are rounded up to 4 bytes.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "framestore/clock.h"
#include "framestore/lock.h"
#include "framestore/log.h"
#include "framestore/ring.h"
#include "framestore/sector_check.h"
#include "framestore/wait.h"

namespace {

using shm::LoadIndex;
using shm::StoreIndex;

void SetStatus(uint32_t *status, uint32_t value) {
    if (status != nullptr) *status = value;
}

// What a walk over the entries in the writer's way found worth telling.
// The walk runs under the sector lock; the telling waits until the lock is
// given back, so that a line on a slow console or a blocked syslog never
// holds up the readers of the ring.
struct WalkNote {
    enum Kind { kNothing, kPinned, kStaleUnread, kStalePinned, kRewindPinned, kRewindUnread };
    Kind kind = kNothing;
    int index = 0;
    int write = 0;
    int oldest = 0;
    int boundary = 0;

    void Tell() const {
        switch (kind) {
        case kNothing:
            break;
        case kPinned:
            SHM_LOG(shm::kLevelConflict, "frame %d occupied by somebody!\n", index);
            break;
        case kStaleUnread:
            SHM_LOG(shm::kLevelConflict, "unknown frame %d UNREAD!\n", index);
            break;
        case kStalePinned:
            shm::LogError("unknown frame %d OCCUPIED!\n", index);
            break;
        case kRewindPinned:
            SHM_LOG(shm::kLevelConflict, "frame %d occupied, rewind fail. %d-%d-%d\n", index,
                    write, oldest, boundary);
            break;
        case kRewindUnread:
            SHM_LOG(shm::kLevelConflict, "frame %d unread, rewind fail. %d-%d-%d\n", index, write,
                    oldest, boundary);
            break;
        }
    }
};

// Marks one live entry in the writer's way. Returns 0 once it is marked,
// or why it cannot be taken: a reader's pin, or a frame nobody has read.
uint32_t ClaimEntry(SharedMemFrameEntry &entry) {
    if (shm::HasPins(entry.abyAccessCount)) return SHM_WRITE_OCCUPIED;
    if (entry.dwFlags & SHM_FRAME_UNREAD) return SHM_WRITE_UNREAD;
    entry.dwFlags |= SHM_FRAME_WRITING;
    return 0;
}

// Entries from W on, while they lie before the end E of the coming write
// (forms just rewound and two generations). Entry W itself is always
// taken, even when its bytes are out of reach: its entry is reused.
int ClaimOldFrames(SharedMemSectorHeader *ring, int write, uint32_t end, uint32_t *status,
                   WalkNote *note) {
    for (int i = write, last = shm::LastOldEntry(ring); i <= last; ++i) {
        SharedMemFrameEntry &entry = ring->atFrame[i];
        if (i != write && entry.dwOffset >= end) return 0;
        const uint32_t refused = ClaimEntry(entry);
        if (refused != 0) {
            if (refused == SHM_WRITE_OCCUPIED) *note = {WalkNote::kPinned, i};
            SetStatus(status, refused);
            return -1;
        }
    }
    return 0;
}

// Entry W in forms empty and one generation: stale, belonging to nobody.
// Pins left on it are wiped; an unread mark still stops the writer.
int ClaimStaleEntry(SharedMemFrameEntry &entry, int index, uint32_t *status, WalkNote *note) {
    if (entry.dwFlags & SHM_FRAME_UNREAD) {
        *note = {WalkNote::kStaleUnread, index};
        SetStatus(status, SHM_WRITE_UNREAD);
        return -1;
    }
    if (shm::HasPins(entry.abyAccessCount)) {
        *note = {WalkNote::kStalePinned, index};
        memset(entry.abyAccessCount, 0, sizeof entry.abyAccessCount);
    }
    return 0;
}

// The rewind gives up the older generation, W..B, all at once; every one of
// its frames must be free. Marks what passes. Takes no lock itself.
int ClaimOlderGeneration(SharedMemSectorHeader *ring, uint32_t *status, WalkNote *note) {
    const int write = ring->iWriteIndex;
    for (int i = write < 0 ? 0 : write, last = shm::LastOldEntry(ring); i <= last; ++i) {
        const uint32_t refused = ClaimEntry(ring->atFrame[i]);
        if (refused != 0) {
            const WalkNote::Kind kind =
                refused == SHM_WRITE_OCCUPIED ? WalkNote::kRewindPinned : WalkNote::kRewindUnread;
            *note = {kind, i, write, ring->iOldestIndex, ring->iBoundaryIndex};
            SetStatus(status, refused);
            return -1;
        }
    }
    return 0;
}

// Starts a new lap: the newer generation 0..L becomes the only one. B goes
// down to L before O goes to 0, so that a reader loading the words one by
// one never sees the given-up entries above L as live again.
void Rewind(SharedMemSectorHeader *ring) {
    StoreIndex(ring->iBoundaryIndex, LoadIndex(ring->iLatestIndex));
    StoreIndex(ring->iOldestIndex, 0);
    StoreIndex(ring->iWriteIndex, 0);
    shm::StoreWord(ring->dwWriteOffset, ring->dwStartOffset);
}

// The oldest entry after a frame that ends at newEnd has been stored in
// entry W: old frames whose first byte lies below newEnd are lost, and so
// is the frame whose entry was just reused.
int OldestAfterWrite(const SharedMemSectorHeader *ring, int write, uint32_t newEnd) {
    int oldest = ring->iOldestIndex;
    if (oldest < write) return 0;  // empty or one generation: nothing lost
    int last = shm::LastOldEntry(ring);
    int i = oldest;
    while (i <= last && ring->atFrame[i].dwOffset < newEnd) ++i;
    return i > last ? 0 : i;
}

// The entries in the way of a frame from the write offset to `end`.
int ClaimPlace(SharedMemSectorHeader *ring, uint32_t end, uint32_t *status, WalkNote *note) {
    int write = ring->iWriteIndex;
    // An index outside the table has no entry to test and no place to give.
    if (write < 0 || write > shm::MaxIndex(ring)) return -1;
    if (write <= ring->iOldestIndex) return ClaimOldFrames(ring, write, end, status, note);
    return ClaimStaleEntry(ring->atFrame[write], write, status, note);
}

// The automatic cycle's claim, under the lock: a frame of `rounded` bytes
// that does not fit before the end of the area, or finds the entry table
// used up, rewinds first. On 0, *offset is where the frame goes.
int ClaimWithRewind(SharedMemSectorHeader *ring, uint32_t rounded, uint32_t *status,
                    WalkNote *note, uint32_t *offset) {
    bool fits = rounded <= shm::RoomFrom(ring, ring->dwWriteOffset) &&
                ring->iWriteIndex <= shm::MaxIndex(ring);
    if (!fits) {
        if (ClaimOlderGeneration(ring, status, note) != 0) return -1;
        Rewind(ring);
    }
    *offset = ring->dwWriteOffset;
    return ClaimPlace(ring, *offset + rounded, status, note);
}

uint32_t DurationOf(const SharedMemSectorHeader *ring, int oldest, int latest) {
    uint32_t distance = 0;
    SharedMem_DWComparator(ring->atFrame[oldest].dwTimeTick, ring->atFrame[latest].dwTimeTick,
                           &distance);
    return distance;
}

}  // namespace

extern "C" {

MOLK_API int SharedMem_CheckFrameOccupied(SharedMemSectorHeader *ptHeader, uint32_t dwEndOffset,
                                          uint32_t *pdwStatus) {
    if (!shm::RingIntact(ptHeader)) return -1;
    WalkNote note;
    int result = ClaimPlace(ptHeader, dwEndOffset, pdwStatus, &note);
    note.Tell();
    return result;
}

MOLK_API int SharedMem_QueryWriteBuffer(SharedMemHandle *ptHandle, uint8_t **ppbyBuffer,
                                        uint32_t *pdwSize) {
    if (!shm::RingIntact(ptHandle) || ppbyBuffer == nullptr || pdwSize == nullptr) return -1;
    SharedMemSectorHeader *ring = ptHandle->ptHeader;
    ptHandle->dwWriteStatus = 0;
    uint32_t writeOffset = ring->dwWriteOffset;
    uint32_t room = shm::RoomFrom(ring, writeOffset);
    uint32_t granted = *pdwSize < room ? *pdwSize : room;
    *pdwSize = granted;
    if (granted == 0 || ring->iWriteIndex > shm::MaxIndex(ring)) return -1;

    WalkNote note;
    int result = -1;
    {
        shm::SectorLock lock(ptHandle->iSemId, ptHandle->iSectorIndex);
        if (lock.held()) {
            result = ClaimPlace(ring, writeOffset + granted, &ptHandle->dwWriteStatus, &note);
        }
    }
    note.Tell();
    if (result == 0) *ppbyBuffer = shm::AtOffset(ptHandle->pvBase, writeOffset);
    return result;
}

MOLK_API int SharedMem_QueryAutoRewindWriteBuffer(SharedMemHandle *ptHandle, uint8_t **ppbyBuffer,
                                                  uint32_t dwSize) {
    if (!shm::RingIntact(ptHandle) || ppbyBuffer == nullptr) return -1;
    SharedMemSectorHeader *ring = ptHandle->ptHeader;
    uint64_t rounded = shm::RoundFrameSize(dwSize);
    ptHandle->dwWriteStatus = 0;
    uint32_t area = shm::RoomFrom(ring, ring->dwStartOffset);
    if (rounded > area) {
        shm::LogError("query %u larger than maximum queue %u\n", static_cast<unsigned>(rounded),
                      area);
        ptHandle->dwWriteStatus = SHM_WRITE_TOO_LARGE;
        return -1;
    }

    WalkNote note;
    uint32_t offset = 0;
    int result = -1;
    {
        shm::SectorLock lock(ptHandle->iSemId, ptHandle->iSectorIndex);
        if (lock.held()) {
            result = ClaimWithRewind(ring, static_cast<uint32_t>(rounded), &ptHandle->dwWriteStatus,
                                     &note, &offset);
        }
    }
    note.Tell();
    if (result == 0) *ppbyBuffer = shm::AtOffset(ptHandle->pvBase, offset);
    return result;
}

MOLK_API int SharedMem_PrepareRewindWriteBuffer(SharedMemSectorHeader *ptHeader,
                                                uint32_t *pdwStatus) {
    if (!shm::RingIntact(ptHeader)) return -1;
    SetStatus(pdwStatus, 0);
    if (ptHeader->iWriteIndex > ptHeader->iBoundaryIndex) return 0;
    WalkNote note;
    int result = ClaimOlderGeneration(ptHeader, pdwStatus, &note);
    note.Tell();
    return result;
}

MOLK_API int SharedMem_RewindWriteBuffer(SharedMemHandle *ptHandle) {
    if (!shm::RingIntact(ptHandle)) return -1;
    Rewind(ptHandle->ptHeader);
    return 0;
}

MOLK_API int SharedMem_QueryWriteStatus(SharedMemHandle *ptHandle, uint32_t *pdwStatus) {
    if (ptHandle == nullptr || pdwStatus == nullptr) return -1;
    *pdwStatus = ptHandle->dwWriteStatus;
    return 0;
}

// Publishes the frame at entry W. No lock: the query has kept readers off
// every entry this touches, and nobody else writes the ring. The entry is
// complete before L names it.
//
// Entry W keeps SHM_FRAME_WRITING until the last index is stored. Until
// then the indices still describe the ring without the new frame: when W
// reuses the oldest entry, O still names it as the oldest while it already
// carries the newest frame. A reader that pinned it in that moment (a
// first query from the oldest, spinning on the claimed entry) would take
// the newest frame and then step on to O + 1, an older one. Once the mark
// is gone, a reader's later loads see every index of this update.
MOLK_API int SharedMem_UpdateWritedBuffer(SharedMemHandle *ptHandle, SharedMemWriteInfo *ptInfo) {
    if (!shm::RingIntact(ptHandle) || ptInfo == nullptr) return -1;
    SharedMemSectorHeader *ring = ptHandle->ptHeader;
    uintptr_t base = reinterpret_cast<uintptr_t>(ptHandle->pvBase);
    uintptr_t place = reinterpret_cast<uintptr_t>(ptInfo->pbyBuffer);
    if (place < base || ptInfo->dwSize == 0) return -1;

    uint64_t rounded = shm::RoundFrameSize(ptInfo->dwSize);
    uint64_t offset = static_cast<uint64_t>(place - base);
    uint64_t newEnd = offset + rounded;
    int write = ring->iWriteIndex;
    // A place before the data area would let the next frame run over the
    // headers: refused like a place behind its end.
    if (offset < ring->dwStartOffset || newEnd > ring->dwEndOffset || write < 0 ||
        write > shm::MaxIndex(ring)) {
        shm::LogError("update write fail, buffer or index not enough!");
        return -1;
    }

    shm::StoreWord(ring->dwWriteOffset, static_cast<uint32_t>(newEnd));
    SharedMemFrameEntry &entry = ring->atFrame[write];
    // The caller's bits are there for the filters at once; the mark keeps
    // the pin away.
    shm::StoreWord(entry.dwFlags, ptInfo->dwFlags | SHM_FRAME_WRITING);
    shm::StoreWord(entry.dwOffset, static_cast<uint32_t>(offset));
    shm::StoreWord(entry.dwSize, static_cast<uint32_t>(rounded));
    shm::StoreWord(entry.dwTimeTick,
                   ptInfo->dwTimeTick != 0 ? ptInfo->dwTimeTick : shm::CurrentTick());
    __atomic_thread_fence(__ATOMIC_RELEASE);

    int oldest = OldestAfterWrite(ring, write, static_cast<uint32_t>(newEnd));
    StoreIndex(ring->iOldestIndex, oldest);
    StoreIndex(ring->iLatestIndex, write);
    if (oldest == 0 || write > ring->iBoundaryIndex) StoreIndex(ring->iBoundaryIndex, write);
    StoreIndex(ring->iWriteIndex, write + 1);
    shm::StoreWord(ring->dwDuration, DurationOf(ring, oldest, write));
    // Release: a reader that sees the mark gone (under the sector lock,
    // with an acquire load) sees the entry and the indices above.
    __atomic_store_n(&entry.dwFlags, ptInfo->dwFlags, __ATOMIC_RELEASE);
    shm::WakeReaders(ptHandle);
    return 0;
}

// Takes the writer's marks off the run of entries from iIndex up, as after
// a query whose frame was given up. No lock.
MOLK_API void SharedMem_ClearFrameOccupied(SharedMemSectorHeader *ptHeader, int iIndex) {
    if (ptHeader == nullptr || iIndex < 0) return;
    for (int i = iIndex, last = shm::LastOldEntry(ptHeader); i <= last; ++i) {
        uint32_t &flags = ptHeader->atFrame[i].dwFlags;
        // No reader touches the flags of a marked entry: it is refused
        // before its pin, so the word is the writer's alone here.
        if (!(flags & SHM_FRAME_WRITING)) break;
        flags &= ~SHM_FRAME_WRITING;
    }
}

MOLK_API void SharedMem_DumpFrameOccupied(SharedMemFrameEntry *ptEntry, uint32_t *pdwSum) {
    if (ptEntry == nullptr) return;
    uint32_t sum = 0;
    for (uint8_t count : ptEntry->abyAccessCount) {
        printf("%d ", count);
        sum += count;
    }
    printf("= %u\t", sum);
    if (pdwSum != nullptr) *pdwSum = sum;
}

}  // extern "C"
