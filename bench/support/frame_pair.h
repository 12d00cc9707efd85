// One writer process and one reader process moving frames, through a ring
// of a block or through a pipe, for the benchmarks that compare the two.
//
// Each process is pinned to a core of its own; the writer is commanded
// through pipes, a batch of frames at a time, and reports back after each
// batch. Every byte of frame n is (n & 0xFF), so that the reader can check
// every delivered byte with a sum.
#ifndef MOLK_BENCH_SUPPORT_FRAME_PAIR_H
#define MOLK_BENCH_SUPPORT_FRAME_PAIR_H

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sharedmem.h"
#include "bench_block.h"
#include "bench_procs.h"

namespace molkbench {

using Clock = std::chrono::steady_clock;
using plainbench::ExpectedSum;
using plainbench::FillByte;
using plainbench::ReadAll;
using plainbench::SumWords;
using plainbench::WriteAll;

// Frames per measurement, by size: a few tens of milliseconds each.
inline uint32_t FramesPerBatch(uint32_t size) {
    if (size <= 4096) return 20000;
    if (size <= 65536) return 8000;
    return 1500;
}

inline constexpr int kWriterCpu = 0;
inline constexpr int kReaderCpu = 1;
inline constexpr auto kBatchDeadline = std::chrono::seconds(20);

// What the writer process sends back after each batch.
struct WriterReport {
    uint32_t ok;         // 1, or 0 when the writer gave up
    uint32_t occupied;   // refusals: a reader's pin was in the way
    uint32_t unread;     // refusals: an unread frame was in the way
};

// The writer process, commanded through pipes: the parent sends a frame
// count per batch (0 ends it) and gets a WriterReport back after each.
class WriterProcess {
public:
    WriterProcess() = default;
    ~WriterProcess() { Stop(); }
    WriterProcess(const WriterProcess &) = delete;
    WriterProcess &operator=(const WriterProcess &) = delete;

    // Forks; the child runs body(commandFd, reportFd) and exits with its
    // result. extraFd, when given, is a descriptor the parent must not keep.
    template <typename Body>
    bool Start(Body body, int childOnlyFd = -1) {
        int command[2];
        int report[2];
        if (pipe2(command, O_CLOEXEC) != 0) return false;
        if (pipe2(report, O_CLOEXEC) != 0) {
            close(command[0]);
            close(command[1]);
            return false;
        }
        fflush(stdout);
        fflush(stderr);
        pid_t parent = getpid();
        pid_t pid = fork();
        if (pid < 0) {
            close(command[0]);
            close(command[1]);
            close(report[0]);
            close(report[1]);
            return false;
        }
        if (pid == 0) {
            signal(SIGINT, SIG_DFL);  // the parent removes what is left
            signal(SIGTERM, SIG_DFL);
            signal(SIGHUP, SIG_DFL);
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive the benchmark
            if (getppid() != parent) _exit(1);
            close(command[1]);
            close(report[0]);
            _exit(body(command[0], report[1]));
        }
        pid_ = pid;
        g_childPid = pid;
        close(command[0]);
        close(report[1]);
        if (childOnlyFd >= 0) close(childOnlyFd);
        commandFd_ = command[1];
        reportFd_ = report[0];
        uint8_t ready = 0;
        return ReadAll(reportFd_, &ready, 1) && ready == 1;
    }

    bool Command(uint32_t frames) { return WriteAll(commandFd_, &frames, sizeof frames); }

    bool Report(WriterReport *report) { return ReadAll(reportFd_, report, sizeof *report); }

    // True while the child runs.
    bool Alive() {
        if (pid_ <= 0) return false;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            g_childPid = 0;
            return false;
        }
        return true;
    }

