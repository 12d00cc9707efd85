// The time steps of a timeshift reader: calibration and jump pull a reader
// that lags too far forward; crossover and no-overtake deal with a frame
// newer than the wanted moment.
#include "framestore/reader.h"
#include "framestore/sector_check.h"

namespace {

constexpr uint32_t kNoMarginBelow = 1024;       // dwEndOffset up to this: no margin
constexpr uint32_t kLargeMarginAbove = 0x100000;
constexpr uint32_t kSmallMargin = 3072;
constexpr uint32_t kLargeMargin = 307200;

bool LagsBeyondBand(const shm::ReadStep *q) {
    return q->order > 0 && q->distance > q->request->dwDelay + shm::kLagBand;
}

// Moves the candidate to a search result, if the search found another one.
bool TakeResult(shm::ReadStep *q, int result, const char *what) {
    if (result < 0 || result == q->candidate || !shm::InTable(result)) return false;
    int from = q->candidate;
    uint32_t fromTick = q->tick;
    shm::MoveCandidate(q, result);
    SHM_LOG(shm::kLevelConflict, "Time %u %s from [%d->%d] %u to %u!\n", q->request->dwRefTimeTick,
            what, from, result, fromTick, q->tick);
    q->distance = q->request->dwRefTimeTick - q->tick;
    return true;
}

void Calibrate(shm::ReadStep *q) {
    int latest = shm::LoadIndex(q->ring->iLatestIndex);
    if (latest < 0) return;
    int result = SharedMem_QueryDeltaTimeBuffer(q->ring, static_cast<uint32_t>(latest),
                                                SHM_SEARCH_BACKWARD, q->request);
    if (TakeResult(q, result, "calibrate")) q->request->dwReason = SHM_REASON_CALIBRATED;
}

// A jump searches forward from the reader's own place and must end on a
// key frame, so it asks for one for the time of its search.
void Jump(shm::ReadStep *q) {
    uint32_t &flags = q->request->dwReadFlags;
    bool hadKeyStart = (flags & SHM_READ_KEY_START) != 0;
    flags |= SHM_READ_KEY_START;
    int result = SharedMem_QueryDeltaTimeBuffer(q->ring, static_cast<uint32_t>(q->candidate),
                                                SHM_SEARCH_FORWARD, q->request);
    if (!hadKeyStart) flags &= ~SHM_READ_KEY_START;
    if (TakeResult(q, result, "Jump")) q->request->dwReason = SHM_REASON_JUMPED;
}

// The entry after `index` toward newer frames: 0 after the boundary, which
// the caller learns through *wrapped.
int NextUnwrapped(int index, int boundary, bool *wrapped) {
    int next = index + 1;
    *wrapped = next > boundary;
    return *wrapped ? 0 : next;
}

}  // namespace

namespace shm {

void CatchUp(ReadStep *q) {
    uint32_t flags = q->request->dwReadFlags;
    if ((flags & SHM_READ_CALIBRATE) && LagsBeyondBand(q)) Calibrate(q);
    if ((flags & SHM_READ_JUMP) && LagsBeyondBand(q)) Jump(q);
}

bool MustWait(ReadStep *q) {
    uint32_t flags = q->request->dwReadFlags;
    if ((flags & SHM_READ_CROSSOVER) && q->order < 0) {
        SHM_LOG(kLevelTrace, "request one %u crossover reference timetick %u\n", q->tick,
                q->request->dwRefTimeTick);
        q->request->dwReason = SHM_REASON_CROSSOVER;
    }
    bool tooYoung = q->order < 0 || q->distance < q->request->dwDelay;
    if (!(flags & SHM_READ_NO_OVERTAKE) || !tooYoung) return false;
    // The writer is about to take these frames: better late than lost.
    uint32_t index = static_cast<uint32_t>(q->candidate);
    if (SharedMem_IsFrameTooOld(q->ring, index) || SharedMem_IsInsideMargin(q->ring, index)) {
        return false;
    }
    q->request->dwReason = SHM_REASON_WAIT;
    SHM_LOG(kLevelTrace, "no overtake, wait...");
    return true;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_IsFrameTooOld(SharedMemSectorHeader *ptHeader, uint32_t dwIndex) {
    if (!shm::RingIntact(ptHeader)) return 0;
    int index = static_cast<int>(dwIndex);
    int oldest = shm::LoadIndex(ptHeader->iOldestIndex);
    int latest = shm::LoadIndex(ptHeader->iLatestIndex);
    int boundary = shm::LoadIndex(ptHeader->iBoundaryIndex);
    bool tooOld = index == oldest;
    int next = oldest;
    for (int step = 0; step < 2 && !tooOld; ++step) {
        bool wrapped;
        next = NextUnwrapped(next, boundary, &wrapped);
        if (!wrapped && next == latest) break;
        tooOld = next == index;
    }
    if (tooOld) SHM_TRACE(shm::kTraceMargin, "query too deep? %d|%d\n", index, oldest);
    return tooOld ? 1 : 0;
}

MOLK_API int SharedMem_IsInsideMargin(SharedMemSectorHeader *ptHeader, uint32_t dwIndex) {
    if (dwIndex > static_cast<uint32_t>(shm::kLastEntry) || !shm::RingIntact(ptHeader)) return 0;
    uint32_t end = shm::LoadWord(ptHeader->dwEndOffset);
    if (end <= kNoMarginBelow) return 0;
    uint32_t margin = end > kLargeMarginAbove ? kLargeMargin : kSmallMargin;
    uint32_t frame = shm::LoadWord(ptHeader->atFrame[dwIndex].dwOffset);
    uint32_t write = shm::LoadWord(ptHeader->dwWriteOffset);
    // How far the writer still has to go to reach the frame's bytes,
    // wrapping at the end of the data area when it has to.
    uint32_t left = write > frame ? frame + end - ptHeader->dwStartOffset - write : frame - write;
    if (left >= margin) return 0;
    SHM_TRACE(shm::kTraceMargin, "not enough space (left %u < %u)!\n", left, margin);
    return 1;
}

}  // extern "C"
