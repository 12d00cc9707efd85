// Timeshift readers: the lag band, calibration and jump, no-overtake with
// its two exceptions, and crossover.
#include <string>
#include <vector>

#include "read_helpers.h"

namespace readtest {
namespace {

constexpr uint32_t kCalibrate = SHM_READ_CALIBRATE, kJump = SHM_READ_JUMP;
constexpr uint32_t kKeyStart = SHM_READ_KEY_START, kNoOvertake = SHM_READ_NO_OVERTAKE;
constexpr uint32_t kCrossover = SHM_READ_CROSSOVER;
constexpr uint32_t kNone = SHM_REASON_NONE, kWait = SHM_REASON_WAIT;

uint32_t TickOf(int k) { return 10000u + 100u * static_cast<uint32_t>(k); }
uint32_t KeyEveryFive(int k) { return k % 5 == 0 ? kKey : Predicted(); }

// A timeshift ring of `n` frames, 100 ms apart from tick 10000 on; a reader
// on it with its cursor on `entry` (-1: none), placed without a time step.
struct Timeline {
    FakeRing f;
    Reader r;
    Timeline(uint32_t bytes, int n, uint32_t (*flagsOf)(int), int entry, uint32_t size = 100)
        : f(bytes), r(f, 3) {
        f.ring()->byTimeshift = 1;
        for (int k = 0; k < n; ++k) EXPECT_EQ(0, f.write(size, flagsOf(k), TickOf(k))) << k;
        if (entry < 0) return;
        EXPECT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, TickOf(0)}));
        while (r.client()->iLastIndex < entry) EXPECT_EQ(0, r.Query({kInPlace, TickOf(0)}));
        EXPECT_EQ(0, r.Release());
    }
};

// Queries and checks the outcome, the delay handed back on delivery, and
// that calibration and jump never leave their own flag changes behind.
// What the query logs goes to `log` if given.
void Check(Reader &r, uint32_t flags, uint32_t ref, uint32_t delay, Outcome expected,
           uint32_t delayOut = 0, std::string *log = nullptr) {
    Outcome got = {};
    std::string text = Logged([&] { got = r.Do({kInPlace | flags, ref, delay}); });
    if (log != nullptr) *log = text;
    EXPECT_EQ(expected, got) << text;
    if (expected.result == 0) {
        EXPECT_EQ(delayOut, r.request().dwDelay);
    }
    EXPECT_EQ(kInPlace | flags, r.request().dwReadFlags);
}

Outcome At(int entry, uint32_t reason = kNone) { return {0, reason, entry, entry}; }
Outcome Held(int cursor) { return {-1, kWait, -1, cursor}; }

// The cursor on entry 9 of frames 0..20, so the candidate is entry 10 at
// 11000; with a delay of 100 a frame 900 ms behind is still in the band.
TEST(Timeshift, LagOfUpTo800MsBeyondTheDelayStays) {
    auto check = [](uint32_t flags, uint32_t ref, Outcome expect, uint32_t delayOut,
                    const char *moved) {
        SCOPED_TRACE(testing::Message() << "0x" << std::hex << flags << std::dec << " " << ref);
        Timeline s(4000, 21, KeyEveryFive, 9);
        std::string log;
        Check(s.r, flags, ref, 100, expect, delayOut, &log);
        EXPECT_EQ(*moved ? 1 : 0, CountOf(log, *moved ? moved : "[shmem] : Time ")) << log;
    };
    check(kCalibrate, 11900, At(10), 900, "");
    check(kCalibrate, 11901, At(18, SHM_REASON_CALIBRATED), 101,  // newest at 11801
          "[shmem] : Time 11901 calibrate from [10->18] 11000 to 11800!\n");
    check(kJump, 11900, At(10), 900, "");
    check(kJump, 11901, At(15, SHM_REASON_JUMPED), 401,  // last key frame before
          "[shmem] : Time 11901 Jump from [10->15] 11000 to 11500!\n");
    check(0, 11901, At(10), 901, "");  // no time step asked for
}

uint32_t KeysUpTo15(int k) { return k % 5 == 0 && k <= 15 ? kKey : Predicted(); }
uint32_t KeyAt0(int k) { return k == 0 ? kKey : Predicted(); }
uint32_t KeysAt0And3(int k) { return k == 0 || k == 3 ? kKey : Predicted(); }

