// Walks over a ring's entries that find the frame nearest to a target
// time, T = dwRefTimeTick - dwDelay (unsigned, wrapping). Ticks are ordered
// only by SharedMem_DWComparator.
//
// The walks take no lock and change nothing. The writer may move the
// indices while they run, so they load the index words afresh at every
// step, count their steps and give up (-1) once the count passes the
// boundary; an index that would leave the entry table gives up as well.
// Besides the result, a walk reports the last key frame (an entry without
// SHM_FRAME_P) it passed, through the key pointer.
#include "framestore/ring.h"
#include "framestore/sector_check.h"

namespace {

using shm::LoadIndex;
using shm::LoadWord;

const SharedMemReadRequest &RequestOf(const SharedMemReadRequest *request) {
    return request != nullptr ? *request : shm::kDefaultRequest;
}

uint32_t TargetOf(const SharedMemReadRequest &request) {
    return request.dwRefTimeTick - request.dwDelay;
}

int CompareWithEntry(const SharedMemSectorHeader *ring, uint32_t target, int index) {
    return SharedMem_DWComparator(target, LoadWord(ring->atFrame[index].dwTimeTick), nullptr);
}

bool IsKeyFrame(const SharedMemSectorHeader *ring, int index) {
    return (LoadWord(ring->atFrame[index].dwFlags) & SHM_FRAME_P) == 0;
}

// The walks never step onto the oldest entry or the two just newer than it
// (plain index numbers, not wrapped past the boundary): those are the next
// to go under the writer.
bool NearOldest(const SharedMemSectorHeader *ring, int next) {
    int oldest = LoadIndex(ring->iOldestIndex);
    return oldest == next || oldest == next - 1 || oldest == next - 2;
}

enum Step { kStepOn, kStop, kLost };

// The index before `cursor`, wrapping from 0 to the boundary. kStop when
// the walk ends on `cursor` (boundary 0, or the oldest entries ahead).
Step StepBack(const SharedMemSectorHeader *ring, int cursor, int *next) {
    int candidate = cursor - 1;
    if (cursor == 0) {
        candidate = LoadIndex(ring->iBoundaryIndex);
        if (candidate == 0) return kStop;
    }
    if (NearOldest(ring, candidate)) return kStop;
    if (!shm::InTable(candidate)) return kLost;
    *next = candidate;
    return kStepOn;
}

void StoreKey(uint32_t *key, int index) {
    if (key != nullptr) *key = static_cast<uint32_t>(index);
}

bool StartInTable(const SharedMemSectorHeader *ring, uint32_t start) {
    return shm::RingIntact(ring) && start <= static_cast<uint32_t>(shm::MaxIndex(ring));
}

}  // namespace

