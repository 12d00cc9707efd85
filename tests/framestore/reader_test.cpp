// The frame reader in whole scenarios on a ring in ordinary memory: where a
// reader's cursor goes, why a query ends, and what it leaves pinned.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "read_helpers.h"

namespace readtest {
namespace {

using V = std::vector<uint32_t>;

// One query with its own request {flags, ref}, through `slot` or, when it
// is null, a temporary client.
struct Plain {
    SharedMemReadRequest request;
    uint8_t *data;
    uint32_t size;
    int result;
};
Plain QueryWith(SharedMemHandle *h, uint32_t flags, uint32_t ref,
                SharedMemBufClient **slot = nullptr) {
    Plain p = {{flags, 0, ref, 0, 0, 0, 0, 0}, nullptr, 0, 0};
    p.result = SharedMem_QueryReadBuffer(h, slot, &p.data, &p.size, &p.request);
    return p;
}

TEST(Reader, LatestFrameGivesReasonEightUntilTheWriterAddsExactlyTheNext) {
    FakeRing f(4000);
    WriteRun(f, 3, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(Got(2), r.Do({kInPlace, 300}));
    EXPECT_EQ(f.base() + f.entry(2).dwOffset, r.data());
    EXPECT_EQ(100u, r.size());
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(Refused(SHM_REASON_LATEST, 2), r.Do({kInPlace, 300}));
        EXPECT_EQ(0u, r.client()->dwHeld);
        EXPECT_TRUE(Unpinned(f, 2));
    }
    WriteFrames(f, {400, 500, 600}, {Predicted(), kKey, kKey});
    ASSERT_EQ(Got(3), r.Do({kInPlace, 300}));
    EXPECT_EQ(1, r.pins(3));
    // A restart ignores the valid cursor: the newest frame, or the oldest.
    EXPECT_EQ(Got(5), r.Do({kInPlace | SHM_READ_RESTART, 600}));
    EXPECT_EQ(Got(0), r.Do({kInPlace | SHM_READ_RESTART | SHM_READ_FROM_OLDEST, 600}));
}

// The reader releases entry 0; the writer claims entries 0..2 for a new lap
// and the reader's next frame is refused as overwritten. Once the writer
// has published, the next query places the reader anew: on the newest
// frame (the one just written) or, when asked, the oldest that survived.
TEST(Reader, LostReaderGetsBackOnAfterTheWriterOvertookIt) {
    for (uint32_t extra : {0u, SHM_READ_FROM_OLDEST}) {
        SCOPED_TRACE(extra);
        FakeRing f(1000);
        WriteRun(f, 10, 100, 100);  // exactly full
        Reader r(f, 3);
        ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 1000}));
        ASSERT_EQ(0, r.Release());
        uint8_t *place = nullptr;
        ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 300));
        Outcome lost = {};
        std::string log = Logged([&] { lost = r.Do({kInPlace | extra, 1000}); });
        EXPECT_EQ(Refused(SHM_REASON_FAILED, 0), lost);
        EXPECT_EQ(1, CountOf(log, "[shmem] : queried frame is overwritten! 1 0 9 9\n")) << log;
        EXPECT_EQ(0, r.client()->iDeliveredIndex);
        EXPECT_TRUE(Unpinned(f, 1));

        SharedMemWriteInfo info = {place, kKey, 300, 1100};
        ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
        ASSERT_EQ(3, f.ring()->iOldestIndex);
        const int entry = extra != 0 ? 3 : 0;
        ASSERT_EQ(Got(entry), r.Do({kInPlace | extra, 1100}));
        EXPECT_EQ(extra != 0 ? 400u : 1100u, r.deliveredTick());
        EXPECT_EQ(1, r.pins(entry));
    }
}

