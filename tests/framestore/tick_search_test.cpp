// Ticks: their order across the wrap, the clock that makes them, and the
// searches for a tick, at their edges, over a wrap of the tick counter and
// of the ring, and on indices a writer is moving.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "framestore/clock.h"
#include "fake_ring.h"

namespace {

// Each pair is compared both ways: the answer flips, the distance stays.
TEST(TickOrder, ComparesTheShortWayRound) {
    const struct { uint32_t a, b, distance; int result; } cases[] = {
        {5, 5, 0, 0},
        {0xFFFFFFF0u, 0x10, 0x20, -1},      // wrapped: the small tick is later
        {0x80000000u, 0, 0x80000000u, -1},  // exactly 2^31 counts as wrapped
        {0x7FFFFFFFu, 0, 0x7FFFFFFFu, 1},   // one less is not
    };
    for (const auto &c : cases) {
        uint32_t d = 0xDEAD, back = 0xDEAD;
        EXPECT_EQ(c.result, SharedMem_DWComparator(c.a, c.b, &d)) << c.a << " vs " << c.b;
        EXPECT_EQ(-c.result, SharedMem_DWComparator(c.b, c.a, &back)) << c.a << " vs " << c.b;
        EXPECT_EQ(c.distance, d) << c.a << " vs " << c.b;
        EXPECT_EQ(d, back) << c.a << " vs " << c.b;
    }
}

TEST(FrameClock, ConvertsClockTicksWithoutOverflow) {
    EXPECT_EQ(1u, shm::TickFromClock(0, 100));  // 0 is never a tick
    // 4 ms a clock tick: 4 * c, wrapped, nothing lost to an overflow of 1000 * c.
    EXPECT_EQ(0xFFFFFFFCu, shm::TickFromClock(0xFFFFFFFFu, 250));
}

using Walk = int (*)(SharedMemSectorHeader *, uint32_t, uint32_t *, SharedMemReadRequest *);
const Walk kForward = SharedMem_ForwardSearch, kBackward = SharedMem_BackwardSearch,
           kSized = SharedMem_BackwardSearchPreSize;
constexpr uint32_t kKeyStart = SHM_READ_KEY_START, kSizeLimit = SHM_READ_SIZE_LIMIT;

// T = reference - delay; both are set so that the subtraction is exercised.
SharedMemReadRequest Target(uint32_t target, uint32_t flags = 0, uint32_t sizeLimit = 0) {
    return {flags, 1000, target + 1000, 0, 0, 0, 0, sizeLimit};
}

void ExpectWalk(FakeRing &f, Walk walk, uint32_t start, SharedMemReadRequest r, int result,
                uint32_t key) {
    uint32_t got = 999;
    EXPECT_EQ(result, walk(f.ring(), start, &got, &r)) << start << " to " << r.dwRefTimeTick;
    EXPECT_EQ(key, got) << start << " to " << r.dwRefTimeTick;
}

// Ten frames of 100 bytes, ticks 100 .. 1000, key frames at entries 0, 4
// and 8 (the others predicted). One generation: O=0, L=B=9.
class SearchTest : public testing::Test {
protected:
    void SetUp() override { WriteRun(f_, 10, 100, 100, 4); }
    FakeRing f_{1000};
};

// `answer` is SharedMem_QueryDeltaTimeBuffer's in the walk's direction: with
// SHM_READ_KEY_START a walk that ended on a predicted frame falls back to
// the key frame it passed; with SHM_READ_SIZE_LIMIT the key is the answer.
TEST_F(SearchTest, WalksAndTheRequestsRule) {
    const struct {
        Walk walk;
        uint32_t start, target, flags, limit;
        int result, key, answer;
    } cases[] = {
        {kForward, 0, 500, kKeyStart, 0, 3, 0, 0},     // a tick equal to T ends before it
        {kForward, 2, 5000, 0, 0, 9, 8, 9},            // stops at the latest
        {kBackward, 9, 400, kKeyStart, 0, 3, 4, 4},    // equal counts as at or before
        {kBackward, 9, 900, kKeyStart, 0, 8, 9, 8},    // ends on a key frame: that one
        {kBackward, 9, 5000, kKeyStart, 0, 9, 9, -1},  // ends at once, on a P frame
        {kBackward, 9, 50, 0, 0, 3, 4, 3},             // never onto the three oldest
        // From 9 back: 9(P) 8(key, 200 bytes walked) ... 4(key, 600 bytes).
        {kSized, 9, 50, kSizeLimit, 250, 4, 8, 8},   // over budget at key 4: key stays on 8
        {kSized, 9, 50, kSizeLimit, 5000, 3, 4, 4},  // within budget: above the three oldest
        {kSized, 9, 950, kSizeLimit, 0, 8, 8, 8},    // the first key frame ignores the budget
    };
    for (const auto &c : cases) {
        SharedMemReadRequest r = Target(c.target, c.flags, c.limit);
        ExpectWalk(f_, c.walk, c.start, r, c.result, c.key);
        uint32_t direction = c.walk == kForward ? SHM_SEARCH_FORWARD : SHM_SEARCH_BACKWARD;
        EXPECT_EQ(c.answer, SharedMem_QueryDeltaTimeBuffer(f_.ring(), c.start, direction, &r))
            << c.start << " to " << c.target << " flags " << c.flags;
    }
}

TEST_F(SearchTest, WalksCrossTheRingWrapAndTheTickWrap) {
    // A full lap, then three frames of the next: O=3, L=2, B=9; the ticks pass
    // 0xFFFFFFFF after old entry 9.
    const uint32_t base = 0xFFFFFC00u;
    WriteRun(f_, 13, base + 100, 100);
    ExpectWalk(f_, kBackward, 2, Target(base + 750), 6, 7);   // between old entries 6 and 7
    ExpectWalk(f_, kBackward, 2, Target(base + 1050), 9, 0);  // tick 0x1A: between 9 and 0
    ExpectWalk(f_, kForward, 5, Target(base + 1150), 0, 0);   // between new entries 0 and 1
}

// Under a writer the index words may stand in any combination for a moment.
TEST_F(SearchTest, WalksEndOnIndicesThatDoNotMeet) {
    SharedMemSectorHeader *r = f_.ring();
    r->iLatestIndex = 12;  // never reached: the walk circles 0..9
    ExpectWalk(f_, kForward, 0, Target(5000), -1, 999);
    r->iLatestIndex = 9;
    r->iOldestIndex = 30;  // never met going back
    ExpectWalk(f_, kBackward, 9, Target(1), -1, 999);
    ExpectWalk(f_, kSized, 9, Target(1, kSizeLimit, 0xFFFFFFFFu), -1, 999);
    r->iBoundaryIndex = 0;  // boundary 0: the walk ends on entry 0
    ExpectWalk(f_, kBackward, 0, Target(50), 0, 0);
    ExpectWalk(f_, kSized, 0, Target(50), 0, 0);
    ExpectWalk(f_, kForward, 0, Target(5000), 0, 0);
    r->iBoundaryIndex = r->iLatestIndex = 1300;  // a walk from 1279 would step to 1280
    ExpectWalk(f_, kForward, 1279, Target(5000), -1, 999);
    ExpectWalk(f_, kBackward, 0xFFFFFFFFu, Target(1), -1, 999);
    r->iOldestIndex = r->iLatestIndex = r->iBoundaryIndex = 0;  // a single frame: that one
    for (uint32_t target : {1u, 100u, 101u, 0x80000000u}) {
        for (Walk walk : {kForward, kBackward, kSized}) {
            ExpectWalk(f_, walk, 0, Target(target), 0, 0);
        }
    }
}

// A writer in another process laps a small ring with tiny frames while the
// walks run: every answer is -1 or an index of the table, and every walk ends.
TEST(SearchUnderAWriter, WalksStayBoundedWhileTheIndicesMove) {
    FakeRing f(2048);  // shared with the child across the fork
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        for (uint32_t n = 1; n <= 50000; ++n) {
            if (f.write(4 + (n % 7) * 4, (n % 5) ? SHM_FRAME_P : 0, n) != 0) _exit(2);
        }
        _exit(0);
    }
    int status = 0, walks = 0, outside = 0;
    for (uint32_t seed = 99; waitpid(child, &status, WNOHANG) == 0; ++walks) {
        seed = seed * 1664525u + 1013904223u;
        int latest = __atomic_load_n(&f.ring()->iLatestIndex, __ATOMIC_RELAXED);
        if (latest < 0 || latest > 1279) latest = 0;
        SharedMemReadRequest r =
            Target(f.entry(latest).dwTimeTick - (seed >> 20) % 600, seed & 0x40008u, 64);
        uint32_t direction = (seed & 1) ? SHM_SEARCH_BACKWARD : SHM_SEARCH_FORWARD;
        int got = SharedMem_QueryDeltaTimeBuffer(f.ring(), (seed >> 8) % 1400, direction, &r);
        outside += got < -1 || got > 1279;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer status " << status;
    EXPECT_EQ(0, outside) << "of " << walks;
    EXPECT_GT(walks, 0);
}

// One scan, entry by entry: the best tick so far carries over. The order is
// plain, not wrapped; filters drop marked or failed entries, or pinned ones.
TEST(RequestTimeTick, KeepsTheBestTickInTheDirectionsSenseAndSkipsFilteredEntries) {
    constexpr uint32_t kFw = SHM_SEARCH_FORWARD, kBw = SHM_SEARCH_BACKWARD, kMax = 0xFFFFFFFFu;
    const struct { uint32_t tick, flags, pins, filter, direction, best; int result; } steps[] = {
        {500, 0, 0, 0, 99, 500, 0},  // the first entry is taken in any direction
        {600, 0, 0, 0, kFw, 500, -1},
        {400, 0, 0, 0, kFw, 400, 0},
        {kMax, 0, 0, 0, kBw, kMax, 0},  // plain order: the largest tick is the newest
        {1, SHM_FRAME_WRITING, 0, SHM_SEARCH_COMPLETE, kFw, kMax, -1},
        {1, SHM_FRAME_ERROR, 1, SHM_SEARCH_UNPINNED, kFw, kMax, -1},
        {2, SHM_FRAME_ERROR, 0, SHM_SEARCH_UNPINNED, kFw, 2, 0},
    };
    uint32_t best = 0, found = 0;
    for (const auto &s : steps) {
        SharedMemFrameEntry e = {};
        e.dwTimeTick = s.tick;
        e.dwFlags = s.flags;
        e.abyAccessCount[15] = static_cast<uint8_t>(s.pins);
        EXPECT_EQ(s.result,
                  SharedMem_GetRequestTimeTick(0, &e, s.filter, &best, &found, s.direction));
        EXPECT_EQ(s.best, best) << s.tick;
    }
}

}  // namespace
