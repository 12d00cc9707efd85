// Blocks: the description grammar read back from the raw header slots,
// refusals, indices kept in bounds, another process and its locks, the
// kernel's size limit, hostile descriptions; sector handles, the companion
// cache a ring finds by AttachID, and reset through a handle.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>

#include "ipc_fixture.h"

namespace {

constexpr uint32_t kMiB = 0x100000, kSlot = SHM_HEADER_SLOT_SIZE;

using BlockTest = IpcTest;

// Each text describes sector 1 behind a sector 0 that ends at 1 MiB; with
// `repartition` the block is made with "1M+x" there and the text given to
// SharedMemBlock_Repartition, which sizes rings anew but keeps their tags.
TEST_F(BlockTest, ReadsDescriptionsAtAllocationAndRepartition) {
    const struct {
        const char *total, *text, *tag, *secondTag;
        bool repartition;
        char kind;                // 'r' ring, 't' timeshift ring, 'c' cache
        uint32_t size, slotSize;  // slotSize: a cache's dwPrimarySize
    } cases[] = {
        {"64M", "16M-video", "video", "", false, 'r', 16 * kMiB, 0},
        {"64M", "32M+video:/var/run/timeshift_adaptive.active", "video",
         "/var/run/timeshift_adaptive.active", false, 't', 32 * kMiB, 0},
        {"64M", "100K-Main", "Main", "", false, 'r', 100 * 1024, 0},  // 'M' after '-' ignored
        {"64M", "4M~streaming", "streaming", "", false, 'c', 4 * kMiB, 64 * 1024},
        {"64M", "6144K~512K~streaming", "streaming", "", false, 'c', 6 * kMiB, 512 * 1024},
        {"64M", "2m~a:b", "a:b", "", false, 'c', 2 * kMiB, 64 * 1024},  // caches keep ':'
        {"64M", "70M-big", "big", "", false, 'r', 63 * kMiB, 0},        // clamped to what is left
        {"1M", "512K-b", "b", "", false, 'r', 0, 0},                    // nothing left
        {"128M", "100K-Main", "x", "", true, 'r', 100 * kMiB, 0},       // the tag's 'M' counts here
        {"64M", "2M-+y", "x", "", true, 'r', 2 * kMiB, 0},              // '-' wins over '+'
        {"64M", "70M", "x", "", true, 't', 63 * kMiB, 0},               // no sign: timeshift stays
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        SharedMemBlockInfo *info = MakeBlock(c.total, {"1M-a", c.repartition ? "1M+x" : c.text});
        ASSERT_NE(nullptr, info);
        SharedMemSectorHeader *slot = Ring(info, 1);
        if (c.repartition) {
            slot->iLatestIndex = 5;
            std::string first("1M"), text(c.text);
            char *descs[] = {&first[0], &text[0]};
            // Each ring is emptied under its lock, taken once: a second P would hang.
            ASSERT_EQ(0, SharedMemBlock_Repartition(info, 2, descs));
            EXPECT_EQ(1, semctl(info->iSemId, 1, GETVAL));
        }
        EXPECT_EQ(c.kind == 'c' ? SHM_SECTOR_CACHE : SHM_SECTOR_RING, slot->dwSectorType);
        EXPECT_EQ(kMiB, slot->dwStartOffset);
        EXPECT_EQ(kMiB + c.size, slot->dwEndOffset);
        if (c.kind == 'c') {
            EXPECT_STREQ(c.tag, Cache(info, 1)->szTag);
            EXPECT_EQ(c.slotSize, Cache(info, 1)->dwPrimarySize);
            EXPECT_EQ(c.size, Cache(info, 1)->dwLeftSize);
        } else {
            EXPECT_STREQ(c.tag, slot->szTag);
            EXPECT_STREQ(c.secondTag, slot->szSecondTag);
            EXPECT_EQ(c.kind == 't', slot->byTimeshift == 1);
            EXPECT_EQ(-1, slot->iLatestIndex);
            EXPECT_EQ(slot->dwStartOffset, slot->dwWriteOffset);
        }
    }
}

// A first sector that does not cover the header slots would put every data
// area on top of them, and a cache must hold one slot. These are refused
// after the segment was made; it stays until SharedMemBlock_Delete.
TEST_F(BlockTest, RefusesLayoutsThatOverlapOrOverflow) {
    for (auto descs : {std::vector<std::string>{"20K-video", "256K~streaming"}, {"2M-a", "1M~a"}}) {
        key_t key;
        EXPECT_EQ(nullptr, MakeBlock("2M", descs, &key)) << descs[0];
        EXPECT_NE(-1, shmget(key, 0, 0)) << descs[0];
    }
}

// Whatever takes an index or a count stays inside the block: renaming,
// opening a sector, the tag walk along the chain, flushing one AttachID's
// pins, and a repartition that drops what a cache has handed out.
TEST_F(BlockTest, IndicesAndCountsStayInsideTheBlock) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"1M-a", "1M~streaming"});
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(-1, SharedMemBlock_UpdateTagName(info, 2, "x-y"));
    EXPECT_EQ(0, SharedMemBlock_UpdateTagName(info, 0, "x-renamed"));
    EXPECT_STREQ("renamed", Ring(info, 0)->szTag);
    SharedMemHandle *h = nullptr;
    EXPECT_EQ(-1, SharedMem_Initial(info, &h, 2, 0));
    int index = -7;
    EXPECT_EQ(nullptr, SharedMem_FindTag(info->pvHeaderBase, "renamed", 0, &index));
    EXPECT_EQ(-7, index);
    uint8_t *pins = Cache(info, 1)->atCache[35].abyAccessCount;
    pins[4] = pins[5] = 1;
    EXPECT_EQ(-1, SharedMemBlock_FlushAccessCountWithAttachId(info, 16));
    EXPECT_EQ(0, SharedMemBlock_FlushAccessCountWithAttachId(info, 4));
    EXPECT_EQ(0, pins[4]);
    EXPECT_EQ(1, pins[5]);
    Cache(info, 1)->iPrimaryBoundary = 99;
    ASSERT_EQ(0, SharedMemBlock_Repartition(info, 0, nullptr));
    EXPECT_EQ(0, pins[5]);
    Ring(info, 0)->byHasNext = 0;  // a broken chain ends the walk
    EXPECT_EQ(nullptr, SharedMem_FindTag(info->pvHeaderBase, "streaming", 2, &index));
}

