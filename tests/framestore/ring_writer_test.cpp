// The ring writer on a ring in ordinary memory with a private lock.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

struct Indices {
    int o, l, b, w;
    uint32_t writeOffset;
    bool operator==(const Indices &x) const {
        return o == x.o && l == x.l && b == x.b && w == x.w && writeOffset == x.writeOffset;
    }
};

std::ostream &operator<<(std::ostream &os, const Indices &x) {
    return os << "O=" << x.o << " L=" << x.l << " B=" << x.b << " W=" << x.w
              << " off=" << x.writeOffset;
}

Indices IndicesOf(const SharedMemSectorHeader *r) {
    return {r->iOldestIndex, r->iLatestIndex, r->iBoundaryIndex, r->iWriteIndex, r->dwWriteOffset};
}

bool Marked(const SharedMemFrameEntry &e) { return (e.dwFlags & SHM_FRAME_WRITING) != 0; }

// Keeps the conflict messages of a test out of the log unless it looks at
// them itself.
class Quiet {
public:
    explicit Quiet(uint32_t level = 2) : saved_(gShm_DebugLevel) { gShm_DebugLevel = level; }
    ~Quiet() { gShm_DebugLevel = saved_; }

private:
    uint32_t saved_;
};

TEST(RingWriter, WorkedLapMovesIndicesAndMarksAsDocumented) {
    FakeRing f(1000);
    const uint32_t s = f.start();
    struct Step {
        uint32_t size;
        int entry;
        uint32_t at;
        Indices after;
    } steps[] = {
        {300, 0, 0, {0, 0, 0, 1, s + 300}},
        {300, 1, 300, {0, 1, 1, 2, s + 600}},
        {300, 2, 600, {0, 2, 2, 3, s + 900}},
        {300, 0, 0, {1, 0, 2, 1, s + 300}},  // rewinds
        {100, 1, 300, {2, 1, 2, 2, s + 400}},
        {100, 2, 400, {0, 2, 2, 3, s + 500}},  // entry 2 reused: one generation
    };
    uint32_t tick = 1000;
    for (const Step &step : steps) {
        SCOPED_TRACE(testing::Message() << "frame at " << step.at);
        ASSERT_EQ(0, f.write(step.size, 0, tick += 40));
        EXPECT_EQ(step.after, IndicesOf(f.ring()));
        EXPECT_EQ(s + step.at, f.entry(step.entry).dwOffset);
        EXPECT_EQ(step.size, f.entry(step.entry).dwSize);
        EXPECT_FALSE(Marked(f.entry(step.entry)));
    }
    EXPECT_TRUE(f.isOneGeneration());
    EXPECT_EQ(80u, f.ring()->dwDuration);  // ticks 1160 .. 1240 of entries 0 .. 2
}

TEST(RingWriter, FirstFrameAndTicksAsGivenOrStamped) {
    FakeRing f(1000);
    EXPECT_TRUE(f.isEmpty());
    ASSERT_EQ(0, f.write(1, SHM_FRAME_P | 0x30000u, 0xFFFFFFF0u));
    EXPECT_EQ((Indices{0, 0, 0, 1, f.start() + 4}), IndicesOf(f.ring()));
    EXPECT_EQ(0u, f.ring()->dwDuration);
    EXPECT_EQ(4u, f.entry(0).dwSize);  // rounded up
    EXPECT_EQ(SHM_FRAME_P | 0x30000u, f.entry(0).dwFlags);
    ASSERT_EQ(0, f.write(4, 0, 0x10u));  // across the wrap
    EXPECT_EQ(0x20u, f.ring()->dwDuration);
    ASSERT_EQ(0, f.write(4, 0, 0xFFFFFF00u));  // earlier than before: kept
    EXPECT_EQ(0xFFFFFF00u, f.entry(2).dwTimeTick);
    EXPECT_EQ(0xF0u, f.ring()->dwDuration);
    ASSERT_EQ(0, f.write(4, 0, 0));
    EXPECT_NE(0u, f.entry(3).dwTimeTick);
}

TEST(RingWriter, FrameOfTheWholeAreaFitsAndOneWordMoreNever) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(100));
    ASSERT_EQ(0, f.write(1000));
    EXPECT_TRUE(f.isOneGeneration());
    EXPECT_EQ(0, f.ring()->iLatestIndex);
    EXPECT_EQ(f.ring()->dwEndOffset, f.ring()->dwWriteOffset);

    Indices before = IndicesOf(f.ring());
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, f.write(1001));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(SHM_WRITE_TOO_LARGE, f.status());
    EXPECT_EQ(before, IndicesOf(f.ring()));
    EXPECT_FALSE(Marked(f.entry(0)));
    EXPECT_EQ("[shmem] : query 1004 larger than maximum queue 1000\n", out);
    // The status goes with the next query.
    EXPECT_EQ(0, f.write(4));
    EXPECT_EQ(0u, f.status());
}