extern "C" {

// Toward newer frames, for the last entry before T.
MOLK_API int SharedMem_ForwardSearch(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                     uint32_t *pdwKey, SharedMemReadRequest *ptRequest) {
    if (!StartInTable(ptHeader, dwStart)) return -1;
    uint32_t target = TargetOf(RequestOf(ptRequest));
    int cursor = static_cast<int>(dwStart);
    int previous = cursor;
    int key = cursor;
    for (int steps = 0;; ++steps) {
        if (CompareWithEntry(ptHeader, target, cursor) <= 0) {
            cursor = previous;
            break;
        }
        if (steps > LoadIndex(ptHeader->iBoundaryIndex)) return -1;
        if (cursor == LoadIndex(ptHeader->iLatestIndex)) break;
        if (IsKeyFrame(ptHeader, cursor)) key = cursor;
        int next = cursor + 1;
        if (cursor == LoadIndex(ptHeader->iBoundaryIndex)) {
            if (cursor == 0) break;
            next = 0;
        }
        if (!shm::InTable(next)) return -1;
        previous = cursor;
        cursor = next;
    }
    StoreKey(pdwKey, key);
    return cursor;
}

// Toward older frames, for the first entry at or before T.
MOLK_API int SharedMem_BackwardSearch(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                      uint32_t *pdwKey, SharedMemReadRequest *ptRequest) {
    if (!StartInTable(ptHeader, dwStart)) return -1;
    int cursor = static_cast<int>(dwStart);
    int key = cursor;
    if (cursor != LoadIndex(ptHeader->iOldestIndex)) {
        uint32_t target = TargetOf(RequestOf(ptRequest));
        for (int steps = 0;; ++steps) {
            if (CompareWithEntry(ptHeader, target, cursor) >= 0) break;
            if (steps > LoadIndex(ptHeader->iBoundaryIndex)) return -1;
            if (IsKeyFrame(ptHeader, cursor)) key = cursor;
            int next = 0;
            Step step = StepBack(ptHeader, cursor, &next);
            if (step == kStop) break;
            if (step == kLost) return -1;
            cursor = next;
        }
    }
    StoreKey(pdwKey, key);
    return cursor;
}

// The backward walk under a byte budget (dwSizeLimit): every frame walked
// over counts with its size, predicted ones too, but only key frames stop
// the walk. The budget applies once the key has left the start entry.
MOLK_API int SharedMem_BackwardSearchPreSize(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                             uint32_t *pdwKey, SharedMemReadRequest *ptRequest) {
    if (!StartInTable(ptHeader, dwStart)) return -1;
    int start = static_cast<int>(dwStart);
    int cursor = start;
    int key = start;
    if (cursor != LoadIndex(ptHeader->iOldestIndex)) {
        if (LoadIndex(ptHeader->iBoundaryIndex) < 0) return -1;
        const SharedMemReadRequest &request = RequestOf(ptRequest);
        uint32_t target = TargetOf(request);
        uint64_t total = 0;
        for (int steps = 0;;) {
            total += LoadWord(ptHeader->atFrame[cursor].dwSize);
            if (IsKeyFrame(ptHeader, cursor)) {
                if (key != start && total > request.dwSizeLimit) break;
                int order = CompareWithEntry(ptHeader, target, cursor);
                key = cursor;
                if (order > 0) break;
            }
            int next = 0;
            Step step = StepBack(ptHeader, cursor, &next);
            if (step == kStop) break;
            if (step == kLost) return -1;
            if (++steps > LoadIndex(ptHeader->iBoundaryIndex)) return -1;
            cursor = next;
        }
    }
    StoreKey(pdwKey, key);
    return cursor;
}

// One walk, then the request's rule for the final choice: with
// SHM_READ_KEY_START a walk that ended on a predicted frame falls back to
// the key frame it passed (or fails); with SHM_READ_SIZE_LIMIT the key is
// the answer.
MOLK_API int SharedMem_QueryDeltaTimeBuffer(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                            uint32_t dwDirection, SharedMemReadRequest *ptRequest) {
    uint32_t flags = RequestOf(ptRequest).dwReadFlags;
    uint32_t key = 0;
    int result;
    if (dwDirection == SHM_SEARCH_BACKWARD) {
        result = (flags & SHM_READ_SIZE_LIMIT)
                     ? SharedMem_BackwardSearchPreSize(ptHeader, dwStart, &key, ptRequest)
                     : SharedMem_BackwardSearch(ptHeader, dwStart, &key, ptRequest);
    } else {
        result = SharedMem_ForwardSearch(ptHeader, dwStart, &key, ptRequest);
    }
    if (result == -1) return -1;
    int keyIndex = static_cast<int>(key);
    if ((flags & SHM_READ_KEY_START) && !IsKeyFrame(ptHeader, result)) {
        return IsKeyFrame(ptHeader, keyIndex) ? keyIndex : -1;
    }
    return (flags & SHM_READ_SIZE_LIMIT) ? keyIndex : result;
}

// One step of a best-tick scan: takes the entry's tick as the best so far
// when it passes the filter and is not beyond the best in the direction's
// sense (plain unsigned order, not wrap-safe). 0 when taken.
MOLK_API int SharedMem_GetRequestTimeTick(uint32_t dwReserved, SharedMemFrameEntry *ptEntry,
                                          uint32_t dwFilter, uint32_t *pdwBestTick,
                                          uint32_t *pdwFound, uint32_t dwDirection) {
    (void)dwReserved;
    if (ptEntry == nullptr || pdwBestTick == nullptr || pdwFound == nullptr) return -1;
    if (shm::FilterRejects(dwFilter, LoadWord(ptEntry->dwFlags), ptEntry->abyAccessCount)) {
        return -1;
    }
    uint32_t tick = LoadWord(ptEntry->dwTimeTick);
    if (*pdwFound != 0) {
        if (dwDirection == SHM_SEARCH_FORWARD) {
            if (tick > *pdwBestTick) return -1;
        } else if (dwDirection == SHM_SEARCH_BACKWARD) {
            if (tick < *pdwBestTick) return -1;
        } else {
            return -1;
        }
    }
    *pdwBestTick = tick;
    *pdwFound = 1;
    return 0;
}

}  // extern "C"
