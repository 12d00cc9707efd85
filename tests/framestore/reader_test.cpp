// The frame reader in whole scenarios on a ring in ordinary memory: where a
// reader's cursor goes, why a query ends, and what it leaves pinned; the
// time steps of timeshift readers; adaptive readers.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <tuple>

#include "fake_ring.h"

namespace {

using V = std::vector<uint32_t>;

// The reader gives back entry 0; the writer claims entries 0..2 for a new
// lap and the reader's next frame is refused as overwritten. Once the
// writer has published, the next query places the reader anew, on the
// newest frame. The ring has no timeshift: the delay asked for is dropped.
TEST(Reader, LostReaderGetsBackOnAfterTheWriterOvertookIt) {
    FakeRing f(1000);
    WriteRun(f, 10, 100, 100);  // exactly full
    Reader r(f, 3);
    ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 1000}));
    ASSERT_EQ(0, r.Release());
    uint8_t *place = nullptr;
    ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 300));
    EXPECT_EQ(Refused(SHM_REASON_FAILED, 0), r.Do({kInPlace, 1000}));
    EXPECT_TRUE(Unpinned(f, 1));
    SharedMemWriteInfo info = {place, kKey, 300, 1100};
    ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ(Got(0), r.Do({kInPlace, 1100, 500}));  // 1100, not the 600 of a delay
}

// r is made at 5000, q at 3500; the first frame (4000) is older than r's
// making but newer than q's, though both then ask with 6000.
TEST(Reader, NewOnlyMakesAClientOnAnEmptyRingWithItsStartTickFixed) {
    const uint32_t newOnly = kInPlace | SHM_READ_NEW_ONLY;
    FakeRing f(4000);
    Reader r(f, 3), q(f, 4);
    EXPECT_EQ(-1, r.Query({newOnly, 5000}));
    EXPECT_EQ(-1, q.Query({newOnly, 3500}));
    WriteFrames(f, {4000}, {kKey});
    EXPECT_EQ(Refused(SHM_REASON_TOO_EARLY, 0), r.Do({newOnly, 6000}));
    EXPECT_EQ(Got(0), q.Do({newOnly, 6000}));
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 0), r.Do({newOnly, 6000}));
    // Only a first query is tested against the start tick.
    WriteFrames(f, {4500}, {Predicted()});
    EXPECT_EQ(Got(1), r.Do({newOnly, 6000}));
}

// The writer stores L before B. While it publishes a frame that extends
// the one generation, a reader can load L one past B. The reader on the
// frame before the newest must go on to the newest, not wrap to the
// oldest, and on the newest it must not count as lost (a reader counted
// lost from the oldest would be placed on entry 0 again).
TEST(Reader, FrameBeingAppendedIsNeitherPastTheBoundaryNorDead) {
    const uint32_t fromOldest = kInPlace | SHM_READ_FROM_OLDEST;
    FakeRing f(4000);
    WriteRun(f, 4, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(Got(3), r.Do({kInPlace, 400}));
    WriteFrames(f, {500}, {kKey});
    f.ring()->iBoundaryIndex = 3;  // as between the writer's stores of L and B
    f.ring()->iWriteIndex = 4;
    ASSERT_EQ(0, r.Query({fromOldest, 500}));
    EXPECT_EQ(f.base() + f.entry(4).dwOffset, r.data());
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 4), r.Do({fromOldest, 500}));
}

// Stops the writer inside SharedMem_UpdateWritedBuffer: the page behind the
// one that ends with the reused entry is made inaccessible, and the
// writer's first access to it is its look at the next entry for the new
// oldest, after it has stored the reused entry and before any index. The
// fault handler opens the page again and queries there, twice.
uint8_t *g_page = nullptr;
size_t g_pageBytes = 0;
Reader *g_reader = nullptr;
Outcome g_inWindow[2];
int g_stops = 0;

void QueryInTheWindow(int, siginfo_t *info, void *) {
    uint8_t *at = static_cast<uint8_t *>(info->si_addr);
    if (at < g_page || at >= g_page + g_pageBytes) abort();  // a real fault
    mprotect(g_page, g_pageBytes, PROT_READ | PROT_WRITE);
    ++g_stops;
    for (Outcome &o : g_inWindow) o = g_reader->Do({kInPlace | SHM_READ_FROM_OLDEST, 0});
}

