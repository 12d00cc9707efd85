// Sector handles: opening by index and tag, companion caches, the tag walk,
// reset, small queries, and the logging levels seen through them.
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ipc_fixture.h"

namespace {

class HandleTest : public IpcTest {
protected:
    void SetUp() override { saved_ = gShm_DebugLevel; }
    void TearDown() override {
        gShm_DebugLevel = saved_;
        for (SharedMemHandle *&h : handles_) SharedMem_Release(&h);
        IpcTest::TearDown();
    }
    SharedMemHandle *Open(SharedMemBlockInfo *info, int index, int attachId) {
        SharedMemHandle *h = nullptr;
        EXPECT_EQ(0, SharedMem_Initial(info, &h, index, attachId));
        handles_.push_back(h);
        return h;
    }
    // Standard output of fn, with the level set to `level`.
    template <typename Fn>
    std::string Output(uint32_t level, Fn fn) {
        gShm_DebugLevel = level;
        fflush(stdout);
        testing::internal::CaptureStdout();
        fn();
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    std::vector<SharedMemHandle *> handles_;
    uint32_t saved_ = 6;
};

TEST_F(HandleTest, RingHandlesFindTheirCompanionCache) {
    SharedMemBlockInfo *info =
        MakeBlock("8M", {"2M-video", "1M~streaming", "1M~recorder"});
    ASSERT_NE(nullptr, info);
    SharedMemCacheHeader *streaming = Cache(info, 1);
    SharedMemCacheHeader *recorder = Cache(info, 2);
    streaming->atCache[7].abyAccessCount[0] = 3;
    streaming->atCache[7].abyAccessCount[1] = 3;
    streaming->atCache[7].abyAccessCount[2] = 3;

    SharedMemHandle *h0 = Open(info, 0, 0);
    EXPECT_EQ(streaming, h0->ptCacheHeader);
    EXPECT_EQ(1, h0->iCacheIndex);
    EXPECT_EQ(0, streaming->atCache[7].abyAccessCount[0]);  // a former holder's pins go
    EXPECT_EQ(3, streaming->atCache[7].abyAccessCount[1]);

    SharedMemHandle *h2 = Open(info, 0, 2);
    EXPECT_EQ(recorder, h2->ptCacheHeader);
    EXPECT_EQ(2, h2->iCacheIndex);
    EXPECT_EQ(3, streaming->atCache[7].abyAccessCount[2]);  // AttachID 2 clears nothing

    SharedMemHandle *h3 = Open(info, 0, 3);
    EXPECT_EQ(nullptr, h3->ptCacheHeader);
    SharedMemHandle *cache = Open(info, 1, 0);
    EXPECT_EQ(nullptr, cache->ptCacheHeader);

    EXPECT_EQ(info->pvDataBase, h0->pvBase);
    EXPECT_EQ(Ring(info, 0), h0->ptHeader);
    EXPECT_EQ(info->iSemId, h0->iSemId);
    EXPECT_EQ(0, h0->iSectorIndex);
}

TEST_F(HandleTest, MissingCachesDoNotFailTheOpen) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M-video", "1M~streaming"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = nullptr;
    std::string out = Output(6, [&] { EXPECT_EQ(0, SharedMem_Initial(info, &h, 0, 2)); });
    handles_.push_back(h);
    EXPECT_EQ(Cache(info, 1), h->ptCacheHeader);  // no recorder: streaming instead
    EXPECT_NE(std::string::npos, out.find("Addon Caching fail!"));

    SharedMemBlockInfo *bare = MakeBlock("8M", {"2M-video", "1M-audio"});
    ASSERT_NE(nullptr, bare);
    SharedMemHandle *b = nullptr;
    out = Output(6, [&] { EXPECT_EQ(0, SharedMem_Initial(bare, &b, 0, 0)); });
    handles_.push_back(b);
    EXPECT_EQ(nullptr, b->ptCacheHeader);
    EXPECT_EQ("Addon Caching fail!", out);
}

TEST_F(HandleTest, ARingTaggedLikeACacheIsNeverWrittenAsOne) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M-video", "1M-streaming"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = Open(info, 0, 7);
    h->iAttachId = 0;
    EXPECT_EQ(-1, SharedMem_AddCache(info, h, "streaming"));
    EXPECT_EQ(1, Ring(info, 0)->byHasNext);
    EXPECT_EQ(0, Ring(info, 1)->byHasNext);
}

