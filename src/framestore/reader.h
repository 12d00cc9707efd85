// The steps of one read query, shared by the frame reader (reader.cpp,
// reader_query.cpp), its time steps (timeshift.cpp) and the adaptive
// decision (adaptive.cpp). Nothing here takes a lock: only the pin does.
#ifndef MOLK_FRAMESTORE_READER_H
#define MOLK_FRAMESTORE_READER_H

#include <cstdint>

#include "framestore/ring.h"

namespace shm {

// Lag beyond dwDelay that goes without correction, in ms.
constexpr uint32_t kLagBand = 800;

// One query on its way through the steps.
struct ReadStep {
    SharedMemHandle *handle;
    SharedMemSectorHeader *ring;
    SharedMemBufClient *client;
    SharedMemReadRequest *request;
    int candidate;       // entry index, always inside the table
    uint32_t tick;       // the candidate's tick when it was chosen
    int order;           // reference against the first candidate: 1 older, -1 newer
    uint32_t distance;   // ms between the reference and the candidate
    bool firstQuery;
};

// The thinning in force for this query: lowest layer wanted, mark frames
// only, rate limit.
struct Thinning {
    uint32_t layer;
    bool markOnly;
    bool rateLimit;
};

inline uint32_t LayerOf(uint32_t flags) { return (flags & SHM_FRAME_LAYER_MASK) >> 3; }

inline bool IsPredicted(const SharedMemSectorHeader *ring, int index) {
    return (LoadWord(ring->atFrame[index].dwFlags) & SHM_FRAME_P) != 0;
}

// Moves the candidate, remembering the tick its entry carries now.
inline void MoveCandidate(ReadStep *q, int index) {
    q->candidate = index;
    q->tick = LoadWord(q->ring->atFrame[index].dwTimeTick);
}

// The read query on a ring whose header has been judged: choose, decide,
// pin and deliver. The exported SharedMem_QueryReadBuffer_Internal judges
// the header first; SharedMem_QueryReadBuffer has, once, already.
int QueryJudgedRing(SharedMemHandle *handle, SharedMemBufClient *client,
                    SharedMemReadRequest *request, uint32_t *distance);

// Catching up: calibration and jump of a reader that lags more than the band.
void CatchUp(ReadStep *q);
// Keeping the distance: crossover and no-overtake. True when the query must wait
// (SHM_REASON_WAIT set).
bool MustWait(ReadStep *q);
// The adaptive decision. Fills the thinning; -1 ends the query
// (SHM_REASON_FAILED set).
int DecideThinning(ReadStep *q, Thinning *thinning);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_READER_H
