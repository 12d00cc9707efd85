// Reader clients: validity verdicts, pin release, and pins that hold
// against a writer in another process.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

// A ring of four frames with ticks 100..400 in one generation; the reader
// has AttachID 3.
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
    void SetIndices(int o, int l, int b, int w) {
        SharedMemSectorHeader *r = f_.ring();
        r->iOldestIndex = o, r->iLatestIndex = l, r->iBoundaryIndex = b, r->iWriteIndex = w;
    }
    int Count(int i) { return f_.entry(i).abyAccessCount[3]; }

    FakeRing f_{1000};
    SharedMemHandle reader_ = f_.readerHandle(3);
};

TEST_F(ClientTest, CheckIndexValidJudgesIndexAndTickAndNamesTheNextEntry) {
    SetIndices(2, 0, 3, 1);  // two generations: O=2..B=3 old, 0..L=0 new; 1 is dead
    struct Case {
        int index;
        uint32_t tick;
        int result;
        uint32_t next;
    } cases[] = {
        {0, 100, 0, 1},  {0, 999, -1, 1},   // newest, and a rewritten entry
        {1, 200, -1, 2},                    // between L and O
        {2, 300, 0, 3},  {3, 400, 0, 0},    // the boundary wraps to 0
        {4, 0, -1, 0},                      // stale, tick equal
        {-1, 0, -1, 77}, {1280, 0, -1, 77}, // outside: next untouched
    };
    for (const Case &c : cases) {
        uint32_t next = 77;
        EXPECT_EQ(c.result, SharedMem_CheckIndexValid(f_.ring(), c.index, c.tick, &next)) << c.index;
        EXPECT_EQ(c.next, next) << c.index;
    }
    f_.ring()->iMaxIndex = 2;
    EXPECT_EQ(-1, SharedMem_CheckIndexValid(f_.ring(), 3, 400, nullptr));
}

TEST_F(ClientTest, QueryAndReleaseVerdictsDifferOnlyForAFrameThatLeftTheLiveRange) {
    SharedMemSectorHeader *r = f_.ring();
    DebugLevel quiet(2);
    struct Case {
        int index;
        uint32_t tick;
        int boundary, query, release;
    } cases[] = {
        {2, 300, 3, 0, 0},    // live, same frame
        {2, 300, 1, -1, 0},   // same frame, above the boundary now (rewound)
        {2, 301, 3, -1, -1},  // entry rewritten
        {-1, 0, 3, -1, -1},   // unplaced
        {1280, 0, 3, -1, -1},
    };
    for (const Case &c : cases) {
        r->iBoundaryIndex = c.boundary;
        r->iLatestIndex = c.boundary < 3 ? c.boundary : 3;  // a rewind leaves L = B
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
    SharedMemBufClient *client = Client(1, 999);
    const std::string fail = " validity check fail, L:3 O:0 B:3 La:1, 200:999\n";
    struct Case {
        uint32_t level;
        const char *purpose;
        std::string out;
    } cases[] = {
        {5, "query", ""},
        {5, "release", "[shmem] : video[3] release" + fail},
        {6, "query", "[shmem] : video[3] query" + fail},
        {3, "release", ""},
    };
    for (const Case &c : cases) {
        DebugLevel level(c.level);
        EXPECT_EQ(c.out, Stdout([&] { SharedMem_CheckClientValid(f_.ring(), client, c.purpose); }))
            << c.level << c.purpose;
    }
    client->dwLastTimeTick = 200;  // valid clients say nothing at any level
    DebugLevel level(7);
    EXPECT_EQ("", Stdout([&] { SharedMem_CheckClientValid(f_.ring(), client, "release"); }));
    free(client);
}

// AttachID 16 reads without counting; a lock that cannot be taken still
// brings the count right.
TEST_F(ClientTest, ReleaseLowersTheCounterOnceAndKeepsTheCursor) {
    struct Case {
        int attachId;
        uint32_t level;
        bool brokenLock;
        const char *out;
    } cases[] = {
        {3, 6 | 16, false, "[shmem] : \trelease 2, AttachID 3 count to 0\n"},
        {16, 7 | 16, false, ""},
        {3, 6, true, "[shmem] : SemaphoreP failed"},
    };
    for (const Case &c : cases) {
        SharedMemHandle reader = f_.readerHandle(c.attachId), broken = reader;
        SharedMemBufClient *client = f_.pin(2, &reader);
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(c.attachId == 3, Count(2) == 1);
        broken.iSemId = -1;
        if (c.brokenLock) client->ptHandle = &broken;
        DebugLevel level(c.level);
        EXPECT_EQ(c.out, Stdout([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(client)); }));
        EXPECT_EQ(0, memcmp(f_.entry(2).abyAccessCount, g_abyNULLArray, 16)) << c.attachId;
        EXPECT_EQ(0u, client->dwHeld);
        EXPECT_EQ(2, SharedMem_QueryLastBufClient(client));
        EXPECT_EQ("", Stdout([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(client)); }));
        free(client);
    }
}

