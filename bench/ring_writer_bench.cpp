// The writer's cycle (query a place + publish the frame) beside the cost of
// the one thing it cannot avoid: an uncontended P and V on the sector lock,
// with SEM_UNDO, measured in the same run. Frame bytes are not written: the
// cycle's own cost is what is measured, not memcpy.
//
// Runs on a private segment and semaphore set, removed at the end, so it
// needs no namespace of its own:
//   ring_writer_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sharedmem.h"

namespace {

constexpr uint32_t kDataBytes = 16u << 20;  // 32 frames of 512 KiB per lap

// One ring sector laid out as the allocator lays it out, in a segment and
// semaphore set that nobody else can find.
class PrivateRing {
public:
    PrivateRing() {
        uint32_t total = SHM_HEADER_SLOT_SIZE + kDataBytes;
        shmId_ = shmget(IPC_PRIVATE, total, IPC_CREAT | 0600);
        if (shmId_ == -1) Die("shmget");
        void *base = shmat(shmId_, nullptr, 0);
        shmctl(shmId_, IPC_RMID, nullptr);  // gone with the last detach, whatever happens
        if (base == reinterpret_cast<void *>(-1)) Die("shmat");
        semId_ = SharedMem_SemaphoreInit(IPC_PRIVATE, 1);
        if (semId_ == -1) Die("semget");

        base_ = static_cast<uint8_t *>(base);
        memset(base_, 0, total);  // fault every page in before timing
        ring_ = reinterpret_cast<SharedMemSectorHeader *>(base_);
        ring_->dwSectorType = SHM_SECTOR_RING;
        ring_->dwMemoryType = SHM_MEMORY_SYSV;
        ring_->dwTotalSize = total;
        ring_->dwStartOffset = SHM_HEADER_SLOT_SIZE;
        ring_->dwEndOffset = total;
        ring_->dwWriteOffset = SHM_HEADER_SLOT_SIZE;
        ring_->iOldestIndex = ring_->iLatestIndex = ring_->iBoundaryIndex = -1;
        ring_->iMaxIndex = SHM_FRAME_ENTRIES - 1;
        strcpy(ring_->szTag, "bench");

        handle_.pvBase = base_;
        handle_.ptHeader = ring_;
        handle_.iAttachId = 16;
        handle_.iSemId = semId_;
        gShm_Clktck = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
    }
    ~PrivateRing() {
        semctl(semId_, 0, IPC_RMID);
        shmdt(base_);
    }
    SharedMemHandle *handle() { return &handle_; }
    int semId() const { return semId_; }

private:
    static void Die(const char *what) {
        perror(what);
        exit(1);
    }
    int shmId_ = -1;
    int semId_ = -1;
    uint8_t *base_ = nullptr;
    SharedMemSectorHeader *ring_ = nullptr;
    SharedMemHandle handle_ = {};
};

PrivateRing &Ring() {
    static PrivateRing ring;
    return ring;
}

void SemOp(int semId, short delta) {
    struct sembuf op = {0, delta, SEM_UNDO};
    if (semop(semId, &op, 1) != 0) abort();
}

void BM_BareSemaphorePV(benchmark::State &state) {
    int semId = Ring().semId();
    for (auto _ : state) {
        SemOp(semId, -1);
        SemOp(semId, 1);
    }
}
BENCHMARK(BM_BareSemaphorePV);

// One writer cycle per iteration; ticks are the caller's (arg 1) or
// stamped by the library from times() (arg 0).
void BM_WriterCycle(benchmark::State &state) {
    SharedMemHandle *handle = Ring().handle();
    uint32_t size = static_cast<uint32_t>(state.range(0));
    bool ownTick = state.range(1) != 0;
    uint32_t tick = 1;
    for (auto _ : state) {
        uint8_t *place = nullptr;
        if (SharedMem_QueryAutoRewindWriteBuffer(handle, &place, size) != 0) abort();
        benchmark::DoNotOptimize(place);
        SharedMemWriteInfo info = {place, SHM_FRAME_P, size, ownTick ? (tick += 40) : 0u};
        if (SharedMem_UpdateWritedBuffer(handle, &info) != 0) abort();
    }
    state.SetLabel(ownTick ? "caller's tick" : "stamped tick");
}
BENCHMARK(BM_WriterCycle)
    ->ArgNames({"bytes", "own_tick"})
    ->ArgsProduct({{4 << 10, 64 << 10, 512 << 10}, {1, 0}});

}  // namespace

BENCHMARK_MAIN();