    void Stop() {
        if (commandFd_ >= 0) {
            uint32_t stop = 0;
            WriteAll(commandFd_, &stop, sizeof stop);
            close(commandFd_);
            commandFd_ = -1;
        }
        if (pid_ > 0) {
            // A writer stuck on a refusal never reads the command: give it
            // a moment, then end it.
            int status = 0;
            for (int i = 0; i < 200 && waitpid(pid_, &status, WNOHANG) == 0; ++i) usleep(1000);
            if (waitpid(pid_, &status, WNOHANG) == 0) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
            }
            pid_ = -1;
            g_childPid = 0;
        }
        if (reportFd_ >= 0) {
            close(reportFd_);
            reportFd_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    int commandFd_ = -1;
    int reportFd_ = -1;
};

// How far the ring writer may run ahead of the reader, counted in frames
// through a word in a page shared by the two processes: the reader stores
// how many frames it has released, the writer waits (spinning, without any
// lock) while `window` frames are unreleased. The ring itself keeps frames
// for a reader only while it pins them (or while they carry
// SHM_FRAME_UNREAD, which stops the writer for good once a reader has
// been placed past such a frame); a consumer that must see every frame, as
// the pipe's does, needs a bound of its own on the writer's lead, like a
// pipe's buffer. With half the ring as the window the writer never reaches
// the frame the reader holds or the entry its cursor stands on, so the
// reader is never placed anew and every frame arrives in order; a refusal
// is still handled (counted, and asked again after a backoff).
struct Progress {
    alignas(64) uint32_t released;  // frames the reader has given back
    alignas(64) uint32_t spare;
};

inline Progress *MapProgress() {
    void *page = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page == MAP_FAILED ? nullptr : static_cast<Progress *>(page);
}

// Frames of `size` bytes the ring holds at once: as many as fit in its
// data area, and at most one entry table's worth.
inline uint32_t RingCapacity(const SharedMemSectorHeader *ring, uint32_t size) {
    uint32_t byBytes = (ring->dwEndOffset - ring->dwStartOffset) / size;
    return std::min<uint32_t>(byBytes, SHM_FRAME_ENTRIES);
}

// The ring writer process: places each frame, fills it in place (or not),
// and publishes it with its sequence number as its tick.
inline int RingWriterMain(SharedMemHandle *writer, Progress *progress, uint32_t size, bool touch,
                   int commandFd, int reportFd) {
    if (!PinToCpu(kWriterCpu)) return 2;
    // Map every page of the ring into this process before the clock runs.
    SharedMemSectorHeader *ring = writer->ptHeader;
    uint8_t *area = static_cast<uint8_t *>(writer->pvBase) + ring->dwStartOffset;
    memset(area, 0, ring->dwEndOffset - ring->dwStartOffset);
    const uint32_t window = RingCapacity(ring, size) / 2;
    uint8_t ready = 1;
    if (!WriteAll(reportFd, &ready, 1)) return 3;
    uint32_t seq = 0;
    for (;;) {
        uint32_t frames = 0;
        if (!ReadAll(commandFd, &frames, sizeof frames) || frames == 0) return 0;
        WriterReport report = {1, 0, 0};
        for (uint32_t n = 0; n < frames && report.ok; ++n, ++seq) {
            while (seq - __atomic_load_n(&progress->released, __ATOMIC_ACQUIRE) >= window) {
                CpuRelax();
            }
            uint8_t *place = nullptr;
            unsigned round = 0;
            while (SharedMem_QueryAutoRewindWriteBuffer(writer, &place, size) != 0) {
                uint32_t status = 0;
                SharedMem_QueryWriteStatus(writer, &status);
                if (status == SHM_WRITE_OCCUPIED) {
                    ++report.occupied;
                } else if (status == SHM_WRITE_UNREAD) {
                    ++report.unread;
                } else {
                    report.ok = 0;
                    break;
                }
                Backoff(&round);
            }
            if (!report.ok) break;
            if (touch) memset(place, FillByte(seq), size);
            SharedMemWriteInfo info = {place, 0, size, kBaseTick + seq};
            if (SharedMem_UpdateWritedBuffer(writer, &info) != 0) report.ok = 0;
        }
        if (!WriteAll(reportFd, &report, sizeof report)) return 4;
        if (!report.ok) return 5;
    }
}

// What the reader side counts over a benchmark.
struct ReaderTally {
    int64_t delivered = 0;
    int64_t skipped = 0;      // frames the reader never got
    int64_t latestPolls = 0;  // SHM_REASON_LATEST: nothing new yet
    int64_t failedPolls = 0;  // SHM_REASON_FAILED: frame claimed by the writer
    const char *error = nullptr;
};

// Reads until the frame of sequence `last` has been delivered. The
// reference tick is the caller's own: the tick of the frame it wants next,
// which is also where a first query's search would place it.
inline void ReadRingBatch(SharedMemHandle *reader, Client *client, SharedMemReadRequest *request,
                          uint32_t readFlags, Progress *progress, bool touch, uint32_t last,
                          uint32_t *nextSeq, WriterProcess *writer, ReaderTally *tally) {
    const uint32_t lastTick = kBaseTick + last;
    unsigned round = 0;
    uint32_t polls = 0;
    const Clock::time_point deadline = Clock::now() + kBatchDeadline;
    for (;;) {
        request->dwReadFlags = readFlags;
        request->dwRefTimeTick = kBaseTick + *nextSeq;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(reader, client->address(), &data, &size, request) == 0) {
            round = 0;
            SharedMemBufClient *cursor = client->get();
            uint32_t tick = cursor->dwDeliveredTimeTick;
            if (tick < kBaseTick + *nextSeq) {
                tally->error = "a frame came twice or out of order";
                SharedMem_ReleaseReadBuffer(cursor);
                return;
            }
            uint32_t seq = tick - kBaseTick;
            tally->skipped += seq - *nextSeq;
            if (touch && SumWords(data, size) != ExpectedSum(seq, size)) {
                tally->error = "frame bytes differ from what the writer filled";
                SharedMem_ReleaseReadBuffer(cursor);
                return;
            }
            SharedMem_ReleaseReadBuffer(cursor);
            ++tally->delivered;
            *nextSeq = seq + 1;
            __atomic_store_n(&progress->released, seq + 1, __ATOMIC_RELEASE);
            if (tick == lastTick) return;
            continue;
        }
        if (request->dwReason == SHM_REASON_LATEST) {
            ++tally->latestPolls;
        } else if (request->dwReason == SHM_REASON_FAILED) {
            ++tally->failedPolls;
        } else {
            tally->error = "query failed for an unexpected reason";
            return;
        }
        if ((++polls & 0xFFFu) == 0 && (!writer->Alive() || Clock::now() > deadline)) {
            tally->error = "the writer stopped before the batch was through";
            return;
        }
        Backoff(&round);
    }
}