// Frames of 100 bytes, lap after lap, so that every frame of the second lap
// reuses the oldest entry (W = O). A reader from the oldest finds that
// entry claimed; the writer then publishes into it. Until O, L, B and W are
// stored the indices still call the entry the oldest, so the reader must
// stay off it: taking the newest frame there and stepping on to the next
// entry, an older frame, would go back.
TEST(Reader, FromTheOldestNeverTakesAReusedEntryBeforeItsIndicesArePublished) {
    const long page = sysconf(_SC_PAGESIZE);
    const long header = static_cast<long>(offsetof(SharedMemSectorHeader, atFrame));
    const int reused = static_cast<int>((page - header) / sizeof(SharedMemFrameEntry)) - 1;
    const int lap = reused + 50;
    if (lap >= SHM_FRAME_ENTRIES) GTEST_SKIP() << "page of " << page << " bytes";
    FakeRing f(static_cast<uint32_t>(lap) * 100 + 50);  // the header starts a page
    WriteRun(f, lap + reused, 1000, 10);
    ASSERT_EQ(reused, f.ring()->iOldestIndex);  // and W

    DebugLevel quiet(0);  // nothing printed from the fault handler
    Reader r(f, 3);
    uint8_t *place = nullptr;
    ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 100));
    ASSERT_EQ(Refused(SHM_REASON_FAILED, -1), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 0}));
    g_reader = &r;
    g_page = f.base() + page;
    g_pageBytes = static_cast<size_t>(page);
    struct sigaction onFault = {}, previous = {};
    onFault.sa_sigaction = QueryInTheWindow;
    onFault.sa_flags = SA_SIGINFO;
    ASSERT_EQ(0, sigaction(SIGSEGV, &onFault, &previous));
    ASSERT_EQ(0, mprotect(g_page, g_pageBytes, PROT_NONE));
    const uint32_t newest = 1000 + 10 * static_cast<uint32_t>(lap + reused);
    SharedMemWriteInfo info = {place, kKey, 100, newest};
    const int updated = SharedMem_UpdateWritedBuffer(f.handle(), &info);
    sigaction(SIGSEGV, &previous, nullptr);
    mprotect(g_page, g_pageBytes, PROT_READ | PROT_WRITE);
    ASSERT_EQ(0, updated);
    ASSERT_EQ(1, g_stops);
    for (const Outcome &o : g_inWindow) EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), o);
    // Once published, the reader takes the oldest and goes on, older to newer.
    V ticks;
    while (r.Query({kInPlace | SHM_READ_FROM_OLDEST, 0}) == 0) {
        ticks.push_back(f.entry(r.deliveredEntry()).dwTimeTick);
    }
    EXPECT_EQ(SHM_REASON_LATEST, r.reason());
    ASSERT_EQ(static_cast<size_t>(lap), ticks.size());
    EXPECT_EQ(newest, ticks.back());
    EXPECT_EQ(ticks.end(), std::adjacent_find(ticks.begin(), ticks.end(), std::greater_equal<>()));
}

