// The ring writer on a ring in ordinary memory with a private lock. The
// randomized model test covers forms, overlaps, protection and refusals in
// general; these are the worked cases, the edges and the messages.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

bool Marked(const SharedMemFrameEntry &e) { return (e.dwFlags & SHM_FRAME_WRITING) != 0; }

// Fills a ring with frames of the given sizes; false if one is refused.
bool WriteAll(FakeRing &f, std::initializer_list<uint32_t> sizes) {
    for (uint32_t size : sizes) {
        if (f.write(size) != 0) return false;
    }
    return true;
}

TEST(RingWriter, WorkedLapMovesIndicesAndMarksAsDocumented) {
    FakeRing f(1000);
    const uint32_t s = f.start();
    struct Step {
        uint32_t size;
        int entry;
        uint32_t at;
        RingIndices after;
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
        EXPECT_EQ(step.after, f.indices());
        EXPECT_EQ(s + step.at, f.entry(step.entry).dwOffset);
        EXPECT_EQ(step.size, f.entry(step.entry).dwSize);
        EXPECT_FALSE(Marked(f.entry(step.entry)));
    }
    EXPECT_TRUE(f.isOneGeneration());
    EXPECT_EQ(80u, f.ring()->dwDuration);  // ticks 1160 .. 1240 of entries 0 .. 2
}

TEST(RingWriter, IndicesAfterExactFitsAndNewLaps) {
    const uint32_t end = 1000;  // offsets below are from the start
    struct Case {
        std::initializer_list<uint32_t> sizes;
        RingIndices after;
    } cases[] = {
        {{1}, {0, 0, 0, 1, 4}},                      // rounded up
        {{100, 1000}, {0, 0, 0, 1, end}},            // a frame of the whole area
        {{500, 500}, {0, 1, 1, 2, end}},             // exact fit: no rewind yet
        {{500, 500, 4}, {1, 0, 1, 1, 4}},            // ... but for the next frame
        {{300, 300, 300, 950}, {0, 0, 0, 1, 952}},   // outgrows every old frame
        {{500, 400, 200}, {1, 0, 1, 1, 200}},        // entry 0 lost, O=1
        {{500, 400, 200, 4}, {0, 1, 1, 2, 204}},     // entry 1 is W's: its frame goes
    };
    for (const Case &c : cases) {
        FakeRing f(1000);
        ASSERT_TRUE(WriteAll(f, c.sizes));
        RingIndices want = c.after;
        want.writeOffset += f.start();
        EXPECT_EQ(want, f.indices()) << "after " << c.sizes.size() << " frames, last "
                                     << *(c.sizes.end() - 1);
    }
}

TEST(RingWriter, OneWordMoreThanTheAreaIsNeverGivenAndChangesNothing) {
    FakeRing f(1000);
    ASSERT_TRUE(WriteAll(f, {100, 1000}));
    RingIndices before = f.indices();
    EXPECT_EQ("[shmem] : query 1004 larger than maximum queue 1000\n",
              Stdout([&] { EXPECT_EQ(-1, f.write(1001)); }));
    EXPECT_EQ(SHM_WRITE_TOO_LARGE, f.status());
    EXPECT_EQ(before, f.indices());
    EXPECT_FALSE(Marked(f.entry(0)));
    EXPECT_EQ(0, f.write(4));  // the status goes with the next query
    EXPECT_EQ(0u, f.status());
}

TEST(RingWriter, EntryTableLimitStopsThePlainQueryAndRewindsTheAutomaticOne) {
    FakeRing f(8 * SHM_FRAME_ENTRIES);
    for (int i = 0; i < SHM_FRAME_ENTRIES; ++i) ASSERT_EQ(0, f.write(4, 0, 1 + i));
    EXPECT_EQ((RingIndices{0, 1279, 1279, 1280, f.start() + 4 * 1280}), f.indices());

    uint8_t *place = nullptr;
    uint32_t size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(4u, size);  // bytes are left, entries are not
    EXPECT_EQ(0u, f.status());
    SharedMemWriteInfo info = {f.base() + f.ring()->dwWriteOffset, 0, 4, 9};
    DebugLevel quiet(2);
    EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ(1280, f.ring()->iWriteIndex);

    ASSERT_EQ(0, f.write(4, 0, 5000));
    EXPECT_EQ((RingIndices{1, 0, 1279, 1, f.start() + 4}), f.indices());
}