// A counter already at 0 is reported, never wrapped; Free gives the pin
// back first and nulls the caller's pointer.
TEST_F(ClientTest, ReleaseOfAnUncountedPinAndFree) {
    SharedMemBufClient *c = f_.pin(2, &reader_);
    ASSERT_NE(nullptr, c);
    f_.entry(2).abyAccessCount[3] = 0;
    EXPECT_EQ("[shmem] : release unoccupied buffer?",
              Stdout([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    EXPECT_EQ(0, Count(2));
    c->dwHeld = 1;
    f_.entry(2).abyAccessCount[3] = 1;
    char expected[64];
    snprintf(expected, sizeof expected, "SharedMem_FreeBufClient %p\n", static_cast<void *>(c));
    EXPECT_EQ(expected, Stdout([&] { EXPECT_EQ(0, SharedMem_FreeBufClient(&c)); }));
    EXPECT_EQ(nullptr, c);
    EXPECT_EQ(0, Count(2));
}

TEST_F(ClientTest, ReleaseAfterAResetChangesNothingAndUnplacesTheClient) {
    SharedMemBufClient *c = f_.pin(1, &reader_);
    ASSERT_NE(nullptr, c);
    ASSERT_EQ(0, SharedMem_ResetHeader(f_.ring(), f_.semId(), 0));
    f_.entry(1).abyAccessCount[5] = 1;  // somebody else's pin on the fresh entry
    EXPECT_EQ("", Stdout([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c)); }));
    EXPECT_EQ(-1, c->iLastIndex);
    EXPECT_EQ(0u, c->dwHeld);
    EXPECT_EQ(1, f_.entry(1).abyAccessCount[5]);
    SharedMem_FreeBufClient(&c);
}

// A frame that left the live range without being rewritten (past a rewind
// the pin did not stop, or in the dead zone) is still given back, with a
// warning; the same client would be placed anew to go on reading.
TEST_F(ClientTest, FrameOutsideTheLiveRangeIsStillGivenBack) {
    struct Case {
        int index, o, l, b, w;
        const char *warning;
    } cases[] = {
        {3, 0, 1, 1, 4, "[shmem] : video[3] release validity check fail, L:1 O:0 B:1 La:3, 400:400\n"},
        {1, 2, 0, 3, 1, "[shmem] : video[3] release validity check fail, L:0 O:2 B:3 La:1, 200:200\n"},
    };
    DebugLevel level(6);
    for (const Case &c : cases) {
        SharedMemBufClient *client = f_.pin(c.index, &reader_);
        ASSERT_NE(nullptr, client);
        SetIndices(c.o, c.l, c.b, c.w);
        EXPECT_EQ(c.warning, Stdout([&] { EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(client)); }));
        EXPECT_EQ(0, Count(c.index));
        EXPECT_EQ(c.index, client->iLastIndex);
        EXPECT_EQ(-1, SharedMem_CheckClientValid(f_.ring(), client, "query"));
        free(client);
        SetIndices(0, 3, 3, 4);
    }
}

TEST_F(ClientTest, NullClientsAndPointers) {
    SharedMemBufClient orphan = {}, *none = nullptr;
    orphan.dwHeld = 1;
    EXPECT_EQ(-1, SharedMem_ReleaseReadBuffer(nullptr));
    EXPECT_EQ(-1, SharedMem_ReleaseReadBuffer(&orphan));  // no handle
    EXPECT_EQ(-2, SharedMem_QueryLastBufClient(nullptr));
    EXPECT_EQ(-1, SharedMem_FreeBufClient(nullptr));
    EXPECT_EQ(0, SharedMem_FreeBufClient(&none));
}

FakeRingOptions WithCache() {
    FakeRingOptions options;
    options.withCache = true;
    return options;
}

TEST(ClientCache, CachedHoldIsGivenBackInTheCacheWithoutAValidityTest) {
    FakeRing f(WithCache());
    SharedMemHandle reader = f.readerHandle(15);
    SharedMemBufClient *c = static_cast<SharedMemBufClient *>(calloc(1, sizeof *c));
    c->ptHandle = &reader;
    c->iLastIndex = 600;  // whatever the cursor says
    c->iCacheSlot = 2;
    uint8_t &count = f.cache()->atCache[2].abyAccessCount[15];
    count = 2;
    // Hold type 2 (cache) lowers the slot's pin; any other touches nothing.
    for (uint32_t holdType : {2u, 7u}) {
        c->dwHeld = 1;
        c->dwHoldType = holdType;
        EXPECT_EQ(0, SharedMem_ReleaseReadBuffer(c));
        EXPECT_EQ(1, count) << holdType;
        EXPECT_EQ(0u, c->dwHeld);
        EXPECT_EQ(600, c->iLastIndex);
    }
    c->dwHeld = 1;
    c->dwHoldType = 2;
    EXPECT_EQ(0, SharedMem_FreeBufClient(&c));
    EXPECT_EQ(0, count);
}

TEST(ClientCache, TickRangeOfACacheSectorWithAndWithoutWrap) {
    FakeRing f(WithCache());
    SharedMemCacheHeader *cache = f.cache();
    SharedMemBufClient client = {};
    EXPECT_EQ(-1, SharedMem_CheckClientValidByTimeTick(cache, &client));  // nothing written
    EXPECT_EQ(-1, SharedMem_CheckClientValidByTimeTick(nullptr, &client));
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
    DebugLevel quiet(2);
    fflush(stdout);
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) _exit(RunWriter(&f, 3000));

    SharedMemHandle reader = f.readerHandle(9);
    int pins = 0, broken = 0, status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        int latest = __atomic_load_n(&f.ring()->iLatestIndex, __ATOMIC_ACQUIRE);
        SharedMemBufClient *c = latest < 0 ? nullptr : f.pin(latest, &reader);
        if (c == nullptr) continue;
        ++pins;
        for (int look = 0; look < 4; ++look) {
            broken += !FrameIntact(&f, latest);
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
