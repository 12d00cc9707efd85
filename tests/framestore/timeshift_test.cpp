// Timeshift readers: the lag band, calibration and jump, no-overtake with
// its two exceptions, and crossover.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "read_helpers.h"
#include "sharedmem.h"

namespace {

using readtest::DebugLevel;
using readtest::kKey;
using readtest::Predicted;
using readtest::Reader;
using Ask = Reader::Ask;

constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;
constexpr uint32_t kCalibrate = SHM_READ_CALIBRATE;
constexpr uint32_t kJump = SHM_READ_JUMP;
constexpr uint32_t kKeyStart = SHM_READ_KEY_START;
constexpr uint32_t kNoOvertake = SHM_READ_NO_OVERTAKE;
constexpr uint32_t kCrossover = SHM_READ_CROSSOVER;

uint32_t TickOf(int k) { return 10000u + 100u * static_cast<uint32_t>(k); }

// A timeshift ring of `n` frames, 100 ms apart from tick 10000 on, whose
// flags come from `flagsOf(k)`.
template <typename FlagsOf>
void Fill(FakeRing &f, int n, FlagsOf flagsOf, uint32_t size = 100) {
    f.ring()->byTimeshift = 1;
    for (int k = 0; k < n; ++k) ASSERT_EQ(0, f.write(size, flagsOf(k), TickOf(k))) << k;
}

uint32_t KeyEveryFive(int k) { return k % 5 == 0 ? kKey : Predicted(); }

// Puts the reader's cursor on `entry` without any time step: the oldest
// frame first, then one by one.
void PlaceOn(Reader &r, int entry) {
    ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, TickOf(0)}));
    while (r.client()->iLastIndex != entry) ASSERT_EQ(0, r.Query({kInPlace, TickOf(0)}));
    ASSERT_EQ(0, r.Release());
}

struct Expect {
    int result;
    uint32_t reason;
    int entry;          // delivered entry, or the cursor after -1
    uint32_t delayOut;  // checked on delivery only
};

void Check(Reader &r, const Ask &ask, const Expect &e) {
    int result = r.Query(ask);
    EXPECT_EQ(e.result, result);
    EXPECT_EQ(e.reason, r.reason());
    if (result == 0) {
        EXPECT_EQ(e.entry, r.deliveredEntry());
        EXPECT_EQ(e.delayOut, r.request().dwDelay);
    }
    EXPECT_EQ(e.entry, r.client()->iLastIndex);
    // Calibration and jump never leave their own flag changes behind.
    EXPECT_EQ(ask.flags, r.request().dwReadFlags);
}

// Frames 0..20 (ticks 10000..12000), key frames every fifth; the cursor on
// entry 9, so that the candidate is entry 10 at tick 11000, with a delay of
// 100 ms: a frame 900 ms behind the reference is still within the band.
TEST(Timeshift, LagOfUpTo800MsBeyondTheDelayStays) {
    struct Case {
        uint32_t flags, ref;
        Expect expect;
    } cases[] = {
        {kCalibrate, 11900, {0, SHM_REASON_NONE, 10, 900}},         // 800 over: in the band
        {kCalibrate, 11901, {0, SHM_REASON_CALIBRATED, 18, 101}},   // 801: newest at 11801
        {kJump, 11900, {0, SHM_REASON_NONE, 10, 900}},
        {kJump, 11901, {0, SHM_REASON_JUMPED, 15, 401}},            // last key frame before
        {0, 11901, {0, SHM_REASON_NONE, 10, 901}},                  // no time step asked for
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "flags 0x" << std::hex << c.flags << std::dec << " ref "
                                        << c.ref);
        FakeRing f(4000);
        Fill(f, 21, KeyEveryFive);
        Reader r(f, 3);
        PlaceOn(r, 9);
        Check(r, {kInPlace | c.flags, c.ref, 100}, c.expect);
    }
}

