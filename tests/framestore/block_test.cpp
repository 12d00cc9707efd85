// Blocks: the description grammar read back from the raw header slots,
// clamping, attach/detach, administrative changes, the kernel's size limit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ipc_fixture.h"

namespace {

constexpr uint32_t kMiB = 0x100000;
constexpr uint32_t kSlot = SHM_HEADER_SLOT_SIZE;

bool AllZero(const void *p, size_t n) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    return std::all_of(b, b + n, [](uint8_t x) { return x == 0; });
}

class BlockTest : public IpcTest {
protected:
    // Allocates under a new key; returns the result and what was printed.
    int Allocate(const char *total, std::vector<std::string> descs, std::string *out = nullptr,
                 key_t *keyOut = nullptr) {
        key_t key = NewKey();
        std::vector<char *> texts;
        for (std::string &d : descs) texts.push_back(&d[0]);
        std::string totalText(total);
        fflush(stdout);
        testing::internal::CaptureStdout();
        int rc = SharedMemBlock_Allocate(key, &totalText[0], static_cast<int>(texts.size()),
                                         &config_, texts.empty() ? nullptr : texts.data());
        fflush(stdout);
        std::string printed = testing::internal::GetCapturedStdout();
        if (out != nullptr) *out = printed;
        if (keyOut != nullptr) *keyOut = key;
        return rc;
    }
};

// Every word of a fresh ring and cache slot, compared byte for byte with
// what the allocator must have written.
TEST_F(BlockTest, LaysOutRingsAndCachesFromTheirDescriptions) {
    SharedMemBlockInfo *info = MakeBlock(
        "64M", {"16M-video", "32M+video2:/var/run/timeshift_adaptive.active",
                "6144K~512K~streaming", "4m~recorder"});
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(4, info->iSectorNum);

    SharedMemSectorHeader ring = {};
    ring.dwSectorType = SHM_SECTOR_RING;
    ring.dwMemoryType = SHM_MEMORY_SYSV;
    ring.dwTotalSize = 64 * kMiB;
    ring.dwStartOffset = ring.dwWriteOffset = 4 * kSlot;  // sector 0 counts from 0
    ring.dwEndOffset = 16 * kMiB;
    ring.iOldestIndex = ring.iLatestIndex = ring.iBoundaryIndex = -1;
    ring.iMaxIndex = 1279;
    strcpy(ring.szTag, "video");
    ring.byHasNext = 1;
    EXPECT_EQ(0, memcmp(&ring, Ring(info, 0), offsetof(SharedMemSectorHeader, atFrame)));
    EXPECT_TRUE(AllZero(Ring(info, 0)->atFrame, sizeof ring.atFrame));

    ring.dwStartOffset = ring.dwWriteOffset = 16 * kMiB;
    ring.dwEndOffset = 48 * kMiB;
    strcpy(ring.szTag, "video2");
    strcpy(ring.szSecondTag, "/var/run/timeshift_adaptive.active");
    ring.byTimeshift = 1;
    EXPECT_EQ(0, memcmp(&ring, Ring(info, 1), offsetof(SharedMemSectorHeader, atFrame)));

    SharedMemCacheHeader cache = {};
    cache.dwSectorType = SHM_SECTOR_CACHE;
    cache.dwMemoryType = SHM_MEMORY_SYSV;
    cache.dwTotalSize = 64 * kMiB;
    cache.dwStartOffset = 48 * kMiB;
    cache.dwEndOffset = 54 * kMiB;
    cache.dwPrimarySize = 512 * 1024;
    cache.dwLeftSize = 6 * kMiB;
    cache.iOldestIndex = cache.iLatestIndex = cache.iPrimaryBoundary = -1;
    cache.iSecondaryBoundary = -1;
    cache.iSecondaryEnd = 35;
    strcpy(cache.szTag, "streaming");
    cache.byHasNext = 1;
    EXPECT_EQ(0, memcmp(&cache, Cache(info, 2), sizeof cache));

    SharedMemCacheHeader *recorder = Cache(info, 3);
    EXPECT_EQ(config_.dwPrimarySize, recorder->dwPrimarySize);  // no slot size given
    EXPECT_EQ(58 * kMiB, recorder->dwEndOffset);
    EXPECT_EQ(0, recorder->byHasNext);                          // end of the chain
    // The cache header uses 1256 bytes; the rest of its 41088-byte slot stays zero.
    EXPECT_TRUE(AllZero(recorder + 1, kSlot - SHM_CACHE_HEADER_USED));
}

