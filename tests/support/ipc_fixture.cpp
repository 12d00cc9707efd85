#include "ipc_fixture.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>

namespace {
key_t g_nextKey = 0;
}

key_t IpcTest::NewKey() {
    if (g_nextKey == 0) g_nextKey = static_cast<key_t>(0x4D000000 | ((getpid() & 0xFFF) << 12));
    key_t key = ++g_nextKey;
    keys_.push_back(key);
    return key;
}

SharedMemBlockInfo *IpcTest::MakeBlock(const char *total, std::vector<std::string> descs,
                                       key_t *keyOut) {
    key_t key = NewKey();
    std::vector<char *> texts;
    for (std::string &d : descs) texts.push_back(&d[0]);
    std::string totalText(total);
    EXPECT_EQ(0, SharedMemBlock_Allocate(key, &totalText[0], static_cast<int>(texts.size()),
                                         &config_, texts.data()));
    SharedMemBlockInfo *info = nullptr;
    EXPECT_EQ(0, SharedMemBlock_Attach(&info, 0, key));
    if (info != nullptr) attached_.push_back(info);
    if (keyOut != nullptr) *keyOut = key;
    return info;
}

SharedMemSectorHeader *IpcTest::Ring(SharedMemBlockInfo *info, int index) {
    void *slot = static_cast<uint8_t *>(info->pvHeaderBase) + index * SHM_HEADER_SLOT_SIZE;
    return static_cast<SharedMemSectorHeader *>(slot);
}

SharedMemCacheHeader *IpcTest::Cache(SharedMemBlockInfo *info, int index) {
    return reinterpret_cast<SharedMemCacheHeader *>(Ring(info, index));
}

void IpcTest::TearDown() {
    for (SharedMemBlockInfo *&info : attached_) SharedMemBlock_Detach(&info);
    for (key_t key : keys_) {
        int shmId = shmget(key, 0, 0);
        if (shmId != -1) shmctl(shmId, IPC_RMID, nullptr);
        int semId = semget(key, 0, 0);
        if (semId != -1) semctl(semId, 0, IPC_RMID);
        EXPECT_TRUE(shmget(key, 0, 0) == -1 && semget(key, 0, 0) == -1)
            << "IPC object left under key " << key;
    }
}