TEST(RingWriter, ExactFitNeedsNoRewindButTheNextFrameDoes) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(500));
    ASSERT_EQ(0, f.write(500));
    EXPECT_EQ((Indices{0, 1, 1, 2, f.ring()->dwEndOffset}), IndicesOf(f.ring()));
    ASSERT_EQ(0, f.write(4));
    EXPECT_EQ((Indices{1, 0, 1, 1, f.start() + 4}), IndicesOf(f.ring()));
    EXPECT_TRUE(f.isTwoGenerations());
}

TEST(RingWriter, EntryTableLimitStopsThePlainQueryAndRewindsTheAutomaticOne) {
    FakeRing f(8 * SHM_FRAME_ENTRIES);
    for (int i = 0; i < SHM_FRAME_ENTRIES; ++i) ASSERT_EQ(0, f.write(4, 0, 1 + i));
    EXPECT_EQ(1279, f.ring()->iLatestIndex);
    EXPECT_EQ(1280, f.ring()->iWriteIndex);
    EXPECT_EQ(1279, f.ring()->iMaxIndex);

    uint8_t *place = nullptr;
    uint32_t size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(4u, size);  // bytes are left, entries are not
    EXPECT_EQ(0u, f.status());

    SharedMemWriteInfo info = {f.base() + f.ring()->dwWriteOffset, 0, 4, 9};
    Quiet quiet;
    EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ(1280, f.ring()->iWriteIndex);

    ASSERT_EQ(0, f.write(4, 0, 5000));
    EXPECT_EQ((Indices{1, 0, 1279, 1, f.start() + 4}), IndicesOf(f.ring()));
}

TEST(RingWriter, RewindBlockedByAPinKeepsIndicesAndEarlierMarks) {
    FakeRing f(1000);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, f.write(190));  // entries 0..4, up to S+950
    ASSERT_EQ(0, f.write(100));  // new lap: entry 0 at S, old frames 1..4 remain
    ASSERT_TRUE(f.isTwoGenerations());
    const int w = f.ring()->iWriteIndex;
    SharedMemHandle reader = f.readerHandle(7);
    SharedMemBufClient *held = f.pin(w + 2, &reader);
    ASSERT_NE(nullptr, held);

    Indices before = IndicesOf(f.ring());
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, f.write(950));  // does not fit behind S+100: rewinds over W..B
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(SHM_WRITE_OCCUPIED, f.status());
    EXPECT_EQ(before, IndicesOf(f.ring()));
    EXPECT_TRUE(Marked(f.entry(w)));
    EXPECT_TRUE(Marked(f.entry(w + 1)));
    EXPECT_FALSE(Marked(f.entry(w + 2)));
    char expected[128];
    snprintf(expected, sizeof expected, "[shmem] : frame %d occupied, rewind fail. %d-%d-%d\n",
             w + 2, w, before.o, before.b);
    EXPECT_EQ(expected, out);

    // Released, the rewind passes.
    EXPECT_EQ(0, SharedMem_FreeBufClient(&held));
    EXPECT_EQ(0, f.write(950));
}

TEST(RingWriter, ClearFrameOccupiedTakesBackTheMarksOfAGivenUpFrame) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));
    ASSERT_EQ(0, f.write(104));  // does not fit behind S+900: new lap
    ASSERT_EQ(0, f.write(196));  // two generations: new 0,1 at S..S+300, old 2 at S+600
    ASSERT_TRUE(f.isTwoGenerations());
    uint8_t *place = nullptr;
    // W=2 is entry 2 itself: it is taken even though its bytes are out of reach.
    ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 100));
    EXPECT_TRUE(Marked(f.entry(2)));
    SharedMem_ClearFrameOccupied(f.ring(), 2);
    EXPECT_FALSE(Marked(f.entry(2)));

    // The run stops at the first entry without the mark, and at B.
    f.entry(0).dwFlags |= SHM_FRAME_WRITING;
    f.entry(2).dwFlags |= SHM_FRAME_WRITING;
    SharedMem_ClearFrameOccupied(f.ring(), 0);
    EXPECT_FALSE(Marked(f.entry(0)));
    EXPECT_TRUE(Marked(f.entry(2)));  // entry 1 was unmarked
    SharedMem_ClearFrameOccupied(f.ring(), 3);  // above B: nothing
    EXPECT_TRUE(Marked(f.entry(2)));
    f.entry(3).dwFlags |= SHM_FRAME_WRITING;  // a stale entry behind B
    SharedMem_ClearFrameOccupied(f.ring(), 2);
    EXPECT_FALSE(Marked(f.entry(2)));
    EXPECT_TRUE(Marked(f.entry(3)));
    SharedMem_ClearFrameOccupied(f.ring(), -1);
    SharedMem_ClearFrameOccupied(nullptr, 0);
}