struct DescCase {
    const char *text;
    uint32_t size;
    uint32_t type;
    bool timeshift;
    const char *tag;
    const char *secondTag;
};

// Each description is the second sector of a block, so its number counts.
TEST_F(BlockTest, ReadsEveryFormOfDescription) {
    const DescCase cases[] = {
        {"100K-Main", 100 * 1024, SHM_SECTOR_RING, false, "Main", ""},  // 'M' after '-' ignored
        {"3m-low", 3 * kMiB, SHM_SECTOR_RING, false, "low", ""},
        {"1024", kMiB, SHM_SECTOR_RING, false, "", ""},                 // default unit 1 KiB
        {"2M", 2 * kMiB, SHM_SECTOR_RING, false, "", ""},
        {"5-a+b", 5 * 1024, SHM_SECTOR_RING, true, "b", ""},           // '+' wins the tag
        {"8M+t:x:y", 8 * kMiB, SHM_SECTOR_RING, true, "t", "x:y"},
        {"4M-x~streaming", 4 * kMiB, SHM_SECTOR_CACHE, false, "streaming", ""},
        {"2M~a:b", 2 * kMiB, SHM_SECTOR_CACHE, false, "a:b", ""},       // caches keep ':'
        {"7K-0123456789012345678901234567890123456789", 7 * 1024, SHM_SECTOR_RING, false,
         "01234567890123456789012345678901234", ""},                    // 35 characters
        {"70M-big", 63 * kMiB, SHM_SECTOR_RING, false, "big", ""},      // clamped to what is left
    };
    for (const DescCase &c : cases) {
        SCOPED_TRACE(c.text);
        SharedMemBlockInfo *info = MakeBlock("64M", {"1M-first", c.text});
        ASSERT_NE(nullptr, info);
        SharedMemSectorHeader *slot = Ring(info, 1);
        EXPECT_EQ(c.type, slot->dwSectorType);
        EXPECT_EQ(kMiB, slot->dwStartOffset);
        EXPECT_EQ(kMiB + c.size, slot->dwEndOffset);
        const char *tag = c.type == SHM_SECTOR_RING ? slot->szTag : Cache(info, 1)->szTag;
        EXPECT_STREQ(c.tag, tag);
        if (c.type == SHM_SECTOR_RING) {
            EXPECT_STREQ(c.secondTag, slot->szSecondTag);
            EXPECT_EQ(c.timeshift, slot->byTimeshift == 1);
        }
    }
}

TEST_F(BlockTest, EdgesOfTheLayout) {
    // Sectors behind the point where the total is used up get nothing.
    SharedMemBlockInfo *info = MakeBlock("1M", {"1M-a", "512K-b"});
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(kMiB, Ring(info, 1)->dwStartOffset);
    EXPECT_EQ(kMiB, Ring(info, 1)->dwEndOffset);
    // One sector spans the segment whatever its number says.
    SharedMemBlockInfo *solo = MakeBlock("2M", {"1K+solo"});
    ASSERT_NE(nullptr, solo);
    EXPECT_EQ(kSlot, Ring(solo, 0)->dwStartOffset);
    EXPECT_EQ(2 * kMiB, Ring(solo, 0)->dwEndOffset);
    EXPECT_STREQ("solo", Ring(solo, 0)->szTag);
    EXPECT_EQ(0, Ring(solo, 0)->byHasNext);
    // Without descriptions the one sector is a ring without tags; the
    // allocator cuts a ring's text at its ':' in the caller's buffer.
    char total[] = "2M";
    ASSERT_EQ(0, SharedMemBlock_Allocate(NewKey(), total, 1, &config_, nullptr));
    char text[] = "1M+cam:/var/run/stamp";
    char *descs[] = {text};
    ASSERT_EQ(0, SharedMemBlock_Allocate(NewKey(), total, 1, &config_, descs));
    EXPECT_STREQ("1M+cam", text);
}