// How a ring-frames benchmark lays out its block and reads.
struct RingFramesSetup {
    const char *total;          // the block's size, e.g. "64M"
    const char *const *descs;   // its sectors; the ring is sector 0
    int count;
    int writerAttachId;
    int readerAttachId;         // 0 or 1 gets the "streaming" cache sector
    uint32_t readFlags;         // SHM_READ_IN_PLACE or SHM_READ_VIA_CACHE
    const char *setupError;     // what the skip message says on failure
};

// Maps every page of a sector's data area into this process, so that no
// page fault lands inside the measurement.
inline void TouchArea(const void *base, uint32_t start, uint32_t end) {
    const volatile uint8_t *area = static_cast<const uint8_t *>(base);
    uint8_t sink = 0;
    for (uint32_t off = start; off < end; off += 4096) sink ^= area[off];
    benchmark::DoNotOptimize(sink);
}

// One writer process and this process as the reader, moving batches of
// frames of `size` bytes; the writer fills every byte and the reader sums
// every byte when `touch` is set.
inline void RunRingFrames(benchmark::State &state, const RingFramesSetup &setup, uint32_t size,
                          bool touch) {
    const uint32_t batch = FramesPerBatch(size);
    CpuPin pin(kReaderCpu);
    Block block;
    Handle writerHandle;
    Handle readerHandle;
    Progress *progress = MapProgress();
    if (!pin.pinned() || progress == nullptr || !block.Create(setup.total, setup.descs, setup.count) ||
        !writerHandle.Open(block.info(), setup.writerAttachId) ||
        !readerHandle.Open(block.info(), setup.readerAttachId)) {
        if (progress != nullptr) munmap(progress, sizeof *progress);
        state.SkipWithError(setup.setupError);
        return;
    }
    struct Unmap {
        Progress *p;
        ~Unmap() { munmap(p, sizeof *p); }
    } unmap{progress};
    WriterProcess writer;
    SharedMemHandle *w = writerHandle.get();
    if (!writer.Start([w, progress, size, touch](int commandFd, int reportFd) {
            return RingWriterMain(w, progress, size, touch, commandFd, reportFd);
        })) {
        state.SkipWithError("writer process did not start");
        return;
    }
    SharedMemHandle *reader = readerHandle.get();
    SharedMemSectorHeader *ring = reader->ptHeader;
    if (touch) {  // map the ring's pages into the reader before the clock runs
        TouchArea(reader->pvBase, ring->dwStartOffset, ring->dwEndOffset);
    }
    if (const SharedMemCacheHeader *cache = reader->ptCacheHeader) {
        TouchArea(reader->pvBase, cache->dwStartOffset, cache->dwEndOffset);
    }

    // Frame 0 places the client, outside the measurement.
    Client client;
    SharedMemReadRequest request = {};
    request.dwReadFlags = setup.readFlags;
    request.dwRefTimeTick = kBaseTick;
    WriterReport report = {};
    if (!writer.Command(1) || !writer.Report(&report) || !report.ok ||
        FirstQuery(reader, &client, &request) != 0) {
        state.SkipWithError("the first frame did not come through");
        return;
    }
    __atomic_store_n(&progress->released, 1u, __ATOMIC_RELEASE);
    uint32_t nextSeq = 1;
    uint32_t written = 1;
    ReaderTally tally;
    int64_t refused = 0;
    double seconds = 0;
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        if (!writer.Command(batch)) {
            tally.error = "the writer took no command";
            break;
        }
        written += batch;
        ReadRingBatch(reader, &client, &request, setup.readFlags, progress, touch, written - 1,
                      &nextSeq, &writer, &tally);
        Clock::time_point end = Clock::now();
        if (tally.error != nullptr) break;
        double elapsed = std::chrono::duration<double>(end - start).count();
        seconds += elapsed;
        state.SetIterationTime(elapsed);
        if (!writer.Report(&report) || !report.ok) {
            tally.error = "the writer gave up";
            break;
        }
        refused += report.occupied + report.unread;
    }
    if (tally.error != nullptr) {
        state.SkipWithError(tally.error);
        return;
    }
    writer.Stop();
    double delivered = static_cast<double>(tally.delivered);
    state.SetItemsProcessed(tally.delivered);
    state.counters["frames/s"] = seconds > 0 ? delivered / seconds : 0;
    state.counters["skipped"] = static_cast<double>(tally.skipped);
    state.counters["polls/frame"] = static_cast<double>(tally.latestPolls) / delivered;
    state.counters["claimed/frame"] = static_cast<double>(tally.failedPolls) / delivered;
    state.counters["refused/frame"] = static_cast<double>(refused) / delivered;
}