// r is made at 5000, q at 3500; the first frame (4000) is older than r's
// making but newer than q's, though both then ask with 6000.
TEST(Reader, NewOnlyMakesAClientOnAnEmptyRingWithItsStartTickFixed) {
    const uint32_t newOnly = kInPlace | SHM_READ_NEW_ONLY;
    FakeRing f(4000);
    Reader r(f, 3), q(f, 4);
    // Without the flag an empty ring makes nothing and writes no reason.
    EXPECT_EQ((Outcome{-1, 0xEEEEu, -1, -9}), r.Do({kInPlace, 5000}));
    Plain temporary = QueryWith(f.handle(), newOnly, 5000);
    EXPECT_EQ(std::make_tuple(-1, SHM_REASON_FAILED), std::make_tuple(temporary.result,
                                                                      temporary.request.dwReason));
    EXPECT_EQ(nullptr, temporary.data);

    EXPECT_EQ(-1, r.Query({newOnly, 5000}));
    EXPECT_EQ(-1, q.Query({newOnly, 3500}));
    const SharedMemBufClient *c = r.client();
    ASSERT_NE(nullptr, c);
    EXPECT_EQ(std::make_tuple(-1, -1, 5000u, 4900u, 0u),
              std::make_tuple(c->iLastIndex, c->iDeliveredIndex, c->dwLastTimeTick,
                              c->dwDeliveredTimeTick, c->dwHeld));

    WriteFrames(f, {4000}, {kKey});
    EXPECT_EQ(Refused(SHM_REASON_TOO_EARLY, 0), r.Do({newOnly, 6000}));
    EXPECT_EQ(-1, c->iDeliveredIndex);
    EXPECT_TRUE(Unpinned(f, 0));
    EXPECT_EQ(Got(0), q.Do({newOnly, 6000}));
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 0), r.Do({newOnly, 6000}));
    // Only a first query is tested against the start tick.
    WriteFrames(f, {4500}, {Predicted()});
    EXPECT_EQ(Got(1), r.Do({newOnly, 6000}));
}

// Three frames of 300 bytes fill entries 0..2, the fourth rewinds into 0.
TEST(Reader, CursorOnTheBoundaryWrapsToEntryZero) {
    FakeRing f(1000);
    WriteRun(f, 3, 100, 100, 0, 300);
    Reader r(f, 3);
    ASSERT_EQ(Got(2), r.Do({kInPlace, 300}));
    ASSERT_EQ(0, r.Release());
    WriteFrames(f, {400}, {kKey}, 300);
    ASSERT_TRUE(f.isTwoGenerations());
    ASSERT_EQ(2, f.ring()->iBoundaryIndex);
    EXPECT_EQ(Got(0), r.Do({kInPlace, 400}));
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 0), r.Do({kInPlace, 400}));
}

// The writer stores L before B. While it publishes a frame that extends
// the one generation, a reader can load L one past B; B is about to follow.
// The reader on the frame before the newest must go on to the newest, not
// wrap to the oldest, and on the newest it must not count as lost (which
// would deliver that frame again, or the oldest).
TEST(Reader, FrameBeingAppendedIsNeitherPastTheBoundaryNorDead) {
    for (uint32_t extra : {0u, SHM_READ_FROM_OLDEST}) {
        SCOPED_TRACE(extra);
        FakeRing f(4000);
        WriteRun(f, 4, 100, 100);
        Reader r(f, 3);
        ASSERT_EQ(Got(3), r.Do({kInPlace, 400}));
        WriteFrames(f, {500}, {kKey});
        // The words as the writer leaves them between its stores of L and B.
        f.ring()->iBoundaryIndex = 3;
        f.ring()->iWriteIndex = 4;
        ASSERT_EQ(0, r.Query({kInPlace | extra, 500}));
        EXPECT_EQ(4, r.client()->iDeliveredIndex);
        EXPECT_EQ(f.base() + f.entry(4).dwOffset, r.data());
        EXPECT_EQ(Refused(SHM_REASON_LATEST, 4), r.Do({kInPlace | extra, 500}));
        uint32_t next = 99;
        EXPECT_EQ(0, SharedMem_CheckIndexValid(f.ring(), 4, 500, &next));
        EXPECT_EQ(0u, next);
    }
}