struct Refusal {
    const char *total;
    std::vector<std::string> descs;
    uint32_t memoryType;
    const char *message;
    bool leavesSegment;  // failures after the segment was made leave it
};

TEST_F(BlockTest, RefusesWhatCannotBeLaidOut) {
    const Refusal cases[] = {
        {"40K", {"1M-a"}, SHM_MEMORY_SYSV, "Allocate memory small than header size?", false},
        {"1M", {"1M-a"}, 2, "Invalid memory type!!", false},
        {"1M", {}, SHM_MEMORY_SYSV, "Invalid sector descriptions!!", false},
        {"2M", {"20K-video", "256K~streaming"}, SHM_MEMORY_SYSV,
         "Allocate memory small than header size?", true},
        {"2M", {"2M-a", "1M~streaming"}, SHM_MEMORY_SYSV,
         "Cache Buffer size 65536 or 0 is larger than left size 0!!\n", true},
    };
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.message);
        config_.dwMemoryType = c.memoryType;
        std::string out;
        key_t key;
        EXPECT_EQ(-1, Allocate(c.total, c.descs, &out, &key));
        EXPECT_NE(std::string::npos, out.find(c.message)) << out;
        EXPECT_EQ(c.leavesSegment, shmget(key, 0, 0) != -1);
        if (c.leavesSegment) {  // the key stays taken until the block is deleted
            std::string total(c.total), text("1M-a");
            char *one[] = {&text[0]};
            EXPECT_EQ(-1, SharedMemBlock_Allocate(key, &total[0], 1, &config_, one));
            EXPECT_EQ(0, SharedMemBlock_Delete(key));
            EXPECT_TRUE(KeyIsFree(key));
        }
    }
}

TEST_F(BlockTest, SemaphoresAndAttachments) {
    key_t key;
    SharedMemBlockInfo *info = MakeBlock("8M", {"1M-a", "1M-b", "1M~streaming"}, &key);
    ASSERT_NE(nullptr, info);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(1, semctl(info->iSemId, i, GETVAL));
    // A set that has been used keeps its values.
    ASSERT_EQ(0, SharedMem_SemaphoreP(info->iSemId, 1));
    EXPECT_EQ(info->iSemId, SharedMem_SemaphoreInit(key, 3));
    EXPECT_EQ(0, semctl(info->iSemId, 1, GETVAL));
    ASSERT_EQ(0, SharedMem_SemaphoreV(info->iSemId, 1));

    SharedMemBlockInfo *held = info;
    EXPECT_EQ(-1, SharedMemBlock_Attach(&held, 0, key));  // already holds a record
    EXPECT_EQ(info, held);
    SharedMemBlockInfo *none = nullptr;
    EXPECT_EQ(-1, SharedMemBlock_Attach(&none, 0, NewKey()));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(-1, SharedMemBlock_Detach(&none));
    EXPECT_NE(0u, gShm_Clktck);
}