TEST(Timeshift, CalibrationAndJumpSayWhereTheyMoved) {
    FakeRing f(4000);
    Fill(f, 21, KeyEveryFive);
    Reader calibrating(f, 3);
    Reader jumping(f, 4);
    PlaceOn(calibrating, 9);
    PlaceOn(jumping, 9);
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, calibrating.Query({kInPlace | kCalibrate, 12001, 100}));
    ASSERT_EQ(0, jumping.Query({kInPlace | kJump, 12001, 100}));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              log.find("[shmem] : Time 12001 calibrate from [10->19] 11000 to 11900!\n"))
        << log;
    EXPECT_NE(std::string::npos, log.find("[shmem] : Time 12001 Jump from [10->15] 11000 to 11500!\n"))
        << log;
}

// The candidate is entry 3 (tick 10300), 1700 ms behind a reference of
// 12000 with a delay of 100: calibration looks back from the newest frame
// for 11900, a jump looks forward from entry 3 for the last key frame
// before 11900.
TEST(Timeshift, CalibrationVersusJump) {
    struct Case {
        const char *name;
        uint32_t (*flagsOf)(int);
        uint32_t flags;
        Expect expect;
    } cases[] = {
        {"calibrate", KeyEveryFive, kCalibrate, {0, SHM_REASON_CALIBRATED, 19, 100}},
        {"jump", KeyEveryFive, kJump, {0, SHM_REASON_JUMPED, 15, 500}},
        // The calibrated frame is close enough: no jump after it.
        {"both", KeyEveryFive, kCalibrate | kJump, {0, SHM_REASON_CALIBRATED, 19, 100}},
        // With a key start the calibration ends on the key frame after 11900.
        {"calibrate to a key", KeyEveryFive, kCalibrate | kKeyStart,
         {0, SHM_REASON_CALIBRATED, 20, 0}},
        // Entries 16..20 predicted: a calibration that must start on a key
        // frame finds none, and the jump runs from the old candidate.
        {"calibration fails, jump moves",
         [](int k) { return k % 5 == 0 && k <= 15 ? kKey : Predicted(); },
         kCalibrate | kJump | kKeyStart, {0, SHM_REASON_JUMPED, 15, 500}},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeRing f(4000);
        Fill(f, 21, c.flagsOf);
        Reader r(f, 3);
        PlaceOn(r, 2);
        Check(r, {kInPlace | c.flags, 12000, 100}, c.expect);
    }
}

// A jump only ever lands on a key frame after the candidate: without one
// before the wanted moment the reader stays where it is.
TEST(Timeshift, JumpWithoutAKeyFrameAheadDoesNotMove) {
    struct Case {
        const char *name;
        uint32_t (*flagsOf)(int);
        uint32_t flags;
    } cases[] = {
        {"predicted candidate", [](int k) { return k == 0 ? kKey : Predicted(); }, kJump},
        {"key candidate", [](int k) { return k == 0 || k == 3 ? kKey : Predicted(); }, kJump},
        {"key start asked", [](int k) { return k == 0 || k == 3 ? kKey : Predicted(); },
         kJump | kKeyStart},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeRing f(4000);
        Fill(f, 21, c.flagsOf);
        Reader r(f, 3);
        PlaceOn(r, 2);
        Check(r, {kInPlace | c.flags, 12000, 100}, {0, SHM_REASON_NONE, 3, 1700});
    }
}