TEST_F(HandleTest, OpensByTagAndRefusesBadIndices) {
    SharedMemBlockInfo *info =
        MakeBlock("8M", {"2M-video", "1M~streaming", "1M-01234567890123456789012345678901234"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = nullptr;
    ASSERT_EQ(0, SharedMem_InitialByTag(info, &h, "streaming", 0));
    EXPECT_EQ(1, h->iSectorIndex);
    SharedMem_Release(&h);
    // Tags compare over 35 characters: a 36th doesn't matter.
    ASSERT_EQ(0, SharedMem_InitialByTag(info, &h, "01234567890123456789012345678901234X", 9));
    EXPECT_EQ(2, h->iSectorIndex);
    SharedMem_Release(&h);

    std::string out =
        Output(6, [&] { EXPECT_EQ(-1, SharedMem_InitialByTag(info, &h, "nosuch", 0)); });
    EXPECT_EQ("[shmem] : tag nosuch not found??\n", out);
    EXPECT_EQ("", Output(5, [&] { SharedMem_InitialByTag(info, &h, "nosuch", 0); }));
    EXPECT_EQ(-1, SharedMem_Initial(info, &h, 3, 0));
    EXPECT_EQ(-1, SharedMem_Initial(info, &h, -1, 0));
    EXPECT_EQ(-1, SharedMem_Initial(nullptr, &h, 0, 0));
    EXPECT_EQ(nullptr, h);
}

TEST_F(HandleTest, FindTagWalksTheChain) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M-a", "1M-b", "1M~last"});
    ASSERT_NE(nullptr, info);
    int index = -7;
    EXPECT_EQ(Ring(info, 2), SharedMem_FindTag(info->pvHeaderBase, "last", 3, &index));
    EXPECT_EQ(2, index);
    index = -7;
    EXPECT_EQ(nullptr, SharedMem_FindTag(info->pvHeaderBase, "a", 0, &index));
    EXPECT_EQ(-7, index);
    EXPECT_EQ(nullptr, SharedMem_FindTag(info->pvHeaderBase, "last", 2, &index));
    Ring(info, 0)->byHasNext = 0;  // a broken chain ends the walk
    EXPECT_EQ(nullptr, SharedMem_FindTag(info->pvHeaderBase, "b", 3, &index));
}

TEST_F(HandleTest, ResetEmptiesRingsAndCaches) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M-video", "1M~streaming"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *ring = Open(info, 0, 3);
    SharedMemSectorHeader *r = ring->ptHeader;
    r->iOldestIndex = 4;
    r->iLatestIndex = 3;
    r->iWriteIndex = 4;
    r->iBoundaryIndex = 9;
    r->dwDuration = 500;
    r->dwWriteOffset += 4096;
    r->atFrame[1279].abyAccessCount[15] = 1;
    ASSERT_EQ(0, SharedMem_Reset(ring));
    EXPECT_EQ(-1, r->iOldestIndex);
    EXPECT_EQ(-1, r->iLatestIndex);
    EXPECT_EQ(0, r->iWriteIndex);
    EXPECT_EQ(-1, r->iBoundaryIndex);
    EXPECT_EQ(0u, r->dwDuration);
    EXPECT_EQ(r->dwStartOffset, r->dwWriteOffset);
    EXPECT_EQ(0, r->atFrame[1279].abyAccessCount[15]);
    EXPECT_EQ(1279, r->iMaxIndex);
    EXPECT_EQ(1, semctl(info->iSemId, 0, GETVAL));  // the lock is given back

    SharedMemCacheHeader *c = Cache(info, 1);
    c->iPrimaryBoundary = 3;
    c->iLatestIndex = 2;
    c->iWriteIndex = 3;
    c->dwLeftSize = 10;
    c->dwOverwrittenFlags = 0x1001;
    c->atCache[35].dwSize = 9;
    ASSERT_EQ(0, SharedMem_ResetHeader(c, info->iSemId, 1));
    EXPECT_EQ(-1, c->iPrimaryBoundary);
    EXPECT_EQ(-1, c->iLatestIndex);
    EXPECT_EQ(0, c->iWriteIndex);
    EXPECT_EQ(c->dwEndOffset - c->dwStartOffset, c->dwLeftSize);
    EXPECT_EQ(0u, c->atCache[35].dwSize);
    EXPECT_EQ(0x1001u, c->dwOverwrittenFlags);
    EXPECT_STREQ("streaming", c->szTag);

    r->dwSectorType = 9;
    std::string out = Output(3, [&] { EXPECT_EQ(-1, SharedMem_Reset(ring)); });
    EXPECT_EQ("[shmem] : SharedMem_ResetHeader Unknown type 9\n", out);
    EXPECT_EQ("", Output(2, [&] { SharedMem_Reset(ring); }));
    r->dwSectorType = SHM_SECTOR_RING;
    EXPECT_EQ(-1, SharedMem_Reset(nullptr));
}