// Stops the writer inside SharedMem_UpdateWritedBuffer: the page behind the
// one that ends with the reused entry is made inaccessible, and the
// writer's first access to it is its look at the next entry for the new
// oldest, after it has stored the reused entry and before any index. The
// fault handler opens the page again and runs `inWindow` there.
namespace window {
uint8_t *g_page = nullptr;
size_t g_bytes = 0;
void (*g_inWindow)() = nullptr;
int g_stops = 0;
struct sigaction g_previous;

void OnFault(int, siginfo_t *info, void *) {
    uint8_t *at = static_cast<uint8_t *>(info->si_addr);
    if (g_page == nullptr || at < g_page || at >= g_page + g_bytes) {
        sigaction(SIGSEGV, &g_previous, nullptr);  // a real fault: report it as usual
        return;
    }
    mprotect(g_page, g_bytes, PROT_READ | PROT_WRITE);
    g_page = nullptr;
    ++g_stops;
    g_inWindow();
}
}  // namespace window

// What the reader below gets while the writer is stopped, and after.
Reader *g_tailReader = nullptr;
Outcome g_inWindow[2];
std::vector<uint32_t> g_ticks;  // reserved beforehand: no allocation in the handler

void QueryTwiceFromTheOldest() {
    for (Outcome &o : g_inWindow) {
        o = g_tailReader->Do({kInPlace | SHM_READ_FROM_OLDEST, 0});
        if (o.result == 0) g_ticks.push_back(g_tailReader->client()->dwDeliveredTimeTick);
    }
}

// Frames of 100 bytes, lap after lap, so that every frame of the second lap
// reuses the oldest entry (W = O). A reader that starts from the oldest
// finds that entry claimed and asks again; the writer then publishes into
// it. Until O, L, B and W are stored the indices still call the entry the
// oldest, so the reader must stay off it: taking the newest frame there
// and stepping on to the next entry, an older frame, would go back.
TEST(Reader, FromTheOldestNeverTakesAReusedEntryBeforeItsIndicesArePublished) {
    const long page = sysconf(_SC_PAGESIZE);
    const long header = static_cast<long>(offsetof(SharedMemSectorHeader, atFrame));
    const int reused = static_cast<int>((page - header) / sizeof(SharedMemFrameEntry)) - 1;
    if (reused + 50 >= SHM_FRAME_ENTRIES) GTEST_SKIP() << "page of " << page << " bytes";
    const int lap = reused + 50;
    FakeRingOptions options;
    options.dataBytes = static_cast<uint32_t>(lap) * 100 + 50;
    options.sharedAcrossFork = true;  // mmap: the header starts a page
    FakeRing f(options);
    ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(f.base()) % static_cast<uintptr_t>(page));
    ASSERT_EQ(reinterpret_cast<uint8_t *>(&f.entry(reused + 1)), f.base() + page);
    WriteRun(f, lap, 1000, 10);
    WriteRun(f, reused, 1000 + 10 * static_cast<uint32_t>(lap), 10);
    ASSERT_EQ((RingIndices{reused, reused - 1, lap - 1, reused, f.start() + 100u * reused}),
              f.indices());

    readtest::DebugLevel quiet(0);  // nothing printed from the fault handler
    Reader r(f, 3);
    uint8_t *place = nullptr;
    ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 100));
    ASSERT_EQ(Refused(SHM_REASON_FAILED, -1), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 0}));

    g_tailReader = &r;
    g_ticks.clear();
    g_ticks.reserve(2 * SHM_FRAME_ENTRIES);
    window::g_inWindow = QueryTwiceFromTheOldest;
    window::g_stops = 0;
    struct sigaction onFault = {};
    onFault.sa_sigaction = window::OnFault;
    onFault.sa_flags = SA_SIGINFO;
    sigemptyset(&onFault.sa_mask);
    ASSERT_EQ(0, sigaction(SIGSEGV, &onFault, &window::g_previous));
    window::g_bytes = static_cast<size_t>(page);
    window::g_page = f.base() + page;
    ASSERT_EQ(0, mprotect(window::g_page, window::g_bytes, PROT_NONE));
    const uint32_t newest = 1000 + 10 * static_cast<uint32_t>(lap + reused);
    SharedMemWriteInfo info = {place, kKey, 100, newest};
    int updated = SharedMem_UpdateWritedBuffer(f.handle(), &info);
    sigaction(SIGSEGV, &window::g_previous, nullptr);
    if (window::g_page != nullptr) mprotect(window::g_page, window::g_bytes, PROT_READ | PROT_WRITE);
    ASSERT_EQ(0, updated);
    ASSERT_EQ(1, window::g_stops);

    for (const Outcome &o : g_inWindow) EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), o);
    ASSERT_EQ((RingIndices{reused + 1, reused, lap - 1, reused + 1, f.start() + 100u * (reused + 1)}),
              f.indices());
    // Once published, the reader takes the oldest and goes on, older to newer.
    for (;;) {
        int result = r.Query({kInPlace | SHM_READ_FROM_OLDEST, 0});
        if (result != 0) {
            EXPECT_EQ(SHM_REASON_LATEST, r.reason());
            break;
        }
        g_ticks.push_back(r.client()->dwDeliveredTimeTick);
    }
    ASSERT_FALSE(g_ticks.empty());
    EXPECT_EQ(newest, g_ticks.back());
    for (size_t i = 1; i < g_ticks.size(); ++i) {
        ASSERT_LT(g_ticks[i - 1], g_ticks[i]) << "delivery " << i;
    }
    EXPECT_EQ(static_cast<size_t>(lap), g_ticks.size());
    g_tailReader = nullptr;
}