// The candidate is entry 3 (10300), 1700 ms behind a reference of 12000
// with a delay of 100: calibration looks back from the newest frame for
// 11900, a jump forward from entry 3 for the last key frame before 11900.
TEST(Timeshift, CalibrationVersusJump) {
    DebugLevel quiet(2);
    auto check = [](uint32_t (*flagsOf)(int), uint32_t flags, Outcome expect, uint32_t delayOut) {
        SCOPED_TRACE(testing::Message() << "flags 0x" << std::hex << flags);
        Timeline s(4000, 21, flagsOf, 2);
        Check(s.r, flags, 12000, 100, expect, delayOut);
    };
    check(KeyEveryFive, kCalibrate, At(19, SHM_REASON_CALIBRATED), 100);
    check(KeyEveryFive, kJump, At(15, SHM_REASON_JUMPED), 500);
    // The calibrated frame is close enough: no jump after it.
    check(KeyEveryFive, kCalibrate | kJump, At(19, SHM_REASON_CALIBRATED), 100);
    // With a key start the calibration ends on the key frame after 11900.
    check(KeyEveryFive, kCalibrate | kKeyStart, At(20, SHM_REASON_CALIBRATED), 0);
    // No key frame after 15: the calibration fails, the jump moves.
    check(KeysUpTo15, kCalibrate | kJump | kKeyStart, At(15, SHM_REASON_JUMPED), 500);
    // A jump lands only on a key frame after the candidate.
    check(KeyAt0, kJump, At(3), 1700);
    check(KeysAt0And3, kJump, At(3), 1700);
    check(KeysAt0And3, kJump | kKeyStart, At(3), 1700);
}

// Frames 0..20 in 64 KiB: far from the writer, so only the three oldest
// are exempt from no-overtake.
TEST(Timeshift, NoOvertakeHoldsBackFramesYoungerThanTheDelay) {
    DebugLevel quiet(2);
    auto check = [](int placeOn, uint32_t flags, uint32_t ref, uint32_t delay, Outcome expect,
                    uint32_t delayOut = 0) {
        SCOPED_TRACE(testing::Message() << placeOn << " 0x" << std::hex << flags << std::dec << " "
                                        << ref << " " << delay);
        Timeline s(64 * 1024, 21, KeyEveryFive, placeOn);
        // A reader held back keeps polling on the same frame, unpinned.
        for (int poll = 0; poll < (expect.result == 0 ? 1 : 2); ++poll) {
            Check(s.r, flags, ref, delay, expect, delayOut);
        }
        if (expect.result != 0) {
            EXPECT_TRUE(Unpinned(s.f, placeOn + 1));
        }
    };
    check(8, kNoOvertake, 11900, 1000, At(9), 1000);  // exactly the delay
    check(8, kNoOvertake, 11899, 1000, Held(8));      // 1 ms too young
    check(9, kNoOvertake, 11000, 0, At(10), 0);       // delay 0, same tick
    check(10, kNoOvertake, 11000, 0, Held(10));       // delay 0, newer
    check(10, kCrossover, 11000, 0, At(11, SHM_REASON_CROSSOVER), 100);
    check(10, kCrossover | kNoOvertake, 11000, 0, Held(10));
    check(10, kCrossover, 11200, 0, At(11), 100);  // crossover, older frame
}

TEST(Timeshift, FirstQueryHeldBackByNoOvertakeSearchesAfreshNextTime) {
    Timeline s(64 * 1024, 21, KeyEveryFive, -1);
    DebugLevel quiet(2);
    // Wanted 10050: the search stops above the three oldest, on entry 3,
    // 750 ms before the reference: too young.
    Check(s.r, kNoOvertake, 11050, 1000, Held(-1));
    Check(s.r, kNoOvertake, 11400, 1000, At(4), 1000);
}