TEST_F(HandleTest, AnswersSmallQueries) {
    SharedMemBlockInfo *info = MakeBlock("8M", {"2M+live", "1M-plain", "1M~streaming"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *live = Open(info, 0, 3);
    SharedMemHandle *plain = Open(info, 1, 3);
    SharedMemHandle *cache = Open(info, 2, 3);
    live->ptHeader->dwDuration = 1500;
    plain->ptHeader->dwDuration = 700;
    uint32_t d = 1;
    EXPECT_EQ(0, SharedMem_CheckTimeshift(live, &d));
    EXPECT_EQ(1500u, d);
    EXPECT_EQ(-1, SharedMem_CheckTimeshift(plain, &d));
    EXPECT_EQ(700u, d);  // still delivered
    EXPECT_EQ(-1, SharedMem_CheckTimeshift(cache, &d));
    EXPECT_EQ(0u, d);
    EXPECT_EQ(-1, SharedMem_CheckTimeshift(nullptr, &d));

    uint32_t type = 0, memory = 0;
    EXPECT_EQ(0, SharedMem_QuerySetting(cache, &type, &memory));
    EXPECT_EQ(SHM_SECTOR_CACHE, type);
    EXPECT_EQ(SHM_MEMORY_SYSV, memory);
    EXPECT_EQ(-1, SharedMem_QuerySetting(nullptr, &type, &memory));

    uint8_t *p = static_cast<uint8_t *>(live->pvBase) + 100000;
    EXPECT_EQ(0u, SharedMem_GetPhyAddress(live, p));  // System V memory has none
    live->ptHeader->dwMemoryType = 3;
    live->ptHeader->dwPhysicalBase = 0x80000000u;
    EXPECT_EQ(0x80000000u + 100000, SharedMem_GetPhyAddress(live, p));
    EXPECT_EQ(0u, SharedMem_GetPhyAddress(live, static_cast<uint8_t *>(live->pvBase) - 1));
    live->ptHeader->dwMemoryType = SHM_MEMORY_SYSV;

    FILE *f = tmpfile();
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(0, SharedMem_Dump(live, f));
    EXPECT_EQ(8L * 0x100000, ftell(f));
    fclose(f);
    EXPECT_EQ(-1, SharedMem_Dump(live, nullptr));
}

TEST_F(HandleTest, ReleaseFreesAndClears) {
    SharedMemBlockInfo *info = MakeBlock("2M", {"1M-a"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = nullptr;
    ASSERT_EQ(0, SharedMem_Initial(info, &h, 0, 3));
    EXPECT_EQ(0, SharedMem_Release(&h));
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ(-1, SharedMem_Release(&h));
    EXPECT_EQ(-1, SharedMem_Release(nullptr));
}

TEST_F(HandleTest, LevelsDecideWhatIsPrinted) {
    SharedMemBlockInfo *info = MakeBlock("2M", {"1M-cam"});
    ASSERT_NE(nullptr, info);
    SharedMemHandle *h = nullptr;
    std::string trace = Output(7, [&] { SharedMem_Initial(info, &h, 0, 3); });
    SharedMem_Release(&h);
    EXPECT_EQ(0u, trace.find("[shmem] : Shared Memory Sector 0 Tag cam initialized head: "));
    EXPECT_EQ("", Output(6, [&] { SharedMem_Initial(info, &h, 0, 3); }));
    SharedMem_Release(&h);

    // A failed P is an error: shown from level 3 on, both texts as they stand.
    EXPECT_EQ("[shmem] : SemaphoreP failed", Output(3, [&] { SharedMem_SemaphoreP(-1, 0); }));
    EXPECT_EQ("", Output(2, [&] { SharedMem_SemaphoreV(-1, 0); }));
}

TEST_F(HandleTest, DebugLevelComesFromTheEnvironment) {
    setenv("SHM_DEBUG", "22", 1);
    std::string out = Output(6, [] { SharedMem_UpdateDebugLevel(); });
    EXPECT_EQ("Update debug level to 22\n", out);
    EXPECT_EQ(22u, gShm_DebugLevel);  // level 6 with the pin trace
    unsetenv("SHM_DEBUG");
    EXPECT_EQ("", Output(5, [] { SharedMem_UpdateDebugLevel(); }));
    EXPECT_EQ(5u, gShm_DebugLevel);
}

}  // namespace
