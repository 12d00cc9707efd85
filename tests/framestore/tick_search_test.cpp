// Tick searches: the walks at their edges, over a wrap of the tick counter
// and of the ring, and under a writer that moves the indices.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

SharedMemReadRequest Target(uint32_t target, uint32_t flags = 0, uint32_t sizeLimit = 0) {
    // Through a reference and a delay, so that the subtraction is exercised.
    SharedMemReadRequest r = {};
    r.dwReadFlags = flags;
    r.dwDelay = 1000;
    r.dwRefTimeTick = target + 1000;
    r.dwSizeLimit = sizeLimit;
    return r;
}

// Ten frames of 100 bytes, ticks 100 .. 1000, key frames at
// entries 0, 4 and 8 (the others predicted). One generation: O=0, L=B=9.
class SearchTest : public testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(0, f_.write(100, i % 4 == 0 ? 0 : SHM_FRAME_P, 100u * (i + 1)));
        }
    }
    SharedMemSectorHeader *ring() { return f_.ring(); }

    FakeRing f_{1000};
};

TEST_F(SearchTest, ForwardFindsTheLastEntryBeforeTheTarget) {
    struct Case {
        uint32_t start;
        uint32_t target;
        int result;
        uint32_t key;
    } cases[] = {
        {0, 450, 3, 0},    // key 4 is not passed: the walk stops on seeing it
        {0, 500, 3, 0},    // a tick equal to T ends on the entry before it
        {0, 501, 4, 4},
        {0, 50, 0, 0},     // start already at or past T
        {2, 5000, 9, 8},   // stops at the latest
        {9, 5000, 9, 9},
    };
    for (const Case &c : cases) {
        SharedMemReadRequest r = Target(c.target);
        uint32_t key = 999;
        EXPECT_EQ(c.result, SharedMem_ForwardSearch(ring(), c.start, &key, &r)) << c.target;
        EXPECT_EQ(c.key, key) << c.target;
    }
}

TEST_F(SearchTest, BackwardFindsTheFirstEntryAtOrBeforeTheTarget) {
    struct Case {
        uint32_t start;
        uint32_t target;
        int result;
        uint32_t key;
    } cases[] = {
        {9, 450, 3, 4},
        {9, 400, 3, 4},    // equal counts as at or before
        {9, 5000, 9, 9},   // start itself
        {9, 50, 3, 4},     // nothing that old: ends just above the three oldest
        {5, 50, 3, 4},
        {0, 50, 0, 0},     // start at the oldest entry
    };
    for (const Case &c : cases) {
        SharedMemReadRequest r = Target(c.target);
        uint32_t key = 999;
        EXPECT_EQ(c.result, SharedMem_BackwardSearch(ring(), c.start, &key, &r)) << c.target;
        EXPECT_EQ(c.key, key) << c.target;
    }
}

TEST_F(SearchTest, SingleFrameIsResultAndKeyWhateverTheTarget) {
    FakeRing one(1000);
    ASSERT_EQ(0, one.write(100, SHM_FRAME_P, 500));
    for (uint32_t target : {1u, 499u, 500u, 501u, 0x80000000u}) {
        SharedMemReadRequest r = Target(target, SHM_READ_SIZE_LIMIT, 1);
        uint32_t key = 999;
        EXPECT_EQ(0, SharedMem_BackwardSearch(one.ring(), 0, &key, &r));
        EXPECT_EQ(0u, key);
        key = 999;
        EXPECT_EQ(0, SharedMem_BackwardSearchPreSize(one.ring(), 0, &key, &r));
        EXPECT_EQ(0u, key);
    }
}

TEST_F(SearchTest, BoundaryZeroEndsTheWalkAtEntryZero) {
    SharedMemSectorHeader *r = ring();
    r->iBoundaryIndex = 0;
    r->iOldestIndex = 5;  // as the words may stand for a moment under a writer
    r->iLatestIndex = 7;
    SharedMemReadRequest early = Target(50), late = Target(5000);
    uint32_t key = 999;
    EXPECT_EQ(0, SharedMem_BackwardSearch(r, 0, &key, &early));
    EXPECT_EQ(0u, key);
    EXPECT_EQ(0, SharedMem_BackwardSearchPreSize(r, 0, &key, &early));
    EXPECT_EQ(0, SharedMem_ForwardSearch(r, 0, &key, &late));
}