// Key frames at 0 and 5 of 0..9: a first search that ends on a predicted
// frame fails a key start; a size-limited one goes back to a key frame.
TEST(Reader, FirstQueryWithKeyStart) {
    FakeRing f(4000);
    WriteRun(f, 10, 100, 100, 5);
    Reader strict(f, 3), sized(f, 4);
    DebugLevel quiet(2);
    EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), strict.Do({kInPlace | SHM_READ_KEY_START, 1000}));
    EXPECT_EQ(5, sized.Do({kInPlace | SHM_READ_KEY_START | SHM_READ_SIZE_LIMIT, 1000}).entry);
    WriteFrames(f, {1100}, {kKey});
    EXPECT_EQ(Got(10), strict.Do({kInPlace | SHM_READ_KEY_START, 1100}));
}

V Ticks(int n, uint32_t first, uint32_t step) {
    V ticks;
    for (int k = 0; k < n; ++k) ticks.push_back(first + step * static_cast<uint32_t>(k));
    return ticks;
}

TEST(Reader, RateLimitCarriesTheOvershootToKeepTheAverageRate) {
    auto check = [](const V &ticks, uint32_t interval, const V &delivered, const V &carries) {
        SCOPED_TRACE(ticks.size());
        FakeRing f(4000);
        WriteFrames(f, ticks, V(ticks.size(), kKey));
        Reader r(f, 3);
        V gotTicks, gotCarries;
        for (int guard = 0; guard < 100; ++guard) {
            if (r.Query({kInPlace | SHM_READ_RATE_LIMIT | SHM_READ_FROM_OLDEST, 1000, 0,
                         interval}) == 0) {
                gotTicks.push_back(r.deliveredTick());
                gotCarries.push_back(r.client()->dwRateCarry);
            } else if (r.reason() == SHM_REASON_LATEST) {
                break;
            } else {
                EXPECT_EQ(SHM_REASON_NOT_YET, r.reason());
            }
        }
        EXPECT_EQ(delivered, gotTicks);
        EXPECT_EQ(carries, gotCarries);
    };
    // 25 frames a second, at most one per 100 ms: the 20 ms by which 1120
    // came late lets 1200 through, so the average stays 100 ms.
    check(Ticks(16, 1000, 40), 100, {1000, 1120, 1200, 1320, 1400, 1520, 1600},
          {0, 20, 0, 20, 0, 20, 0});
    // An overshoot beyond the interval is not carried.
    check({1000, 1120, 1500, 1580, 1600}, 100, {1000, 1120, 1500, 1600}, {0, 20, 0, 0});
    // Interval 0 means 1000 ms; a new client's last delivery counts as
    // 100 ms before its first reference.
    check(Ticks(11, 1000, 100), 0, {1900}, {0});
}

