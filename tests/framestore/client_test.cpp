// Reader clients: validity verdicts, pin release, and pins that hold
// against a writer in another process.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

class Level {
public:
    explicit Level(uint32_t level) : saved_(gShm_DebugLevel) { gShm_DebugLevel = level; }
    ~Level() { gShm_DebugLevel = saved_; }

private:
    uint32_t saved_;
};

// A ring of four frames with ticks 100..400 in one generation.
class ClientTest : public testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 4; ++i) ASSERT_EQ(0, f_.write(100, 0, 100u * (i + 1)));
    }
    SharedMemBufClient *Client(int index, uint32_t tick) {
        SharedMemBufClient *c = static_cast<SharedMemBufClient *>(calloc(1, sizeof *c));
        c->iLastIndex = index;
        c->dwLastTimeTick = tick;
        c->ptHandle = &reader_;
        return c;
    }
    std::string Captured(const std::function<void()> &fn) {
        testing::internal::CaptureStdout();
        fn();
        return testing::internal::GetCapturedStdout();
    }

    FakeRing f_{1000};
    SharedMemHandle reader_ = f_.readerHandle(3);
};

TEST_F(ClientTest, CheckIndexValidJudgesIndexAndTickAndNamesTheNextEntry) {
    SharedMemSectorHeader *r = f_.ring();
    // Two generations: O=2..B=3 old, 0..L=0 new; entry 1 is dead.
    r->iOldestIndex = 2;
    r->iLatestIndex = 0;
    r->iWriteIndex = 1;
    struct Case {
        int index;
        uint32_t tick;
        int result;
        uint32_t next;
    } cases[] = {
        {0, 100, 0, 1},  {0, 999, -1, 1},  // newest, and a rewritten entry
        {1, 200, -1, 2},                    // between L and O
        {2, 300, 0, 3},  {3, 400, 0, 0},    // the boundary wraps to 0
        {4, 0, -1, 0},                      // stale, tick equal
        {-1, 0, -1, 77}, {1280, 0, -1, 77}, // outside: next untouched
    };
    for (const Case &c : cases) {
        uint32_t next = 77;
        EXPECT_EQ(c.result, SharedMem_CheckIndexValid(r, c.index, c.tick, &next)) << c.index;
        EXPECT_EQ(c.next, next) << c.index;
    }
    r->iMaxIndex = 2;
    EXPECT_EQ(-1, SharedMem_CheckIndexValid(r, 3, 400, nullptr));
}

TEST_F(ClientTest, QueryAndReleaseVerdictsDifferOnlyForAFrameThatLeftTheLiveRange) {
    SharedMemSectorHeader *r = f_.ring();
    Level quiet(2);
    struct Case {
        int index;
        uint32_t tick;
        int boundary;
        int query, release;
    } cases[] = {
        {2, 300, 3, 0, 0},    // live, same frame
        {2, 300, 1, -1, 0},   // same frame, above the boundary now
        {2, 301, 3, -1, -1},  // entry rewritten
        {-1, 0, 3, -1, -1},   // unplaced
        {1280, 0, 3, -1, -1},
    };
    for (const Case &c : cases) {
        r->iBoundaryIndex = c.boundary;
        SharedMemBufClient *client = Client(c.index, c.tick);
        EXPECT_EQ(c.query, SharedMem_CheckClientValid(r, client, "query")) << c.index << c.boundary;
        EXPECT_EQ(c.release, SharedMem_CheckClientValid(r, client, "release"))
            << c.index << c.boundary;
        free(client);
    }
    // A reset ring has zeroed the entry: nothing to give back.
    r->iBoundaryIndex = 3;
    r->atFrame[2].dwTimeTick = 0;
    SharedMemBufClient *client = Client(2, 0);
    EXPECT_EQ(-1, SharedMem_CheckClientValid(r, client, "release"));
    EXPECT_EQ(-1, SharedMem_CheckClientValid(nullptr, client, "query"));
    EXPECT_EQ(-1, SharedMem_CheckClientValid(r, nullptr, "query"));
    free(client);
}

