// Tick searches: the walks at their edges, over a wrap of the tick counter
// and of the ring, and under a writer that moves the indices.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

using Walk = int (*)(SharedMemSectorHeader *, uint32_t, uint32_t *, SharedMemReadRequest *);
const Walk kForward = SharedMem_ForwardSearch, kBackward = SharedMem_BackwardSearch,
           kSized = SharedMem_BackwardSearchPreSize;

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
    // Expects walk's result and key from start toward target.
    void ExpectWalk(Walk walk, uint32_t start, SharedMemReadRequest request, int result,
                    uint32_t key) {
        uint32_t got = 999;
        EXPECT_EQ(result, walk(f_.ring(), start, &got, &request)) << start << " to "
                                                                  << request.dwRefTimeTick - 1000;
        EXPECT_EQ(key, got) << start << " to " << request.dwRefTimeTick - 1000;
    }

    FakeRing f_{1000};
};

TEST_F(SearchTest, ForwardEndsBeforeTheTargetAndBackwardAtOrBeforeIt) {
    struct Case {
        Walk walk;
        uint32_t start, target;
        int result;
        uint32_t key;
    } cases[] = {
        {kForward, 0, 450, 3, 0},     // key 4 is not passed: the walk stops on seeing it
        {kForward, 0, 500, 3, 0},     // a tick equal to T ends on the entry before it
        {kForward, 0, 501, 4, 4},
        {kForward, 0, 50, 0, 0},      // start already at or past T
        {kForward, 2, 5000, 9, 8},    // stops at the latest
        {kForward, 9, 5000, 9, 9},
        {kBackward, 9, 450, 3, 4},
        {kBackward, 9, 400, 3, 4},    // equal counts as at or before
        {kBackward, 9, 5000, 9, 9},   // start itself
        {kBackward, 9, 50, 3, 4},     // nothing that old: ends just above the three oldest
        {kBackward, 5, 50, 3, 4},
        {kBackward, 0, 50, 0, 0},     // start at the oldest entry
    };
    for (const Case &c : cases) ExpectWalk(c.walk, c.start, Target(c.target), c.result, c.key);
}

TEST_F(SearchTest, SingleFrameIsResultAndKeyWhateverTheTarget) {
    FakeRing one(1000);
    ASSERT_EQ(0, one.write(100, SHM_FRAME_P, 500));
    for (uint32_t target : {1u, 499u, 500u, 501u, 0x80000000u}) {
        SharedMemReadRequest r = Target(target, SHM_READ_SIZE_LIMIT, 1);
        for (Walk walk : {kBackward, kSized}) {
            uint32_t key = 999;
            EXPECT_EQ(0, walk(one.ring(), 0, &key, &r));
            EXPECT_EQ(0u, key);
        }
    }
}

TEST_F(SearchTest, BoundaryZeroEndsTheWalkAtEntryZero) {
    f_.ring()->iBoundaryIndex = 0;
    f_.ring()->iOldestIndex = 5;  // as the words may stand for a moment under a writer
    f_.ring()->iLatestIndex = 7;
    ExpectWalk(kBackward, 0, Target(50), 0, 0);
    ExpectWalk(kSized, 0, Target(50), 0, 0);
    ExpectWalk(kForward, 0, Target(5000), 0, 0);
}

TEST_F(SearchTest, WalksCrossTheRingWrapAndTheTickWrap) {
    const uint32_t base = 0xFFFFFC00u;  // ticks pass 0xFFFFFFFF after old entry 9
    FakeRing &f = f_;  // a full lap over the fixture's, then three frames of the next
    for (int i = 0; i < 13; ++i) ASSERT_EQ(0, f.write(100, 0, base + 100u * (i + 1)));
    ASSERT_TRUE(f.isTwoGenerations());
    ASSERT_EQ(3, f.ring()->iOldestIndex);
    ASSERT_EQ(2, f.ring()->iLatestIndex);
    ExpectWalk(kBackward, 2, Target(base + 750), 6, 7);   // between old entries 6 and 7
    ExpectWalk(kBackward, 2, Target(base + 1050), 9, 0);  // tick 0x1A: between 9 and 0
    ExpectWalk(kForward, 5, Target(base + 1150), 0, 0);   // between new entries 0 and 1
    EXPECT_EQ(-1, SharedMem_DWComparator(f.entry(9).dwTimeTick, f.entry(0).dwTimeTick, nullptr));
}

TEST_F(SearchTest, SizeLimitedWalkStopsOnTheFirstKeyFrameOverBudget) {
    // From 9 back: 9(P) 8(key, 200 bytes walked) ... 4(key, 600 bytes).
    struct Case {
        uint32_t target, limit;
        int result;
        uint32_t key;
    } cases[] = {
        {50, 250, 4, 8},    // over budget at key 4: the key stays on 8
        {50, 5000, 3, 4},   // within budget: ends above the oldest three
        {950, 0, 8, 8},     // the first key frame after the start ignores the budget
        {550, 5000, 4, 4},  // key 4 (tick 500) lies before T
        {900, 5000, 4, 4},  // key 8 at T exactly is not before it: walk on
    };
    for (const Case &c : cases) {
        SharedMemReadRequest req = Target(c.target, SHM_READ_SIZE_LIMIT, c.limit);
        ExpectWalk(kSized, 9, req, c.result, c.key);
        EXPECT_EQ(static_cast<int>(c.key),
                  SharedMem_QueryDeltaTimeBuffer(f_.ring(), 9, SHM_SEARCH_BACKWARD, &req));
    }
}