// Frames, every one unread, read entry by entry from the oldest, at most
// one per `interval` ms when rate limited. Per entry: the reason it was
// dropped for or, when delivered, 100 plus the rate limiter's carry. Only a
// delivery clears SHM_FRAME_UNREAD, which keeps the writer off a frame
// nobody has read.
TEST(Reader, LayerMarkOnlyAndRateFilters) {
    constexpr uint32_t kMark = SHM_READ_MARK_ONLY, kRate = SHM_READ_RATE_LIMIT;
    const V mixed = {kKey,         Predicted(0), Predicted(2), Predicted(1),
                     Predicted(3), kKey,         Predicted(2)};
    const struct { V ticks, frames; uint32_t flags, interval; V steps; } cases[] = {
        // 25 frames a second, at most one per 100 ms: the 20 ms by which
        // 1120 came late lets 1200 through, so the average stays 100 ms.
        {Ticks(16, 1000, 40), V(16, kKey), kRate, 100,
         {100, 10, 10, 120, 10, 100, 10, 10, 120, 10, 100, 10, 10, 120, 10, 100}},
        // An overshoot beyond the interval is not carried.
        {{1000, 1120, 1500, 1580, 1600}, V(5, kKey), kRate, 100, {100, 120, 100, 10, 100}},
        // Interval 0 means 1000 ms; a new client's last delivery counts as
        // 100 ms before its first reference.
        {Ticks(11, 1000, 100), V(11, kKey), kRate, 0,
         {10, 10, 10, 10, 10, 10, 10, 10, 10, 100, 10}},
        // K, P0, P2, P1, P3, K, P2, 40 ms apart. Each filter runs even after
        // an earlier one dropped the frame; the last one that fired names
        // the reason, and the carry moves on dropped frames too (20 ms from
        // the P1 at 1120, so 80 at the P3 that comes through).
        {Ticks(7, 1000, 40), mixed, WantLayer(2), 100, {100, 12, 100, 12, 100, 100, 100}},
        {Ticks(7, 1000, 40), mixed, WantLayer(2) | kMark, 100, {100, 11, 11, 11, 11, 100, 11}},
        {Ticks(7, 1000, 40), mixed, WantLayer(2) | kRate, 100, {100, 10, 10, 12, 180, 120, 10}},
        {Ticks(7, 1000, 40), mixed, WantLayer(2) | kMark | kRate, 100,
         {100, 10, 10, 11, 11, 100, 10}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "flags 0x" << std::hex << c.flags);
        FakeRing f(4000);
        V frames = c.frames;
        for (uint32_t &flag : frames) flag |= SHM_FRAME_UNREAD;
        WriteFrames(f, c.ticks, frames);
        Reader r(f, 3);
        for (int i = 0; i < static_cast<int>(c.steps.size()); ++i) {
            const uint32_t flags = kInPlace | SHM_READ_FROM_OLDEST | c.flags;
            const Outcome o = r.Do({flags, 1000, 0, c.interval});
            EXPECT_EQ(i, o.cursor);
            EXPECT_EQ(c.steps[i], o.result == 0 ? 100 + r.client()->dwRateCarry : o.reason) << i;
            EXPECT_EQ(o.result != 0, (f.entry(i).dwFlags & SHM_FRAME_UNREAD) != 0) << i;
        }
        EXPECT_EQ(SHM_REASON_LATEST, r.Do({kInPlace | c.flags, 1000, 0, c.interval}).reason);
    }
}

// `other` shares r's AttachID and holds entry 1. A query made while r still
// holds a frame gives that pin back first, whether it then finds a frame
// or not; a drop leaves other's pin alone; a client used with another
// handle is refused and keeps its hold.
TEST(Reader, PinsAreGivenBackOnceAndOnlyByTheirHolder) {
    FakeRing f(4000);
    WriteFrames(f, {100, 200, 300, 400}, {kKey, Predicted(), kKey, kKey});
    Reader r(f, 3), other(f, 3);
    ASSERT_EQ(Got(0), other.Do({kInPlace | SHM_READ_FROM_OLDEST, 400}));
    ASSERT_EQ(Got(1), other.Do({kInPlace, 400}));
    ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 400}));
    EXPECT_EQ(Refused(SHM_REASON_NOT_MARK, 1), r.Do({kInPlace | SHM_READ_MARK_ONLY, 400}, false));
    EXPECT_EQ(Got(2), r.Do({kInPlace, 400}));
    EXPECT_EQ(Got(3), r.Do({kInPlace, 400}, false));
    EXPECT_EQ(std::make_tuple(0, 1, 0, 1),
              std::make_tuple(r.pins(0), r.pins(1), r.pins(2), r.pins(3)));
    Reader stranger(f, 4);  // borrows r's client for one query
    *stranger.clientSlot() = r.client();
    EXPECT_EQ(Refused(SHM_REASON_MISUSE, 3), stranger.Do({kInPlace, 400}, false));
    *stranger.clientSlot() = nullptr;
    EXPECT_EQ(std::make_tuple(1u, 1), std::make_tuple(r.client()->dwHeld, r.pins(3)));
    // On the newest frame, a restart ignores the valid cursor.
    EXPECT_EQ(Got(0), r.Do({kInPlace | SHM_READ_RESTART | SHM_READ_FROM_OLDEST, 400}));
}

