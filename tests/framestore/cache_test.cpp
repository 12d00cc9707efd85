// Cache sectors: the writer's choice of slot, the direct reader's searches
// and pins, and the figures and printed view of sectors.
#include <cstdlib>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "ipc_fixture.h"

namespace {

constexpr int kPinner = 5;  // AttachID of the pins a script sets by hand

SharedMemCacheHeader *CacheOf(SharedMemHandle *h) {
    return reinterpret_cast<SharedMemCacheHeader *>(h->ptHeader);
}

// One step of a direct writer's script: 'w' an item with tick `arg`, 'u' an
// unread item, 'e' a slot given up, 'x' a query left without update, 'p'
// a pin on slot `arg`. Then the slot taken (-1: refused), O and L.
struct Step { char op; uint32_t arg; int slot, oldest, latest; };

int Apply(SharedMemHandle *h, const Step &s) {
    SharedMemCacheHeader *c = CacheOf(h);
    if (s.op == 'p') {
        ++c->atCache[s.arg].abyAccessCount[kPinner];
        return static_cast<int>(s.arg);
    }
    uint8_t *place = nullptr;
    if (SharedMem_QueryWriteCache(h, &place, 100) != 0) return -1;
    int slot = c->iWriteIndex;
    EXPECT_EQ(static_cast<uint8_t *>(h->pvBase) + c->atCache[slot].dwOffset, place);
    EXPECT_EQ(SHM_FRAME_WRITING, c->atCache[slot].dwFlags);
    if (s.op == 'x') return slot;
    uint32_t flags = s.op == 'u' ? SHM_FRAME_UNREAD : s.op == 'e' ? SHM_FRAME_ERROR : 0;
    SharedMemWriteInfo info = {nullptr, flags, 100, s.arg};
    EXPECT_EQ(0, SharedMem_UpdateWritedCache(h, &info));
    return slot;
}

class CacheTest : public IpcTest {
protected:
    // A block whose sector 1 is a cache of `desc`; a handle on it.
    SharedMemHandle *OpenCache(const char *desc, int attachId = 3) {
        info_ = MakeBlock("1M", {"256K-video", desc});
        SharedMemHandle *h = nullptr;
        if (info_ == nullptr || SharedMem_Initial(info_, &h, 1, attachId) != 0) return nullptr;
        handles_.push_back(h);
        return h;
    }
    SharedMemHandle *Another(int sector, int attachId) {
        SharedMemHandle *h = nullptr;
        if (SharedMem_Initial(info_, &h, sector, attachId) != 0) return nullptr;
        handles_.push_back(h);
        return h;
    }
    void TearDown() override {
        for (SharedMemHandle *&h : handles_) SharedMem_Release(&h);
        IpcTest::TearDown();
    }
    SharedMemBlockInfo *info_ = nullptr;
    std::vector<SharedMemHandle *> handles_;
};

TEST_F(CacheTest, WriterTakesNewSlotsThenTheOldestThatNobodyHolds) {
    std::vector<Step> full36;
    for (int k = 0; k < SHM_CACHE_ENTRIES; ++k) full36.push_back({'w', 1u + k, k, 0, k});
    full36.push_back({'x', 0, -1, 0, 35});  // room for more, but no 37th slot
    const struct { const char *name, *desc; std::vector<Step> steps; } scripts[] = {
        {"room for three, then the oldest", "12K~4K~clip",
         {{'w', 1, 0, 0, 0}, {'w', 2, 1, 0, 1}, {'w', 3, 2, 0, 2}, {'w', 4, 0, 1, 0},
          {'w', 5, 1, 2, 1}}},
        {"a pinned oldest is passed over and stays the oldest", "12K~4K~clip",
         {{'w', 1, 0, 0, 0}, {'w', 2, 1, 0, 1}, {'w', 3, 2, 0, 2}, {'p', 0, 0, 0, 2},
          {'w', 4, 1, 0, 1}, {'w', 5, 2, 0, 2}}},
        {"an unread slot is overwritten, the next one with its flags passed over once",
         "12K~4K~clip",
         {{'u', 1, 0, 0, 0}, {'u', 2, 1, 0, 1}, {'w', 3, 2, 0, 2}, {'w', 4, 0, 1, 0},
          {'w', 5, 2, 1, 2}, {'w', 6, 1, 0, 1}}},
        {"ticks that wrap keep their order", "12K~4K~clip",
         {{'w', 0xFFFFFFF0u, 0, 0, 0}, {'w', 0xFFFFFFF8u, 1, 0, 1}, {'w', 4, 2, 0, 2},
          {'w', 12, 0, 1, 0}}},
        {"a slot given up is the latest and is taken again", "12K~4K~clip",
         {{'w', 1, 0, 0, 0}, {'w', 2, 1, 0, 1}, {'w', 3, 2, 0, 2}, {'e', 4, 0, 1, 0},
          {'x', 0, 0, 1, 0}}},
        {"every slot held: nothing to take", "12K~4K~clip",
         {{'w', 1, 0, 0, 0}, {'w', 2, 1, 0, 1}, {'w', 3, 2, 0, 2}, {'p', 0, 0, 0, 2},
          {'p', 1, 1, 0, 2}, {'p', 2, 2, 0, 2}, {'x', 0, -1, 0, 2}}},
        {"one slot alone", "4K~4K~clip", {{'w', 1, 0, 0, 0}, {'w', 2, 0, 0, 0}}},
        {"at most 36 slots", "40K~1K~clip", full36},
    };
    DebugLevel quiet(2);
    for (const auto &script : scripts) {
        SCOPED_TRACE(script.name);
        SharedMemHandle *h = OpenCache(script.desc);
        ASSERT_NE(nullptr, h);
        SharedMemCacheHeader *c = CacheOf(h);
        for (size_t i = 0; i < script.steps.size(); ++i) {
            const Step &s = script.steps[i];
            SCOPED_TRACE("step " + std::to_string(i));
            EXPECT_EQ(s.slot, Apply(h, s));
            EXPECT_EQ(s.oldest, c->iOldestIndex);
            EXPECT_EQ(s.latest, c->iLatestIndex);
            EXPECT_LE(c->iPrimaryBoundary, 35);
            if (s.slot >= 0 && s.op != 'p') {
                EXPECT_EQ(s.slot, c->iWriteIndex);
            }
        }
        if (std::string(script.name).find("given up") != std::string::npos) {
            EXPECT_EQ(100u, c->atCache[0].dwSize);  // kept from the item it held
        }
    }
}

TEST_F(CacheTest, WriterRefusesWhatDoesNotFitAndStampsDistinctTicks) {
    SharedMemHandle *h = OpenCache("16K~4K~clip");
    ASSERT_NE(nullptr, h);
    DebugLevel quiet(2);
    uint8_t *place = nullptr;
    EXPECT_EQ(-1, SharedMem_QueryWriteCache(h, &place, 4097));
    SharedMemWriteInfo tooLarge = {nullptr, 0, 4097, 5};
    EXPECT_EQ(-1, SharedMem_UpdateWritedCache(h, &tooLarge));
    EXPECT_EQ(-1, SharedMem_AssignNewBuffer(CacheOf(h), SHM_BUFFER_SECONDARY));
    SharedMemHandle *ring = Another(0, 3);
    EXPECT_EQ(-1, SharedMem_QueryWriteCache(ring, &place, 1));  // not a cache sector
    EXPECT_EQ(-1, SharedMem_UpdateWritedCache(nullptr, &tooLarge));

    // Stamped ticks within one clock tick follow the latest item by one.
    for (int attempt = 0; attempt < 5; ++attempt) {
        uint32_t ticks[3];
        for (uint32_t &t : ticks) {
            ASSERT_EQ(0, SharedMem_QueryWriteCache(h, &place, 4096));
            SharedMemWriteInfo info = {place, 0, 4096, 0};
            ASSERT_EQ(0, SharedMem_UpdateWritedCache(h, &info));
            t = info.dwTimeTick;
            EXPECT_EQ(t, CacheOf(h)->atCache[CacheOf(h)->iLatestIndex].dwTimeTick);
        }
        EXPECT_TRUE(ticks[1] != ticks[0] && ticks[2] != ticks[1]);
        if (ticks[1] == ticks[0] + 1 && ticks[2] == ticks[0] + 2) return;
    }
    ADD_FAILURE() << "the clock moved between every two stamps";
}

// Slots of a cache header in ordinary memory, for the searches.
struct Slots {
    SharedMemCacheHeader c = {};
    Slots(const std::vector<uint32_t> &ticks, int oldest, int latest) {
        c.dwSectorType = SHM_SECTOR_CACHE;
        c.iPrimaryBoundary = static_cast<int>(ticks.size()) - 1;
        c.iSecondaryBoundary = -1;
        c.iSecondaryEnd = 35;
        c.iOldestIndex = oldest;
        c.iLatestIndex = latest;
        for (size_t i = 0; i < ticks.size(); ++i) c.atCache[i].dwTimeTick = ticks[i];
    }
};

TEST(CacheSearch, NextSlotAcrossATickWrapByBothSearches) {
    // Oldest 0xFFFFFF00 in slot 0, latest 0x100 in slot 1, then three more.
    const uint32_t more[] = {0xFFFFFF90u, 0x50u, 0xFFFFFFA0u};
    const struct {
        uint32_t ref;
        uint32_t wantTick;  // 0: the oldest slot itself
    } cases[] = {{0xFFFFFF80u, 0xFFFFFF90u}, {0xFFFFFFF0u, 0x50u}, {0x200u, 0}, {0x60u, 0x100u}};
    testing::internal::CaptureStdout();
    for (const auto &c : cases) {
        for (int rotation = 0; rotation < 3; ++rotation) {
            std::vector<uint32_t> ticks = {0xFFFFFF00u, 0x100u};
            for (int k = 0; k < 3; ++k) ticks.push_back(more[(k + rotation) % 3]);
            Slots s(ticks, 0, 1);
            int slot = SharedMem_SearchNextBufferIndex(&s.c, c.ref, SHM_BUFFER_PRIMARY, 0);
            ASSERT_GE(slot, 0) << std::hex << c.ref;
            EXPECT_EQ(c.wantTick != 0 ? c.wantTick : 0xFFFFFF00u, ticks[slot]) << std::hex << c.ref;
            if (c.wantTick != 0) {  // the wrap-safe search agrees wherever it has an answer
                EXPECT_EQ(slot, SharedMem_SearchNextCacheIndex(&s.c, c.ref, nullptr));
            }
        }
    }
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, said.find("RefTimeTick is out of date!!"));
    EXPECT_NE(std::string::npos, said.find("iNormalRangeIndex: "));
}

