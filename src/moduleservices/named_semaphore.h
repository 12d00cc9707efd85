// Internals of the named semaphore that the module services' own callers
// need beyond the exported calls: which set a handle names, and whether
// that set is still the one its path names now. A set is replaced when it
// is removed and made anew, and a path names another key once a rename
// gives the file a new identity.
#ifndef MOLK_MODULESERVICES_NAMED_SEMAPHORE_H
#define MOLK_MODULESERVICES_NAMED_SEMAPHORE_H

#include <sys/types.h>

#include "molkutil.h"

// The record behind the opaque handle: nothing but the set's identifier.
struct MolkSemaphoreHandle {
    int semid;
};

namespace molk {

// The key that a path names: ftok(path, 101); -1 if the file is not there.
key_t SemaphoreKey(const char *path);

// The set's identifier, -1 for a NULL handle.
int SemaphoreId(const MolkSemaphoreHandle *handle);

// The key the handle's set was made under, -1 if the set is gone.
key_t SemaphoreKeyOf(const MolkSemaphoreHandle *handle);

// True while the path still names the handle's key and that key's set is
// the handle's set, i.e. locking the path anew would meet the same lock.
bool SemaphoreIsLive(const MolkSemaphoreHandle *handle, const char *path);

}  // namespace molk

#endif  // MOLK_MODULESERVICES_NAMED_SEMAPHORE_H