// A null client pointer reads with a temporary client: nobody could give
// its pin back, so none outlives the call, as for an AttachID of 16 or
// more, and the writer may take the frame at once. The delivery clears
// SHM_FRAME_UNREAD all the same.
TEST(Reader, TemporaryClientLeavesNoPinBehind) {
    FakeRing f(1000);
    WriteFrames(f, {100, 200}, {kKey | SHM_FRAME_UNREAD, kKey});
    SharedMemHandle reader = f.readerHandle(3);
    SharedMemReadRequest request = {kInPlace | SHM_READ_FROM_OLDEST, 0, 0, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, nullptr, &data, &size, &request));
    EXPECT_NE(0u, request.dwRefTimeTick);  // 0 is filled in from the clock
    EXPECT_EQ(std::make_tuple(f.base() + f.entry(0).dwOffset, 100u, 0u),
              std::make_tuple(data, size, f.entry(0).dwFlags & SHM_FRAME_UNREAD));
    EXPECT_TRUE(Unpinned(f, 0));
    ASSERT_EQ(0, f.write(800, kKey, 300));  // fills the ring
    EXPECT_EQ(0, f.write(100, kKey, 400));  // over the frame just read
    // A null request reads the newest frame in place the same way.
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, nullptr, &data, &size, nullptr));
    EXPECT_EQ(f.base() + f.entry(0).dwOffset, data);
    EXPECT_TRUE(Unpinned(f, 0));
}

// Timeshift readers: the lag band, calibration and jump, no-overtake with
// its two exceptions, and crossover.

uint32_t TickOf(int k) { return 10000u + 100u * static_cast<uint32_t>(k); }
Outcome At(int entry, uint32_t reason) { return {0, reason, entry, entry}; }
Outcome Held(int cursor) { return {-1, SHM_REASON_WAIT, -1, cursor}; }