TEST(RingWriter, RewindBlockedByAPinKeepsIndicesAndEarlierMarks) {
    FakeRing f(1000);
    ASSERT_TRUE(WriteAll(f, {190, 190, 190, 190, 190, 100}));  // new lap over entry 0
    ASSERT_TRUE(f.isTwoGenerations());
    const int w = f.ring()->iWriteIndex;
    SharedMemHandle reader = f.readerHandle(7);
    SharedMemBufClient *held = f.pin(w + 2, &reader);
    ASSERT_NE(nullptr, held);

    RingIndices before = f.indices();
    std::string out = Stdout([&] { EXPECT_EQ(-1, f.write(950)); });  // rewinds over W..B
    EXPECT_EQ(SHM_WRITE_OCCUPIED, f.status());
    EXPECT_EQ(before, f.indices());
    EXPECT_TRUE(Marked(f.entry(w)) && Marked(f.entry(w + 1)));
    EXPECT_FALSE(Marked(f.entry(w + 2)));
    EXPECT_EQ("[shmem] : frame " + std::to_string(w + 2) + " occupied, rewind fail. " +
                  std::to_string(w) + "-" + std::to_string(before.o) + "-" +
                  std::to_string(before.b) + "\n",
              out);
    EXPECT_EQ(0, SharedMem_FreeBufClient(&held));
    EXPECT_EQ(0, f.write(950));
}

TEST(RingWriter, QueryOverAPinnedOldFrameIsRefusedAndSaysWhy) {
    FakeRing f(1000);
    ASSERT_TRUE(WriteAll(f, {300, 300, 300}));
    SharedMemHandle reader = f.readerHandle(15);
    SharedMemBufClient *held = f.pin(1, &reader);
    ASSERT_NE(nullptr, held);
    ASSERT_EQ(0, f.write(300));  // entry 0 again
    RingIndices before = f.indices();
    EXPECT_EQ("[shmem] : frame 1 occupied by somebody!\n",
              Stdout([&] { EXPECT_EQ(-1, f.write(100)); }));
    EXPECT_EQ(SHM_WRITE_OCCUPIED, f.status());
    EXPECT_EQ(before, f.indices());
    EXPECT_EQ(1, f.entry(1).abyAccessCount[15]);
    SharedMem_FreeBufClient(&held);
}

TEST(RingWriter, StaleEntryPinsAreWipedAndStaleUnreadStopsTheWriter) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(100));
    f.entry(1).abyAccessCount[4] = 2;  // left by a reader that died long ago
    EXPECT_EQ("[shmem] : unknown frame 1 OCCUPIED!\n", Stdout([&] { EXPECT_EQ(0, f.write(100)); }));
    EXPECT_EQ(0, f.entry(1).abyAccessCount[4]);

    f.entry(2).dwFlags = SHM_FRAME_UNREAD;
    RingIndices before = f.indices();
    EXPECT_EQ("[shmem] : unknown frame 2 UNREAD!\n", Stdout([&] { EXPECT_EQ(-1, f.write(100)); }));
    EXPECT_EQ(SHM_WRITE_UNREAD, f.status());
    EXPECT_EQ(before, f.indices());
}

TEST(RingWriter, ClearFrameOccupiedTakesBackTheMarksOfAGivenUpFrame) {
    FakeRing f(1000);
    // Two generations: new 0,1 at S..S+300, old 2 at S+600; B=2.
    ASSERT_TRUE(WriteAll(f, {300, 300, 300, 104, 196}));
    uint8_t *place = nullptr;
    // W=2 is entry 2 itself: it is taken even though its bytes are out of reach.
    ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(f.handle(), &place, 100));
    EXPECT_TRUE(Marked(f.entry(2)));
    SharedMem_ClearFrameOccupied(f.ring(), 2);
    EXPECT_FALSE(Marked(f.entry(2)));

    // The run stops at the first entry without the mark, and at B.
    for (int i : {0, 2, 3}) f.entry(i).dwFlags |= SHM_FRAME_WRITING;
    SharedMem_ClearFrameOccupied(f.ring(), 0);
    EXPECT_TRUE(!Marked(f.entry(0)) && Marked(f.entry(2)));  // entry 1 was unmarked
    SharedMem_ClearFrameOccupied(f.ring(), 3);  // above B: nothing
    EXPECT_TRUE(Marked(f.entry(3)));
    SharedMem_ClearFrameOccupied(f.ring(), 2);
    EXPECT_TRUE(!Marked(f.entry(2)) && Marked(f.entry(3)));
    SharedMem_ClearFrameOccupied(f.ring(), -1);
    SharedMem_ClearFrameOccupied(nullptr, 0);
}

