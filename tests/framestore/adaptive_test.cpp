// Adaptive readers: thinned until a tick published in the stamp file opens
// a window, judged by the frames' ticks; recovery of what the thinning
// skipped; the clearing of a stale tick; the layer wait; thinning by
// AttachID.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "read_helpers.h"

namespace readtest {
namespace {

using Ask = Reader::Ask;
using V = std::vector<uint32_t>;

constexpr uint32_t kMarkOutside = SHM_READ_ADAPTIVE_MARK_ONLY;
constexpr uint32_t kKeyStart = SHM_READ_KEY_START;
constexpr uint32_t kOutOfRange = 0, kActive = 1, kReset = 2;
const char *const kLogs[] = {"[shmem] : Adaptive Search out-of-range",
                             "[shmem] : Adaptive Active timestamp ",
                             "[shmem] : Adaptive Reset active timestamp"};

// A ring whose second tag names a fresh stamp file, and a reader on it.
struct Bench {
    FakeRing f;
    StampFile stamp;
    Reader r;
    explicit Bench(uint32_t bytes, int attachId = 3) : f(bytes), stamp(f), r(f, attachId) {}
};

// What one query of a walk ended with.
struct Step {
    int result;
    uint32_t reason;
    int cursor;
    uint32_t active;
    uint32_t layerWait;
};

// Reads entry by entry from the oldest, `n` queries; before query i,
// `before(i)` may publish a tick.
std::vector<Step> Walk(Reader &r, Ask ask, int n,
                       const std::function<void(int)> &before = [](int) {}) {
    std::vector<Step> steps;
    for (int i = 0; i < n; ++i) {
        before(i);
        Ask a = ask;
        if (i == 0) a.flags |= SHM_READ_FROM_OLDEST;
        int result = r.Query(a);
        SharedMemBufClient *c = r.client();
        steps.push_back({result, r.reason(), c->iLastIndex, c->dwAdaptiveActive, c->dwLayerWait});
    }
    return steps;
}

V Reasons(const std::vector<Step> &steps) {
    V reasons;
    for (const Step &s : steps) reasons.push_back(s.result == 0 ? 0u : s.reason);
    return reasons;
}

// Frames 0..39 at 10000..13900, a key frame every fifth. A tick of 11200
// with a window of 1000 ms is published before the reader takes entry 10:
// entries 10..21 lie before the end (12200), 10 and 11 even before the
// tick. At entry 15 a later tick (12000) moves the end to 13000, without a
// new start.
TEST(Adaptive, WindowOpensAndClosesByTheFramesTicks) {
    Bench b(8000);
    WriteRun(b.f, 40, 10000, 100, 5);
    DebugLevel level(6);
    std::vector<Step> steps;
    std::string log = Logged([&] {
        steps = Walk(b.r, {kInPlace | kMarkOutside, 10000, 0, 0, 1000}, 40, [&](int i) {
            if (i == 10) b.stamp.Publish(11200);
            if (i == 15) b.stamp.Publish(12000);
        });
    });
    for (int i = 0; i < 40; ++i) {
        const bool inside = i >= 10 && i < 30, delivered = inside || i % 5 == 0;
        EXPECT_EQ(delivered ? 0 : -1, steps[i].result) << i;
        EXPECT_EQ(delivered ? SHM_REASON_NONE : SHM_REASON_NOT_MARK, steps[i].reason) << i;
        EXPECT_EQ(i, steps[i].cursor);
        EXPECT_EQ(inside ? 1u : 0u, steps[i].active) << i;
    }
    EXPECT_EQ(1, CountOf(log, kLogs[kActive]));
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Active timestamp 12200\n"));
    EXPECT_EQ(12000u, b.stamp.Read());  // a window that ended lately is not cleared
}

// One predicted frame per case, read by a new client: inside the window it
// comes through, outside it is thinned away; a tick more than 120000 ms
// past its window's end is cleared.
TEST(Adaptive, WindowIsJudgedByItsEndAloneAndAStaleTickIsCleared) {
    DebugLevel level(6);
    auto check = [](uint32_t window, uint32_t tick, uint32_t frame, bool inside,
                    bool cleared = false) {
        SCOPED_TRACE(testing::Message() << window << " " << tick << " " << frame);
        Bench b(4000);
        b.stamp.Publish(tick);
        WriteFrames(b.f, {frame}, {Predicted()});
        Outcome got = {};
        std::string log =
            Logged([&] { got = b.r.Do({kInPlace | kMarkOutside, frame, 0, 0, window}); });
        EXPECT_EQ(inside ? Got(0) : Refused(SHM_REASON_NOT_MARK, 0), got);
        EXPECT_EQ(inside ? 1u : 0u, b.r.client()->dwAdaptiveActive);
        EXPECT_EQ(cleared ? 0u : tick, b.stamp.Read());
        EXPECT_EQ(cleared ? 1 : 0, CountOf(log, kLogs[kReset]));
    };
    check(0, 11000, 20999, true);  // no window given: 10000 ms
    check(0, 11000, 21000, false);
    check(1000, 11000, 11999, true);
    check(1000, 11000, 12000, false);
    check(1000, 11000, 5000, true);  // long before the tick: still before the end
    check(1000, 0xFFFFFF00u, 0x2E7, true);  // the end wraps past 0
    check(1000, 0xFFFFFF00u, 0x2E8, false);
    check(1000, 0, 20999, false);  // no tick published
    check(1000, 1000, 122000, false);  // 120000 ms past the end: kept
    check(1000, 1000, 122001, false, true);
}

// Frames 0..19 at 10000..11900, key frames every fifth. Thinned to key
// frames, the reader got 0 and 5 and dropped 6..8; the window opens before
// it takes entry 9, and it goes back to entry 6.
TEST(Adaptive, KeyStartRecoversWhatTheThinningSkipped) {
    Bench b(4000);
    WriteRun(b.f, 20, 10000, 100, 5);
    DebugLevel quiet(2);
    const Ask ask = {kInPlace | kMarkOutside | kKeyStart, 10000, 0, 0, 100000};
    ASSERT_EQ(8, Walk(b.r, ask, 9).back().cursor);
    ASSERT_EQ(5, b.r.client()->iDeliveredIndex);
    b.stamp.Publish(10000);
    for (int i = 6; i < 20; ++i) EXPECT_EQ(Got(i), b.r.Do(ask));
    EXPECT_EQ(Refused(SHM_REASON_LATEST, 19), b.r.Do(ask));
}

// When the frame behind the last delivery is gone, or there never was one,
// the window's first query fails; the next places the reader anew.
TEST(Adaptive, KeyStartFailsOnceWithoutALastDeliveredFrame) {
    const Ask ask = {kInPlace | kMarkOutside | kKeyStart, 10000, 0, 0, 100000};
    {
        // Frames 0..9 fill the ring; the reader got entry 0 and dropped
        // 1..4. The writer then reuses entry 0.
        Bench b(1000);
        WriteRun(b.f, 10, 10000, 100, 5);
        {
            DebugLevel quiet(2);
            Walk(b.r, ask, 5);
        }
        ASSERT_EQ(0, b.r.Release());
        ASSERT_EQ(0, b.f.write(100, kKey, 11000));
        ASSERT_EQ(1, b.f.ring()->iOldestIndex);
        b.stamp.Publish(10000);
        DebugLevel level(6);
        Outcome failed = {}, placed = {};
        uint32_t active = 0;
        std::string log = Logged([&] {
            failed = b.r.Do(ask);
            active = b.r.client()->dwAdaptiveActive;
            placed = b.r.Do({ask.flags, 11000, 0, 0, ask.window});
        });
        EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), failed);
        EXPECT_EQ(1u, active);
        EXPECT_EQ(Got(0), placed);  // inside the window already
        EXPECT_EQ(1, CountOf(log, kLogs[kOutOfRange])) << log;
        EXPECT_EQ(1, CountOf(log, kLogs[kActive])) << log;
    }
    {
        Bench b(4000);
        WriteRun(b.f, 5, 10000, 100);
        b.stamp.Publish(10000);
        DebugLevel level(6);
        const Ask late = {ask.flags, 10400, 0, 0, ask.window};
        Outcome failed = {}, placed = {};
        std::string log = Logged([&] { failed = b.r.Do(late), placed = b.r.Do(late); });
        EXPECT_EQ(Refused(SHM_REASON_FAILED, -1), failed);
        EXPECT_EQ(Got(4), placed);
        EXPECT_EQ(1, CountOf(log, kLogs[kOutOfRange])) << log;
    }
}

