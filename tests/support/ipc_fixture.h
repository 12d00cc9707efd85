// A test fixture that hands each test IPC keys of its own and removes every
// segment and semaphore set made under them, whatever the test did.
#ifndef MOLK_TESTS_IPC_FIXTURE_H
#define MOLK_TESTS_IPC_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sharedmem.h"

class IpcTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (SharedMemBlockInfo *&info : attached_) SharedMemBlock_Detach(&info);
        for (key_t key : keys_) {
            int shmId = shmget(key, 0, 0);
            if (shmId != -1) shmctl(shmId, IPC_RMID, nullptr);
            int semId = semget(key, 0, 0);
            if (semId != -1) semctl(semId, 0, IPC_RMID);
            char waitArea[32];
            snprintf(waitArea, sizeof waitArea, "/molkutil.wait.%08x", static_cast<unsigned>(key));
            shm_unlink(waitArea);
            EXPECT_TRUE(shmget(key, 0, 0) == -1 && semget(key, 0, 0) == -1)
                << "IPC object left under key " << key;
        }
    }

    // A key no other test of this run uses.
    key_t NewKey() {
        static key_t last = static_cast<key_t>(0x4D000000 | ((getpid() & 0xFFF) << 12));
        keys_.push_back(++last);
        return last;
    }
    // Allocates a block from description texts (copied: the allocator
    // writes into them) and attaches it; nullptr when the allocator refuses.
    SharedMemBlockInfo *MakeBlock(const char *total, std::vector<std::string> descs,
                                  key_t *keyOut = nullptr) {
        key_t key = NewKey();
        if (keyOut != nullptr) *keyOut = key;
        std::vector<char *> texts;
        for (std::string &d : descs) texts.push_back(&d[0]);
        std::string totalText(total);
        const int count = static_cast<int>(texts.size());
        if (SharedMemBlock_Allocate(key, &totalText[0], count, &config_, texts.data()) != 0) {
            return nullptr;
        }
        SharedMemBlockInfo *info = nullptr;
        EXPECT_EQ(0, SharedMemBlock_Attach(&info, 0, key));
        if (info != nullptr) attached_.push_back(info);
        return info;
    }
    // A header slot of an attached block.
    static SharedMemSectorHeader *Ring(SharedMemBlockInfo *info, int index) {
        void *slot = static_cast<uint8_t *>(info->pvHeaderBase) + index * SHM_HEADER_SLOT_SIZE;
        return static_cast<SharedMemSectorHeader *>(slot);
    }
    static SharedMemCacheHeader *Cache(SharedMemBlockInfo *info, int index) {
        return reinterpret_cast<SharedMemCacheHeader *>(Ring(info, index));
    }

    SharedMemBlockConfig config_ = {SHM_MEMORY_SYSV, 0, 0, 64 * 1024, 0};

private:
    std::vector<key_t> keys_;
    std::vector<SharedMemBlockInfo *> attached_;
};

#endif