// Frames 0..20 in a ring of 64 KiB: far from the writer, so only the three
// oldest are exempt from no-overtake.
TEST(Timeshift, NoOvertakeHoldsBackFramesYoungerThanTheDelay) {
    struct Case {
        const char *name;
        int placeOn;
        uint32_t flags, ref, delay;
        Expect expect;
    } cases[] = {
        {"exactly the delay", 8, kNoOvertake, 11900, 1000, {0, SHM_REASON_NONE, 9, 1000}},
        {"1 ms too young", 8, kNoOvertake, 11899, 1000, {-1, SHM_REASON_WAIT, 8, 0}},
        {"delay 0, same tick", 9, kNoOvertake, 11000, 0, {0, SHM_REASON_NONE, 10, 0}},
        {"delay 0, newer", 10, kNoOvertake, 11000, 0, {-1, SHM_REASON_WAIT, 10, 0}},
        {"crossover", 10, kCrossover, 11000, 0, {0, SHM_REASON_CROSSOVER, 11, 100}},
        {"crossover held back", 10, kCrossover | kNoOvertake, 11000, 0,
         {-1, SHM_REASON_WAIT, 10, 0}},
        {"crossover, older frame", 10, kCrossover, 11200, 0, {0, SHM_REASON_NONE, 11, 100}},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeRing f(64 * 1024);
        Fill(f, 21, KeyEveryFive);
        Reader r(f, 3);
        PlaceOn(r, c.placeOn);
        Check(r, {kInPlace | c.flags, c.ref, c.delay}, c.expect);
        if (c.expect.result == -1) {
            // The reader keeps polling on the same frame.
            Check(r, {kInPlace | c.flags, c.ref, c.delay}, c.expect);
            EXPECT_EQ(0, r.pins(c.placeOn + 1));
        }
    }
}

TEST(Timeshift, FirstQueryHeldBackByNoOvertakeSearchesAfreshNextTime) {
    FakeRing f(64 * 1024);
    Fill(f, 21, KeyEveryFive);
    Reader r(f, 3);
    DebugLevel quiet(2);
    // Wanted: 10050. The search stops above the three oldest, on entry 3,
    // 750 ms before the reference: too young.
    EXPECT_EQ(-1, r.Query({kInPlace | kNoOvertake, 11050, 1000}));
    EXPECT_EQ(SHM_REASON_WAIT, r.reason());
    EXPECT_EQ(-1, r.client()->iLastIndex);
    // Later, with the reference moved on, the search finds the frame.
    ASSERT_EQ(0, r.Query({kInPlace | kNoOvertake, 11400, 1000}));
    EXPECT_EQ(4, r.deliveredEntry());
}

TEST(Timeshift, NoOvertakeLetsTheThreeOldestFramesThrough) {
    FakeRing f(64 * 1024);
    Fill(f, 21, KeyEveryFive);
    Reader r(f, 3);
    DebugLevel traced(6 | 0x20);
    // Every frame is newer than the reference.
    const Ask ask = {kInPlace | kNoOvertake | SHM_READ_FROM_OLDEST, 9000, 0};
    testing::internal::CaptureStdout();
    for (int entry = 0; entry < 3; ++entry) {
        ASSERT_EQ(0, r.Query(ask)) << entry;
        EXPECT_EQ(entry, r.deliveredEntry());
        EXPECT_EQ(SHM_REASON_NONE, r.reason());
    }
    EXPECT_EQ(-1, r.Query(ask));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(SHM_REASON_WAIT, r.reason());
    EXPECT_EQ(2, r.client()->iLastIndex);
    EXPECT_NE(std::string::npos, log.find("[shmem] : query too deep? 0|0\n")) << log;
    EXPECT_NE(std::string::npos, log.find("[shmem] : query too deep? 2|0\n")) << log;
}

