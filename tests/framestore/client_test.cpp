// Reader clients: validity verdicts and the release of pins. Pins that hold
// against a writer in another process are the reader stress test's part;
// AttachIDs that count no pins are the frame reader tests' part.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

// A ring of four frames with ticks 100..400 in one generation; the reader
// has AttachID 3 and a cache sector that shares the ring's lock.
class ClientTest : public testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 4; ++i) ASSERT_EQ(0, f_.write(100, 0, 100u * (i + 1)));
        reader_.ptCacheHeader = &cache_;
    }
    void SetIndices(int o, int l, int b) {
        r_->iOldestIndex = o, r_->iLatestIndex = l, r_->iBoundaryIndex = b, r_->iWriteIndex = l + 1;
    }

    FakeRing f_{1000};
    SharedMemCacheHeader cache_ = {};
    SharedMemSectorHeader *r_ = f_.ring();
    SharedMemHandle reader_ = f_.readerHandle(3);
};

// CheckIndexValid judges an index and its tick, and names the next entry; a
// client's query verdict is the same. Its release verdict also passes a
// frame that left the live range (past a rewind, or in the dead zone) while
// its entry still carries it, and passes nothing on an entry of tick 0 (as
// in a reset ring). A failed query is silent below level 6, a failed
// release warns from level 4 on.
TEST_F(ClientTest, VerdictsOnIndexAndTickAroundARewind) {
    struct Case { int o, l, b, index; uint32_t tick, next; int query, release; } cases[] = {
        {2, 0, 3, 0, 100, 1, 0, 0},      // two generations: the newest
        {2, 0, 3, 3, 400, 0, 0, 0},      // the boundary wraps to 0
        {2, 0, 3, 0, 999, 1, -1, -1},    // entry rewritten
        {2, 0, 3, 1, 200, 2, -1, 0},     // the dead zone between L and O
        {0, 1, 1, 2, 300, 0, -1, 0},     // above B after a rewind
        {2, 0, 3, 4, 0, 0, -1, -1},      // above B; tick 0 as after a reset
        {0, 3, 3, 1280, 0, 77, -1, -1},  // outside the table: next untouched
    };
    DebugLevel level(5);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.index << " " << c.tick << " B=" << c.b);
        SetIndices(c.o, c.l, c.b);
        uint32_t next = 77;
        EXPECT_EQ(c.query, SharedMem_CheckIndexValid(r_, c.index, c.tick, &next));
        EXPECT_EQ(c.next, next);
        SharedMemBufClient client = {};
        client.iLastIndex = c.index;
        client.dwLastTimeTick = c.tick;
        client.ptHandle = &reader_;
        std::string out = PrintedWhile(f_.semId(), [&] {
            EXPECT_EQ(c.query, SharedMem_CheckClientValid(r_, &client, "query"));
            EXPECT_EQ(c.release, SharedMem_CheckClientValid(r_, &client, "release"));
        }).text;
        // Only the release speaks, and only when there is an entry to report on.
        EXPECT_EQ(c.query != 0 && c.tick != 0, !out.empty() && out.find("query") == out.npos)
            << out;
    }
}