// Frames 0..6: K, P0, P2, P1, P3, K, P2, 40 ms apart. Each filter runs even
// after an earlier one dropped the frame; the last one that fired names
// the reason, and the rate limiter's carry moves on dropped frames too.
TEST(Reader, LayerMarkOnlyAndRateFiltersTogether) {
    constexpr uint32_t kMark = SHM_READ_MARK_ONLY, kRate = SHM_READ_RATE_LIMIT;
    DebugLevel quiet(2);
    auto check = [](uint32_t flags, const V &reasons /* per entry; 0: delivered */) {
        SCOPED_TRACE(testing::Message() << "flags 0x" << std::hex << flags);
        FakeRing f(4000);
        WriteFrames(f, Ticks(7, 1000, 40),
                    {kKey, Predicted(0), Predicted(2), Predicted(1), Predicted(3), kKey,
                     Predicted(2)});
        Reader r(f, 3);
        int lastDelivered = -1;
        for (int i = 0; i < 7; ++i) {
            EXPECT_EQ(reasons[i] != 0 ? Refused(reasons[i], i) : Got(i),
                      r.Do({kInPlace | SHM_READ_FROM_OLDEST | flags, 1000, 0, 100}));
            if (reasons[i] == 0) lastDelivered = i;
            EXPECT_EQ(lastDelivered, r.client()->iDeliveredIndex) << i;
        }
        EXPECT_EQ(Refused(SHM_REASON_LATEST, 6), r.Do({kInPlace | flags, 1000, 0, 100}));
    };
    check(WantLayer(2), {0, 12, 0, 12, 0, 0, 0});
    check(kMark, {0, 11, 11, 11, 11, 0, 11});
    check(WantLayer(2) | kMark, {0, 11, 11, 11, 11, 0, 11});
    check(WantLayer(2) | kRate, {0, 10, 10, 12, 0, 0, 10});
    check(WantLayer(2) | kMark | kRate, {0, 10, 10, 11, 11, 0, 10});
}

TEST(Reader, SecondQueryWithoutReleaseGivesThePinBackFirst) {
    FakeRing f(4000);
    WriteRun(f, 2, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 200}));
    Outcome second = {};
    std::string log = Logged([&] { second = r.Do({kInPlace, 200}, false); });
    EXPECT_EQ(Got(1), second);
    EXPECT_EQ(1, CountOf(log, "[shmem] : query twice before release.0 0, 0 1 " +
                                  std::to_string(f.ring()->dwWriteOffset) + "\n"))
        << log;
    EXPECT_EQ(std::make_tuple(0, 1), std::make_tuple(r.pins(0), r.pins(1)));
    // Also when the query then finds nothing.
    DebugLevel quiet(2);
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 1), r.Do({kInPlace, 200}, false));
    EXPECT_EQ(0, r.pins(1));
    EXPECT_EQ(0u, r.client()->dwHeld);
}

