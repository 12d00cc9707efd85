// The frame reader in whole scenarios on a ring in ordinary memory: where a
// reader's cursor goes, why a query ends, and what it leaves pinned.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
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
using readtest::Unpinned;
using readtest::WantLayer;
using readtest::WriteFrames;
using readtest::WriteRun;
using Ask = Reader::Ask;

constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;

std::string Pointer(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

bool Contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

TEST(Reader, LatestFrameGivesReasonEightUntilTheWriterAddsExactlyTheNext) {
    FakeRing f(4000);
    WriteRun(f, 3, 100, 100);
    Reader r(f, 3);

    ASSERT_EQ(0, r.Query({kInPlace, 300}));
    EXPECT_EQ(2, r.deliveredEntry());
    EXPECT_EQ(f.base() + f.entry(2).dwOffset, r.data());
    EXPECT_EQ(100u, r.size());
    EXPECT_EQ(SHM_REASON_NONE, r.reason());

    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(-1, r.Query({kInPlace, 300}));
        EXPECT_EQ(SHM_REASON_LATEST, r.reason());
        EXPECT_EQ(2, r.client()->iLastIndex);
        EXPECT_EQ(0u, r.client()->dwHeld);
        EXPECT_TRUE(Unpinned(f, 2));
    }

    WriteFrames(f, {400, 500}, {Predicted(), kKey});
    ASSERT_EQ(0, r.Query({kInPlace, 300}));
    EXPECT_EQ(3, r.deliveredEntry());
    EXPECT_EQ(1, r.pins(3));
}

// The reader releases entry 0; the writer claims entries 0..2 for a new lap
// and the reader's next frame is refused as overwritten. Once the writer
// has published, the reader's entry carries another frame: the next query
// places it anew, on the newest frame or, when asked, the oldest.
TEST(Reader, LostReaderGetsBackOnAfterTheWriterOvertookIt) {
    struct Case {
        uint32_t extraFlags;
        int entry;
        uint32_t tick;
    } cases[] = {
        {0, 0, 1100},                    // newest: the frame just written
        {SHM_READ_FROM_OLDEST, 3, 400},  // the oldest that survived
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.extraFlags);
        FakeRing f(1000);
        WriteRun(f, 10, 100, 100);  // exactly full
        Reader r(f, 3);
        ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, 1000}));
        ASSERT_EQ(0, r.deliveredEntry());
        ASSERT_EQ(0, r.Release());

        uint8_t *place = nullptr;
        ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 300));
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, r.Query({kInPlace | c.extraFlags, 1000}));
        std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(SHM_REASON_FAILED, r.reason());
        EXPECT_TRUE(Contains(log, "[shmem] : queried frame is overwritten! 1 0 9 9\n")) << log;
        EXPECT_EQ(0, r.client()->iLastIndex);
        EXPECT_EQ(0, r.client()->iDeliveredIndex);
        EXPECT_TRUE(Unpinned(f, 1));

        SharedMemWriteInfo info = {place, kKey, 300, 1100};
        ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
        ASSERT_EQ(3, f.ring()->iOldestIndex);

        ASSERT_EQ(0, r.Query({kInPlace | c.extraFlags, 1100}));
        EXPECT_EQ(SHM_REASON_NONE, r.reason());
        EXPECT_EQ(c.entry, r.deliveredEntry());
        EXPECT_EQ(c.tick, r.deliveredTick());
        EXPECT_EQ(c.entry, r.client()->iLastIndex);
        EXPECT_EQ(1, r.pins(c.entry));
    }
}

TEST(Reader, NewOnlyMakesAClientOnAnEmptyRingWithItsStartTickFixed) {
    FakeRing f(4000);
    Reader r(f, 3);

    // Without the flag an empty ring makes nothing and writes no reason.
    EXPECT_EQ(-1, r.Query({kInPlace, 5000}));
    EXPECT_EQ(nullptr, r.client());
    EXPECT_EQ(0xEEEEu, r.reason());

    const uint32_t newOnly = kInPlace | SHM_READ_NEW_ONLY;
    EXPECT_EQ(-1, r.Query({newOnly, 5000}));
    ASSERT_NE(nullptr, r.client());
    EXPECT_EQ(-1, r.client()->iLastIndex);
    EXPECT_EQ(-1, r.client()->iDeliveredIndex);
    EXPECT_EQ(5000u, r.client()->dwLastTimeTick);
    EXPECT_EQ(4900u, r.client()->dwDeliveredTimeTick);
    EXPECT_EQ(0u, r.client()->dwHeld);

    // A frame older than the client's making: passed over with 13, then
    // the reader waits on it as on any latest frame.
    WriteFrames(f, {4000}, {kKey});
    EXPECT_EQ(-1, r.Query({newOnly, 6000}));
    EXPECT_EQ(SHM_REASON_TOO_EARLY, r.reason());
    EXPECT_EQ(0, r.client()->iLastIndex);
    EXPECT_EQ(-1, r.client()->iDeliveredIndex);
    EXPECT_TRUE(Unpinned(f, 0));
    EXPECT_EQ(-1, r.Query({newOnly, 6000}));
    EXPECT_EQ(SHM_REASON_LATEST, r.reason());

    // Only a first query is tested against the start tick.
    WriteFrames(f, {4500}, {Predicted()});
    ASSERT_EQ(0, r.Query({newOnly, 6000}));
    EXPECT_EQ(1, r.deliveredEntry());
    EXPECT_EQ(SHM_REASON_NONE, r.reason());
}

