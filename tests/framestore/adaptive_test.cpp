// Adaptive readers: thinned until a tick published in the stamp file opens
// a window, judged by the frames' ticks; recovery of what the thinning
// skipped; the clearing of a stale tick; the layer wait; thinning by
// AttachID.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "fake_ring.h"
#include "read_helpers.h"
#include "sharedmem.h"

namespace {

using readtest::DebugLevel;
using readtest::kKey;
using readtest::Predicted;
using readtest::Reader;
using readtest::StampFile;
using readtest::WantLayer;
using readtest::WriteFrames;
using readtest::WriteRun;
using Ask = Reader::Ask;

constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;
constexpr uint32_t kMarkOutside = SHM_READ_ADAPTIVE_MARK_ONLY;
constexpr uint32_t kKeyStart = SHM_READ_KEY_START;

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

std::vector<uint32_t> Reasons(const std::vector<Step> &steps) {
    std::vector<uint32_t> reasons;
    for (const Step &s : steps) reasons.push_back(s.result == 0 ? 0u : s.reason);
    return reasons;
}

int CountOf(const std::string &text, const std::string &what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Frames 0..39 at ticks 10000..13900, a key frame every fifth. A tick of
// 11200 with a window of 1000 ms is published when the reader is about to
// take entry 10: entries 10..21 lie before the end (12200), entries 10 and
// 11 even before the tick itself. At entry 15 a later tick (12000) moves the
// end to 13000, without a new start.
TEST(Adaptive, WindowOpensAndClosesByTheFramesTicks) {
    FakeRing f(8000);
    StampFile stamp(f);
    WriteRun(f, 40, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel level(6);
    testing::internal::CaptureStdout();
    std::vector<Step> steps =
        Walk(r, {kInPlace | kMarkOutside, 10000, 0, 0, 1000}, 40, [&](int i) {
            if (i == 10) stamp.Publish(11200);
            if (i == 15) stamp.Publish(12000);
        });
    std::string log = testing::internal::GetCapturedStdout();

    for (int i = 0; i < 40; ++i) {
        SCOPED_TRACE(i);
        bool inside = i >= 10 && i < 30;
        bool delivered = inside || i % 5 == 0;
        EXPECT_EQ(delivered ? 0 : -1, steps[i].result);
        EXPECT_EQ(delivered ? SHM_REASON_NONE : SHM_REASON_NOT_MARK, steps[i].reason);
        EXPECT_EQ(i, steps[i].cursor);
        EXPECT_EQ(inside ? 1u : 0u, steps[i].active);
    }
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Active timestamp "));
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Active timestamp 12200\n"));
    EXPECT_EQ(12000u, stamp.Read());  // a window that ended lately is not cleared
}

TEST(Adaptive, MissingStampFileIsCreatedEmpty) {
    FakeRing f(4000);
    StampFile stamp(f);
    WriteRun(f, 2, 10000, 100);
    Reader r(f, 3);
    ASSERT_FALSE(stamp.Exists());
    ASSERT_EQ(0, r.Query({kInPlace | kMarkOutside, 10100}));
    EXPECT_EQ(0u, stamp.Read());
    ASSERT_NE(nullptr, r.handle()->pdwAdaptiveStamp);
    // The word is read on every query through the mapping.
    stamp.Publish(10050);
    EXPECT_EQ(10050u, *r.handle()->pdwAdaptiveStamp);
}

// One predicted frame per case, read by a new client: inside the window it
// comes through, outside it is thinned away.
TEST(Adaptive, WindowIsJudgedByItsEndAlone) {
    struct Case {
        uint32_t window, stamp, frame;
        bool inside;
    } cases[] = {
        {0, 11000, 20999, true},  // no window given: 10000 ms
        {0, 11000, 21000, false},
        {1000, 11000, 11999, true},
        {1000, 11000, 12000, false},
        {1000, 11000, 5000, true},  // long before the tick: still before the end
        {1000, 0xFFFFFF00u, 0x2E7, true},  // the end wraps past 0
        {1000, 0xFFFFFF00u, 0x2E8, false},
        {1000, 0, 20999, false},  // no tick published
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.window << " " << c.stamp << " " << c.frame);
        FakeRing f(4000);
        StampFile stamp(f);
        stamp.Publish(c.stamp);
        WriteFrames(f, {c.frame}, {Predicted()});
        Reader r(f, 3);
        int result = r.Query({kInPlace | kMarkOutside, c.frame, 0, 0, c.window});
        EXPECT_EQ(c.inside ? 0 : -1, result);
        EXPECT_EQ(c.inside ? SHM_REASON_NONE : SHM_REASON_NOT_MARK, r.reason());
        EXPECT_EQ(c.inside ? 1u : 0u, r.client()->dwAdaptiveActive);
    }
}

TEST(Adaptive, StaleTickIsClearedOnlyBeyond120000MsPastTheWindow) {
    struct Case {
        uint32_t frame;
        bool cleared;
    } cases[] = {{121999, false}, {122000, false}, {122001, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.frame);
        FakeRing f(4000);
        StampFile stamp(f);
        stamp.Publish(1000);  // window 1000: ends at 2000
        WriteFrames(f, {c.frame}, {Predicted()});
        Reader r(f, 3);
        DebugLevel level(6);
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, r.Query({kInPlace | kMarkOutside, c.frame, 0, 0, 1000}));
        std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(SHM_REASON_NOT_MARK, r.reason());
        EXPECT_EQ(c.cleared ? 0u : 1000u, stamp.Read());
        EXPECT_EQ(c.cleared ? 1 : 0, CountOf(log, "[shmem] : Adaptive Reset active timestamp"));
    }
}

// Frames 0..19 at 10000..11900, key frames every fifth. Thinned to key
// frames, the reader got 0 and 5 and dropped 6..8; the window opens when it
// is about to take entry 9, and it goes back to entry 6.
TEST(Adaptive, KeyStartRecoversWhatTheThinningSkipped) {
    FakeRing f(4000);
    StampFile stamp(f);
    WriteRun(f, 20, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel quiet(2);
    const Ask ask = {kInPlace | kMarkOutside | kKeyStart, 10000, 0, 0, 100000};
    std::vector<Step> thinned = Walk(r, ask, 9);
    ASSERT_EQ(8, thinned.back().cursor);
    ASSERT_EQ(5, r.client()->iDeliveredIndex);

    stamp.Publish(10000);
    std::vector<int> delivered;
    for (int guard = 0; guard < 40 && r.Query(ask) == 0; ++guard) {
        delivered.push_back(r.deliveredEntry());
    }
    EXPECT_EQ(SHM_REASON_LATEST, r.reason());
    std::vector<int> expected;
    for (int i = 6; i < 20; ++i) expected.push_back(i);
    EXPECT_EQ(expected, delivered);
}

TEST(Adaptive, KeyStartFailsOnceWhenTheLastDeliveredFrameIsGone) {
    // Frames 0..9 fill the ring; the reader got entry 0 and dropped 1..4.
    // The writer then reuses entry 0.
    FakeRing f(1000);
    StampFile stamp(f);
    WriteRun(f, 10, 10000, 100, 5);
    Reader r(f, 3);
    const Ask ask = {kInPlace | kMarkOutside | kKeyStart, 10000, 0, 0, 100000};
    {
        DebugLevel quiet(2);
        Walk(r, ask, 5);
    }
    ASSERT_EQ(4, r.client()->iLastIndex);
    ASSERT_EQ(0, r.Release());
    ASSERT_EQ(0, f.write(100, kKey, 11000));
    ASSERT_EQ(1, f.ring()->iOldestIndex);

    stamp.Publish(10000);
    DebugLevel level(6);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, r.Query(ask));
    EXPECT_EQ(SHM_REASON_FAILED, r.reason());
    EXPECT_EQ(-1, r.client()->iLastIndex);
    EXPECT_EQ(1u, r.client()->dwAdaptiveActive);
    // The next query places the reader anew, inside the window already.
    Ask again = ask;
    again.ref = 11000;
    ASSERT_EQ(0, r.Query(again));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, r.deliveredEntry());
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Search out-of-range"));
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Active timestamp "));
}