// 1000-byte frames in 64 KiB: 65 fit, so frames 65..69 start a new lap in
// entries 0..4 and the oldest is entry 5, right ahead of the writer. Entry
// 8 lies 3000 bytes ahead of it, inside the 3072-byte margin; entry 9 is
// 4000 bytes ahead.
TEST(Timeshift, NoOvertakeLetsAFrameInsideTheWritersMarginThrough) {
    FakeRing f(64 * 1024);
    Fill(f, 70, KeyEveryFive, 1000);
    SharedMemSectorHeader *ring = f.ring();
    ASSERT_TRUE(f.isTwoGenerations());
    ASSERT_EQ(5, ring->iOldestIndex);
    ASSERT_EQ(0, SharedMem_IsFrameTooOld(ring, 8));
    ASSERT_EQ(1, SharedMem_IsInsideMargin(ring, 8));
    ASSERT_EQ(0, SharedMem_IsInsideMargin(ring, 9));

    Reader r(f, 3);
    PlaceOn(r, 7);
    DebugLevel quiet(2);
    const Ask ask = {kInPlace | kNoOvertake, 10850, 1000};  // both frames too young
    ASSERT_EQ(0, r.Query(ask));
    EXPECT_EQ(8, r.deliveredEntry());
    EXPECT_EQ(SHM_REASON_NONE, r.reason());
    EXPECT_EQ(-1, r.Query(ask));
    EXPECT_EQ(SHM_REASON_WAIT, r.reason());
    EXPECT_EQ(8, r.client()->iLastIndex);
}

std::unique_ptr<SharedMemSectorHeader> BareHeader() {
    return std::unique_ptr<SharedMemSectorHeader>(new SharedMemSectorHeader());
}

TEST(Timeshift, FrameTooOldNamesTheOldestAndTheTwoAfterIt) {
    struct Case {
        int oldest, latest, boundary;
        uint32_t index;
        int answer;
    } cases[] = {
        {5, 2, 20, 5, 1},  {5, 2, 20, 6, 1},  {5, 2, 20, 7, 1},
        {5, 2, 20, 8, 0},  {5, 2, 20, 4, 0},
        {9, 3, 9, 9, 1},   {9, 3, 9, 0, 1},   {9, 3, 9, 1, 1},  // O = B: wraps to 0 and 1
        {9, 3, 9, 2, 0},
        {0, 1, 1, 0, 1},   {0, 1, 1, 1, 0},   // the latest right after O
        {0, 2, 2, 1, 1},   {0, 2, 2, 2, 0},
        {9, 0, 9, 0, 1},   // after a wrap the latest counts
    };
    auto header = BareHeader();
    for (const Case &c : cases) {
        header->iOldestIndex = c.oldest;
        header->iLatestIndex = c.latest;
        header->iBoundaryIndex = c.boundary;
        header->iMaxIndex = SHM_FRAME_ENTRIES - 1;
        EXPECT_EQ(c.answer, SharedMem_IsFrameTooOld(header.get(), c.index))
            << "O=" << c.oldest << " L=" << c.latest << " B=" << c.boundary << " i=" << c.index;
    }
}

TEST(Timeshift, InsideMarginEdges) {
    struct Case {
        uint32_t end, start, write, frame;
        int answer;
    } cases[] = {
        {1024, 0, 500, 500, 0},                // no margin at all
        {1025, 0, 500, 500, 1},                // w = f: nothing left
        {1025, 0, 1000, 0, 1},
        {1048576, 0, 6928, 10000, 0},          // 3072 left of 3072
        {1048576, 0, 6929, 10000, 1},
        {1048577, 0, 92800, 400000, 0},        // 307200 left of 307200
        {1048577, 0, 92801, 400000, 1},
        {1048576, 1000, 1047000, 2496, 0},     // behind the writer: 576 + 2496
        {1048576, 1000, 1047000, 2495, 1},
        {2010000, 2000000, 2005000, 2009000, 1},  // small sector beyond 1 MiB
    };
    auto header = BareHeader();
    for (const Case &c : cases) {
        header->dwEndOffset = c.end;
        header->dwStartOffset = c.start;
        header->dwWriteOffset = c.write;
        header->atFrame[0].dwOffset = c.frame;
        EXPECT_EQ(c.answer, SharedMem_IsInsideMargin(header.get(), 0))
            << c.end << " " << c.start << " w=" << c.write << " f=" << c.frame;
    }
}

}  // namespace