TEST(Reader, ClientUsedWithAnotherHandleIsRefusedAndKeepsItsHold) {
    FakeRing f(4000);
    WriteRun(f, 2, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 200}));
    SharedMemHandle other = f.readerHandle(4);
    Plain p = {};
    std::string log = Logged([&] { p = QueryWith(&other, kInPlace, 200, r.clientSlot()); });
    char expected[128];
    snprintf(expected, sizeof expected, "[shmem] : miss use bufclient! Source %p != This %p\n",
             static_cast<void *>(r.handle()), static_cast<void *>(&other));
    EXPECT_EQ(1, CountOf(log, expected)) << log;
    EXPECT_EQ(std::make_tuple(-1, SHM_REASON_MISUSE),
              std::make_tuple(p.result, p.request.dwReason));
    EXPECT_EQ(nullptr, p.data);
    EXPECT_EQ(r.handle(), r.client()->ptHandle);
    EXPECT_EQ(std::make_tuple(1u, 0), std::make_tuple(r.client()->dwHeld, r.client()->iLastIndex));
    EXPECT_EQ(1, f.entry(0).abyAccessCount[3]);
    EXPECT_EQ(0, f.entry(0).abyAccessCount[4] + f.entry(1).abyAccessCount[4]);
}

TEST(Reader, ZeroReferenceTickIsFilledInWithTheClockAndKept) {
    FakeRing f(4000);
    ASSERT_EQ(0, f.write(100, kKey, 0));  // stamped by the clock
    const uint32_t stamped = f.entry(0).dwTimeTick;
    SharedMemHandle reader = f.readerHandle(3);
    SharedMemBufClient *client = nullptr;
    Plain p = QueryWith(&reader, kInPlace, 0, &client);
    ASSERT_EQ(0, p.result);
    const uint32_t ref = p.request.dwRefTimeTick;
    EXPECT_NE(0u, ref);
    EXPECT_GE(SharedMem_DWComparator(ref, stamped, nullptr), 0);
    EXPECT_EQ(ref - stamped, p.request.dwDelay);
    // A record used again keeps its reference.
    ASSERT_EQ(0, SharedMem_ReleaseReadBuffer(client));
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(&reader, &client, &p.data, &p.size, &p.request));
    EXPECT_EQ(ref, p.request.dwRefTimeTick);
    SharedMem_FreeBufClient(&client);
}

// Frames 1000..2000, 100 ms apart, in entries 0..10.
TEST(Reader, DelayOutIsTheDistanceOfTheFrameFound) {
    DebugLevel quiet(2);
    auto check = [](bool timeshift, uint32_t flags, uint32_t ref, uint32_t delay, int entry,
                    uint32_t delayOut) {
        SCOPED_TRACE(testing::Message() << timeshift << " " << ref << " " << delay);
        FakeRing f(4000);
        f.ring()->byTimeshift = timeshift ? 1 : 0;
        WriteRun(f, 11, 1000, 100);
        Reader r(f, 3);
        EXPECT_EQ(entry, r.Do({flags, ref, delay}).entry);
        EXPECT_EQ(delayOut, r.request().dwDelay);
    };
    check(true, kInPlace, 2000, 350, 6, 400);  // wanted 1650, found 1600
    check(true, kInPlace, 2050, 0, 10, 50);
    check(false, kInPlace, 2050, 350, 10, 50);  // no timeshift: the delay is dropped
    check(false, kInPlace | SHM_READ_CROSSOVER, 2050, 350, 7, 350);  // ...unless crossover
}