// A timeshift ring of 64 KiB with frames 100 ms apart from tick 10000 on:
// 21 frames of 100 bytes unless a case says otherwise, far from the writer,
// so only the three oldest are exempt from no-overtake. `keys` has a bit
// for every key frame among the first 32. The reader's cursor is placed on
// `placeOn` (-1: none) without a time step. On delivery the query hands
// back the distance of the frame found; calibration and jump leave no flag
// of theirs behind.
TEST(Timeshift, BandCalibrationJumpNoOvertakeAndCrossover) {
    constexpr uint32_t kCalibrate = SHM_READ_CALIBRATE, kJump = SHM_READ_JUMP;
    constexpr uint32_t kKeyStart = SHM_READ_KEY_START, kNoOvertake = SHM_READ_NO_OVERTAKE;
    constexpr uint32_t kCalibrated = SHM_REASON_CALIBRATED, kJumped = SHM_REASON_JUMPED;
    constexpr uint32_t kCrossover = SHM_READ_CROSSOVER, kFifth = 0x108421;  // keys 0, 5, .., 20
    DebugLevel quiet(2);
    struct Case {
        uint32_t keys;
        int placeOn;
        uint32_t flags, ref, delay;
        Outcome expect;
        uint32_t delayOut, frameBytes = 100;
        int frames = 21;
    } cases[] = {
        // The candidate is entry 10 (11000): with a delay of 100 a lag of
        // 900 ms is still in the band.
        {kFifth, 9, kCalibrate, 11900, 100, Got(10), 900},
        {kFifth, 9, kCalibrate, 11901, 100, At(18, kCalibrated), 101},  // newest 11801
        // The candidate is entry 3 (10300), 1700 ms behind: calibration
        // looks back from the newest frame for 11900, a jump forward from
        // entry 3 for the last key frame before it.
        {kFifth, 2, kJump, 12000, 100, At(15, kJumped), 500},
        {kFifth, 2, kCalibrate | kJump, 12000, 100, At(19, kCalibrated), 100},  // then close
        // No key frame after 15: the calibration fails, the jump moves.
        {0x8421, 2, kCalibrate | kJump | kKeyStart, 12000, 100, At(15, kJumped), 500},
        // A jump lands only on a key frame after the candidate (0 and 3 here).
        {0x9, 2, kJump | kKeyStart, 12000, 100, Got(3), 1700},
        // No-overtake holds back a frame younger than the delay.
        {kFifth, 8, kNoOvertake, 11900, 1000, Got(9), 1000},
        {kFifth, 8, kNoOvertake, 11899, 1000, Held(8), 0},
        {kFifth, 10, kNoOvertake, 11000, 0, Held(10), 0},
        {kFifth, 10, kCrossover, 11000, 0, At(11, SHM_REASON_CROSSOVER), 100},
        {kFifth, 10, kCrossover | kNoOvertake, 11000, 0, Held(10), 0},
        // A first query's search stops on entry 3, too young: it stays one.
        {kFifth, -1, kNoOvertake, 11050, 1000, Held(-1), 0},
        // The three oldest frames are let through.
        {kFifth, 1, kNoOvertake, 9000, 0, Got(2), 1200},
        {kFifth, 2, kNoOvertake, 9000, 0, Held(2), 0},
        // Frames of 1000 bytes: 65 fit, 65..69 start a new lap in entries
        // 0..4, and the oldest, entry 5, is right ahead of the writer.
        // Entry 8 lies 3000 bytes ahead of it, inside the 3072-byte margin;
        // entry 9 4000 bytes ahead.
        {kFifth, 7, kNoOvertake, 10850, 1000, Got(8), 50, 1000, 70},
        {kFifth, 8, kNoOvertake, 10850, 1000, Held(8), 0, 1000, 70},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "entry " << c.placeOn << " flags 0x" << std::hex
                                        << c.flags << std::dec << " ref " << c.ref);
        FakeRing f(64 * 1024);
        f.ring()->byTimeshift = 1;
        for (int k = 0; k < c.frames; ++k) {
            const bool key = k < 32 && ((c.keys >> k) & 1) != 0;
            ASSERT_EQ(0, f.write(c.frameBytes, key ? kKey : Predicted(), TickOf(k)));
        }
        Reader r(f, 3);
        if (c.placeOn >= 0) {  // placed entry by entry, without a time step
            ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, TickOf(0)}));
            while (r.client()->iLastIndex < c.placeOn) ASSERT_EQ(0, r.Query({kInPlace, TickOf(0)}));
        }
        // A reader held back keeps polling on the same frame, unpinned.
        for (int poll = 0; poll < (c.expect.result == 0 ? 1 : 2); ++poll) {
            EXPECT_EQ(c.expect, r.Do({kInPlace | c.flags, c.ref, c.delay}));
            if (c.expect.result == 0) {
                EXPECT_EQ(c.delayOut, r.request().dwDelay);
            }
            EXPECT_EQ(kInPlace | c.flags, r.request().dwReadFlags);
        }
        EXPECT_TRUE(c.expect.result == 0 || Unpinned(f, c.placeOn + 1));
    }
}

// The three entries from the oldest on may be taken by the writer's next
// frame; the latest one never is.
TEST(Timeshift, FrameTooOldNamesTheOldestAndTheTwoAfterIt) {
    struct Case { int o, l, b; V tooOld, notTooOld; } cases[] = {
        {5, 2, 20, {5, 6, 7}, {8, 4}}, {9, 3, 9, {9, 0, 1}, {2}},  // O = B wraps to 0
        {0, 1, 1, {0}, {1}},           {0, 2, 2, {1}, {2}},
        {9, 0, 9, {0}, {}},  // after a wrap the latest is no exception
    };
    SharedMemSectorHeader header = {};
    header.dwSectorType = SHM_SECTOR_RING;
    header.iMaxIndex = SHM_FRAME_ENTRIES - 1;
    for (const Case &c : cases) {
        header.iOldestIndex = c.o;
        header.iLatestIndex = c.l;
        header.iBoundaryIndex = c.b;
        for (uint32_t i : c.tooOld) EXPECT_EQ(1, SharedMem_IsFrameTooOld(&header, i)) << c.o << i;
        for (uint32_t i : c.notTooOld) {
            EXPECT_EQ(0, SharedMem_IsFrameTooOld(&header, i)) << c.o << i;
        }
    }
}