TEST_F(SearchTest, WalksCrossTheRingWrapAndTheTickWrap) {
    FakeRing f(1000);
    const uint32_t base = 0xFFFFFC00u;  // ticks pass 0xFFFFFFFF after old entry 9
    for (int i = 0; i < 10; ++i) ASSERT_EQ(0, f.write(100, 0, base + 100u * (i + 1)));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(100, 0, base + 100u * (i + 11)));
    SharedMemSectorHeader *r = f.ring();
    ASSERT_TRUE(f.isTwoGenerations());
    ASSERT_EQ(3, r->iOldestIndex);
    ASSERT_EQ(2, r->iLatestIndex);

    SharedMemReadRequest back = Target(base + 750);  // between old entries 6 and 7
    uint32_t key = 0;
    EXPECT_EQ(6, SharedMem_BackwardSearch(r, 2, &key, &back));
    EXPECT_EQ(7u, key);
    SharedMemReadRequest afterWrap = Target(base + 1050);  // tick 0x1A: between 9 and 0
    EXPECT_EQ(9, SharedMem_BackwardSearch(r, 2, &key, &afterWrap));
    EXPECT_EQ(0u, key);

    SharedMemReadRequest forward = Target(base + 1150);  // between new entries 0 and 1
    EXPECT_EQ(0, SharedMem_ForwardSearch(r, 5, &key, &forward));
    EXPECT_EQ(0u, key);
    EXPECT_EQ(-1, SharedMem_DWComparator(r->atFrame[9].dwTimeTick, r->atFrame[0].dwTimeTick,
                                         nullptr));
}

TEST_F(SearchTest, SizeLimitedWalkStopsOnTheFirstKeyFrameOverBudget) {
    SharedMemSectorHeader *r = ring();
    // From 9 back: 9(P) 8(key, 200 bytes walked) ... 4(key, 600 bytes).
    struct Case {
        uint32_t target, limit;
        int result;
        uint32_t key;
    } cases[] = {
        {50, 250, 4, 8},     // over budget at key 4: the key stays on 8
        {50, 5000, 3, 4},    // within budget: ends above the oldest three
        {950, 0, 8, 8},      // the first key frame after the start ignores the budget
        {550, 5000, 4, 4},   // key 4 (tick 500) lies before T
        {900, 5000, 4, 4},   // key 8 at T exactly is not before it: walk on
    };
    for (const Case &c : cases) {
        SharedMemReadRequest req = Target(c.target, SHM_READ_SIZE_LIMIT, c.limit);
        uint32_t key = 999;
        EXPECT_EQ(c.result, SharedMem_BackwardSearchPreSize(r, 9, &key, &req))
            << c.target << "/" << c.limit;
        EXPECT_EQ(c.key, key) << c.target << "/" << c.limit;
        EXPECT_EQ(static_cast<int>(c.key), SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD,
                                                                          &req));
    }
    r->iBoundaryIndex = -1;
    SharedMemReadRequest req = Target(50, SHM_READ_SIZE_LIMIT, 0);
    EXPECT_EQ(-1, SharedMem_BackwardSearchPreSize(r, 9, nullptr, &req));
}

TEST_F(SearchTest, DeltaTimeBufferAppliesTheRequestsRule) {
    SharedMemSectorHeader *r = ring();
    SharedMemReadRequest plain = Target(450);
    EXPECT_EQ(3, SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD, &plain));
    EXPECT_EQ(3, SharedMem_QueryDeltaTimeBuffer(r, 0, SHM_SEARCH_FORWARD, &plain));
    EXPECT_EQ(3, SharedMem_QueryDeltaTimeBuffer(r, 0, 77, &plain));  // any other: forward

    SharedMemReadRequest keyStart = Target(450, SHM_READ_KEY_START);
    EXPECT_EQ(4, SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD, &keyStart));
    EXPECT_EQ(0, SharedMem_QueryDeltaTimeBuffer(r, 0, SHM_SEARCH_FORWARD, &keyStart));

    // A backward walk that ends at once on a predicted frame passed no key.
    SharedMemReadRequest now = Target(5000, SHM_READ_KEY_START);
    EXPECT_EQ(-1, SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD, &now));
    f_.entry(9).dwFlags &= ~SHM_FRAME_P;  // the next frame there is a key frame
    EXPECT_EQ(9, SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD, &now));

    // Forward with a size limit answers with the key, not the result.
    SharedMemReadRequest sized = Target(750, SHM_READ_SIZE_LIMIT, 100000);
    EXPECT_EQ(4, SharedMem_QueryDeltaTimeBuffer(r, 0, SHM_SEARCH_FORWARD, &sized));
    // No request: target 0, which is "earlier" than every tick here.
    EXPECT_EQ(5, SharedMem_QueryDeltaTimeBuffer(r, 5, SHM_SEARCH_FORWARD, nullptr));
}