TEST(RingWriter, UnreadFrameStopsTheWriterUntilAReaderHasHadIt) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(400, SHM_FRAME_UNREAD));
    ASSERT_EQ(0, f.write(400));
    Indices before = IndicesOf(f.ring());
    {
        Quiet quiet(6);
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, f.write(400));  // rewind is fine (W > B), entry 0 is not
        EXPECT_EQ("", testing::internal::GetCapturedStdout());
    }
    EXPECT_EQ(SHM_WRITE_UNREAD, f.status());
    // The rewind stands; the refused walk changed nothing else.
    EXPECT_TRUE(f.isJustRewound());
    EXPECT_EQ(before.l, f.ring()->iLatestIndex);
    EXPECT_EQ(-1, f.write(400));
    EXPECT_EQ(SHM_WRITE_UNREAD, f.status());

    SharedMemHandle reader = f.readerHandle(0);
    SharedMemBufClient *client = f.pin(0, &reader);
    ASSERT_NE(nullptr, client);
    EXPECT_EQ(0u, f.entry(0).dwFlags & SHM_FRAME_UNREAD);
    EXPECT_EQ(-1, f.write(400));
    EXPECT_EQ(SHM_WRITE_OCCUPIED, f.status());
    EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(client));
    EXPECT_EQ(0, f.write(400));
    SharedMem_FreeBufClient(&client);
}

TEST(RingWriter, RewoundRingStillServesTheSurvivingGeneration) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));
    uint32_t status = 7;
    EXPECT_EQ(0, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));  // W > B: nothing to do
    EXPECT_EQ(0u, status);
    EXPECT_EQ(0, SharedMem_RewindWriteBuffer(f.handle()));
    EXPECT_EQ((Indices{0, 2, 2, 0, f.start()}), IndicesOf(f.ring()));
    EXPECT_TRUE(f.isJustRewound());
    SharedMemHandle reader = f.readerHandle(1);
    for (int i = 0; i < 3; ++i) {
        SharedMemBufClient *c = f.pin(i, &reader);
        EXPECT_NE(nullptr, c) << i;
        SharedMem_FreeBufClient(&c);
    }
}

TEST(RingWriter, NewLapThatOutgrowsAllOldFramesLeavesOneGeneration) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));
    ASSERT_EQ(0, f.write(950));
    EXPECT_EQ((Indices{0, 0, 0, 1, f.start() + 952}), IndicesOf(f.ring()));
}

TEST(RingWriter, ManySmallFramesCatchUpWithTheOldestEntry) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(500));
    ASSERT_EQ(0, f.write(400));
    ASSERT_EQ(0, f.write(200));  // rewinds: entry 0 lost, O=1
    EXPECT_EQ((Indices{1, 0, 1, 1, f.start() + 200}), IndicesOf(f.ring()));
    // Entry 1's bytes start at S+500, far from S+204, but its entry is W's.
    ASSERT_EQ(0, f.write(4));
    EXPECT_EQ((Indices{0, 1, 1, 2, f.start() + 204}), IndicesOf(f.ring()));
    EXPECT_TRUE(f.isOneGeneration());
}

TEST(RingWriter, QueryOverAPinnedOldFrameIsRefusedAndSaysWhy) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));
    SharedMemHandle reader = f.readerHandle(15);
    SharedMemBufClient *held = f.pin(1, &reader);
    ASSERT_NE(nullptr, held);
    ASSERT_EQ(0, f.write(300));  // entry 0 again
    Indices before = IndicesOf(f.ring());
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, f.write(100));
    EXPECT_EQ("[shmem] : frame 1 occupied by somebody!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(SHM_WRITE_OCCUPIED, f.status());
    EXPECT_EQ(before, IndicesOf(f.ring()));
    EXPECT_EQ(1, f.entry(1).abyAccessCount[15]);
    SharedMem_FreeBufClient(&held);
}

TEST(RingWriter, StaleEntryPinsAreWipedAndStaleUnreadStopsTheWriter) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(100));
    f.entry(1).abyAccessCount[4] = 2;  // left by a reader that died long ago
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, f.write(100));
    EXPECT_EQ("[shmem] : unknown frame 1 OCCUPIED!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, f.entry(1).abyAccessCount[4]);

    f.entry(2).dwFlags = SHM_FRAME_UNREAD;
    Indices before = IndicesOf(f.ring());
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, f.write(100));
    EXPECT_EQ("[shmem] : unknown frame 2 UNREAD!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(SHM_WRITE_UNREAD, f.status());
    EXPECT_EQ(before, IndicesOf(f.ring()));
}

