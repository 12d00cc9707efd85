// The ring writer on a ring in ordinary memory with a private lock. The
// randomized model test covers forms, overlaps, protection and refusals in
// general; these are the worked cases, the edges and the messages.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

bool Marked(const SharedMemFrameEntry &e) { return (e.dwFlags & SHM_FRAME_WRITING) != 0; }

// One ring of 1000 bytes from empty through every form, offsets from the
// start s of the data area. Three frames make one generation; the fourth
// rewinds over entry 0 (two generations); the sixth reuses entry 2, which
// ends the older one. A frame outgrows every old frame. In the next lap
// entry 0 is lost (O=1), then at W=1 entry 1's frame goes; one byte is
// rounded up to 4. A frame of the whole area; then an exact fit, which
// rewinds only for the frame after it. Each frame is checked in the entry L
// names, ending at dwWriteOffset.
TEST(RingWriter, LapByLapIndicesAndPlaces) {
    FakeRing f(1000);
    const uint32_t s = f.start();
    struct Step { uint32_t size; RingIndices after; } steps[] = {
        {300, {0, 0, 0, 1, s + 300}},   {300, {0, 1, 1, 2, s + 600}}, {300, {0, 2, 2, 3, s + 900}},
        {300, {1, 0, 2, 1, s + 300}},   {100, {2, 1, 2, 2, s + 400}}, {100, {0, 2, 2, 3, s + 500}},
        {950, {0, 0, 0, 1, s + 952}},   {500, {0, 0, 0, 1, s + 500}}, {400, {0, 1, 1, 2, s + 900}},
        {200, {1, 0, 1, 1, s + 200}},   {4, {0, 1, 1, 2, s + 204}},   {1, {0, 2, 2, 3, s + 208}},
        {1000, {0, 0, 0, 1, s + 1000}}, {500, {0, 0, 0, 1, s + 500}}, {500, {0, 1, 1, 2, s + 1000}},
        {4, {1, 0, 1, 1, s + 4}},
    };
    for (const Step &step : steps) {
        ASSERT_EQ(0, f.write(step.size));
        EXPECT_EQ(step.after, f.indices()) << "after a frame of " << step.size;
        const SharedMemFrameEntry &e = f.entry(step.after.l);
        EXPECT_EQ(step.after.writeOffset - ((step.size + 3) & ~3u), e.dwOffset) << step.after;
        EXPECT_TRUE(e.dwSize == ((step.size + 3) & ~3u) && !Marked(e)) << step.after;
    }
}

// A refused query leaves every index where it was, and the marks it set on
// the way (entries before the one in the way) stay. Refusals over a pin,
// at a rewind and on a stale entry are logged once the lock is given back,
// one over an old unread frame is not. Each case: the frames before, the
// entry in the way by a pin or by SHM_FRAME_UNREAD, the frame refused, its
// status, the marks left (bit i for entry i) and the log.
TEST(RingWriter, RefusalsKeepIndicesAndMarksAndSayWhy) {
    struct Case {
        std::initializer_list<uint32_t> sizes;
        int pinned, unread;
        uint32_t size, status, marks;
        const char *log;
    } cases[] = {
        {{100, 1000}, -1, -1, 1001, SHM_WRITE_TOO_LARGE, 0, "query 1004 larger than maximum"},
        {{248, 248, 248, 248, 100}, 3, -1, 950, SHM_WRITE_OCCUPIED, 0x6, "3 occupied, rewind fail"},
        {{300, 300, 300, 104}, -1, 2, 950, SHM_WRITE_UNREAD, 0x2, "frame 2 unread, rewind fail"},
        {{300, 300, 300, 300}, 1, -1, 100, SHM_WRITE_OCCUPIED, 0, "frame 1 occupied by somebody"},
        {{300, 300, 300, 300}, -1, 1, 100, SHM_WRITE_UNREAD, 0, ""},
        {{100}, -1, 1, 100, SHM_WRITE_UNREAD, 0, "unknown frame 1 UNREAD"},
    };
    for (const Case &c : cases) {
        FakeRing f(1000);
        for (uint32_t size : c.sizes) ASSERT_EQ(0, f.write(size));
        if (c.pinned >= 0) f.entry(c.pinned).abyAccessCount[7] = 1;
        if (c.unread >= 0) f.entry(c.unread).dwFlags |= SHM_FRAME_UNREAD;
        RingIndices before = f.indices();
        Printed out = PrintedWhile(f.semId(), [&] { EXPECT_EQ(-1, f.write(c.size)); });
        EXPECT_TRUE(*c.log ? out.text.find(c.log) != out.text.npos : out.text.empty()) << out.text;
        EXPECT_FALSE(out.underLock) << "told under the lock: " << out.text;
        EXPECT_EQ(c.status, f.status()) << c.log;
        EXPECT_EQ(before, f.indices()) << c.log;
        for (int i = 0; i < 8; ++i) EXPECT_EQ(((c.marks >> i) & 1) != 0, Marked(f.entry(i))) << i;
    }
}