// With a layer asked for, outside the window predicted frames below it are
// dropped (reason 12) and the layer replaces the mark-only thinning. A
// window that opens after a predicted frame was delivered waits for layer
// 5 first; after a key frame it doesn't wait.
TEST(Adaptive, LayerWaitAfterAWindowOpensOnAPredictedFrame) {
    DebugLevel quiet(2);
    auto check = [](const V &flags, const V &reasons, const V &waits) {
        Bench b(4000);
        V ticks;
        for (size_t i = 0; i < flags.size(); ++i) ticks.push_back(10000 + 100 * i);
        WriteFrames(b.f, ticks, flags);
        std::vector<Step> steps =
            Walk(b.r, {kInPlace | kMarkOutside | WantLayer(2), 10000, 0, 0, 100000},
                 static_cast<int>(flags.size()), [&](int i) {
                     if (i == 4) b.stamp.Publish(10000);
                 });
        EXPECT_EQ(reasons, Reasons(steps));
        V got;
        for (const Step &s : steps) got.push_back(s.layerWait);
        EXPECT_EQ(waits, got);
    };
    // After a predicted frame.
    check({kKey, Predicted(0), Predicted(2), Predicted(0), Predicted(0), kKey, Predicted(0),
           Predicted(6), Predicted(5), Predicted(0), Predicted(2)},
          {0, 12, 0, 12, 12, 0, 12, 0, 0, 0, 0}, {0, 0, 0, 0, 5, 5, 5, 5, 0, 0, 0});
    // After a key frame.
    check({kKey, Predicted(0), Predicted(1), kKey, Predicted(0), Predicted(1), Predicted(5)},
          {0, 12, 12, 0, 0, 0, 0}, V(7, 0));
}

