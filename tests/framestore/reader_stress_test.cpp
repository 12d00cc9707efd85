// One writer process at full speed and several reader processes with
// different flags on a real block. Every frame carries its sequence number,
// its exact size and a checksum of its bytes; every pinned reader checks
// every frame it is handed, and that the sequence only goes up. The writer
// retries a refused frame until it has a place, and counts the refusals.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ipc_fixture.h"
#include "sharedmem.h"

namespace {

constexpr uint32_t kHeaderBytes = 12;  // seq, exact size, checksum
constexpr uint32_t kKeyEvery = 30;
constexpr uint32_t kTickStep = 33;     // about 30 frames a second
constexpr uint32_t kRateInterval = 100;
constexpr int kMaxReaders = 5;
// Consecutive queries that make no progress before a process gives up:
// only reached when something holds a pin for good or the ring stalls.
constexpr uint32_t kStallLimit = 20u * 1000 * 1000;

enum ExitCode {
    kOk = 0,
    kAttachFailed = 10,
    kHandleFailed,
    kWriteFailed,
    kUpdateFailed,
    kWriterStalled,
    kReaderStalled,
};

// Per reader, written by that reader only.
struct ReaderResult {
    uint32_t delivered;
    uint32_t badSize;
    uint32_t badChecksum;
    uint32_t badOrder;
    uint32_t badTick;
    uint32_t notKey;
    uint32_t firstTick, lastTick;
    uint32_t reasons[16];
};

// In MAP_SHARED memory, seen by all processes of the test.
struct SharedResults {
    uint32_t published;  // frames the writer has published so far
    uint32_t writerDone;
    uint32_t refusedOccupied;
    uint32_t refusedUnread;
    uint32_t refusedOther;
    ReaderResult readers[kMaxReaders];
};

struct ReaderKind {
    const char *name;
    int attachId;
    uint32_t flags;
    uint32_t minInterval;
};

const ReaderKind kReaders[kMaxReaders] = {
    {"in place", 3, SHM_READ_IN_PLACE, 0},
    {"mark only", 4, SHM_READ_IN_PLACE | SHM_READ_MARK_ONLY, 0},
    {"rate limited", 5, SHM_READ_IN_PLACE | SHM_READ_RATE_LIMIT, kRateInterval},
    {"unpinned", 16, SHM_READ_IN_PLACE, 0},
    {"from oldest", 6, SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST, 0},
};

uint32_t FrameCount() {
    if (const char *env = getenv("MOLK_STRESS_FRAMES")) return static_cast<uint32_t>(atoi(env));
    // 32-bit builds run under an emulator in CI.
    return sizeof(void *) == 4 ? 20000u : 100000u;
}

uint32_t Load(const uint32_t &word) { return __atomic_load_n(&word, __ATOMIC_ACQUIRE); }
void Store(uint32_t &word, uint32_t value) { __atomic_store_n(&word, value, __ATOMIC_RELEASE); }

uint32_t Mix(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

// 16 bytes to a little over 4 KiB, so that laps end both on bytes and, now
// and then, on the entry table.
uint32_t FrameSize(uint32_t seq) { return 16 + Mix(seq) % 4100; }
uint32_t FrameTick(uint32_t seq) { return 1 + kTickStep * seq; }
uint32_t FrameFlags(uint32_t seq) {
    return seq % kKeyEvery == 0 ? 0u : SHM_FRAME_P | ((seq % 3) << 3);
}

uint32_t Checksum(const uint8_t *bytes, uint32_t size) {
    uint32_t h = 0x811C9DC5u;
    uint32_t i = kHeaderBytes;
    for (; i + 4 <= size; i += 4) {
        uint32_t word;
        memcpy(&word, bytes + i, 4);
        h = (h ^ word) * 0x01000193u;
    }
    for (; i < size; ++i) h = (h ^ bytes[i]) * 0x01000193u;
    return h;
}

void FillFrame(uint8_t *bytes, uint32_t seq, uint32_t size) {
    uint32_t x = Mix(seq) | 1;
    for (uint32_t i = kHeaderBytes; i < size; i += 4) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        memcpy(bytes + i, &x, size - i < 4 ? size - i : 4);
    }
    uint32_t header[3] = {seq, size, Checksum(bytes, size)};
    memcpy(bytes, header, sizeof header);
}

struct StressRun {
    key_t key;
    uint32_t frames;
    SharedResults *results;
};

int RunWriter(const StressRun &s) {
    SharedMemBlockInfo *info = nullptr;
    if (SharedMemBlock_Attach(&info, 0, s.key) != 0) return kAttachFailed;
    SharedMemHandle *handle = nullptr;
    if (SharedMem_InitialByTag(info, &handle, "video", 16) != 0) return kHandleFailed;
    int code = kOk;
    for (uint32_t seq = 0; seq < s.frames && code == kOk; ++seq) {
        uint32_t size = FrameSize(seq);
        uint8_t *place = nullptr;
        for (uint32_t refusals = 0;; ++refusals) {
            if (SharedMem_QueryAutoRewindWriteBuffer(handle, &place, size) == 0) break;
            uint32_t status = 0;
            SharedMem_QueryWriteStatus(handle, &status);
            if (status == SHM_WRITE_OCCUPIED) {
                __atomic_add_fetch(&s.results->refusedOccupied, 1, __ATOMIC_RELAXED);
            } else if (status == SHM_WRITE_UNREAD) {
                __atomic_add_fetch(&s.results->refusedUnread, 1, __ATOMIC_RELAXED);
            } else {
                __atomic_add_fetch(&s.results->refusedOther, 1, __ATOMIC_RELAXED);
                code = kWriteFailed;
                break;
            }
            if (refusals > kStallLimit) {
                code = kWriterStalled;
                break;
            }
            sched_yield();
        }
        if (code != kOk) break;
        FillFrame(place, seq, size);
        SharedMemWriteInfo frame = {place, FrameFlags(seq), size, FrameTick(seq)};
        if (SharedMem_UpdateWritedBuffer(handle, &frame) != 0) code = kUpdateFailed;
        Store(s.results->published, seq + 1);
    }
    Store(s.results->writerDone, 1);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return code;
}

// Checks one delivered frame of a pinned reader.
void CheckFrame(const ReaderKind &kind, ReaderResult &r, const uint8_t *data, uint32_t size,
                const SharedMemBufClient *client, int64_t *lastSeq) {
    uint32_t header[3];
    memcpy(header, data, sizeof header);
    uint32_t seq = header[0], exact = header[1];
    if (exact < kHeaderBytes || exact > size || ((exact + 3) & ~3u) != size) {
        ++r.badSize;
        return;
    }
    if (Checksum(data, exact) != header[2]) ++r.badChecksum;
    if (static_cast<int64_t>(seq) <= *lastSeq) ++r.badOrder;
    if (client->dwDeliveredTimeTick != FrameTick(seq)) ++r.badTick;
    if ((kind.flags & SHM_READ_MARK_ONLY) && seq % kKeyEvery != 0) ++r.notKey;
    if (*lastSeq < 0) r.firstTick = FrameTick(seq);
    r.lastTick = FrameTick(seq);
    *lastSeq = seq;
}

int RunReader(const StressRun &s, int which) {
    const ReaderKind &kind = kReaders[which];
    ReaderResult &r = s.results->readers[which];
    SharedMemBlockInfo *info = nullptr;
    if (SharedMemBlock_Attach(&info, 0, s.key) != 0) return kAttachFailed;
    SharedMemHandle *handle = nullptr;
    if (SharedMem_InitialByTag(info, &handle, "video", kind.attachId) != 0) return kHandleFailed;
    const bool pinned = kind.attachId <= 15;
    SharedMemBufClient *client = nullptr;
    int64_t lastSeq = -1;
    uint32_t idle = 0;
    int code = kOk;
    volatile uint8_t sink = 0;
    for (;;) {
        bool done = Load(s.results->writerDone) != 0;
        uint32_t published = Load(s.results->published);
        SharedMemReadRequest request = {kind.flags, 0, FrameTick(published == 0 ? 0 : published - 1),
                                        0, 0, kind.minInterval, 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request) == 0) {
            ++r.delivered;
            if (pinned) {
                CheckFrame(kind, r, data, size, client, &lastSeq);
            } else {
                // Unpinned: the bytes may be torn under us; only touch them.
                sink = static_cast<uint8_t>(sink + data[0] + data[size - 1]);
            }
            SharedMem_ReleaseReadBuffer(client);
            idle = 0;
            continue;
        }
        uint32_t reason = request.dwReason;
        ++r.reasons[reason < 16 ? reason : 15];
        if (reason == SHM_REASON_LATEST && done) break;
        // Drops move the cursor on: that is progress. Waiting counts only
        // once the writer has finished.
        bool moved = reason >= SHM_REASON_NOT_YET && reason <= SHM_REASON_TOO_EARLY;
        if (moved) idle = 0;
        if (done && !moved && ++idle > kStallLimit) {
            code = kReaderStalled;
            break;
        }
        if (reason == SHM_REASON_LATEST || reason == SHM_REASON_NONE) sched_yield();
    }
    SharedMem_FreeBufClient(&client);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return code;
}