TEST_F(SearchTest, WalksGiveUpWhenTheIndicesNeverCloseAndStayInTheTable) {
    SharedMemSectorHeader *r = ring();
    SharedMemReadRequest late = Target(0x7FFFFFFF), early = Target(1);
    uint32_t key = 777;
    r->iLatestIndex = 12;  // never reached: the walk circles 0..9
    EXPECT_EQ(-1, SharedMem_ForwardSearch(r, 0, &key, &late));
    EXPECT_EQ(777u, key);
    r->iLatestIndex = 9;
    r->iOldestIndex = 30;  // never met going back
    EXPECT_EQ(-1, SharedMem_BackwardSearch(r, 9, &key, &early));
    SharedMemReadRequest unlimited = Target(1, SHM_READ_SIZE_LIMIT, 0xFFFFFFFFu);
    EXPECT_EQ(-1, SharedMem_BackwardSearchPreSize(r, 9, &key, &unlimited));
    EXPECT_EQ(777u, key);
    r->iOldestIndex = 0;
    r->iBoundaryIndex = 1300;  // a walk from 1279 would step to 1280
    r->iLatestIndex = 1300;
    EXPECT_EQ(-1, SharedMem_ForwardSearch(r, 1279, &key, &late));
    EXPECT_EQ(-1, SharedMem_ForwardSearch(r, 1280, &key, &late));
    EXPECT_EQ(-1, SharedMem_BackwardSearch(r, 0xFFFFFFFFu, &key, &early));
    EXPECT_EQ(-1, SharedMem_BackwardSearch(nullptr, 0, &key, &early));
    EXPECT_EQ(-1, SharedMem_QueryDeltaTimeBuffer(nullptr, 0, SHM_SEARCH_BACKWARD, &early));
}

TEST(RequestTimeTick, KeepsTheBestTickInTheDirectionsSense) {
    SharedMemFrameEntry e = {};
    uint32_t best = 0, found = 0;
    e.dwTimeTick = 500;
    EXPECT_EQ(0, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_ANY, &best, &found, 99));
    EXPECT_EQ(500u, best);  // the first entry is taken in any direction
    EXPECT_EQ(1u, found);
    struct Case {
        uint32_t tick, direction;
        int result;
        uint32_t best;
    } cases[] = {
        {600, SHM_SEARCH_FORWARD, -1, 500}, {500, SHM_SEARCH_FORWARD, 0, 500},
        {400, SHM_SEARCH_FORWARD, 0, 400},  {300, SHM_SEARCH_BACKWARD, -1, 400},
        {900, SHM_SEARCH_BACKWARD, 0, 900}, {950, 0, -1, 900},
        {0xFFFFFFFFu, SHM_SEARCH_BACKWARD, 0, 0xFFFFFFFFu},  // plain order, no wrap
        {5, SHM_SEARCH_BACKWARD, -1, 0xFFFFFFFFu},
    };
    for (const Case &c : cases) {
        e.dwTimeTick = c.tick;
        EXPECT_EQ(c.result, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_ANY, &best, &found,
                                                         c.direction))
            << c.tick;
        EXPECT_EQ(c.best, best) << c.tick;
    }
}

TEST(RequestTimeTick, FiltersSkipMarkedFailedAndPinnedEntries) {
    SharedMemFrameEntry e = {};
    e.dwTimeTick = 10;
    uint32_t best = 0, found = 0;
    e.dwFlags = SHM_FRAME_WRITING;
    EXPECT_EQ(-1, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_COMPLETE, &best, &found, 1));
    e.dwFlags = SHM_FRAME_ERROR;
    EXPECT_EQ(-1, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_COMPLETE, &best, &found, 1));
    EXPECT_EQ(0, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_UNPINNED, &best, &found, 1));
    e.abyAccessCount[15] = 1;
    found = 0;
    EXPECT_EQ(-1, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_UNPINNED, &best, &found, 1));
    EXPECT_EQ(0, SharedMem_GetRequestTimeTick(0, &e, SHM_SEARCH_COMPLETE + 1, &best, &found, 1));
    EXPECT_EQ(-1, SharedMem_GetRequestTimeTick(0, nullptr, 0, &best, &found, 1));
}

// The walks run while a writer in another process laps a small ring with
// tiny frames: every answer must be -1 or an index of the table, and no
// walk may run away.
TEST(SearchUnderAWriter, WalksStayBoundedWhileTheIndicesMove) {
    FakeRingOptions options;
    options.dataBytes = 2048;
    options.sharedAcrossFork = true;
    FakeRing f(options);
    fflush(stdout);
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        for (uint32_t n = 1; n <= 50000; ++n) {
            if (f.write(4 + (n % 7) * 4, (n % 5) ? SHM_FRAME_P : 0, n) != 0) _exit(2);
        }
        _exit(0);
    }
    int status = 0, walks = 0, outside = 0;
    uint32_t seed = 99;
    while (waitpid(child, &status, WNOHANG) == 0) {
        seed = seed * 1664525u + 1013904223u;
        uint32_t start = (seed >> 8) % 700;
        uint32_t latest = f.ring()->atFrame[__atomic_load_n(&f.ring()->iLatestIndex,
                                                            __ATOMIC_RELAXED) & 1023].dwTimeTick;
        SharedMemReadRequest r = Target(latest - (seed >> 20) % 600, seed & 0x40008u, 64);
        int got = SharedMem_QueryDeltaTimeBuffer(f.ring(), start,
                                                 (seed & 1) ? SHM_SEARCH_BACKWARD
                                                            : SHM_SEARCH_FORWARD,
                                                 &r);
        outside += got < -1 || got > 1279;
        ++walks;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0, outside) << "of " << walks;
    EXPECT_GT(walks, 0);
}

}  // namespace