TEST(Adaptive, KeyStartOfAClientThatNeverGotAFrameFailsOnce) {
    FakeRing f(4000);
    StampFile stamp(f);
    WriteRun(f, 5, 10000, 100);
    stamp.Publish(10000);
    Reader r(f, 3);
    DebugLevel level(6);
    const Ask ask = {kInPlace | kMarkOutside | kKeyStart, 10400, 0, 0, 100000};
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, r.Query(ask));
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(SHM_REASON_FAILED, r.reason());
    EXPECT_EQ(-1, r.client()->iLastIndex);
    EXPECT_EQ(1, CountOf(log, "[shmem] : Adaptive Search out-of-range"));
    ASSERT_EQ(0, r.Query(ask));
    EXPECT_EQ(4, r.deliveredEntry());
}

// With a layer asked for, outside the window predicted frames below it are
// dropped (reason 12) and the layer replaces the mark-only thinning. A
// window that opens after a predicted frame was delivered waits for layer 5
// first; after a key frame it doesn't wait.
TEST(Adaptive, LayerWaitAfterAWindowOpensOnAPredictedFrame) {
    struct Case {
        const char *name;
        std::vector<uint32_t> flags;
        int publishAt;
        std::vector<uint32_t> reasons;
        std::vector<uint32_t> waits;
    } cases[] = {
        {"after a predicted frame",
         {kKey, Predicted(0), Predicted(2), Predicted(0), Predicted(0), kKey, Predicted(0),
          Predicted(6), Predicted(5), Predicted(0), Predicted(2)},
         4,
         {0, 12, 0, 12, 12, 0, 12, 0, 0, 0, 0},
         {0, 0, 0, 0, 5, 5, 5, 5, 0, 0, 0}},
        {"after a key frame",
         {kKey, Predicted(0), Predicted(1), kKey, Predicted(0), Predicted(1), Predicted(5)},
         4,
         {0, 12, 12, 0, 0, 0, 0},
         {0, 0, 0, 0, 0, 0, 0}},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeRing f(4000);
        StampFile stamp(f);
        std::vector<uint32_t> ticks;
        for (size_t i = 0; i < c.flags.size(); ++i) ticks.push_back(10000 + 100 * i);
        WriteFrames(f, ticks, c.flags);
        Reader r(f, 3);
        std::vector<Step> steps = Walk(r, {kInPlace | kMarkOutside | WantLayer(2), 10000, 0, 0,
                                           100000},
                                       static_cast<int>(c.flags.size()), [&](int i) {
                                           if (i == c.publishAt) stamp.Publish(10000);
                                       });
        EXPECT_EQ(c.reasons, Reasons(steps));
        std::vector<uint32_t> waits;
        for (const Step &s : steps) waits.push_back(s.layerWait);
        EXPECT_EQ(c.waits, waits);
    }
}