TEST_F(ClientTest, FailedQueryCheckIsQuietBelowLevelSixAndAFailedReleaseIsAWarning) {
    SharedMemSectorHeader *r = f_.ring();
    SharedMemBufClient *client = Client(1, 999);
    const char *query = "[shmem] : video[3] query validity check fail, L:3 O:0 B:3 La:1, 200:999\n";
    const char *release =
        "[shmem] : video[3] release validity check fail, L:3 O:0 B:3 La:1, 200:999\n";
    {
        Level level(5);
        EXPECT_EQ("", Captured([&] { SharedMem_CheckClientValid(r, client, "query"); }));
        EXPECT_EQ(release, Captured([&] { SharedMem_CheckClientValid(r, client, "release"); }));
    }
    {
        Level level(6);
        EXPECT_EQ(query, Captured([&] { SharedMem_CheckClientValid(r, client, "query"); }));
    }
    {
        Level level(3);
        EXPECT_EQ("", Captured([&] { SharedMem_CheckClientValid(r, client, "release"); }));
    }
    // Valid clients say nothing at any level.
    client->dwLastTimeTick = 200;
    Level level(7);
    EXPECT_EQ("", Captured([&] { SharedMem_CheckClientValid(r, client, "query"); }));
    free(client);
}

TEST_F(ClientTest, ReleaseLowersTheCounterOnceAndKeepsTheCursor) {
    SharedMemBufClient *c = f_.pin(2, &reader_);
    ASSERT_NE(nullptr, c);
    EXPECT_EQ(1, f_.entry(2).abyAccessCount[3]);
    {
        Level trace(6 | 16);
        EXPECT_EQ("[shmem] : \trelease 2, AttachID 3 count to 0\n",
                  Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    }
    EXPECT_EQ(0, f_.entry(2).abyAccessCount[3]);
    EXPECT_EQ(0u, c->dwHeld);
    EXPECT_EQ(2, SharedMem_QueryLastBufClient(c));
    // Holding nothing: nothing happens.
    EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c));
    EXPECT_EQ(0, f_.entry(2).abyAccessCount[3]);
    // A counter already at 0 is reported, never wrapped.
    c->dwHeld = 1;
    EXPECT_EQ("[shmem] : release unoccupied buffer?",
              Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    EXPECT_EQ(0, f_.entry(2).abyAccessCount[3]);
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, ReleaseAfterAResetChangesNothingAndUnplacesTheClient) {
    SharedMemBufClient *c = f_.pin(1, &reader_);
    ASSERT_NE(nullptr, c);
    ASSERT_EQ(0, SharedMem_ResetHeader(f_.ring(), f_.semId(), 0));
    f_.entry(1).abyAccessCount[5] = 1;  // somebody else's pin on the fresh entry
    EXPECT_EQ("", Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    EXPECT_EQ(-1, c->iLastIndex);
    EXPECT_EQ(0u, c->dwHeld);
    EXPECT_EQ(1, f_.entry(1).abyAccessCount[5]);
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, FrameHeldPastTheBoundaryIsStillGivenBackWithAWarning) {
    SharedMemBufClient *c = f_.pin(3, &reader_);
    ASSERT_NE(nullptr, c);
    f_.ring()->iBoundaryIndex = 1;  // as after a rewind that the pin did not stop
    f_.ring()->iLatestIndex = 1;
    {
        Level level(6);
        EXPECT_EQ("[shmem] : video[3] release validity check fail, L:1 O:0 B:1 La:3, 400:400\n",
                  Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    }
    EXPECT_EQ(0, f_.entry(3).abyAccessCount[3]);
    EXPECT_EQ(3, c->iLastIndex);

    // The same client asking to go on reading would be placed anew.
    EXPECT_EQ(-1, SharedMem_CheckClientValid(f_.ring(), c, "query"));
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, FrameInTheDeadZoneIsGivenBack) {
    SharedMemBufClient *c = f_.pin(1, &reader_);
    ASSERT_NE(nullptr, c);
    f_.ring()->iOldestIndex = 2;  // L=0 < 1 < O=2
    f_.ring()->iLatestIndex = 0;
    f_.ring()->iWriteIndex = 1;
    Level quiet(2);
    EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c));
    EXPECT_EQ(0, f_.entry(1).abyAccessCount[3]);
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, AttachIdSixteenReadsWithoutCounting) {
    SharedMemHandle unpinned = f_.readerHandle(16);
    SharedMemBufClient *c = f_.pin(0, &unpinned);
    ASSERT_NE(nullptr, c);
    EXPECT_EQ(0, memcmp(f_.entry(0).abyAccessCount, g_abyNULLArray, 16));
    Level level(7 | 16);
    EXPECT_EQ("", Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    EXPECT_EQ(0, memcmp(f_.entry(0).abyAccessCount, g_abyNULLArray, 16));
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, FailedLockStillBringsTheCountRight) {
    SharedMemBufClient *c = f_.pin(2, &reader_);
    ASSERT_NE(nullptr, c);
    SharedMemHandle broken = reader_;
    broken.iSemId = -1;
    c->ptHandle = &broken;
    std::string out = Captured([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); });
    EXPECT_EQ("[shmem] : SemaphoreP failed", out);
    EXPECT_EQ(0, f_.entry(2).abyAccessCount[3]);
    SharedMem_FreeBufClient(&c);
}