TEST(Reader, NewOnlyStartTickIsTheFirstReferenceNotALaterOne) {
    FakeRing f(4000);
    Reader r(f, 3);
    const uint32_t newOnly = kInPlace | SHM_READ_NEW_ONLY;
    EXPECT_EQ(-1, r.Query({newOnly, 5000}));
    ASSERT_NE(nullptr, r.client());
    // 5500 is newer than the making (5000), though older than 6000.
    WriteFrames(f, {5500}, {Predicted()});
    ASSERT_EQ(0, r.Query({newOnly, 6000}));
    EXPECT_EQ(0, r.deliveredEntry());
}

TEST(Reader, NewOnlyWithATemporaryClientOnAnEmptyRingFails) {
    FakeRing f(4000);
    SharedMemHandle reader = f.readerHandle(3);
    SharedMemReadRequest request = {kInPlace | SHM_READ_NEW_ONLY, 0, 5000, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    DebugLevel quiet(2);
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(&reader, nullptr, &data, &size, &request));
    EXPECT_EQ(SHM_REASON_FAILED, request.dwReason);
    EXPECT_EQ(nullptr, data);
}

// Worked lap: three frames of 300 bytes fill entries 0..2, the fourth
// rewinds into entry 0 and leaves 1..2 as the older generation.
TEST(Reader, CursorOnTheBoundaryWrapsToEntryZero) {
    FakeRing f(1000);
    WriteRun(f, 3, 100, 100, 0, 300);
    Reader r(f, 3);
    ASSERT_EQ(0, r.Query({kInPlace, 300}));
    ASSERT_EQ(2, r.deliveredEntry());
    ASSERT_EQ(0, r.Release());

    WriteFrames(f, {400}, {kKey}, 300);
    ASSERT_TRUE(f.isTwoGenerations());
    ASSERT_EQ(0, f.ring()->iLatestIndex);
    ASSERT_EQ(2, f.ring()->iBoundaryIndex);

    ASSERT_EQ(0, r.Query({kInPlace, 400}));
    EXPECT_EQ(0, r.deliveredEntry());
    EXPECT_EQ(400u, r.deliveredTick());
    EXPECT_EQ(-1, r.Query({kInPlace, 400}));
    EXPECT_EQ(SHM_REASON_LATEST, r.reason());
}

TEST(Reader, RestartIgnoresAValidCursor) {
    struct Case {
        uint32_t flags;
        int entry;
    } cases[] = {
        {kInPlace, 4},  // just the next frame
        {kInPlace | SHM_READ_RESTART, 9},
        {kInPlace | SHM_READ_RESTART | SHM_READ_FROM_OLDEST, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.flags);
        FakeRing f(4000);
        WriteRun(f, 10, 100, 100);
        Reader r(f, 3);
        ASSERT_EQ(0, r.Query({kInPlace, 400}));
        ASSERT_EQ(3, r.deliveredEntry());
        ASSERT_EQ(0, r.Query({c.flags, 1000}));
        EXPECT_EQ(c.entry, r.deliveredEntry());
    }
}

