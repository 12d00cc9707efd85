#include "framestore/lock.h"

#include <cerrno>
#include <cstdio>
#include <sys/sem.h>

#include "framestore/log.h"

namespace {

// Linux leaves this union to the caller.
union SemArg {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

int SemOp(int semId, int index, short delta) {
    struct sembuf op;
    op.sem_num = static_cast<unsigned short>(index);
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    return semop(semId, &op, 1);
}

// A P that finds the lock taken asks again this many times with IPC_NOWAIT
// before it queues in the kernel. A sector lock guards a few words (pin
// counters, writer marks) and is held for about a microsecond, mostly by
// another process on another core, so one of the tries usually finds it
// free. A P that sleeps instead costs a context switch, on a loaded core
// the rest of a time slice, and the holder's V then hands the semaphore to
// the sleeper, so that the next P of anyone waits until the sleeper has
// been scheduled: with a writer and a reader at full speed that convoy
// was most of a frame's time. Bounded, so that a holder that was
// preempted costs a P at most this many system calls before it sleeps.
constexpr int kNoWaitTries = 16;

// The same P as SemOp(-1): one unit of the same semaphore, with SEM_UNDO;
// it only sleeps later.
int SemP(int semId, int index) {
    struct sembuf op;
    op.sem_num = static_cast<unsigned short>(index);
    op.sem_op = -1;
    op.sem_flg = SEM_UNDO | IPC_NOWAIT;
    for (int i = 0; i < kNoWaitTries; ++i) {
        if (semop(semId, &op, 1) == 0) return 0;
        if (errno != EAGAIN) break;  // a removed set or a bad index: the blocking P fails too
    }
    return SemOp(semId, index, -1);
}

}  // namespace

namespace shm {

int InitSemaphoresOnce(int semId, int count) {
    if (semctl(semId, 0, GETPID) != 0 || count < 1) return 0;
    for (int i = 0; i < count; ++i) {
        SemArg arg;
        arg.val = 1;
        if (semctl(semId, i, SETVAL, arg) == -1) {
            perror("fail to init semaphore");
            return -1;
        }
        printf(">>>>>>>>Set semaphore id %d-%d value %d<<<<<<<<\n", semId, i,
               semctl(semId, i, GETVAL));
    }
    return 0;
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_SemaphoreInit(key_t key, int iSemNum) {
    int semId = semget(key, iSemNum, IPC_CREAT | 0666);
    if (semId == -1) {
        perror("fail to get semaphore.");
        return -1;
    }
    return shm::InitSemaphoresOnce(semId, iSemNum) == 0 ? semId : -1;
}

MOLK_API int SharedMem_SemaphoreP(int iSemId, int iSemIndex) {
    if (SemP(iSemId, iSemIndex) == 0) return 0;
    shm::LogError("SemaphoreP failed");
    return -1;
}

MOLK_API int SharedMem_SemaphoreV(int iSemId, int iSemIndex) {
    if (SemOp(iSemId, iSemIndex, 1) == 0) return 0;
    shm::LogError("SemaphoreV failed");
    return -1;
}

}  // extern "C"