// The pipe writer process: fills every byte of a frame buffer and writes it.
inline int PipeWriterMain(int dataFd, uint32_t size, int commandFd, int reportFd) {
    if (!PinToCpu(kWriterCpu)) return 2;
    std::vector<uint8_t> frame(size);
    uint8_t ready = 1;
    if (!WriteAll(reportFd, &ready, 1)) return 3;
    uint32_t seq = 0;
    for (;;) {
        uint32_t frames = 0;
        if (!ReadAll(commandFd, &frames, sizeof frames) || frames == 0) return 0;
        WriterReport report = {1, 0, 0};
        for (uint32_t n = 0; n < frames; ++n, ++seq) {
            memset(frame.data(), FillByte(seq), size);
            if (!WriteAll(dataFd, frame.data(), size)) {
                report.ok = 0;
                break;
            }
        }
        if (!WriteAll(reportFd, &report, sizeof report)) return 4;
        if (!report.ok) return 5;
    }
}

// The pipe gets the largest buffer the system allows it (1 MiB by default),
// its best case for large frames.
inline void RunPipeFrames(benchmark::State &state, uint32_t size) {
    const uint32_t batch = FramesPerBatch(size);
    CpuPin pin(kReaderCpu);
    int data[2];
    if (!pin.pinned() || pipe2(data, O_CLOEXEC) != 0) {
        state.SkipWithError("set-up failed (two cores are needed)");
        return;
    }
    int maxPipe = 1 << 20;
    if (FILE *f = fopen("/proc/sys/fs/pipe-max-size", "r")) {
        if (fscanf(f, "%d", &maxPipe) != 1) maxPipe = 1 << 20;
        fclose(f);
    }
    fcntl(data[1], F_SETPIPE_SZ, maxPipe);
    WriterProcess writer;
    int dataOut = data[1];
    if (!writer.Start(
            [dataOut, size](int commandFd, int reportFd) {
                return PipeWriterMain(dataOut, size, commandFd, reportFd);
            },
            data[1])) {
        close(data[0]);
        state.SkipWithError("writer process did not start");
        return;
    }
    std::vector<uint8_t> frame(size);
    uint32_t seq = 0;
    const char *error = nullptr;
    int64_t delivered = 0;
    double seconds = 0;
    WriterReport report = {};
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        if (!writer.Command(batch)) {
            error = "the writer took no command";
            break;
        }
        for (uint32_t n = 0; n < batch; ++n, ++seq) {
            if (!ReadAll(data[0], frame.data(), size)) {
                error = "the pipe closed before the batch was through";
                break;
            }
            if (SumWords(frame.data(), size) != ExpectedSum(seq, size)) {
                error = "frame bytes differ from what the writer filled";
                break;
            }
        }
        Clock::time_point end = Clock::now();
        if (error != nullptr) break;
        double elapsed = std::chrono::duration<double>(end - start).count();
        seconds += elapsed;
        delivered += batch;
        state.SetIterationTime(elapsed);
        if (!writer.Report(&report) || !report.ok) {
            error = "the writer gave up";
            break;
        }
    }
    writer.Stop();
    close(data[0]);
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    state.SetItemsProcessed(delivered);
    state.counters["frames/s"] = seconds > 0 ? static_cast<double>(delivered) / seconds : 0;
}

}  // namespace molkbench

#endif  // MOLK_BENCH_SUPPORT_FRAME_PAIR_H
