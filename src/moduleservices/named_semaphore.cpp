// A cross-process lock named by a file path: every process that opens the
// same path meets the same System V set of one semaphore, key
// ftok(path, 101). Semaphore 0 holds 1 while the lock is free, 0 while it
// is held; every operation on it carries SEM_UNDO, so the kernel gives the
// lock back when its holder dies.
#include "moduleservices/named_semaphore.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "moduleservices/paths.h"

namespace {

// Linux leaves this union to the caller.
union SemArg {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// A set that exists but has never been operated on is being set up by the
// process that made it. A creator killed in that moment leaves it at 0 for
// good, so a waiter gives up on it after this long and makes the set anew.
constexpr unsigned kSetupWaitUs = 2000000;
constexpr unsigned kSetupPollUs = 1000;
// Rounds of make-or-find when sets vanish under us (removed by others).
constexpr int kOpenRounds = 16;

int SemOp(int semId, short delta) {
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    return semop(semId, &op, 1);
}

int SetFree(int semId) {
    SemArg arg;
    arg.val = 1;
    return semctl(semId, 0, SETVAL, arg);
}

enum class Setup { kReady, kGone, kStale };

// Waits until some process has given the set a value or operated on it:
// the kernel then records a last PID. GETPID failing for any reason other
// than the set's removal is left for the first lock to report.
Setup WaitForSetup(int semId) {
    for (unsigned waited = 0;; waited += kSetupPollUs) {
        int pid = semctl(semId, 0, GETPID);
        if (pid > 0) return Setup::kReady;
        if (pid == -1) return (errno == EIDRM || errno == EINVAL) ? Setup::kGone : Setup::kReady;
        if (waited >= kSetupWaitUs) return Setup::kStale;
        usleep(kSetupPollUs);
    }
}

// Makes the set of `key` or finds it; *semId is -1 when neither works,
// which the first lock reports. Only the process whose semget made the set
// sets it free: two processes that both saw a fresh set and both set it
// free could let the second one's value open a lock the first had taken
// in between. Gives -1 only when the creator's first value fails.
int OpenSet(key_t key, int *semId) {
    *semId = -1;
    if (key == static_cast<key_t>(-1)) return 0;  // the file went away: no set under key -1
    for (int round = 0; round < kOpenRounds; ++round) {
        int id = semget(key, 1, IPC_CREAT | IPC_EXCL | molk::kSemaphoreMode);
        if (id != -1) {
            if (SetFree(id) == -1) {
                semctl(id, 0, IPC_RMID);  // nobody else may wait on it for ever
                return -1;
            }
            *semId = id;
            return 0;
        }
        if (errno != EEXIST) return 0;
        id = semget(key, 1, molk::kSemaphoreMode);
        if (id == -1) {
            if (errno == ENOENT || errno == EIDRM) continue;  // removed meanwhile
            return 0;
        }
        switch (WaitForSetup(id)) {
        case Setup::kReady:
            *semId = id;
            return 0;
        case Setup::kGone:
            continue;
        case Setup::kStale:
            // Removal by identifier takes only this set; a set made anew
            // under the key meanwhile has another identifier.
            semctl(id, 0, IPC_RMID);
            continue;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

MOLK_API int MolkSemaphore_Initial(MolkSemaphoreHandle **pptHandle, const char *szPath) {
    if (pptHandle == nullptr) return -1;
    MolkSemaphoreHandle *handle =
        static_cast<MolkSemaphoreHandle *>(malloc(sizeof(MolkSemaphoreHandle)));
    if (handle == nullptr) return -1;
    if (szPath == nullptr || access(szPath, F_OK) != 0) {
        printf("[%s] Semaphore initial failed, missing resource config\n", "MolkSemaphore_Initial");
        free(handle);
        return -1;
    }
    if (OpenSet(molk::SemaphoreKey(szPath), &handle->semid) == -1) {
        free(handle);
        return -1;
    }
    *pptHandle = handle;
    return 0;
}

MOLK_API int MolkSemaphore_Lock(MolkSemaphoreHandle *ptHandle) {
    if (ptHandle == nullptr) return -1;
    if (semaphore_p(ptHandle->semid) == 0) return 0;
    printf("%s-%d failed!\n", "MolkSemaphore_Lock", 190);
    return -1;
}

MOLK_API int MolkSemaphore_Unlock(MolkSemaphoreHandle *ptHandle) {
    if (ptHandle == nullptr) return -1;
    if (semaphore_v(ptHandle->semid) == 0) return 0;
    printf("%s-%d failed!\n", "MolkSemaphore_Unlock", 210);
    return -1;
}

MOLK_API int MolkSemaphore_Release(MolkSemaphoreHandle **pptHandle) {
    if (pptHandle == nullptr || *pptHandle == nullptr) return -1;
    if (semctl((*pptHandle)->semid, 0, IPC_RMID) != 0) {
        printf("[%s] Fail to remove ID in semaphore array\n", "MolkSemaphore_Release");
    }
    free(*pptHandle);
    *pptHandle = nullptr;
    return 0;
}

MOLK_API int set_semavalue(int iSemId) {
    return SetFree(iSemId) == -1 ? -1 : 0;
}

MOLK_API int semaphore_p(int iSemId) {
    if (SemOp(iSemId, -1) == 0) return 0;
    puts("semaphore_p failed");
    return -1;
}

MOLK_API int semaphore_v(int iSemId) {
    if (SemOp(iSemId, 1) == 0) return 0;
    puts("semaphore_v failed");
    return -1;
}

}  // extern "C"