TEST(RingWriter, PlainCycleGrantsWhatIsLeftAndRewindsOnRequest) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(900));
    uint8_t *place = nullptr;
    uint32_t size = 300;
    EXPECT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(100u, size);
    EXPECT_EQ(f.base() + f.start() + 900, place);

    uint32_t status = 9;
    ASSERT_EQ(0, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));
    ASSERT_EQ(0, SharedMem_RewindWriteBuffer(f.handle()));
    size = 300;
    ASSERT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(300u, size);
    SharedMemWriteInfo info = {place, 0, 300, 50};
    ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ((Indices{0, 0, 0, 1, f.start() + 300}), IndicesOf(f.ring()));

    ASSERT_EQ(0, f.write(700));  // exactly to the end
    size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(0u, f.status());
}

TEST(RingWriter, PrepareRewindRefusesPinnedAndUnreadFrames) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));
    ASSERT_EQ(0, f.write(104));  // new lap: W=1 O=1 B=2
    f.entry(2).dwFlags |= SHM_FRAME_UNREAD;
    uint32_t status = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));
    EXPECT_EQ("[shmem] : frame 2 unread, rewind fail. 1-1-2\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(SHM_WRITE_UNREAD, status);
    EXPECT_TRUE(Marked(f.entry(1)));
    f.entry(2).dwFlags &= ~SHM_FRAME_UNREAD;
    f.entry(2).abyAccessCount[0] = 1;
    Quiet quiet;
    EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));
    EXPECT_EQ(SHM_WRITE_OCCUPIED, status);
    EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(nullptr, &status));
}

TEST(RingWriter, UpdateRefusesPlacesOutsideTheDataAreaAndChangesNothing) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(100));
    Indices before = IndicesOf(f.ring());
    SharedMemFrameEntry entry1 = f.entry(1);
    struct Case {
        uint8_t *place;
        uint32_t size;
        bool logged;
    } cases[] = {
        {f.base() - 4, 4, false},                       // below the base
        {f.base() + f.start() + 100, 0, false},         // no size
        {f.base() + f.start() + 100, 901, true},        // past the end
        {f.base() + 128, 4, true},                      // inside the headers
    };
    for (const Case &c : cases) {
        SharedMemWriteInfo info = {c.place, 0, c.size, 5};
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), &info));
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.logged ? "[shmem] : update write fail, buffer or index not enough!" : "", out);
        EXPECT_EQ(before, IndicesOf(f.ring()));
        EXPECT_EQ(0, memcmp(&entry1, &f.entry(1), sizeof entry1));
    }
}

TEST(RingWriter, NullArgumentsAreRefused) {
    FakeRing f(1000);
    uint8_t *place = nullptr;
    uint32_t size = 4, status = 0;
    SharedMemWriteInfo info = {f.base() + f.start(), 0, 4, 1};
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(nullptr, &place, &size));
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), nullptr, &size));
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, nullptr));
    EXPECT_EQ(-1, SharedMem_QueryAutoRewindWriteBuffer(nullptr, &place, 4));
    EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(nullptr, &info));
    EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), nullptr));
    EXPECT_EQ(-1, SharedMem_RewindWriteBuffer(nullptr));
    EXPECT_EQ(-1, SharedMem_QueryWriteStatus(nullptr, &status));
    EXPECT_EQ(-1, SharedMem_CheckFrameOccupied(nullptr, 0, &status));
    SharedMemHandle headless = *f.handle();
    headless.ptHeader = nullptr;
    EXPECT_EQ(-1, SharedMem_QueryAutoRewindWriteBuffer(&headless, &place, 4));
    EXPECT_TRUE(f.isEmpty());
}

TEST(RingWriter, FailedLockEndsTheQueryWithoutAStatus) {
    FakeRing f(1000);
    SharedMemHandle broken = *f.handle();
    broken.iSemId = -1;
    uint8_t *place = nullptr;
    Quiet quiet;
    EXPECT_EQ(-1, SharedMem_QueryAutoRewindWriteBuffer(&broken, &place, 4));
    EXPECT_EQ(0u, broken.dwWriteStatus);
    uint32_t size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(&broken, &place, &size));
    EXPECT_TRUE(f.isEmpty());
}

TEST(RingWriter, DumpFrameOccupiedPrintsTheCountersAndTheirSum) {
    SharedMemFrameEntry entry = {};
    entry.abyAccessCount[0] = 2;
    entry.abyAccessCount[15] = 255;
    uint32_t sum = 0;
    testing::internal::CaptureStdout();
    SharedMem_DumpFrameOccupied(&entry, &sum);
    EXPECT_EQ("2 0 0 0 0 0 0 0 0 0 0 0 0 0 0 255 = 257\t", testing::internal::GetCapturedStdout());
    EXPECT_EQ(257u, sum);
}

}  // namespace