// Key frames at 0 and 5 of frames 0..9. A first query that must start on a
// key frame fails while its search ends on a predicted frame without having
// passed a key frame; the size-limited search goes back to one instead.
TEST(Reader, FirstQueryWithKeyStart) {
    FakeRing f(4000);
    WriteRun(f, 10, 100, 100, 5);
    Reader strict(f, 3);
    DebugLevel quiet(2);
    EXPECT_EQ(-1, strict.Query({kInPlace | SHM_READ_KEY_START, 1000}));
    EXPECT_EQ(SHM_REASON_FAILED, strict.reason());
    EXPECT_EQ(-1, strict.client()->iLastIndex);

    Reader sized(f, 4);
    ASSERT_EQ(0, sized.Query({kInPlace | SHM_READ_KEY_START | SHM_READ_SIZE_LIMIT, 1000}));
    EXPECT_EQ(5, sized.deliveredEntry());

    // Once the search ends on a key frame the strict reader gets on.
    WriteFrames(f, {1100}, {kKey});
    ASSERT_EQ(0, strict.Query({kInPlace | SHM_READ_KEY_START, 1100}));
    EXPECT_EQ(10, strict.deliveredEntry());
}

struct RateRun {
    std::vector<uint32_t> delivered;
    std::vector<uint32_t> carries;
    bool onlyNotYet = true;
};

RateRun ReadRateLimited(FakeRing &f, uint32_t ref, uint32_t interval) {
    Reader r(f, 3);
    RateRun run;
    Ask ask = {kInPlace | SHM_READ_RATE_LIMIT | SHM_READ_FROM_OLDEST, ref, 0, interval};
    for (int guard = 0; guard < 100; ++guard) {
        if (r.Query(ask) == 0) {
            run.delivered.push_back(r.deliveredTick());
            run.carries.push_back(r.client()->dwRateCarry);
        } else if (r.reason() == SHM_REASON_LATEST) {
            break;
        } else if (r.reason() != SHM_REASON_NOT_YET) {
            run.onlyNotYet = false;
        }
    }
    return run;
}

TEST(Reader, RateLimitCarriesTheOvershootToKeepTheAverageRate) {
    using V = std::vector<uint32_t>;
    {
        // 25 frames a second, at most one per 100 ms: the 20 ms by which
        // 1120 came late lets 1200 through, so the average stays 100 ms.
        FakeRing f(4000);
        WriteRun(f, 16, 1000, 40);
        RateRun run = ReadRateLimited(f, 1000, 100);
        EXPECT_EQ((V{1000, 1120, 1200, 1320, 1400, 1520, 1600}), run.delivered);
        EXPECT_EQ((V{0, 20, 0, 20, 0, 20, 0}), run.carries);
        EXPECT_TRUE(run.onlyNotYet);
    }
    {
        // An overshoot beyond the interval is not carried.
        FakeRing f(4000);
        WriteFrames(f, {1000, 1120, 1500, 1580, 1600}, {kKey, kKey, kKey, kKey, kKey});
        RateRun run = ReadRateLimited(f, 1000, 100);
        EXPECT_EQ((V{1000, 1120, 1500, 1600}), run.delivered);
        EXPECT_EQ((V{0, 20, 0, 0}), run.carries);
    }
    {
        // Interval 0 means 1000 ms; a new client's last delivery counts as
        // 100 ms before its first reference.
        FakeRing f(4000);
        WriteRun(f, 11, 1000, 100);
        RateRun run = ReadRateLimited(f, 1000, 0);
        EXPECT_EQ((V{1900}), run.delivered);
    }
}

// Frames 0..6: K, P0, P2, P1, P3, K, P2, 40 ms apart. Each filter runs even
// after an earlier one dropped the frame; the last one that fired names
// the reason, and the rate limiter's carry moves on dropped frames too.
TEST(Reader, LayerMarkOnlyAndRateFiltersTogether) {
    const std::vector<uint32_t> flags = {kKey,         Predicted(0), Predicted(2), Predicted(1),
                                         Predicted(3), kKey,         Predicted(2)};
    const std::vector<uint32_t> ticks = {1000, 1040, 1080, 1120, 1160, 1200, 1240};
    constexpr uint32_t kMark = SHM_READ_MARK_ONLY;
    constexpr uint32_t kRate = SHM_READ_RATE_LIMIT;
    struct Case {
        uint32_t flags;
        std::vector<uint32_t> reasons;  // per entry; 0: delivered
    } cases[] = {
        {WantLayer(2), {0, 12, 0, 12, 0, 0, 0}},
        {kMark, {0, 11, 11, 11, 11, 0, 11}},
        {WantLayer(2) | kMark, {0, 11, 11, 11, 11, 0, 11}},
        {WantLayer(2) | kRate, {0, 10, 10, 12, 0, 0, 10}},
        {WantLayer(2) | kMark | kRate, {0, 10, 10, 11, 11, 0, 10}},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "flags 0x" << std::hex << c.flags);
        FakeRing f(4000);
        WriteFrames(f, ticks, flags);
        Reader r(f, 3);
        int lastDelivered = -1;
        for (int entry = 0; entry < 7; ++entry) {
            int result = r.Query({kInPlace | SHM_READ_FROM_OLDEST | c.flags, 1000, 0, 100});
            EXPECT_EQ(c.reasons[entry], r.reason()) << "entry " << entry;
            EXPECT_EQ(c.reasons[entry] == 0 ? 0 : -1, result) << "entry " << entry;
            if (result == 0) lastDelivered = entry;
            EXPECT_EQ(entry, r.client()->iLastIndex);
            EXPECT_EQ(lastDelivered, r.client()->iDeliveredIndex);
        }
        EXPECT_EQ(-1, r.Query({kInPlace | c.flags, 1000, 0, 100}));
        EXPECT_EQ(SHM_REASON_LATEST, r.reason());
    }
}

