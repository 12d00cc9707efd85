// Internals of the named semaphore that the module services' own callers
// need beyond the exported calls: which set a handle names, and whether
// that set is still the one its path names now. A set is replaced when it
// is removed and made anew, and a path names another key once a rename
// gives the file a new identity. Inline, so that tests can use them too.
#ifndef MOLK_MODULESERVICES_NAMED_SEMAPHORE_H
#define MOLK_MODULESERVICES_NAMED_SEMAPHORE_H

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>

#include "molkutil.h"
#include "moduleservices/paths.h"

// The record behind the opaque handle: nothing but the set's identifier.
struct MolkSemaphoreHandle {
    int semid;
};

namespace molk {

// The key that a path names: ftok(path, 101); -1 if the file is not there.
inline key_t SemaphoreKey(const char *path) {
    return path == nullptr ? static_cast<key_t>(-1) : ftok(path, kSemaphoreProjectId);
}

// The set's identifier, -1 for a NULL handle.
inline int SemaphoreId(const MolkSemaphoreHandle *handle) {
    return handle == nullptr ? -1 : handle->semid;
}

// The key the handle's set was made under, -1 if the set is gone.
inline key_t SemaphoreKeyOf(const MolkSemaphoreHandle *handle) {
    struct semid_ds info;
    if (handle == nullptr || semctl(handle->semid, 0, IPC_STAT, &info) == -1) {
        return static_cast<key_t>(-1);
    }
    return info.sem_perm.__key;
}

// True while the path still names the handle's key and that key's set is
// the handle's set, i.e. opening the path anew would meet the same lock.
inline bool SemaphoreIsLive(const MolkSemaphoreHandle *handle, const char *path) {
    if (handle == nullptr || handle->semid == -1) return false;
    const key_t key = SemaphoreKey(path);
    if (key == static_cast<key_t>(-1)) return false;
    return semget(key, 1, kSemaphoreMode) == handle->semid;
}

}  // namespace molk

#endif  // MOLK_MODULESERVICES_NAMED_SEMAPHORE_H