// `other` shares r's AttachID and keeps entry 1 pinned: r dropping entry 1
// must leave that count alone.
TEST(Reader, FailedQueryLeavesThePinCountsAsTheyWere) {
    FakeRing f(1000);
    WriteFrames(f, {100, 200, 300}, {kKey, Predicted(), kKey});
    Reader r(f, 3), other(f, 3);
    ASSERT_EQ(Got(0), other.Do({kInPlace | SHM_READ_FROM_OLDEST | SHM_READ_MARK_ONLY, 100}));
    ASSERT_EQ(Got(1), other.Do({kInPlace, 100}));
    ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 100}));
    EXPECT_EQ(Refused(SHM_REASON_NOT_MARK, 1), r.Do({kInPlace | SHM_READ_MARK_ONLY, 100}));
    EXPECT_EQ(std::make_tuple(0, 1, 0), std::make_tuple(r.pins(0), r.pins(1), r.pins(2)));
}

TEST(Reader, AttachIdsAboveFifteenReadWithoutPins) {
    for (int attachId : {0, 15, 16, 40}) {
        SCOPED_TRACE(attachId);
        const bool counted = attachId < 16;
        FakeRing f(1000);
        WriteRun(f, 10, 100, 100);
        Reader r(f, attachId);
        ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST, 1000}));
        EXPECT_EQ(1u, r.client()->dwHeld);
        EXPECT_EQ(counted ? 1 : 0, f.entry(0).abyAccessCount[attachId & 15]);
        EXPECT_EQ(counted, !Unpinned(f, 0));
        EXPECT_EQ(counted ? -1 : 0, f.write(300, kKey, 1100));  // only a counted pin holds
        EXPECT_EQ(0, r.Release());
        EXPECT_EQ(0u, r.client()->dwHeld);
        for (int i = 0; i < 10; ++i) EXPECT_TRUE(Unpinned(f, i)) << i;
    }
}

// A frame the writer must not lose unread is released to it by the first
// reader that is handed the frame, not by one that drops it.
TEST(Reader, DeliveryClearsUnreadAndADropDoesNot) {
    for (int attachId : {3, 16}) {
        SCOPED_TRACE(attachId);
        FakeRing f(1000);
        WriteFrames(f, {100, 200}, {kKey | SHM_FRAME_UNREAD, Predicted() | SHM_FRAME_UNREAD});
        Reader r(f, attachId);
        ASSERT_EQ(Got(0), r.Do({kInPlace | SHM_READ_FROM_OLDEST | SHM_READ_MARK_ONLY, 200}));
        EXPECT_EQ(Refused(SHM_REASON_NOT_MARK, 1), r.Do({kInPlace | SHM_READ_MARK_ONLY, 200}));
        EXPECT_EQ(0u, f.entry(0).dwFlags & SHM_FRAME_UNREAD);
        EXPECT_EQ(SHM_FRAME_UNREAD, f.entry(1).dwFlags & SHM_FRAME_UNREAD);
        DebugLevel quiet(2);
        EXPECT_EQ(0, f.write(800, kKey, 300));  // fills the ring
        EXPECT_EQ(0, f.write(100, kKey, 400));  // over entry 0
        EXPECT_EQ(-1, f.write(100, kKey, 500));  // not over entry 1
        EXPECT_EQ(SHM_WRITE_UNREAD, f.status());
    }
}

TEST(Reader, TemporaryClientLeavesNoPinBehind) {
    FakeRing f(1000);
    WriteRun(f, 10, 100, 100);
    SharedMemHandle reader = f.readerHandle(3);
    Plain p = QueryWith(&reader, kInPlace, 1000);
    ASSERT_EQ(0, p.result);
    EXPECT_EQ(f.base() + f.entry(9).dwOffset, p.data);
    EXPECT_EQ(100u, p.size);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(Unpinned(f, i)) << i;
    EXPECT_EQ(0, f.write(1000, kKey, 1100));  // even over the frame just read
    // A null request reads in place the same way.
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, nullptr, &p.data, &p.size, nullptr));
    EXPECT_EQ(f.base() + f.entry(0).dwOffset, p.data);
    EXPECT_TRUE(Unpinned(f, 0));
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(nullptr, nullptr, &p.data, &p.size, nullptr));
}

}  // namespace
}  // namespace readtest