TEST(CacheSearch, TiesClassesAndUnreadableSlots) {
    Slots s({10, 20, 20, 30, 40}, 0, 4);
    EXPECT_EQ(1, SharedMem_SearchNextCacheIndex(&s.c, 10, nullptr));  // lower of a tie
    testing::internal::CaptureStdout();
    EXPECT_EQ(2, SharedMem_SearchNextBufferIndex(&s.c, 10, SHM_BUFFER_PRIMARY, 0));  // higher
    EXPECT_EQ(-1, SharedMem_SearchNextBufferIndex(&s.c, 10, SHM_BUFFER_SECONDARY, 0));
    EXPECT_EQ(-1, SharedMem_SearchNextBufferIndex(&s.c, 10, 7, 0));
    EXPECT_EQ("No secondary buffer!!Invalid buffer type", testing::internal::GetCapturedStdout());

    s.c.atCache[1].dwFlags = SHM_FRAME_FORBIDDEN;
    s.c.atCache[2].dwFlags = SHM_FRAME_ERROR;
    s.c.atCache[3].dwFlags = SHM_FRAME_WRITING;
    s.c.atCache[4].dwFlags = 7u << 16;
    EXPECT_EQ(4, SharedMem_SearchNextCacheIndex(&s.c, 10, nullptr));
    SharedMemReadRequest request = {};
    const struct { uint32_t cls; int slot; } classes[] = {{7, 4}, {8, -1}, {0x70000, -1}};
    for (const auto &k : classes) {
        request.dwCacheClass = k.cls;
        EXPECT_EQ(k.slot, SharedMem_SearchNextCacheIndex(&s.c, 0, &request)) << k.cls;
    }
    s.c.atCache[0].abyAccessCount[3] = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(2, SharedMem_SearchNextBufferIndex(&s.c, 0, SHM_BUFFER_PRIMARY, SHM_SEARCH_UNPINNED));
    EXPECT_EQ(0, SharedMem_SearchNextBufferIndex(&s.c, 0, SHM_BUFFER_PRIMARY, SHM_SEARCH_COMPLETE));
    testing::internal::GetCapturedStdout();
}