// Frames 0..7 40 ms apart, key frames at 0 and 4, at most one per 100 ms.
TEST(Adaptive, ThinningByAttachIdOutsideTheWindowOnly) {
    const std::vector<uint32_t> all = {0, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<uint32_t> marks = {0, 11, 11, 11, 0, 11, 11, 11};
    const std::vector<uint32_t> rate = {0, 10, 10, 0, 10, 0, 10, 10};
    const std::vector<uint32_t> both = {0, 10, 10, 11, 0, 11, 11, 11};
    struct Case {
        int attachId;
        uint32_t flags;
        bool window;
        std::vector<uint32_t> reasons;
    } cases[] = {
        {0, 0, false, marks},
        {1, 0, false, rate},
        {2, 0, false, both},
        {3, 0, false, all},
        {0, SHM_READ_ADAPTIVE_RATE_LIMIT, false, both},  // the flags add to the AttachID
        {3, SHM_READ_ADAPTIVE_MARK_ONLY, false, marks},
        {0, 0, true, all},
        {1, 0, true, all},
        {2, 0, true, all},
        {3, 0, true, all},
        {3, SHM_READ_MARK_ONLY, true, marks},  // the plain filters hold inside too
        {3, SHM_READ_RATE_LIMIT, true, rate},
    };
    DebugLevel quiet(2);
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "AttachID " << c.attachId << " flags 0x" << std::hex
                                        << c.flags << (c.window ? " inside" : " outside"));
        FakeRing f(4000);
        StampFile stamp(f);
        if (c.window) stamp.Publish(1000);
        WriteRun(f, 8, 1000, 40, 4);
        Reader r(f, c.attachId);
        std::vector<Step> steps =
            Walk(r, {kInPlace | SHM_READ_ADAPTIVE_BY_ATTACH | c.flags, 1000, 0, 100, 100000}, 8);
        EXPECT_EQ(c.reasons, Reasons(steps));
        for (const Step &s : steps) EXPECT_EQ(c.window ? 1u : 0u, s.active);
    }
}

TEST(Adaptive, StampFileThatCannotBeMadeLeavesTheThinning) {
    FakeRing f(4000);
    strcpy(f.ring()->szSecondTag, "/tmp/no-such-dir/stamp");
    WriteRun(f, 3, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel quiet(2);
    std::vector<Step> steps = Walk(r, {kInPlace | kMarkOutside, 10000}, 3);
    EXPECT_EQ((std::vector<uint32_t>{0, 11, 11}), Reasons(steps));
    EXPECT_EQ(nullptr, r.handle()->pdwAdaptiveStamp);
}

// Without a second tag the ring uses the device's stamp file. Only inside
// the test runner's private /run.
TEST(Adaptive, RingWithoutSecondTagUsesTheDeviceStampFile) {
    const char *isolated = getenv("MOLK_ISOLATED");
    if (isolated == nullptr || strcmp(isolated, "1") != 0) {
        GTEST_SKIP() << "needs the private /run of tests/support/isolated.sh";
    }
    const char *path = "/var/run/timeshift_adaptive.active";
    unlink(path);
    FakeRing f(4000);
    WriteRun(f, 3, 10000, 100, 5);
    Reader r(f, 3);
    DebugLevel quiet(2);
    ASSERT_EQ(0, r.Query({kInPlace | kMarkOutside | SHM_READ_FROM_OLDEST, 10000}));
    ASSERT_EQ(0, access(path, F_OK));
    ASSERT_NE(nullptr, r.handle()->pdwAdaptiveStamp);
    EXPECT_EQ(0u, *r.handle()->pdwAdaptiveStamp);
    EXPECT_EQ(-1, r.Query({kInPlace | kMarkOutside, 10000}));
    EXPECT_EQ(SHM_REASON_NOT_MARK, r.reason());

    FILE *file = fopen(path, "r+b");
    ASSERT_NE(nullptr, file);
    const uint32_t tick = 10000;
    ASSERT_EQ(1u, fwrite(&tick, sizeof tick, 1, file));
    fclose(file);
    EXPECT_EQ(0, r.Query({kInPlace | kMarkOutside, 10000}));
    EXPECT_EQ(1u, r.client()->dwAdaptiveActive);
    unlink(path);
}

}  // namespace
