// molkshm read: what the ring reader and the cache-sector reader share.
#ifndef MOLKSHM_READ_H
#define MOLKSHM_READ_H

#include <signal.h>

#include "molkshm.h"

struct ReadOptions {
    int attachId = 16;
    uint32_t flags = SHM_READ_IN_PLACE;
    uint32_t delay = 0;
    uint32_t refTick = 0;        // 0: the current tick at every query
    uint32_t interval = 0;
    uint32_t window = 0;
    uint32_t hold = 0;           // ms each frame is held before its release
    uint32_t cacheClass = 0;     // cache sectors: 0 every class, else flags >> 16
    unsigned long count = 0;     // frames to deliver; 0: no limit
    unsigned long seconds = 0;   // 0: until interrupted
    bool summary = false;
    bool verify = false;         // check the payload of `write` / `cache-write`
    uint32_t poll = 0;           // ms between queries on the latest frame; 0: sleep until woken
    const char *label = "read";
};

// Set by SIGINT and SIGTERM.
extern volatile sig_atomic_t g_readStop;

// Holds a delivered frame for o.hold ms, as a slow client would; a signal
// cuts it short.
void HoldFrame(const ReadOptions &o);
// True while the count, the time limit and the signals let the reader go on.
bool KeepReading(const ReadOptions &o, unsigned long delivered, double start);

// Follows a cache sector by tick. Returns the exit code.
int ReadCacheLoop(SharedMemHandle *handle, const ReadOptions &o);

#endif