TEST(Reader, SecondQueryWithoutReleaseGivesThePinBackFirst) {
    FakeRing f(4000);
    WriteRun(f, 2, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, 200}));
    ASSERT_EQ(1, r.pins(0));

    const std::string expected = "[shmem] : query twice before release.0 0, 0 1 " +
                                 std::to_string(f.ring()->dwWriteOffset) + "\n";
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, r.Query({kInPlace, 200}, /*releaseFirst=*/false));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(Contains(log, expected)) << log;
    EXPECT_EQ(0, r.pins(0));
    EXPECT_EQ(1, r.pins(1));
    EXPECT_EQ(1, r.deliveredEntry());

    // Also when the query then finds nothing: the pin goes all the same.
    DebugLevel quiet(2);
    EXPECT_EQ(-1, r.Query({kInPlace, 200}, /*releaseFirst=*/false));
    EXPECT_EQ(SHM_REASON_LATEST, r.reason());
    EXPECT_EQ(0, r.pins(1));
    EXPECT_EQ(0u, r.client()->dwHeld);
}

TEST(Reader, ClientUsedWithAnotherHandleIsRefusedAndKeepsItsHold) {
    FakeRing f(4000);
    WriteRun(f, 2, 100, 100);
    Reader r(f, 3);
    ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, 200}));

    SharedMemHandle other = f.readerHandle(4);
    SharedMemReadRequest request = {kInPlace, 0, 200, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(&other, r.clientSlot(), &data, &size, &request));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(SHM_REASON_MISUSE, request.dwReason);
    EXPECT_TRUE(Contains(log, "[shmem] : miss use bufclient! Source " + Pointer(r.handle()) +
                                  " != This " + Pointer(&other) + "\n"))
        << log;
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(r.handle(), r.client()->ptHandle);
    EXPECT_EQ(1u, r.client()->dwHeld);
    EXPECT_EQ(0, r.client()->iLastIndex);
    EXPECT_EQ(1, f.entry(0).abyAccessCount[3]);
    EXPECT_EQ(0, f.entry(0).abyAccessCount[4]);
    EXPECT_EQ(0, f.entry(1).abyAccessCount[4]);
}

TEST(Reader, ZeroReferenceTickIsFilledInWithTheClockAndKept) {
    FakeRing f(4000);
    ASSERT_EQ(0, f.write(100, kKey, 0));  // stamped by the clock
    const uint32_t stamped = f.entry(0).dwTimeTick;
    SharedMemHandle reader = f.readerHandle(3);
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {kInPlace, 0, 0, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;

    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, &client, &data, &size, &request));
    const uint32_t ref = request.dwRefTimeTick;
    EXPECT_NE(0u, ref);
    EXPECT_GE(SharedMem_DWComparator(ref, stamped, nullptr), 0);
    EXPECT_EQ(ref - stamped, request.dwDelay);

    // A record used again keeps its reference.
    ASSERT_EQ(0, SharedMem_ReleaseReadBuffer(client));
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(&reader, &client, &data, &size, &request));
    EXPECT_EQ(ref, request.dwRefTimeTick);
    SharedMem_FreeBufClient(&client);
}

// Frames 1000..2000, 100 ms apart, in entries 0..10.
TEST(Reader, DelayOutIsTheDistanceOfTheFrameFound) {
    struct Case {
        bool timeshift;
        uint32_t flags, ref, delay;
        int entry;
        uint32_t delayOut;
    } cases[] = {
        {true, kInPlace, 2000, 350, 6, 400},   // wanted 1650, found 1600
        {true, kInPlace, 2050, 0, 10, 50},
        {true, kInPlace, 1950, 0, 9, 50},
        {false, kInPlace, 2050, 350, 10, 50},  // no timeshift: the delay is dropped
        {false, kInPlace | SHM_READ_CROSSOVER, 2050, 350, 7, 350},  // ...unless crossover
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.timeshift << " " << c.ref << " " << c.delay);
        FakeRing f(4000);
        f.ring()->byTimeshift = c.timeshift ? 1 : 0;
        WriteRun(f, 11, 1000, 100);
        Reader r(f, 3);
        ASSERT_EQ(0, r.Query({c.flags, c.ref, c.delay}));
        EXPECT_EQ(c.entry, r.deliveredEntry());
        EXPECT_EQ(c.delayOut, r.request().dwDelay);
    }
}