TEST_F(BlockTest, RenamesFlushesAndRepartitions) {
    SharedMemBlockInfo *info =
        MakeBlock("300M", {"10M-a", "10M+b", "10M-c", "1M~streaming"});
    ASSERT_NE(nullptr, info);

    EXPECT_EQ(0, SharedMemBlock_UpdateTagName(info, 2, "x-renamed"));
    EXPECT_STREQ("renamed", Ring(info, 2)->szTag);
    EXPECT_EQ(-1, SharedMemBlock_UpdateTagName(info, 2, "nodash"));
    EXPECT_EQ(-1, SharedMemBlock_UpdateTagName(info, 4, "x-y"));
    EXPECT_STREQ("renamed", Ring(info, 2)->szTag);

    SharedMemCacheHeader *cache = Cache(info, 3);
    cache->iPrimaryBoundary = 1;
    for (int k = 0; k < 2; ++k) {
        cache->atCache[k].dwFlags = SHM_FRAME_UNREAD;
        cache->atCache[k].dwTimeTick = 77;
        cache->atCache[k].abyAccessCount[4] = 2;
        cache->atCache[k].abyAccessCount[5] = 1;
    }
    EXPECT_EQ(0, SharedMemBlock_FlushAccessCountWithAttachId(info, 4));
    EXPECT_EQ(0, cache->atCache[0].abyAccessCount[4]);
    EXPECT_EQ(1, cache->atCache[0].abyAccessCount[5]);
    EXPECT_EQ(-1, SharedMemBlock_FlushAccessCountWithAttachId(info, 16));

    SharedMemSectorHeader *ring2 = Ring(info, 2);
    ring2->iLatestIndex = 5;
    ring2->atFrame[5].dwTimeTick = 99;
    char d0[] = "100K-Main";
    char d1[] = "2M-+x";
    char *descs[] = {d0, d1};
    uint32_t ring2Start = ring2->dwStartOffset;
    ASSERT_EQ(0, SharedMemBlock_Repartition(info, 2, descs));
    EXPECT_EQ(100 * kMiB, Ring(info, 0)->dwEndOffset);  // the tag's 'M' counts here
    EXPECT_EQ(4 * kSlot, Ring(info, 0)->dwStartOffset);
    EXPECT_EQ(100 * kMiB, Ring(info, 1)->dwStartOffset);
    EXPECT_EQ(102 * kMiB, Ring(info, 1)->dwEndOffset);
    EXPECT_EQ(0, Ring(info, 1)->byTimeshift);             // '-' wins over '+'
    EXPECT_EQ(ring2Start, ring2->dwStartOffset);          // no description: stays
    EXPECT_EQ(-1, ring2->iLatestIndex);                   // but emptied
    EXPECT_EQ(0u, ring2->atFrame[5].dwTimeTick);
    EXPECT_EQ(0u, cache->atCache[1].dwFlags);
    EXPECT_EQ(0, cache->atCache[1].abyAccessCount[5]);
    EXPECT_EQ(77u, cache->atCache[1].dwTimeTick);
    EXPECT_STREQ("a", Ring(info, 0)->szTag);

    char *many[] = {d0, d0, d0, d0, d0};
    EXPECT_EQ(-1, SharedMemBlock_Repartition(info, 5, many));
}

int HoldLockAndDie(void *arg) {
    int semId = *static_cast<int *>(arg);
    if (SharedMem_SemaphoreP(semId, 0) != 0) return 1;
    raise(SIGKILL);
    return 2;
}

TEST_F(BlockTest, AKilledHolderGivesItsLockBack) {
    SharedMemBlockInfo *info = MakeBlock("2M", {"1M-a"});
    ASSERT_NE(nullptr, info);
    int semId = info->iSemId;
    EXPECT_EQ(-1, RunInChild(HoldLockAndDie, &semId));  // killed, not exited
    EXPECT_EQ(1, semctl(semId, 0, GETVAL));
}

struct ChildView {
    key_t key;
};

int CheckFromChild(void *arg) {
    key_t key = static_cast<ChildView *>(arg)->key;
    SharedMemBlockInfo *info = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return 10;
    SharedMemHandle *handle = nullptr;
    if (SharedMem_InitialByTag(info, &handle, "video", 5) != 0) return 11;
    SharedMemSectorHeader *ring = handle->ptHeader;
    const uint8_t *data = static_cast<uint8_t *>(handle->pvBase) + ring->dwStartOffset;
    if (ring->iLatestIndex != 42 || memcmp(data, "from parent", 12) != 0) return 12;
    memcpy(static_cast<uint8_t *>(handle->pvBase) + ring->dwStartOffset + 64, "from child", 11);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return 0;
}

TEST_F(BlockTest, AnotherProcessSeesTheSameBlock) {
    ChildView view;
    SharedMemBlockInfo *info = MakeBlock("4M", {"2M-video", "1M~streaming"}, &view.key);
    ASSERT_NE(nullptr, info);
    SharedMemSectorHeader *ring = Ring(info, 0);
    uint8_t *data = static_cast<uint8_t *>(info->pvDataBase) + ring->dwStartOffset;
    memcpy(data, "from parent", 12);
    ring->iLatestIndex = 42;
    EXPECT_EQ(0, RunInChild(CheckFromChild, &view));
    EXPECT_STREQ("from child", reinterpret_cast<char *>(data + 64));
}