// The plain cycle grants what is left, and its caller rewinds by hand,
// through the "just rewound" form. At W = 1280 bytes are left but entries
// are not: the query and the update refuse. The update also refuses any
// place outside the data area (below it, the next frame would run over the
// headers); a refused update changes nothing. A pin left on a stale entry
// (W above O) belongs to nobody: the query wipes it.
TEST(RingWriter, PlainCycleAtTheEntryTableLimitAndPlacesOutsideTheDataArea) {
    const uint32_t area = 8 * SHM_FRAME_ENTRIES;
    FakeRing f(area);
    ASSERT_EQ(0, f.write(100));
    auto refused = [&f](uint8_t *place, uint32_t size) {
        const SharedMemSectorHeader before = *f.ring();
        SharedMemWriteInfo info = {place, 0, size, 5};
        DebugLevel quiet(2);
        EXPECT_EQ(-1, SharedMem_UpdateWritedBuffer(f.handle(), &info)) << place - f.base();
        EXPECT_EQ(0, memcmp(&before, f.ring(), sizeof before)) << place - f.base();
    };
    uint8_t *place = nullptr, *next = f.base() + f.ring()->dwWriteOffset;
    refused(f.base() - 4, 4);
    refused(f.base() + 128, 4);
    refused(next, 0);
    refused(next, area - 100 + 1);
    uint32_t size = area, status = 0;
    f.entry(1).abyAccessCount[4] = 2;
    EXPECT_EQ("[shmem] : unknown frame 1 OCCUPIED!\n",
              PrintedWhile(f.semId(), [&] {
                  EXPECT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
              }).text);
    EXPECT_TRUE(place == next && size == area - 100 && f.entry(1).abyAccessCount[4] == 0);

    for (int i = 1; i < SHM_FRAME_ENTRIES; ++i) ASSERT_EQ(0, f.write(4));
    EXPECT_EQ((RingIndices{0, 1279, 1279, 1280, f.start() + 100 + 4 * 1279}), f.indices());
    size = 4;
    EXPECT_EQ(-1, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    EXPECT_EQ(4u, size);
    refused(f.base() + f.ring()->dwWriteOffset, 4);
    ASSERT_EQ(0, SharedMem_PrepareRewindWriteBuffer(f.ring(), &status));  // W > B: nothing to do
    ASSERT_EQ(0, SharedMem_RewindWriteBuffer(f.handle()));
    EXPECT_EQ((RingIndices{0, 1279, 1279, 0, f.start()}), f.indices());
    ASSERT_EQ(0, SharedMem_QueryWriteBuffer(f.handle(), &place, &size));
    SharedMemWriteInfo info = {place, 0, size, 50};
    ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(f.handle(), &info));
    EXPECT_EQ((RingIndices{1, 0, 1279, 1, f.start() + 4}), f.indices());
}

// ClearFrameOccupied takes the writer's marks back, as after a query whose
// frame was given up: from the entry given on, up to the first entry
// without the mark, and never past B.
TEST(RingWriter, ClearFrameOccupiedTakesBackARunOfMarks) {
    FakeRing f(1000);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, f.write(300));  // B=2
    for (int i : {0, 2, 3}) f.entry(i).dwFlags |= SHM_FRAME_WRITING;
    SharedMem_ClearFrameOccupied(f.ring(), 0);
    EXPECT_TRUE(!Marked(f.entry(0)) && Marked(f.entry(2)));  // entry 1 was unmarked
    SharedMem_ClearFrameOccupied(f.ring(), 2);
    EXPECT_TRUE(!Marked(f.entry(2)) && Marked(f.entry(3)));
}

}  // namespace
