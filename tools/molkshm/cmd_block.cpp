// molkshm create / reset / delete.
#include <cstdio>
#include <cstdlib>
#include <sys/shm.h>

#include "molkshm.h"

int CmdCreate(int argc, char **argv) {
    key_t key;
    if (argc < 4) return Fail("usage: molkshm create KEY TOTAL DESC...");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 64 * 1024, 0};
    int count = argc - 3;
    if (SharedMemBlock_Allocate(key, argv[2], count, &config, argv + 3) != 0) {
        putchar('\n');
        return Fail("could not create the block under key 0x%x", static_cast<unsigned>(key));
    }
    return 0;
}

int CmdReset(int argc, char **argv) {
    key_t key;
    unsigned long sector;
    if (argc != 3) return Fail("usage: molkshm reset KEY SECTOR");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    if (!ParseUnsigned(argv[2], &sector) || sector > 0x7FFFFFFFul) {
        return Fail("bad sector '%s'", argv[2]);
    }
    SharedMemBlockInfo *info = AttachOrFail(key);
    if (info == nullptr) return 1;
    SharedMemHandle *handle = nullptr;
    int rc = SharedMem_Initial(info, &handle, static_cast<int>(sector), 16);
    if (rc == 0) rc = SharedMem_Reset(handle);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    if (rc != 0) return Fail("could not reset sector %lu", sector);
    printf("sector %lu reset\n", sector);
    return 0;
}

int CmdDelete(int argc, char **argv) {
    key_t key;
    if (argc != 2) return Fail("usage: molkshm delete KEY");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    if (shmget(key, 0, 0) == -1) return Fail("no block under key 0x%x", static_cast<unsigned>(key));
    SharedMemBlock_Delete(key);
    return 0;
}