TEST_F(ClientTest, NullClientsAndPointers) {
    EXPECT_EQ(-1, SharedMem_ReleaseReadBuffer(nullptr));
    SharedMemBufClient orphan = {};
    orphan.dwHeld = 1;
    EXPECT_EQ(-1, SharedMem_ReleaseReadBuffer(&orphan));
    EXPECT_EQ(-2, SharedMem_QueryLastBufClient(nullptr));
    orphan.iLastIndex = -1;
    EXPECT_EQ(-1, SharedMem_QueryLastBufClient(&orphan));
    EXPECT_EQ(-1, SharedMem_FreeBufClient(nullptr));
    SharedMemBufClient *none = nullptr;
    EXPECT_EQ(0, SharedMem_FreeBufClient(&none));
}

TEST_F(ClientTest, FreeGivesThePinBackFirstAndNullsTheCallersPointer) {
    SharedMemBufClient *c = f_.pin(2, &reader_);
    ASSERT_NE(nullptr, c);
    char expected[64];
    snprintf(expected, sizeof expected, "SharedMem_FreeBufClient %p\n", static_cast<void *>(c));
    EXPECT_EQ(expected, Captured([&] { EXPECT_EQ(0, SharedMem_FreeBufClient(&c)); }));
    EXPECT_EQ(nullptr, c);
    EXPECT_EQ(0, f_.entry(2).abyAccessCount[3]);
}

TEST(ClientCache, CachedHoldIsGivenBackInTheCacheWithoutAValidityTest) {
    FakeRingOptions options;
    options.withCache = true;
    FakeRing f(options);
    SharedMemHandle reader = f.readerHandle(15);
    SharedMemBufClient *c = static_cast<SharedMemBufClient *>(calloc(1, sizeof *c));
    c->ptHandle = &reader;
    c->iLastIndex = 600;  // whatever the cursor says
    c->iCacheSlot = 2;
    c->dwHeld = 1;
    c->dwHoldType = 2;
    f.cache()->atCache[2].abyAccessCount[15] = 2;
    EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c));
    EXPECT_EQ(1, f.cache()->atCache[2].abyAccessCount[15]);
    EXPECT_EQ(600, c->iLastIndex);
    // Any other hold type touches nothing but is no longer held.
    c->dwHeld = 1;
    c->dwHoldType = 7;
    EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c));
    EXPECT_EQ(1, f.cache()->atCache[2].abyAccessCount[15]);
    EXPECT_EQ(0u, c->dwHeld);
    c->dwHeld = 1;
    c->dwHoldType = 2;
    EXPECT_EQ(0, SharedMem_FreeBufClient(&c));
    EXPECT_EQ(0, f.cache()->atCache[2].abyAccessCount[15]);
}