// A release lowers the counter once and keeps the cursor, also for a frame
// past a rewind the pin did not stop, and with a lock that cannot be taken
// (the pin would otherwise never go away); a counter at 0 is reported,
// never wrapped. What it reports, it reports with the lock given back.
// After a ring reset, which took the pin with it, it lowers nothing and
// gives up the cursor. A copy held in the cache sector gives back the
// slot's pin, with no validity test (the cursor proves nothing there).
TEST_F(ClientTest, ReleaseAndFreeGiveThePinBackOnce) {
    enum What { kBrokenLock, kCountLost, kRewoundPast, kCached, kReset };
    struct Case { What what; int cursor; const char *log; } cases[] = {
        {kBrokenLock, 2, "[shmem] : SemaphoreP failed"},
        {kCountLost, 2, "[shmem] : release unoccupied buffer?"},
        {kRewoundPast, 2,
         "[shmem] : video[3] release validity check fail, L:1 O:0 B:1 La:2, 300:300\n"},
        {kCached, 2, ""},  // the ring's pin stays, until the reset below
        {kReset, -1, ""},  // last: the ring stays empty
    };
    // Free gives the pin back first and nulls the pointer.
    SharedMemBufClient *freed = f_.pin(2, &reader_);
    ASSERT_NE(nullptr, freed);
    EXPECT_EQ(0, SharedMem_FreeBufClient(&freed));
    EXPECT_TRUE(freed == nullptr && f_.entry(2).abyAccessCount[3] == 0);
    DebugLevel level(6);
    for (const Case &c : cases) {
        SharedMemHandle handle = reader_;
        SharedMemBufClient *client = f_.pin(2, &handle);
        ASSERT_NE(nullptr, client) << c.what;
        uint8_t *counts = f_.entry(2).abyAccessCount, want[16] = {};
        uint8_t &slot = cache_.atCache[5].abyAccessCount[3];
        if (c.what == kBrokenLock) handle.iSemId = -1;
        if (c.what == kCountLost) counts[3] = 0;
        if (c.what == kRewoundPast || c.what == kCached) SetIndices(0, 1, 1);
        if (c.what == kCached) {
            client->dwHoldType = 2;
            client->iCacheSlot = 5;
            slot = want[3] = 1;  // the ring's pin is not this hold's
        }
        if (c.what == kReset) {
            ASSERT_EQ(0, SharedMem_ResetHeader(r_, f_.semId(), 0));
            counts[5] = want[5] = 1;  // somebody else's pin on the fresh entry
        }
        Printed out =
            PrintedWhile(f_.semId(), [&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(client)); });
        EXPECT_EQ(c.log, out.text);
        EXPECT_FALSE(out.underLock) << "told under the lock: " << out.text;
        EXPECT_EQ(0, memcmp(want, counts, 16)) << c.what;
        EXPECT_EQ(0, slot) << c.what;
        EXPECT_EQ(c.cursor, SharedMem_QueryLastBufClient(client)) << c.what;
        EXPECT_EQ("", PrintedWhile(f_.semId(), [&] { SharedMem_ReleaseReadBuffer(client); }).text);
        free(client);
        SetIndices(0, 3, 3);
    }
}

// The cache reader's range test: ticks compared as plain numbers, the range
// wrapped past 0 when oldest >= latest.
TEST_F(ClientTest, TickRangeOfACacheSectorWithAndWithoutWrap) {
    SharedMemCacheHeader *cache = &cache_;
    SharedMemBufClient client = {};
    cache->iOldestIndex = cache->iLatestIndex = -1;
    EXPECT_EQ(-1, SharedMem_CheckClientValidByTimeTick(cache, &client));  // nothing written
    cache->iOldestIndex = 1;
    cache->iLatestIndex = 3;
    struct Case { uint32_t oldest, latest, tick; int result; } cases[] = {
        {100, 200, 100, 0},        {100, 200, 200, 0},       {100, 200, 99, -1},
        {100, 200, 201, -1},       {0xFFFFFF00u, 0x10, 0xFFFFFFFFu, 0},
        {0xFFFFFF00u, 0x10, 5, 0}, {0xFFFFFF00u, 0x10, 0x11, -1},
        {300, 300, 299, 0},  // a single tick counts as wrapped: everything passes
    };
    for (const Case &c : cases) {
        cache->atCache[1].dwTimeTick = c.oldest;
        cache->atCache[3].dwTimeTick = c.latest;
        client.dwLastTimeTick = c.tick;
        EXPECT_EQ(c.result, SharedMem_CheckClientValidByTimeTick(cache, &client))
            << c.oldest << " " << c.latest << " " << c.tick;
    }
}

}  // namespace
