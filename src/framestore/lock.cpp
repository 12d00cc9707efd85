#include "framestore/lock.h"

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
    if (SemOp(iSemId, iSemIndex, -1) == 0) return 0;
    shm::LogError("SemaphoreP failed");
    return -1;
}

MOLK_API int SharedMem_SemaphoreV(int iSemId, int iSemIndex) {
    if (SemOp(iSemId, iSemIndex, 1) == 0) return 0;
    shm::LogError("SemaphoreV failed");
    return -1;
}

}  // extern "C"