// Another process attaches by key and takes two sector locks, one of them
// held by the test: a P that finds its lock taken may ask again without
// sleeping, but never gets past the holder; it passes only after the V.
// Killed holding both, the process leaves neither held: the kernel gives
// them back (SEM_UNDO). A process that starts later must not set a lock in
// use back to free either. (That processes share a block's frames is the
// reader stress test's part.)
TEST_F(BlockTest, ALockPassesOnlyAfterTheHoldersVAndOutlivesAKilledHolder) {
    key_t key;
    SharedMemBlockInfo *info = MakeBlock("4M", {"2M-a", "1M-video"}, &key);
    ASSERT_NE(nullptr, info);
    int passed[2];
    ASSERT_EQ(0, pipe(passed));
    ASSERT_EQ(0, SharedMem_SemaphoreP(info->iSemId, 1));
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        SharedMemBlockInfo *mine = nullptr;
        SharedMemHandle *h = nullptr;
        if (SharedMemBlock_Attach(&mine, 0, key) != 0) _exit(10);
        if (SharedMem_InitialByTag(mine, &h, "video", 5) != 0) _exit(11);
        if (SharedMem_SemaphoreP(h->iSemId, 0) != 0) _exit(12);
        if (SharedMem_SemaphoreP(h->iSemId, h->iSectorIndex) != 0) _exit(13);
        if (write(passed[1], "p", 1) != 1) _exit(14);
        pause();
        _exit(15);
    }
    close(passed[1]);
    struct pollfd pfd = {passed[0], POLLIN, 0};
    EXPECT_EQ(0, poll(&pfd, 1, 300)) << "the second P got past the holder";
    ASSERT_EQ(0, SharedMem_SemaphoreV(info->iSemId, 1));
    char c = 0;
    EXPECT_EQ(1, poll(&pfd, 1, 20000));
    EXPECT_EQ(1, read(passed[0], &c, 1));
    close(passed[0]);
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(1, semctl(info->iSemId, 0, GETVAL));
    EXPECT_EQ(1, semctl(info->iSemId, 1, GETVAL));
    ASSERT_EQ(0, SharedMem_SemaphoreP(info->iSemId, 0));
    EXPECT_EQ(info->iSemId, SharedMem_SemaphoreInit(key, 2));
    EXPECT_EQ(0, semctl(info->iSemId, 0, GETVAL));
}

// The namespace's own limit is changed: never run this outside one.
TEST_F(BlockTest, CheckShmMaxRaisesALimitThatIsTooLow) {
    if (getenv("MOLK_ISOLATED") == nullptr) GTEST_SKIP() << "needs a private IPC namespace";
    const char *path = "/proc/sys/kernel/shmmax";
    auto limit = [&] {
        std::string s;
        std::ifstream(path) >> s;
        return s;
    };
    std::ofstream(path) << "1000";
    ASSERT_NE(nullptr, MakeBlock("2M", {"1M-a"}));  // the allocator raises it before its shmget
    EXPECT_EQ("2097152", limit());
    std::ofstream(path) << "18446744073692774399";  // wider than 32 bits
    EXPECT_EQ(0, CheckShmMax(0xFFFFFFFFu));
    EXPECT_EQ("18446744073692774399", limit());
}