TEST_F(CacheTest, DirectReaderFollowsByTimeWithClassesAndHiddenSlots) {
    SharedMemHandle *w = OpenCache("32K~4K~clip", 16);
    ASSERT_NE(nullptr, w);
    SharedMemHandle *r = Another(1, 4);
    SharedMemHandle *unpinned = Another(1, 16);
    DebugLevel quiet(2);
    SharedMemCacheHeader *c = CacheOf(w);
    // Items at ticks 10..60: class 1 or 2, the one at 40 hidden.
    uint8_t *places[6];
    for (uint32_t k = 0; k < 6; ++k) {
        ASSERT_EQ(0, SharedMem_QueryWriteCache(w, &places[k], 64));
        uint32_t flags = ((k % 2 + 1) << 16) | (k == 3 ? SHM_FRAME_FORBIDDEN : SHM_FRAME_UNREAD);
        SharedMemWriteInfo info = {places[k], flags, 64 + k, 10 * (k + 1)};
        ASSERT_EQ(0, SharedMem_UpdateWritedCache(w, &info));
    }
    auto follow = [&](SharedMemHandle *h, uint32_t cls) {
        SharedMemBufClient *client = nullptr;
        SharedMemReadRequest request = {};
        request.dwCacheClass = cls;
        std::vector<uint32_t> got;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        while (SharedMem_QueryReadCache(h, &client, &data, &size, &request) == 0) {
            int slot = client->iLastIndex;
            EXPECT_EQ(places[slot], data);
            EXPECT_EQ(64u + slot, size);
            EXPECT_EQ(0u, c->atCache[slot].dwFlags & SHM_FRAME_UNREAD);
            got.push_back(client->dwLastTimeTick);
            EXPECT_EQ(h->iAttachId < 16 ? 1 : 0, c->atCache[slot].abyAccessCount[h->iAttachId & 15]);
            EXPECT_EQ(0, SharedMem_ReleaseReadCache(h, client));
        }
        SharedMem_FreeBufClient(&client);
        return got;
    };
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30, 50, 60}), follow(r, 0));
    EXPECT_EQ((std::vector<uint32_t>{20, 60}), follow(r, 2));
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30, 50, 60}), follow(unpinned, 0));

    // The hidden item by its pointer, then shown to the searches as unread.
    SharedMemBufClient *client = nullptr;
    ASSERT_EQ(0, SharedMem_QueryReadCacheByPointer(r, &client, places[3]));
    EXPECT_EQ(3, client->iLastIndex);
    EXPECT_EQ(1, c->atCache[3].abyAccessCount[4]);
    EXPECT_EQ(0, SharedMem_ReleaseReadCacheIndex(r, 3));
    EXPECT_EQ(-1, SharedMem_ClearFobiddenReadCacheByPointer(r, places[3] + 1));
    EXPECT_EQ(0, SharedMem_ClearFobiddenReadCacheByPointer(r, places[3]));
    EXPECT_EQ(SHM_FRAME_UNREAD, c->atCache[3].dwFlags & (SHM_FRAME_UNREAD | SHM_FRAME_FORBIDDEN));
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30, 40, 50, 60}), follow(r, 0));

    // On the latest item: nothing new, and the place stays.
    client->iLastIndex = c->iLatestIndex;
    client->dwLastTimeTick = 60;
    uint8_t *data = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(-1, SharedMem_QueryReadCache(r, &client, &data, &size, nullptr));
    EXPECT_EQ(60u, client->dwLastTimeTick);
    // A reader that fell out of the range starts at the oldest again.
    client->dwLastTimeTick = 1000;
    ASSERT_EQ(0, SharedMem_QueryReadCache(r, &client, &data, &size, nullptr));
    EXPECT_EQ(10u, client->dwLastTimeTick);
    EXPECT_EQ(0, SharedMem_ReleaseReadCache(r, client));
    EXPECT_EQ(0, SharedMem_ReleaseReadCache(r, client));  // count at 0: said, not wrapped
    EXPECT_EQ(0, c->atCache[0].abyAccessCount[4]);
    EXPECT_EQ(-1, SharedMem_ReleaseReadCacheIndex(r, 36));
    EXPECT_EQ(-1, SharedMem_QueryReadCache(Another(0, 4), &client, &data, &size, nullptr));
    SharedMem_FreeBufClient(&client);
}

