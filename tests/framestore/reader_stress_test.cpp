// A writer at full speed and reader processes of several kinds on a real
// block, in place and through the cache. Every frame carries its sequence number and a checksum of
// its bytes; every pinned reader checks every frame it is handed, and that
// the sequence only goes up. The writer retries a refused frame and counts
// the refusals; nothing else may fail.
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "fake_ring.h"
#include "frame_procs.h"
#include "ipc_fixture.h"

namespace {

constexpr uint32_t kFrames = 100000, kKeyEvery = procs::kKeyEvery;
// Fruitless tries before a process gives up: only reached when a pin is
// held for good or the ring stalls.
constexpr uint32_t kStallLimit = 20u * 1000 * 1000;

// AttachID and flags of each reader process; from AttachID 16 on a reader
// leaves no pin, and its bytes may be torn under it. AttachIDs 0 and 1 read
// through the "streaming" cache and hold copies, never the ring.
constexpr int kReaders = 7;
const int kAttachIds[kReaders] = {3, 4, 5, 6, 16, 0, 1};
const uint32_t kFlags[kReaders] = {kInPlace,
                                   kInPlace | SHM_READ_MARK_ONLY,
                                   kInPlace | SHM_READ_RATE_LIMIT,
                                   kInPlace | SHM_READ_FROM_OLDEST,
                                   kInPlace,
                                   SHM_READ_VIA_CACHE,
                                   SHM_READ_VIA_CACHE | SHM_READ_MARK_ONLY};

// In MAP_SHARED memory, seen by every process of the test.
struct Shared {
    uint32_t published, writerDone, refused;
    uint32_t delivered[kReaders], bad[kReaders];
};

using procs::Checksum;
using procs::Fill;
using procs::SizeOf;
using procs::TickOf;

int RunWriter(SharedMemHandle *handle, Shared *s) {
    for (uint32_t seq = 0; seq < kFrames; ++seq) {
        const uint32_t size = SizeOf(seq);
        uint8_t *place = nullptr;
        while (SharedMem_QueryAutoRewindWriteBuffer(handle, &place, size) != 0) {
            uint32_t status = 0;
            SharedMem_QueryWriteStatus(handle, &status);
            if (status != SHM_WRITE_OCCUPIED) return 2;  // no frame here is ever unread
            if (++s->refused > kStallLimit) return 3;
            sched_yield();
        }
        Fill(place, seq, size);
        SharedMemWriteInfo frame = {place, seq % kKeyEvery == 0 ? 0 : SHM_FRAME_P, size,
                                    TickOf(seq)};
        if (SharedMem_UpdateWritedBuffer(handle, &frame) != 0) return 4;
        __atomic_store_n(&s->published, seq + 1, __ATOMIC_RELEASE);
    }
    return 0;
}

// Every reader process attaches on its own, so the block lies elsewhere in
// each.
int RunReader(key_t key, Shared *s, int which) {
    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return 1;
    if (SharedMem_InitialByTag(info, &handle, "video", kAttachIds[which]) != 0) return 1;
    SharedMemBufClient *client = nullptr;
    int64_t lastSeq = -1;
    for (uint32_t queriesAfterTheWriter = 0; queriesAfterTheWriter < kStallLimit;) {
        const bool done = __atomic_load_n(&s->writerDone, __ATOMIC_ACQUIRE) != 0;
        queriesAfterTheWriter += done ? 1 : 0;
        // No dwMinInterval: the rate limited reader gets a frame a second.
        const uint32_t ref = TickOf(__atomic_load_n(&s->published, __ATOMIC_ACQUIRE));
        SharedMemReadRequest request = {kFlags[which], 0, ref, 0, 0, 0, 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request) == 0) {
            ++s->delivered[which];
            uint32_t header[2];  // seq, checksum
            memcpy(header, data, sizeof header);
            if (kAttachIds[which] < 16) {
                const bool intact = size == SizeOf(header[0]) && Checksum(data, size) == header[1];
                const bool isKey = header[0] % kKeyEvery == 0;
                s->bad[which] += !intact || static_cast<int64_t>(header[0]) <= lastSeq ||
                                 ((kFlags[which] & SHM_READ_MARK_ONLY) && !isKey);
                lastSeq = header[0];
            }
            SharedMem_ReleaseReadBuffer(client);
        } else if (request.dwReason == SHM_REASON_LATEST) {
            if (done) return 0;
            // Half the readers sleep until the writer publishes, half poll.
            if (which % 2 == 0 && SharedMem_WaitReadBuffer(handle, client, 50) < 0) return 6;
            if (which % 2 == 1) sched_yield();
        }
    }
    return 5;
}

class ReaderStress : public IpcTest {};

TEST_F(ReaderStress, WriterAndReadersAcrossProcessesNeverSeeABrokenFrame) {
    DebugLevel quiet(2);  // conflicts are the ordinary flow here
    key_t key = 0;
    SharedMemBlockInfo *info = MakeBlock("3M", {"2M-video", "256K~8K~streaming"}, &key);
    ASSERT_NE(nullptr, info);
    void *area =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, area);
    Shared *s = static_cast<Shared *>(area);  // zero-filled by mmap
    pid_t readers[kReaders];
    for (int i = 0; i < kReaders; ++i) {
        fflush(stdout);
        if ((readers[i] = fork()) == 0) _exit(RunReader(key, s, i));
    }
    // The test process writes.
    SharedMemHandle *writer = nullptr;
    EXPECT_EQ(0, SharedMem_InitialByTag(info, &writer, "video", 16));
    EXPECT_EQ(0, writer != nullptr ? RunWriter(writer, s) : -1);
    __atomic_store_n(&s->writerDone, 1u, __ATOMIC_RELEASE);
    SharedMem_Release(&writer);
    for (int i = 0; i < kReaders; ++i) {
        int status = -1;
        waitpid(readers[i], &status, 0);
        EXPECT_EQ(0, status) << "reader " << i;
    }
    printf("stress: %u frames, %u refusals; delivered", s->published, s->refused);
    for (int i = 0; i < kReaders; ++i) printf(" %u", s->delivered[i]);
    printf("\n");
    EXPECT_EQ(kFrames, s->published);
    for (int i = 0; i < kReaders; ++i) {
        EXPECT_GT(s->delivered[i], 0u) << i;
        EXPECT_EQ(0u, s->bad[i]) << "frames broken, out of order or not key, reader " << i;
    }
    // Every pin went back: none in the ring, none on a copy.
    for (const SharedMemFrameEntry &e : Ring(info, 0)->atFrame) {
        ASSERT_EQ(0, memcmp(e.abyAccessCount, g_abyNULLArray, 16));
    }
    for (const SharedMemCacheEntry &e : Cache(info, 1)->atCache) {
        ASSERT_EQ(0, memcmp(e.abyAccessCount, g_abyNULLArray, 16));
    }
    munmap(area, sizeof(Shared));
}

}  // namespace
