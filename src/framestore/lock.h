// Sector locks: semaphore i of a block's set guards sector i's pin counters
// and writer marks. Taken with SEM_UNDO so the kernel hands the lock back
// when a holder dies; no time-out and no retry (an interrupted semop fails).
// Nobody holds two sector locks at once.
#ifndef MOLK_FRAMESTORE_LOCK_H
#define MOLK_FRAMESTORE_LOCK_H

#include "sharedmem.h"

namespace shm {

// Sets every semaphore of a set that has never been operated on (no last
// operator on semaphore 0) to 1, printing each value read back. A set that
// has been used keeps its values. 0, or -1 after perror.
int InitSemaphoresOnce(int semId, int count);

// Holds sector `index` of set `semId` for its scope. A failed P has been
// logged ("SemaphoreP failed") and leaves held() false; the destructor then
// gives nothing back. A failed V is logged by SharedMem_SemaphoreV.
class SectorLock {
public:
    SectorLock(int semId, int index)
        : semId_(semId), index_(index), held_(SharedMem_SemaphoreP(semId, index) == 0) {}
    ~SectorLock() { Unlock(); }
    SectorLock(const SectorLock &) = delete;
    SectorLock &operator=(const SectorLock &) = delete;

    bool held() const { return held_; }
    // Gives the lock back early; returns SharedMem_SemaphoreV's result.
    int Unlock() {
        if (!held_) return 0;
        held_ = false;
        return SharedMem_SemaphoreV(semId_, index_);
    }

private:
    int semId_;
    int index_;
    bool held_;
};

}  // namespace shm

#endif  // MOLK_FRAMESTORE_LOCK_H