pid_t Spawn(const std::function<int()> &body) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

class ReaderStress : public IpcTest {};

TEST_F(ReaderStress, WriterAndReadersAcrossProcessesNeverSeeABrokenFrame) {
    const uint32_t frames = FrameCount();
    uint32_t savedLevel = gShm_DebugLevel;
    gShm_DebugLevel = 2;  // conflicts are the ordinary flow here
    key_t key = 0;
    SharedMemBlockInfo *info = MakeBlock("2M", {"2M-video"}, &key);
    ASSERT_NE(nullptr, info);
    void *area = mmap(nullptr, sizeof(SharedResults), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, area);
    SharedResults *results = static_cast<SharedResults *>(area);
    memset(results, 0, sizeof *results);
    const StressRun setup = {key, frames, results};

    auto started = std::chrono::steady_clock::now();
    std::vector<pid_t> readers;
    for (int i = 0; i < kMaxReaders; ++i) {
        readers.push_back(Spawn([&setup, i] { return RunReader(setup, i); }));
        ASSERT_GT(readers.back(), 0);
    }
    pid_t writer = Spawn([&setup] { return RunWriter(setup); });
    ASSERT_GT(writer, 0);

    auto exitOf = [](pid_t pid) {
        int status = 0;
        if (waitpid(pid, &status, 0) != pid) return -1;
        if (WIFSIGNALED(status)) return 1000 + WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(kOk, exitOf(writer)) << "writer";
    for (int i = 0; i < kMaxReaders; ++i) EXPECT_EQ(kOk, exitOf(readers[i])) << kReaders[i].name;
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    gShm_DebugLevel = savedLevel;

    EXPECT_EQ(frames, results->published);
    EXPECT_EQ(0u, results->refusedOther);
    printf("stress: %u frames in %.2f s; writer refused %u (occupied) %u (unread)\n", frames,
           seconds, results->refusedOccupied, results->refusedUnread);
    for (int i = 0; i < kMaxReaders; ++i) {
        const ReaderResult &r = results->readers[i];
        SCOPED_TRACE(kReaders[i].name);
        printf("  %-12s delivered %6u, failed 4:%u 8:%u 10:%u 11:%u\n", kReaders[i].name,
               r.delivered, r.reasons[4], r.reasons[8], r.reasons[10], r.reasons[11]);
        EXPECT_GT(r.delivered, 0u);
        EXPECT_EQ(0u, r.badSize);
        EXPECT_EQ(0u, r.badChecksum);
        EXPECT_EQ(0u, r.badOrder);
        EXPECT_EQ(0u, r.badTick);
        EXPECT_EQ(0u, r.notKey);
        if (kReaders[i].flags & SHM_READ_RATE_LIMIT) {
            // The carry lets one frame come early by at most one interval,
            // never two in a row.
            EXPECT_GE(static_cast<uint64_t>(r.lastTick - r.firstTick),
                      static_cast<uint64_t>(r.delivered - 2) * kReaders[i].minInterval);
        }
    }
    // Every reader gave back what it held before it left.
    SharedMemSectorHeader *ring = Ring(info, 0);
    for (int i = 0; i < SHM_FRAME_ENTRIES; ++i) {
        ASSERT_EQ(0, memcmp(ring->atFrame[i].abyAccessCount, g_abyNULLArray, 16)) << i;
    }
    munmap(area, sizeof(SharedResults));
}

}  // namespace