// Frames 0..7 40 ms apart, key frames at 0 and 4, at most one per 100 ms.
TEST(Adaptive, ThinningByAttachIdOutsideTheWindowOnly) {
    const V all(8, 0), marks = {0, 11, 11, 11, 0, 11, 11, 11};
    const V rate = {0, 10, 10, 0, 10, 0, 10, 10}, both = {0, 10, 10, 11, 0, 11, 11, 11};
    DebugLevel quiet(2);
    auto check = [](int attachId, uint32_t flags, bool window, const V &reasons) {
        SCOPED_TRACE(testing::Message() << "AttachID " << attachId << " flags 0x" << std::hex
                                        << flags << (window ? " inside" : " outside"));
        Bench b(4000, attachId);
        if (window) b.stamp.Publish(1000);
        WriteRun(b.f, 8, 1000, 40, 4);
        std::vector<Step> steps =
            Walk(b.r, {kInPlace | SHM_READ_ADAPTIVE_BY_ATTACH | flags, 1000, 0, 100, 100000}, 8);
        EXPECT_EQ(reasons, Reasons(steps));
        for (const Step &s : steps) EXPECT_EQ(window ? 1u : 0u, s.active);
    };
    check(0, 0, false, marks);
    check(1, 0, false, rate);
    check(2, 0, false, both);
    check(3, 0, false, all);
    check(0, SHM_READ_ADAPTIVE_RATE_LIMIT, false, both);  // the flags add to the AttachID
    check(3, SHM_READ_ADAPTIVE_MARK_ONLY, false, marks);
    for (int attachId = 0; attachId < 4; ++attachId) check(attachId, 0, true, all);
    check(3, SHM_READ_MARK_ONLY, true, marks);  // the plain filters hold inside too
    check(3, SHM_READ_RATE_LIMIT, true, rate);
}

TEST(Adaptive, StampFileThatCannotBeMadeLeavesTheThinning) {
    FakeRing f(4000);
    strcpy(f.ring()->szSecondTag, "/tmp/no-such-dir/stamp");
    WriteRun(f, 3, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel quiet(2);
    EXPECT_EQ((V{0, 11, 11}), Reasons(Walk(r, {kInPlace | kMarkOutside, 10000}, 3)));
    EXPECT_EQ(nullptr, r.handle()->pdwAdaptiveStamp);
}

// Without a second tag the ring uses the device's stamp file; only inside
// the test runner's private /run.
TEST(Adaptive, RingWithoutSecondTagUsesTheDeviceStampFile) {
    const char *isolated = getenv("MOLK_ISOLATED");
    if (isolated == nullptr || strcmp(isolated, "1") != 0) {
        GTEST_SKIP() << "needs the private /run of tests/support/isolated.sh";
    }
    StampFile stamp(std::string("/var/run/timeshift_adaptive.active"));
    FakeRing f(4000);
    ASSERT_FALSE(stamp.Exists());
    WriteRun(f, 3, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel quiet(2);
    ASSERT_EQ(Got(0), r.Do({kInPlace | kMarkOutside | SHM_READ_FROM_OLDEST, 10000}));
    EXPECT_EQ(0u, stamp.Read());  // made, holding no tick
    ASSERT_NE(nullptr, r.handle()->pdwAdaptiveStamp);
    EXPECT_EQ(Refused(SHM_REASON_NOT_MARK, 1), r.Do({kInPlace | kMarkOutside, 10000}));
    stamp.Publish(10000);  // read on every query through the mapping
    EXPECT_EQ(Got(2), r.Do({kInPlace | kMarkOutside, 10000}));
    EXPECT_EQ(1u, r.client()->dwAdaptiveActive);
}

}  // namespace
}  // namespace readtest