TEST(Reader, FailedQueryLeavesThePinCountsAsTheyWere) {
    FakeRing f(1000);
    WriteFrames(f, {100, 200, 300}, {kKey, Predicted(), kKey});
    Reader r(f, 3);
    Reader other(f, 3);  // shares the AttachID's counter
    ASSERT_EQ(0, other.Query({kInPlace | SHM_READ_FROM_OLDEST | SHM_READ_MARK_ONLY, 100}));
    ASSERT_EQ(0, other.Query({kInPlace, 100}));  // entry 1, pinned and kept
    ASSERT_EQ(1, f.entry(1).abyAccessCount[3]);

    ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, 100}));
    EXPECT_EQ(-1, r.Query({kInPlace | SHM_READ_MARK_ONLY, 100}));  // entry 1 dropped
    EXPECT_EQ(SHM_REASON_NOT_MARK, r.reason());
    EXPECT_EQ(0, f.entry(0).abyAccessCount[3]);
    EXPECT_EQ(1, f.entry(1).abyAccessCount[3]);
    EXPECT_EQ(0, f.entry(2).abyAccessCount[3]);
}

TEST(Reader, AttachIdsAboveFifteenReadWithoutPins) {
    struct Case {
        int attachId;
        bool counted;
    } cases[] = {{0, true}, {15, true}, {16, false}, {40, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.attachId);
        FakeRing f(1000);
        WriteRun(f, 10, 100, 100);
        Reader r(f, c.attachId);
        ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST, 1000}));
        EXPECT_EQ(0, r.deliveredEntry());
        EXPECT_EQ(1u, r.client()->dwHeld);
        EXPECT_EQ(c.counted ? 1 : 0, f.entry(0).abyAccessCount[c.attachId & 15]);
        EXPECT_EQ(c.counted, !Unpinned(f, 0));
        // The writer is held off only by a counted pin.
        EXPECT_EQ(c.counted ? -1 : 0, f.write(300, kKey, 1100));
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
        ASSERT_EQ(0, r.Query({kInPlace | SHM_READ_FROM_OLDEST | SHM_READ_MARK_ONLY, 200}));
        EXPECT_EQ(0u, f.entry(0).dwFlags & SHM_FRAME_UNREAD);
        EXPECT_EQ(-1, r.Query({kInPlace | SHM_READ_MARK_ONLY, 200}));
        EXPECT_EQ(SHM_REASON_NOT_MARK, r.reason());
        EXPECT_EQ(SHM_FRAME_UNREAD, f.entry(1).dwFlags & SHM_FRAME_UNREAD);
        // The writer can take entry 0 but not entry 1.
        DebugLevel quiet(2);
        EXPECT_EQ(0, f.write(800, kKey, 300));  // fills the ring
        EXPECT_EQ(0, f.write(100, kKey, 400));  // over entry 0
        EXPECT_EQ(-1, f.write(100, kKey, 500));
        EXPECT_EQ(SHM_WRITE_UNREAD, f.status());
    }
}

TEST(Reader, TemporaryClientLeavesNoPinBehind) {
    FakeRing f(1000);
    WriteRun(f, 10, 100, 100);
    SharedMemHandle reader = f.readerHandle(3);
    SharedMemReadRequest request = {kInPlace, 0, 1000, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, nullptr, &data, &size, &request));
    EXPECT_EQ(f.base() + f.entry(9).dwOffset, data);
    EXPECT_EQ(100u, size);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(Unpinned(f, i)) << i;

    // Nothing holds the writer back, not even over the frame just read.
    EXPECT_EQ(0, f.write(1000, kKey, 1100));

    // A null request reads in place the same way.
    data = nullptr;
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(&reader, nullptr, &data, &size, nullptr));
    EXPECT_EQ(f.base() + f.entry(0).dwOffset, data);
    EXPECT_TRUE(Unpinned(f, 0));
    EXPECT_EQ(-1, SharedMem_QueryReadBuffer(nullptr, nullptr, &data, &size, nullptr));
}

}  // namespace