TEST_F(SearchTest, DeltaTimeBufferAppliesTheRequestsRule) {
    SharedMemSectorHeader *r = f_.ring();
    SharedMemReadRequest plain = Target(450), keyStart = Target(450, SHM_READ_KEY_START);
    SharedMemReadRequest now = Target(5000, SHM_READ_KEY_START);
    SharedMemReadRequest sized = Target(750, SHM_READ_SIZE_LIMIT, 100000);
    struct Case {
        uint32_t start, direction;
        SharedMemReadRequest *request;
        int result;
    } cases[] = {
        {9, SHM_SEARCH_BACKWARD, &plain, 3},
        {0, SHM_SEARCH_FORWARD, &plain, 3},
        {0, 77, &plain, 3},  // any other direction: forward
        {9, SHM_SEARCH_BACKWARD, &keyStart, 4},
        {0, SHM_SEARCH_FORWARD, &keyStart, 0},
        {9, SHM_SEARCH_BACKWARD, &now, -1},   // ends at once on a P frame: passed no key
        {0, SHM_SEARCH_FORWARD, &sized, 4},   // the key, not the result
        {5, SHM_SEARCH_FORWARD, nullptr, 5},  // target 0, "earlier" than every tick here
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.result, SharedMem_QueryDeltaTimeBuffer(r, c.start, c.direction, c.request))
            << c.start << " " << c.direction;
    }
    f_.entry(9).dwFlags &= ~SHM_FRAME_P;  // the frame there is a key frame now
    EXPECT_EQ(9, SharedMem_QueryDeltaTimeBuffer(r, 9, SHM_SEARCH_BACKWARD, &now));
}

TEST_F(SearchTest, WalksGiveUpWhenTheIndicesNeverCloseAndStayInTheTable) {
    SharedMemSectorHeader *r = f_.ring();
    SharedMemReadRequest late = Target(0x7FFFFFFF), early = Target(1);
    r->iLatestIndex = 12;  // never reached: the walk circles 0..9
    ExpectWalk(kForward, 0, late, -1, 999);
    r->iLatestIndex = 9;
    r->iOldestIndex = 30;  // never met going back
    ExpectWalk(kBackward, 9, early, -1, 999);
    ExpectWalk(kSized, 9, Target(1, SHM_READ_SIZE_LIMIT, 0xFFFFFFFFu), -1, 999);
    r->iOldestIndex = 0;
    r->iBoundaryIndex = r->iLatestIndex = 1300;  // a walk from 1279 would step to 1280
    uint32_t key = 0;
    EXPECT_EQ(-1, SharedMem_ForwardSearch(r, 1279, &key, &late));
    EXPECT_EQ(-1, SharedMem_ForwardSearch(r, 1280, &key, &late));
    EXPECT_EQ(-1, SharedMem_BackwardSearch(r, 0xFFFFFFFFu, &key, &early));
    EXPECT_EQ(-1, SharedMem_BackwardSearch(nullptr, 0, &key, &early));
    EXPECT_EQ(-1, SharedMem_QueryDeltaTimeBuffer(nullptr, 0, SHM_SEARCH_BACKWARD, &early));
}

TEST(RequestTimeTick, KeepsTheBestTickInTheDirectionsSenseAndSkipsFilteredEntries) {
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
    // Filters: marked and failed entries are not complete; pinned ones not unpinned.
    struct Filter {
        uint32_t flags;
        uint8_t pins;
        uint32_t filter;
        int result;
    } filters[] = {
        {SHM_FRAME_WRITING, 0, SHM_SEARCH_COMPLETE, -1}, {SHM_FRAME_ERROR, 0, SHM_SEARCH_COMPLETE, -1},
        {SHM_FRAME_ERROR, 0, SHM_SEARCH_UNPINNED, 0},    {SHM_FRAME_ERROR, 1, SHM_SEARCH_UNPINNED, -1},
        {SHM_FRAME_ERROR, 1, SHM_SEARCH_COMPLETE + 1, 0},
    };
    for (const Filter &c : filters) {
        SharedMemFrameEntry entry = {};
        entry.dwTimeTick = 10;
        entry.dwFlags = c.flags;
        entry.abyAccessCount[15] = c.pins;
        found = 0;
        EXPECT_EQ(c.result, SharedMem_GetRequestTimeTick(0, &entry, c.filter, &best, &found, 1))
            << c.flags << " " << c.filter;
    }
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
        int latest = __atomic_load_n(&f.ring()->iLatestIndex, __ATOMIC_RELAXED) & 1023;
        SharedMemReadRequest r =
            Target(f.entry(latest).dwTimeTick - (seed >> 20) % 600, seed & 0x40008u, 64);
        int got = SharedMem_QueryDeltaTimeBuffer(
            f.ring(), (seed >> 8) % 700, (seed & 1) ? SHM_SEARCH_BACKWARD : SHM_SEARCH_FORWARD, &r);
        outside += got < -1 || got > 1279;
        ++walks;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0, outside) << "of " << walks;
    EXPECT_GT(walks, 0);
}

}  // namespace