// The writer's margin goes by where the ring ends, not by its size: none
// when it ends by 1 KiB, 3072 bytes by 1 MiB, 307200 beyond (so also for
// a small ring lying past 1 MiB). Space is counted forward from the write
// offset, across the end.
TEST(Timeshift, InsideMarginAtItsEdges) {
    struct Case { uint32_t end, start, write, frame; int inside; } cases[] = {
        {1024, 0, 500, 500, 0},          {1025, 0, 500, 500, 1},
        {1025, 0, 1000, 0, 1},           {1048576, 0, 6928, 10000, 0},
        {1048576, 0, 6929, 10000, 1},    {1048577, 0, 92800, 400000, 0},
        {1048577, 0, 92801, 400000, 1},  {1048576, 1000, 1047000, 2496, 0},
        {1048576, 1000, 1047000, 2495, 1}, {2010000, 2000000, 2005000, 2009000, 1},
    };
    SharedMemSectorHeader header = {};
    header.dwSectorType = SHM_SECTOR_RING;
    for (const Case &c : cases) {
        header.dwEndOffset = c.end;
        header.dwStartOffset = c.start;
        header.dwWriteOffset = c.write;
        header.atFrame[0].dwOffset = c.frame;
        EXPECT_EQ(c.inside, SharedMem_IsInsideMargin(&header, 0)) << c.end << " " << c.write;
    }
}

// Adaptive readers: thinned until a tick published in the stamp file opens
// a window, judged by the frames' ticks.

constexpr uint32_t kMarkOutside = SHM_READ_ADAPTIVE_MARK_ONLY;

// A ring whose second tag names a fresh stamp file, and a reader on it.
struct Bench {
    FakeRing f;
    StampFile stamp;
    Reader r;
    explicit Bench(uint32_t bytes) : f(bytes), stamp(f), r(f, 3) {}
};

// Reads entry by entry from the oldest, `n` queries; before query i,
// `before(i)` may publish a tick. Returns per query the reason (0:
// delivered) plus 100 when the window was active; checks the cursor.
V AdaptiveWalk(
    Reader &r, Reader::Ask ask, int n, const std::function<void(int)> &before = [](int) {}) {
    V steps;
    for (int i = 0; i < n; ++i) {
        before(i);
        Reader::Ask a = ask;
        if (i == 0) a.flags |= SHM_READ_FROM_OLDEST;
        const int result = r.Query(a);
        EXPECT_EQ(i, r.client()->iLastIndex);
        steps.push_back((result == 0 ? 0u : r.reason()) + 100 * r.client()->dwAdaptiveActive);
    }
    return steps;
}

// Frames 0..39 at 10000..13900, a key frame every fifth. A tick of 11200
// with a window of 1000 ms is published before the reader takes entry 10:
// entries 10..21 lie before the end (12200), 10 and 11 even before the
// tick. At entry 15 a later tick (12000) moves the end to 13000.
TEST(Adaptive, WindowOpensAndClosesByTheFramesTicks) {
    Bench b(8000);
    WriteRun(b.f, 40, 10000, 100, 5);
    DebugLevel quiet(2);
    const V steps = AdaptiveWalk(b.r, {kInPlace | kMarkOutside, 10000, 0, 0, 1000}, 40, [&](int i) {
        if (i == 10) b.stamp.Publish(11200);
        if (i == 15) b.stamp.Publish(12000);
    });
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(i >= 10 && i < 30 ? 100u : i % 5 == 0 ? 0u : SHM_REASON_NOT_MARK, steps[i]) << i;
    }
    EXPECT_EQ(12000u, b.stamp.Read());  // a window that ended lately is not cleared
}

