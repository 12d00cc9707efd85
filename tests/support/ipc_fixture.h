// A test fixture that hands each test IPC keys of its own and removes every
// segment and semaphore set made under them, whatever the test did.
#ifndef MOLK_TESTS_IPC_FIXTURE_H
#define MOLK_TESTS_IPC_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "sharedmem.h"

class IpcTest : public ::testing::Test {
protected:
    void TearDown() override;

    // A key no other test of this run uses.
    key_t NewKey();
    // Allocates a block from description texts (copied: the allocator
    // writes into them) and attaches it; fails the test on error.
    SharedMemBlockInfo *MakeBlock(const char *total, std::vector<std::string> descs,
                                  key_t *keyOut = nullptr);
    // Reads a header slot of an attached block.
    static SharedMemSectorHeader *Ring(SharedMemBlockInfo *info, int index);
    static SharedMemCacheHeader *Cache(SharedMemBlockInfo *info, int index);

    SharedMemBlockConfig config_ = {SHM_MEMORY_SYSV, 0, 0, 64 * 1024, 0};

private:
    std::vector<key_t> keys_;
    std::vector<SharedMemBlockInfo *> attached_;
};

#endif