TEST(ClientCache, TickRangeOfACacheSectorWithAndWithoutWrap) {
    FakeRingOptions options;
    options.withCache = true;
    FakeRing f(options);
    SharedMemCacheHeader *cache = f.cache();
    SharedMemBufClient client = {};
    EXPECT_EQ(-1, SharedMem_CheckClientValidByTimeTick(cache, &client));  // nothing written
    cache->iOldestIndex = 1;
    cache->iLatestIndex = 3;
    struct Case {
        uint32_t oldest, latest, tick;
        int result;
    } cases[] = {
        {100, 200, 100, 0},         {100, 200, 200, 0},        {100, 200, 99, -1},
        {100, 200, 201, -1},        {0xFFFFFF00u, 0x10, 0xFFFFFFFFu, 0},
        {0xFFFFFF00u, 0x10, 5, 0},  {0xFFFFFF00u, 0x10, 0x11, -1},
        {300, 300, 300, 0},
        {300, 300, 299, 0},  // a single tick counts as wrapped: everything passes
    };
    for (const Case &c : cases) {
        cache->atCache[1].dwTimeTick = c.oldest;
        cache->atCache[3].dwTimeTick = c.latest;
        client.dwLastTimeTick = c.tick;
        EXPECT_EQ(c.result, SharedMem_CheckClientValidByTimeTick(cache, &client))
            << c.oldest << " " << c.latest << " " << c.tick;
    }
    EXPECT_EQ(-1, SharedMem_CheckClientValidByTimeTick(nullptr, &client));
}

// The writer runs in a child process at full speed; the parent keeps
// pinning the latest frame and checks that its bytes never change while it
// holds it. Frame n carries n in its first word and its tick, and a byte
// pattern of n behind.
uint8_t PatternByte(uint32_t n, uint32_t k) { return static_cast<uint8_t>(n * 31u + k * 7u); }

int RunWriter(FakeRing *f, uint32_t frames) {
    uint32_t seed = 12345;
    for (uint32_t n = 1; n <= frames; ++n) {
        seed = seed * 1103515245u + 12345u;
        uint32_t size = 8 + (seed >> 8) % 3000;
        uint8_t *place = nullptr;
        int tries = 0;
        while (SharedMem_QueryAutoRewindWriteBuffer(f->handle(), &place, size) != 0) {
            if (++tries > 1000000) return 2;
            sched_yield();
        }
        memcpy(place, &n, 4);
        for (uint32_t k = 4; k < size; ++k) place[k] = PatternByte(n, k);
        SharedMemWriteInfo info = {place, 0, size, n};
        if (SharedMem_UpdateWritedBuffer(f->handle(), &info) != 0) return 3;
    }
    return 0;
}

bool FrameIntact(FakeRing *f, int index) {
    const SharedMemFrameEntry &e = f->entry(index);
    const uint8_t *bytes = f->base() + e.dwOffset;
    uint32_t n;
    memcpy(&n, bytes, 4);
    if (n != e.dwTimeTick) return false;
    for (uint32_t k = 4; k < e.dwSize - 4; ++k) {  // the rounding tail is not written
        if (bytes[k] != PatternByte(n, k)) return false;
    }
    return true;
}

TEST(ClientAcrossProcesses, PinnedFramesSurviveAWriterInAnotherProcess) {
    FakeRingOptions options;
    options.dataBytes = 16 * 1024;
    options.sharedAcrossFork = true;
    FakeRing f(options);
    Level quiet(2);
    fflush(stdout);
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) _exit(RunWriter(&f, 3000));

    SharedMemHandle reader = f.readerHandle(9);
    int pins = 0, broken = 0;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        int latest = __atomic_load_n(&f.ring()->iLatestIndex, __ATOMIC_ACQUIRE);
        if (latest < 0) continue;
        SharedMemBufClient *c = f.pin(latest, &reader);
        if (c == nullptr) continue;
        ++pins;
        for (int look = 0; look < 4; ++look) {
            if (!FrameIntact(&f, latest)) ++broken;
            sched_yield();
        }
        SharedMem_ReleaseReadBuffer(c);
        free(c);
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0, broken) << "of " << pins << " pinned frames";
    EXPECT_GT(pins, 0);
    EXPECT_EQ(0, memcmp(f.entry(f.ring()->iLatestIndex).abyAccessCount, g_abyNULLArray, 16));
}

}  // namespace