// A ring of 1000-byte frames 33 ms apart, written by the ring writer.
void Frames(FakeRing &ring, int n, uint32_t firstTick = 1) {
    WriteFrames(ring, Ticks(n, firstTick, 33), std::vector<uint32_t>(n, kKey), 1000);
}

std::vector<uint32_t> Info(FakeRing &ring, uint32_t request = 0) {
    std::vector<uint32_t> info(8, 0);
    info[7] = request;
    EXPECT_EQ(0, SharedMem_QueryInfo(ring.handle(), info.data(), 32));
    return info;
}

TEST(Statistics, BitRateWindowInOneAndTwoGenerationsAndItsFallBacks) {
    const struct {
        const char *name;
        int frames;
        uint32_t request;
        std::vector<uint32_t> info;  // elements 3 to 7
    } cases[] = {
        // Window of 30 inside one generation: 30 frames over 29 intervals.
        {"one generation", 40, 0, {1, 1287, 39, 40000, 30000 * 8 / 957}},
        {"window of 10", 40, 0xABCD000Au, {1, 1287, 39, 40000, 10000 * 8 / 297}},
        {"invalid window means 30", 40, 0xABCD0009u, {1, 1287, 39, 40000, 30000 * 8 / 957}},
        {"too few frames: the average", 20, 0, {1, 627, 19, 20000, 20000 * 8 / 627}},
        // 50 frames fit; 70 written: entries 20..49, then 0..19.
        {"over the wrap", 70, 0, {2, 1617, 49, 50000, 31000 * 8 / 957}},
        {"newer generation alone", 70, 0xABCD0015u, {2, 1617, 49, 50000, 19000 * 8 / 594}},
        {"short newer generation", 53, 0, {2, 1617, 49, 50000, 30000 * 8 / 957}},
        {"one frame", 1, 0, {1, 0, 0, 0, 0}},
        {"empty", 0, 0, {0, 0, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FakeRing ring(50 * 1000);
        Frames(ring, c.frames);
        std::vector<uint32_t> info = Info(ring, c.request);
        EXPECT_EQ(c.info, std::vector<uint32_t>(info.begin() + 3, info.end()));
        EXPECT_EQ(50000u, info[2]);
    }
    // Equal ticks at both ends of the window: no time passed, the average.
    FakeRing ring(50 * 1000);
    std::vector<uint32_t> ticks(40, 1000);
    ticks.back() = 2000;
    WriteFrames(ring, ticks, std::vector<uint32_t>(40, kKey), 1000);
    EXPECT_EQ(40000u * 8 / 1000, Info(ring)[7]);
    // Three words asked for: the ring's figures are not touched.
    uint32_t three[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(0, SharedMem_QueryInfo(ring.handle(), three, 12));
    EXPECT_EQ(9u, three[3]);
    EXPECT_EQ(-1, SharedMem_QueryInfo(nullptr, three, 32));
}

TEST(Statistics, ShowInfoLinesForARingAndACacheTable) {
    FakeRing ring(50 * 1000);
    Frames(ring, 40);
    FakeRing empty(1000);
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, SharedMem_ShowInfo(ring.handle()));
    EXPECT_EQ(0, SharedMem_ShowInfo(empty.handle()));
    EXPECT_EQ("video: Off. [0xa080 - 0x163d0] Dur. 1287 Br. 250/248 OI 0 LI 39 BI 39 FPS 30303\n"
              "video: Off. [0xa080 - 0xa468] Dur. 0 Br. 0/0 OI -1 LI -1 BI -1 FPS -1\n",
              testing::internal::GetCapturedStdout());

    Slots s({5, 7}, 0, 1);
    s.c.atCache[0].dwSize = 100;
    s.c.atCache[1].dwSize = 200;
    s.c.atCache[1].dwFlags = 0x30100;
    s.c.atCache[1].abyAccessCount[0] = 2;
    s.c.atCache[1].abyAccessCount[15] = 1;
    SharedMemHandle h = {};
    h.ptHeader = reinterpret_cast<SharedMemSectorHeader *>(&s.c);
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, SharedMem_ShowInfo(&h));
    EXPECT_EQ("Primary Cache[0] -: Size 100,\tTimeTick 5,Flag 00000000 0000000000000000\n"
              "Primary Cache[1]+ : Size 200,\tTimeTick 7,Flag 00030100 2000000000000001\n\n",
              testing::internal::GetCapturedStdout());
    s.c.dwSectorType = 9;
    EXPECT_EQ(0, SharedMem_ShowInfo(&h));
}

}  // namespace