TEST(RingWriter, PlainCycleGrantsWhatIsLeftAndRewindsOnRequest) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(900));
    uint8_t *place = nullptr;
    uint32_t size = 300, status = 9;
    EXPECT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(100u, size);
    EXPECT_EQ(f.base() + f.start() + 900, place);

    ASSERT_EQ(0, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));  // W > B: nothing to do
    EXPECT_EQ(0u, status);
    ASSERT_EQ(0, SharedMem_RewindWriteBuffer(f.handle()));
    EXPECT_TRUE(f.isJustRewound());
    size = 300;
    ASSERT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(300u, size);
    SharedMemWriteInfo info = {place, 0, 300, 50};
    ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ((RingIndices{0, 0, 0, 1, f.start() + 300}), f.indices());

    ASSERT_EQ(0, f.write(700));  // exactly to the end
    size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(0u, f.status());
}

TEST(RingWriter, PrepareRewindRefusesPinnedAndUnreadFrames) {
    FakeRing f(1000);
    ASSERT_TRUE(WriteAll(f, {300, 300, 300, 104}));  // new lap: W=1 O=1 B=2
    f.entry(2).dwFlags |= SHM_FRAME_UNREAD;
    uint32_t status = 0;
    EXPECT_EQ("[shmem] : frame 2 unread, rewind fail. 1-1-2\n", Stdout([&] {
                  EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));
              }));
    EXPECT_EQ(SHM_WRITE_UNREAD, status);
    EXPECT_TRUE(Marked(f.entry(1)));
    f.entry(2).dwFlags &= ~SHM_FRAME_UNREAD;
    f.entry(2).abyAccessCount[0] = 1;
    DebugLevel quiet(2);
    EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));
    EXPECT_EQ(SHM_WRITE_OCCUPIED, status);
    EXPECT_EQ(-1, SharedMem_PrepareRewindWriteBuffer(nullptr, &status));
}

TEST(RingWriter, UpdateRefusesPlacesOutsideTheDataAreaAndChangesNothing) {
    FakeRing f(1000);
    ASSERT_EQ(0, f.write(100));
    RingIndices before = f.indices();
    SharedMemFrameEntry entry1 = f.entry(1);
    struct Case {
        uint8_t *place;
        uint32_t size;
        bool logged;
    } cases[] = {
        {f.base() - 4, 4, false},                 // below the base
        {f.base() + f.start() + 100, 0, false},   // no size
        {f.base() + f.start() + 100, 901, true},  // past the end
        {f.base() + 128, 4, true},                // inside the headers
    };
    for (const Case &c : cases) {
        SharedMemWriteInfo info = {c.place, 0, c.size, 5};
        EXPECT_EQ(c.logged ? "[shmem] : update write fail, buffer or index not enough!" : "",
                  Stdout([&] { EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), &info)); }));
        EXPECT_EQ(before, f.indices());
        EXPECT_EQ(0, memcmp(&entry1, &f.entry(1), sizeof entry1));
    }
}

TEST(RingWriter, NullArgumentsAndAFailedLockAreRefusedWithoutAStatus) {
    FakeRing f(1000);
    uint8_t *place = nullptr;
    uint32_t size = 4, status = 0;
    SharedMemWriteInfo info = {f.base() + f.start(), 0, 4, 1};
    SharedMemHandle headless = *f.handle(), broken = *f.handle();
    headless.ptHeader = nullptr;
    broken.iSemId = -1;
    DebugLevel quiet(2);
    for (int result : {SharedMem_QueryWriteBuffer(nullptr, &place, &size),
                       SharedMem_QueryWriteBuffer(f.handle(), nullptr, &size),
                       SharedMem_QueryWriteBuffer(f.handle(), &place, nullptr),
                       SharedMem_QueryAutoRewindWriteBuffer(nullptr, &place, 4),
                       SharedMem_QueryAutoRewindWriteBuffer(&headless, &place, 4),
                       SharedMem_UpdateWritedBuffer(nullptr, &info),
                       SharedMem_UpdateWritedBuffer(f.handle(), nullptr),
                       SharedMem_RewindWriteBuffer(nullptr),
                       SharedMem_QueryWriteStatus(nullptr, &status),
                       SharedMem_CheckFrameOccupied(nullptr, 0, &status),
                       SharedMem_QueryAutoRewindWriteBuffer(&broken, &place, 4),
                       SharedMem_QueryWriteBuffer(&broken, &place, &size)}) {
        EXPECT_EQ(-1, result);
    }
    EXPECT_EQ(0u, broken.dwWriteStatus);
    EXPECT_TRUE(f.isEmpty());
}

TEST(RingWriter, DumpFrameOccupiedPrintsTheCountersAndTheirSum) {
    SharedMemFrameEntry entry = {};
    entry.abyAccessCount[0] = 2;
    entry.abyAccessCount[15] = 255;
    uint32_t sum = 0;
    EXPECT_EQ("2 0 0 0 0 0 0 0 0 0 0 0 0 0 0 255 = 257\t",
              Stdout([&] { SharedMem_DumpFrameOccupied(&entry, &sum); }));
    EXPECT_EQ(257u, sum);
}

}  // namespace