// One predicted frame per case, read by a new client: inside the window it
// comes through, outside it is thinned away; a tick more than 120000 ms
// past its window's end is cleared.
TEST(Adaptive, WindowIsJudgedByItsEndAloneAndAStaleTickIsCleared) {
    DebugLevel quiet(2);
    auto check = [](uint32_t window, uint32_t tick, uint32_t frame, bool inside,
                    bool cleared = false) {
        SCOPED_TRACE(testing::Message() << window << " " << tick << " " << frame);
        Bench b(4000);
        b.stamp.Publish(tick);
        WriteFrames(b.f, {frame}, {Predicted()});
        EXPECT_EQ(V{inside ? 100u : SHM_REASON_NOT_MARK},
                  AdaptiveWalk(b.r, {kInPlace | kMarkOutside, frame, 0, 0, window}, 1));
        EXPECT_EQ(cleared ? 0u : tick, b.stamp.Read());
    };
    check(0, 11000, 20999, true);  // no window given: 10000 ms
    check(1000, 11000, 11999, true);
    check(1000, 11000, 12000, false);
    check(1000, 11000, 5000, true);         // long before the tick: still before the end
    check(1000, 0xFFFFFF00u, 0x2E7, true);  // the end wraps past 0
    check(1000, 0, 20999, false);           // no tick published
    check(1000, 1000, 122000, false);       // 120000 ms past the end: kept
    check(1000, 1000, 122001, false, true);
}

// Frames 0..19 at 10000..11900, key frames every fifth. Thinned to key
// frames, the reader got 0 and 5 and dropped 6..8; the window opens before
// it takes entry 9, and it goes back to entry 6. A reader that never had a
// frame has nothing to go back to: its first query in the window fails,
// the next places it.
TEST(Adaptive, KeyStartRecoversWhatTheThinningSkipped) {
    Bench b(4000);
    WriteRun(b.f, 20, 10000, 100, 5);
    DebugLevel quiet(2);
    const Reader::Ask ask = {kInPlace | kMarkOutside | SHM_READ_KEY_START, 10000, 0, 0, 100000};
    AdaptiveWalk(b.r, ask, 9);
    ASSERT_EQ(5, b.r.client()->iDeliveredIndex);
    b.stamp.Publish(10000);
    for (int i = 6; i < 20; ++i) EXPECT_EQ(Got(i), b.r.Do(ask));
    Reader late(b.f, 4);
    EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), late.Do({ask.flags, 11500, 0, 0, ask.window}));
    EXPECT_EQ(Got(15), late.Do({ask.flags, 11500, 0, 0, ask.window}));
}

// With a layer asked for, outside the window predicted frames below it are
// dropped (reason 12) and the layer replaces the mark-only thinning. The
// window opens before entry 4. When it opens after a predicted frame was
// delivered, predicted frames wait for layer 5 first; after a key frame
// nothing waits.
TEST(Adaptive, LayerWaitAfterAWindowOpensOnAPredictedFrame) {
    DebugLevel quiet(2);
    auto check = [](const V &flags, const V &reasons) {
        Bench b(4000);
        WriteFrames(b.f, Ticks(static_cast<int>(flags.size()), 10000, 100), flags);
        const Reader::Ask ask = {kInPlace | kMarkOutside | WantLayer(2), 10000, 0, 0, 100000};
        EXPECT_EQ(reasons, AdaptiveWalk(b.r, ask, static_cast<int>(flags.size()), [&](int i) {
                      if (i == 4) b.stamp.Publish(10000);
                  }));
    };
    check({kKey, Predicted(0), Predicted(2), Predicted(0), Predicted(0), kKey, Predicted(0),
           Predicted(6), Predicted(5), Predicted(0), Predicted(2)},
          {0, 12, 0, 12, 112, 100, 112, 100, 100, 100, 100});
    check({kKey, Predicted(0), Predicted(1), kKey, Predicted(0), Predicted(1), Predicted(5)},
          {0, 12, 12, 0, 100, 100, 100});
}

}  // namespace