TEST(Timeshift, NoOvertakeLetsTheThreeOldestFramesThrough) {
    Timeline s(64 * 1024, 21, KeyEveryFive, -1);
    DebugLevel traced(6 | 0x20);
    // Every frame is newer than the reference.
    std::vector<Outcome> got;
    std::string log = Logged([&] {
        for (int k = 0; k < 4; ++k) {
            got.push_back(s.r.Do({kInPlace | kNoOvertake | SHM_READ_FROM_OLDEST, 9000}));
        }
    });
    EXPECT_EQ((std::vector<Outcome>{At(0), At(1), At(2), Held(2)}), got);
    EXPECT_EQ(1, CountOf(log, "[shmem] : query too deep? 0|0\n")) << log;
    EXPECT_EQ(1, CountOf(log, "[shmem] : query too deep? 2|0\n")) << log;
}

// 1000-byte frames in 64 KiB: 65 fit, so frames 65..69 start a new lap in
// entries 0..4 and the oldest is entry 5, right ahead of the writer. Entry
// 8 lies 3000 bytes ahead of it, inside the 3072-byte margin; entry 9
// 4000 bytes ahead. Both frames are too young for the reference.
TEST(Timeshift, NoOvertakeLetsAFrameInsideTheWritersMarginThrough) {
    Timeline s(64 * 1024, 70, KeyEveryFive, 7, 1000);
    SharedMemSectorHeader *ring = s.f.ring();
    ASSERT_EQ(5, ring->iOldestIndex);
    ASSERT_EQ(0, SharedMem_IsFrameTooOld(ring, 8));
    ASSERT_EQ(std::make_pair(1, 0),
              std::make_pair(SharedMem_IsInsideMargin(ring, 8), SharedMem_IsInsideMargin(ring, 9)));
    DebugLevel quiet(2);
    Check(s.r, kNoOvertake, 10850, 1000, At(8), 50);
    Check(s.r, kNoOvertake, 10850, 1000, Held(8));
}

TEST(Timeshift, FrameTooOldNamesTheOldestAndTheTwoAfterIt) {
    SharedMemSectorHeader header = {};
    header.iMaxIndex = SHM_FRAME_ENTRIES - 1;
    auto check = [&](int oldest, int latest, int boundary, std::vector<int> tooOld,
                     std::vector<int> notTooOld) {
        header.iOldestIndex = oldest;
        header.iLatestIndex = latest;
        header.iBoundaryIndex = boundary;
        for (int i : tooOld) EXPECT_EQ(1, SharedMem_IsFrameTooOld(&header, i)) << oldest << i;
        for (int i : notTooOld) EXPECT_EQ(0, SharedMem_IsFrameTooOld(&header, i)) << oldest << i;
    };
    check(5, 2, 20, {5, 6, 7}, {8, 4});
    check(9, 3, 9, {9, 0, 1}, {2});  // O = B: wraps to 0 and 1
    check(0, 1, 1, {0}, {1});        // the latest right after O
    check(0, 2, 2, {1}, {2});
    check(9, 0, 9, {0}, {});         // after a wrap the latest counts
}

TEST(Timeshift, InsideMarginEdges) {
    SharedMemSectorHeader header = {};
    auto inside = [&](uint32_t end, uint32_t start, uint32_t write, uint32_t frame) {
        header.dwEndOffset = end;
        header.dwStartOffset = start;
        header.dwWriteOffset = write;
        header.atFrame[0].dwOffset = frame;
        return SharedMem_IsInsideMargin(&header, 0);
    };
    EXPECT_EQ(0, inside(1024, 0, 500, 500));  // no margin at all
    EXPECT_EQ(1, inside(1025, 0, 500, 500));  // w = f: nothing left
    EXPECT_EQ(1, inside(1025, 0, 1000, 0));
    EXPECT_EQ(0, inside(1048576, 0, 6928, 10000));  // 3072 left of 3072
    EXPECT_EQ(1, inside(1048576, 0, 6929, 10000));
    EXPECT_EQ(0, inside(1048577, 0, 92800, 400000));  // 307200 left of 307200
    EXPECT_EQ(1, inside(1048577, 0, 92801, 400000));
    EXPECT_EQ(0, inside(1048576, 1000, 1047000, 2496));  // behind the writer: 576 + 2496
    EXPECT_EQ(1, inside(1048576, 1000, 1047000, 2495));
    EXPECT_EQ(1, inside(2010000, 2000000, 2005000, 2009000));  // small sector beyond 1 MiB
}

}  // namespace
}  // namespace readtest
