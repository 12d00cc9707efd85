// Which frame comes next for a reader, and whether it gets it: the cursor,
// the time steps, the filters, and the pin.
#include "framestore/clock.h"
#include "framestore/lock.h"
#include "framestore/reader.h"
#include "framestore/sector_check.h"

namespace {

using shm::ReadStep;

constexpr uint32_t kDefaultInterval = 1000;  // ms, when dwMinInterval is 0

// The candidate: the next entry after a valid cursor, or a first query's place.
// -1 ends the query with the reason set.
int ChooseCandidate(ReadStep *q) {
    SharedMemSectorHeader *ring = q->ring;
    SharedMemBufClient *client = q->client;
    uint32_t flags = q->request->dwReadFlags;
    if (!(flags & SHM_READ_RESTART) && shm::ClientValid(ring, client, "query") == 0) {
        int last = client->iLastIndex;
        int latest = shm::LoadIndex(ring->iLatestIndex);
        if (last == latest) {
            q->request->dwReason = SHM_REASON_LATEST;
            SHM_LOG(shm::kLevelTrace, "already latest frame!");
            return -1;
        }
        // B loaded after L: never below it, or a cursor on the frame before
        // the newest would wrap to the oldest.
        int boundary = shm::BoundaryOf(latest, shm::LoadIndex(ring->iBoundaryIndex));
        shm::MoveCandidate(q, last >= boundary || last >= shm::MaxIndex(ring) ? 0 : last + 1);
        return 0;
    }
    client->iLastIndex = -1;
    q->firstQuery = true;
    int oldest = shm::LoadIndex(ring->iOldestIndex);
    int latest = shm::LoadIndex(ring->iLatestIndex);
    int found = -1;
    if (oldest >= 0 && latest >= 0) {
        found = (flags & SHM_READ_FROM_OLDEST)
                    ? oldest
                    : SharedMem_QueryDeltaTimeBuffer(ring, static_cast<uint32_t>(latest),
                                                     SHM_SEARCH_BACKWARD, q->request);
    }
    if (!shm::InTable(found)) {
        q->request->dwReason = SHM_REASON_FAILED;
        SHM_LOG(shm::kLevelCacheFailure, "first query index fail!");
        return -1;
    }
    shm::MoveCandidate(q, found);
    return 0;
}

// The rate limit. The carry keeps the average rate right when frames arrive a
// little after their turn. True when the frame is dropped.
bool RateLimited(ReadStep *q) {
    SharedMemBufClient *client = q->client;
    uint32_t interval = q->request->dwMinInterval != 0 ? q->request->dwMinInterval
                                                       : kDefaultInterval;
    uint32_t overshoot = 0;
    if (SharedMem_DWComparator(q->tick + client->dwRateCarry,
                               client->dwDeliveredTimeTick + interval, &overshoot) < 0) {
        q->request->dwReason = SHM_REASON_NOT_YET;
        SHM_LOG(shm::kLevelTrace, "not yet, drop!");
        return true;
    }
    client->dwRateCarry = overshoot > interval ? 0 : overshoot;
    return false;
}

// The filters: every one runs; dwReason keeps the last one that fired.
bool Filtered(ReadStep *q, const shm::Thinning &thinning) {
    uint32_t flags = q->request->dwReadFlags;
    uint32_t frameFlags = shm::LoadWord(q->ring->atFrame[q->candidate].dwFlags);
    bool predicted = (frameFlags & SHM_FRAME_P) != 0;
    bool dropped = false;
    if (thinning.layer != 0 && predicted && shm::LayerOf(frameFlags) < thinning.layer) {
        q->request->dwReason = SHM_REASON_LAYER;
        SHM_LOG(shm::kLevelTrace, "P frame with layer %d, drop!\n",
                static_cast<int>(shm::LayerOf(frameFlags)));
        dropped = true;
    }
    bool markOnly = (flags & SHM_READ_MARK_ONLY) || (thinning.layer == 0 && thinning.markOnly);
    if (markOnly && predicted) {
        q->request->dwReason = SHM_REASON_NOT_MARK;
        SHM_LOG(shm::kLevelTrace, "not mark frame, drop!");
        dropped = true;
    }
    if ((flags & SHM_READ_RATE_LIMIT) || thinning.rateLimit) dropped |= RateLimited(q);
    return dropped;
}

// The pin. Under the ring's lock the writer's mark and the pin
// exclude each other, so a frame is either pinned or claimed, never both.
// The tick test catches an entry rewritten since it was chosen.
bool Pin(ReadStep *q) {
    SharedMemFrameEntry &entry = q->ring->atFrame[q->candidate];
    const char *why = "unavailable";
    {
        shm::SectorLock lock(q->handle->iSemId, q->handle->iSectorIndex);
        if (lock.held()) {
            // Acquire: pairs with the writer's release of its mark, so that
            // the tick and, in later queries, the indices are at least as
            // new as the entry.
            bool claimed = (__atomic_load_n(&entry.dwFlags, __ATOMIC_ACQUIRE) &
                            SHM_FRAME_WRITING) != 0 ||
                           shm::LoadWord(entry.dwTimeTick) != q->tick;
            if (!claimed) {
                shm::RaisePin(entry.abyAccessCount, q->candidate, q->handle->iAttachId);
                return true;
            }
            why = "overwritten";
        }
    }
    SHM_LOG(shm::kLevelConflict, "queried frame is %s! %d %d %d %d\n", why, q->candidate,
            shm::LoadIndex(q->ring->iOldestIndex), shm::LoadIndex(q->ring->iLatestIndex),
            shm::LoadIndex(q->ring->iBoundaryIndex));
    q->request->dwReason = SHM_REASON_FAILED;
    return false;
}

void Deliver(ReadStep *q) {
    SharedMemBufClient *client = q->client;
    client->iLastIndex = q->candidate;
    client->iDeliveredIndex = q->candidate;
    client->dwLastTimeTick = q->tick;
    client->dwDeliveredTimeTick = q->tick;
    // Outside the lock: the pin now protects the entry.
    __atomic_fetch_and(&q->ring->atFrame[q->candidate].dwFlags, ~SHM_FRAME_UNREAD,
                       __ATOMIC_RELAXED);
}

// Everything between choosing and pinning. -1 ends the
// query; a dropped frame moves the cursor onto it.
int Decide(ReadStep *q) {
    q->order = SharedMem_DWComparator(q->request->dwRefTimeTick, q->tick, &q->distance);
    shm::CatchUp(q);
    if (shm::MustWait(q)) return -1;
    shm::Thinning thinning;
    if (shm::DecideThinning(q, &thinning) != 0) return -1;
    bool dropped = Filtered(q, thinning);
    if (q->firstQuery && (q->request->dwReadFlags & SHM_READ_NEW_ONLY) &&
        SharedMem_DWComparator(q->client->dwLastTimeTick, q->tick, nullptr) > 0) {
        q->request->dwReason = SHM_REASON_TOO_EARLY;
        dropped = true;
    }
    if (!dropped) return 0;
    q->client->iLastIndex = q->candidate;
    q->client->dwLastTimeTick = q->tick;
    return -1;
}

}  // namespace

namespace shm {

int QueryJudgedRing(SharedMemHandle *handle, SharedMemBufClient *client,
                    SharedMemReadRequest *request, uint32_t *distance) {
    ReadStep q = {handle, handle->ptHeader, client, request, 0, 0, 0, 0, false};
    if (ChooseCandidate(&q) != 0 || Decide(&q) != 0 || !Pin(&q)) return -1;
    Deliver(&q);
    if (distance != nullptr) *distance = q.distance;
    return 0;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_QueryReadBuffer_Internal(SharedMemHandle *ptHandle,
                                                SharedMemBufClient *ptClient,
                                                SharedMemReadRequest *ptRequest,
                                                uint32_t *pdwDistance) {
    if (!shm::RingIntact(ptHandle) || ptClient == nullptr || ptRequest == nullptr) return -1;
    return shm::QueryJudgedRing(ptHandle, ptClient, ptRequest, pdwDistance);
}

}  // extern "C"
