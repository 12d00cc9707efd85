// Sector handles: the companion cache a ring finds by AttachID, and reset
// through a handle.
#include <gtest/gtest.h>
#include <sys/sem.h>

#include "ipc_fixture.h"

namespace {

using HandleTest = IpcTest;

// AttachIDs 0 and 1 take "streaming", 2 "recorder" or else "streaming", the
// others none. Opening drops the pins a former holder of the AttachID left
// in the cache (2 keeps them); a ring that carries a cache's tag is no cache.
TEST_F(HandleTest, RingsFindTheirCompanionCacheByAttachId) {
    const struct {
        std::vector<std::string> descs;
        int attachId, cache, pinsLeft;
    } cases[] = {
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
TEST_F(HandleTest, ResetEmptiesACacheAndGivesItsLockBack) {
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