// The namespace's own limit is changed; never run this outside one.
class ShmMaxTest : public IpcTest {
protected:
    void SetUp() override {
        if (getenv("MOLK_ISOLATED") == nullptr) GTEST_SKIP() << "needs a private IPC namespace";
    }
    static std::string Limit() {
        FILE *f = fopen("/proc/sys/kernel/shmmax", "r");
        char buf[64] = {0};
        if (f != nullptr) {
            if (fgets(buf, sizeof buf, f) == nullptr) buf[0] = 0;
            fclose(f);
        }
        std::string s(buf);
        while (!s.empty() && s.back() == '\n') s.pop_back();
        return s;
    }
    static void SetLimit(const char *value) {
        FILE *f = fopen("/proc/sys/kernel/shmmax", "w");
        ASSERT_NE(nullptr, f);
        fputs(value, f);
        fclose(f);
    }
};

TEST_F(ShmMaxTest, RaisesALimitThatIsTooLow) {
    SetLimit("1000");
    EXPECT_EQ(0, CheckShmMax(500));
    EXPECT_EQ("1000", Limit());
    EXPECT_EQ(0, CheckShmMax(5000));
    EXPECT_EQ("5000", Limit());
    // The allocator raises it before its shmget.
    SetLimit("4096");
    SharedMemBlockInfo *info = MakeBlock("2M", {"1M-a"});
    EXPECT_NE(nullptr, info);
    EXPECT_EQ("2097152", Limit());
}

TEST_F(ShmMaxTest, AWideLimitAdmitsEverySize) {
    SetLimit("18446744073692774399");
    EXPECT_EQ(0, CheckShmMax(0xFFFFFFFFu));
    EXPECT_EQ("18446744073692774399", Limit());
}

// Random description texts, built from the grammar's own characters, never
// make the allocator write outside the header slots or break the chain.
TEST_F(BlockTest, HostileDescriptionsStayInsideTheHeaderSlots) {
    unsigned seed = getenv("MOLK_SEED") ? static_cast<unsigned>(atoi(getenv("MOLK_SEED"))) : 1234u;
    std::mt19937 rng(seed);
    const char alphabet[] = "0123456789KMm-+~:~-+ab";
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
        int count = 1 + static_cast<int>(rng() % 4);
        std::vector<std::string> texts;
        for (int i = 0; i < count; ++i) {
            std::string t;
            size_t len = rng() % 48;
            for (size_t k = 0; k < len; ++k) t += alphabet[rng() % (sizeof alphabet - 1)];
            texts.push_back(t);
        }
        std::vector<char *> descs;
        for (std::string &t : texts) descs.push_back(&t[0]);
        uint32_t total = static_cast<uint32_t>(count) * kSlot + rng() % (64 * 1024);
        std::string totalText = std::to_string(total / 1024 + 1) + "K";
        key_t key = NewKey();
        if (SharedMemBlock_Allocate(key, &totalText[0], count, &config_, descs.data()) != 0) {
            continue;  // a cache that does not fit; the fixture removes the segment
        }
        SharedMemBlockInfo *info = nullptr;
        ASSERT_EQ(0, SharedMemBlock_Attach(&info, 0, key));
        ASSERT_EQ(count, info->iSectorNum);
        uint32_t segment = Ring(info, 0)->dwTotalSize;
        uint32_t end = 0;
        for (int i = 0; i < count; ++i) {
            SharedMemSectorHeader *slot = Ring(info, i);
            EXPECT_LE(slot->dwEndOffset, segment);
            if (i > 0) {
                EXPECT_EQ(end, slot->dwStartOffset);
            }
            end = slot->dwEndOffset;
            if (slot->dwSectorType == SHM_SECTOR_CACHE) {
                EXPECT_EQ(0, Cache(info, i)->szTag[35]);
            } else {
                EXPECT_EQ(0, slot->szTag[35]);
                EXPECT_EQ(0, slot->szSecondTag[35]);
            }
        }
        const uint8_t *data = static_cast<uint8_t *>(info->pvDataBase) + count * kSlot;
        size_t dataSize = segment - count * kSlot;
        EXPECT_EQ(data + dataSize,
                  std::find_if(data, data + dataSize, [](uint8_t b) { return b != 0; }));
        SharedMemBlock_Detach(&info);
    }
}

}  // namespace