// Random description texts, built from the grammar's own characters, never
// make the allocator write outside the header slots or break the chain.
TEST_F(BlockTest, HostileDescriptionsStayInsideTheHeaderSlots) {
    unsigned seed = getenv("MOLK_SEED") ? static_cast<unsigned>(atoi(getenv("MOLK_SEED"))) : 1234u;
    std::mt19937 rng(seed);
    const char alphabet[] = "0123456789KMm-+~:~-+ab";
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
        std::vector<std::string> texts(1 + rng() % 4);
        for (std::string &t : texts) {
            for (size_t k = rng() % 48; k > 0; --k) t += alphabet[rng() % (sizeof alphabet - 1)];
        }
        const int count = static_cast<int>(texts.size());
        std::string total = std::to_string(count * kSlot / 1024 + 1 + rng() % 64) + "K";
        // A cache that does not fit is refused; the fixture removes the segment.
        SharedMemBlockInfo *info = MakeBlock(total.c_str(), texts);
        if (info == nullptr) continue;
        ASSERT_EQ(count, info->iSectorNum);
        uint32_t end = count * kSlot, segment = Ring(info, 0)->dwTotalSize;
        for (int i = 0; i < count; ++i) {
            SharedMemSectorHeader *slot = Ring(info, i);
            EXPECT_EQ(end, slot->dwStartOffset);
            EXPECT_LE(slot->dwEndOffset, segment);
            end = slot->dwEndOffset;
            bool cache = slot->dwSectorType == SHM_SECTOR_CACHE;
            EXPECT_EQ(0,
                      cache ? Cache(info, i)->szTag[35] : slot->szTag[35] | slot->szSecondTag[35]);
        }
        const uint8_t *data = static_cast<uint8_t *>(info->pvDataBase) + count * kSlot;
        EXPECT_TRUE(
            std::all_of(data, data + segment - count * kSlot, [](uint8_t b) { return b == 0; }));
    }
}

// AttachIDs 0 and 1 take "streaming", 2 "recorder" or else "streaming", the
// others none. Opening drops the pins a former holder of the AttachID left
// in the cache (2 keeps them); a ring that carries a cache's tag is no cache.
TEST_F(BlockTest, RingsFindTheirCompanionCacheByAttachId) {
    const struct { std::vector<std::string> descs; int attachId, cache, pinsLeft; } cases[] = {
        {{"2M-video", "1M~streaming", "1M~recorder"}, 0, 1, 0},
        {{"2M-video", "1M~streaming", "1M~recorder"}, 2, 2, 3},
        {{"2M-video", "1M~streaming"}, 2, 1, 3},
        {{"2M-video", "1M-streaming"}, 0, -1, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.descs.back() + " for AttachID " + std::to_string(c.attachId));
        SharedMemBlockInfo *info = MakeBlock("8M", c.descs);
        ASSERT_NE(nullptr, info);
        uint8_t *pins = Cache(info, 1)->atCache[7].abyAccessCount;
        pins[c.attachId] = 3;
        SharedMemHandle *h = nullptr;
        ASSERT_EQ(0, SharedMem_Initial(info, &h, 0, c.attachId));
        EXPECT_EQ(c.cache < 0 ? nullptr : Cache(info, c.cache), h->ptCacheHeader);
        EXPECT_EQ(c.cache, h->iCacheIndex);
        EXPECT_EQ(c.pinsLeft, pins[c.attachId]);
        SharedMem_Release(&h);
    }
}

// A cache is emptied under its own sector's lock; its header and the
// overwrite flags stay.
TEST_F(BlockTest, ResetEmptiesACacheAndGivesItsLockBack) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M-video", "1M~streaming"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = nullptr;
    ASSERT_EQ(0, SharedMem_Initial(info, &h, 1, 3));
    SharedMemCacheHeader *c = Cache(info, 1);
    c->iPrimaryBoundary = 3;
    c->dwLeftSize = 10;
    c->dwOverwrittenFlags = 0x1001;
    c->atCache[35].abyAccessCount[15] = 1;
    ASSERT_EQ(0, SharedMem_Reset(h));
    EXPECT_EQ(-1, c->iPrimaryBoundary);
    EXPECT_EQ(0x100000u, c->dwLeftSize);  // the whole MiB again
    EXPECT_EQ(0, c->atCache[35].abyAccessCount[15]);
    EXPECT_EQ(0x1001u, c->dwOverwrittenFlags);
    EXPECT_EQ(1, semctl(info->iSemId, 1, GETVAL));
    c->dwSectorType = 9;  // a slot of no known type is left alone
    EXPECT_EQ(-1, SharedMem_Reset(h));
    SharedMem_Release(&h);
}

}  // namespace
