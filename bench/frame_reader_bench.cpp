// Benchmarks of the reading side of a frame ring.
//
// 1. BM_ReaderQueryRelease: one in-place SharedMem_QueryReadBuffer plus
//    SharedMem_ReleaseReadBuffer on the next-frame path, with the caller's
//    own reference tick, beside BM_TwoSemopPairs: two bare uncontended
//    semop P+V pairs with SEM_UNDO on a sector semaphore. The query takes
//    the sector lock once for the pin and the release once more, so the
//    two pairs are the floor of what a reader can cost.
//    BM_QueryReleaseVsSemopPairs runs the two in alternating short rounds;
//    its ratio, printed again in the summary at the end, is the one the
//    target is about (at most 1.3).
//
// 2. BM_ShmFrames and BM_PipeFrames: one writer process and one reader
//    process, each pinned to a core of its own, moving a fixed number of
//    frames of 4 KiB, 64 KiB and 512 KiB per measurement.
//      BM_ShmFrames/size/0  the bytes are never touched: the transport alone
//                           (place, publish, query, pin, release).
//      BM_ShmFrames/size/1  the writer fills every byte, the reader sums
//                           every byte and checks the sum.
//      BM_PipeFrames/size   the same frames through a pipe: the writer
//                           fills every byte and writes the frame, the
//                           reader reads it whole and sums it.
//    The summary gives frames/s for each and the ratios against the pipe
//    (target at 512 KiB: at least 10 times the pipe).
//
// Every block lives under a key of this process's own (derived from its
// pid) and is deleted at the end of its benchmark, on every failure path,
// and on SIGINT/SIGTERM/SIGHUP. The library's chatter on block creation
// and deletion is kept off the console, and the frame store's log runs at
// level 4 unless SHM_DEBUG is set (see main).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sharedmem.h"

namespace {

using Clock = std::chrono::steady_clock;

// ---- Keys, clean-up and quiet set-up ----------------------------------

constexpr int kMaxLiveKeys = 4;
volatile sig_atomic_t g_liveKeys[kMaxLiveKeys];  // 0: free
volatile sig_atomic_t g_childPid = 0;           // the current writer process

key_t NewKey() {
    static unsigned serial = 0;
    ++serial;
    // 0x5B, then 16 bits of the pid and a serial: never IPC_PRIVATE (0).
    unsigned pid = static_cast<unsigned>(getpid()) & 0xFFFFu;
    return static_cast<key_t>(0x5B000000u | (pid << 8) | (serial & 0xFFu));
}

void RememberKey(key_t key) {
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        if (g_liveKeys[i] == 0) {
            g_liveKeys[i] = key;
            return;
        }
    }
}

void ForgetKey(key_t key) {
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        if (g_liveKeys[i] == key) g_liveKeys[i] = 0;
    }
}

// Only system calls here: the handler may run in the middle of stdio.
void RemoveEverything(int sig) {
    if (g_childPid > 0) kill(static_cast<pid_t>(g_childPid), SIGKILL);
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        key_t key = static_cast<key_t>(g_liveKeys[i]);
        if (key == 0) continue;
        int shmId = shmget(key, 0, 0);
        if (shmId != -1) shmctl(shmId, IPC_RMID, nullptr);
        int semId = semget(key, 0, 0);
        if (semId != -1) semctl(semId, 0, IPC_RMID);
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

void InstallCleanupHandlers() {
    signal(SIGINT, RemoveEverything);
    signal(SIGTERM, RemoveEverything);
    signal(SIGHUP, RemoveEverything);
}

// Sends stdout and stderr to /dev/null for its scope: allocation, handles,
// clients and deletion all print a line or two each.
class Quiet {
public:
    Quiet() {
        fflush(stdout);
        fflush(stderr);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        savedOut_ = dup(1);
        savedErr_ = dup(2);
        if (null >= 0) {
            dup2(null, 1);
            dup2(null, 2);
            close(null);
        }
    }
    ~Quiet() {
        fflush(stdout);
        fflush(stderr);
        if (savedOut_ >= 0) {
            dup2(savedOut_, 1);
            close(savedOut_);
        }
        if (savedErr_ >= 0) {
            dup2(savedErr_, 2);
            close(savedErr_);
        }
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

private:
    int savedOut_;
    int savedErr_;
};

// One block with a single ring sector, attached, deleted with the object.
class Block {
public:
    Block() = default;
    ~Block() { Destroy(); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    bool Create(const char *total) {
        key_ = NewKey();
        RememberKey(key_);
        std::string totalText = total;
        std::string desc = std::string(total) + "-bench";
        char *descs[] = {&desc[0]};
        SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 64 * 1024, 0};
        Quiet quiet;
        if (SharedMemBlock_Allocate(key_, &totalText[0], 1, &config, descs) != 0) {
            // A block of ours may be half made: shmget succeeded, semget not.
            SharedMemBlock_Delete(key_);
            ForgetKey(key_);
            key_ = 0;
            return false;
        }
        return SharedMemBlock_Attach(&info_, 0, key_) == 0;
    }

    void Destroy() {
        Quiet quiet;
        if (info_ != nullptr) SharedMemBlock_Detach(&info_);
        if (key_ != 0) {
            SharedMemBlock_Delete(key_);
            ForgetKey(key_);
            key_ = 0;
        }
    }

    SharedMemBlockInfo *info() const { return info_; }

private:
    key_t key_ = 0;
    SharedMemBlockInfo *info_ = nullptr;
};

// A sector handle, released with the object.
class Handle {
public:
    Handle() = default;
    ~Handle() {
        if (handle_ != nullptr) SharedMem_Release(&handle_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    bool Open(SharedMemBlockInfo *info, int attachId) {
        Quiet quiet;
        return info != nullptr && SharedMem_Initial(info, &handle_, 0, attachId) == 0;
    }
    SharedMemHandle *get() const { return handle_; }

private:
    SharedMemHandle *handle_ = nullptr;
};

// A reader client, freed (with its pin) with the object.
class Client {
public:
    Client() = default;
    ~Client() {
        if (client_ != nullptr) {
            Quiet quiet;
            SharedMem_FreeBufClient(&client_);
        }
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    SharedMemBufClient **address() { return &client_; }
    SharedMemBufClient *get() const { return client_; }

private:
    SharedMemBufClient *client_ = nullptr;
};

// The first query of a new client prints the client's address: done here,
// quietly, so that the measured loops only ever meet an existing client.
int FirstQuery(SharedMemHandle *handle, Client *client, SharedMemReadRequest *request) {
    Quiet quiet;
    uint8_t *data = nullptr;
    uint32_t size = 0;
    int result = SharedMem_QueryReadBuffer(handle, client->address(), &data, &size, request);
    if (result == 0) SharedMem_ReleaseReadBuffer(client->get());
    return result;
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    __asm__ __volatile__("yield" ::: "memory");
#else
    __asm__ __volatile__("" ::: "memory");
#endif
}

// Spins 1, 2, 4 ... 64 pauses (a few microseconds at most, about one
// system call): an idle reader gives the writer time without falling far
// behind it.
inline void Backoff(unsigned *round) {
    unsigned spins = 1u << std::min(*round, 6u);
    for (unsigned i = 0; i < spins; ++i) CpuRelax();
    ++*round;
}

bool PinToCpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

// Pins the calling process to one core for its scope and restores the
// affinity it had.
class CpuPin {
public:
    explicit CpuPin(int cpu) {
        saved_ok_ = sched_getaffinity(0, sizeof saved_, &saved_) == 0;
        pinned_ = PinToCpu(cpu);
    }
    ~CpuPin() {
        if (saved_ok_) sched_setaffinity(0, sizeof saved_, &saved_);
    }
    CpuPin(const CpuPin &) = delete;
    CpuPin &operator=(const CpuPin &) = delete;
    bool pinned() const { return pinned_; }

private:
    cpu_set_t saved_;
    bool saved_ok_ = false;
    bool pinned_ = false;
};

// ---- 1. Query + release against two bare P+V pairs -----------------------

constexpr uint32_t kBaseTick = 1000;  // ms; frame n carries kBaseTick + n
constexpr int kLapFrames = 1200;      // frames the reader walks per lap
constexpr uint32_t kSmallFrame = 256;

bool PublishFrame(SharedMemHandle *writer, uint32_t size, uint32_t flags, uint32_t tick) {
    uint8_t *place = nullptr;
    if (SharedMem_QueryAutoRewindWriteBuffer(writer, &place, size) != 0) return false;
    SharedMemWriteInfo info = {place, flags, size, tick};
    return SharedMem_UpdateWritedBuffer(writer, &info) == 0;
}

// A reader on its steady-state path, the next frame: the cursor passes the
// validity test, the candidate is the entry after it, the filters let it
// through, the pin is taken under the sector lock and the frame delivered
// in place; the release takes the lock again.
//
// To have a next frame on every query without a writer racing (and without
// PauseTiming, whose own clock reads would cost more than the query), the
// ring holds kLapFrames frames and the client walks them with its own
// reference tick. On the latest frame, one query in kLapFrames re-places
// it at the oldest (SHM_READ_RESTART | SHM_READ_FROM_OLDEST: a first query,
// but without a search) at about the same cost, so the figure is the
// next-frame path to within 0.1 %. The entries stay in the reader's cache,
// as they do for a reader that follows the writer closely.
class RingWalk {
public:
    const char *SetUp() {
        if (!block_.Create("4M") || !writer_.Open(block_.info(), 4) ||
            !reader_.Open(block_.info(), 3)) {
            return "block set-up failed";
        }
        for (int i = 0; i < kLapFrames; ++i) {
            if (!PublishFrame(writer_.get(), kSmallFrame, i % 30 == 0 ? 0 : SHM_FRAME_P,
                              kBaseTick + static_cast<uint32_t>(i))) {
                return "filling the ring failed";
            }
        }
        latest_ = reader_.get()->ptHeader->iLatestIndex;
        request_.dwReadFlags = SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST;
        request_.dwRefTimeTick = kBaseTick + kLapFrames;  // the caller's own, nonzero
        if (FirstQuery(reader_.get(), &client_, &request_) != 0) return "first query failed";
        cursor_ = client_.get();
        return nullptr;
    }

    // One query + release; false when the query refused the frame.
    bool Step() {
        uint32_t flags = SHM_READ_IN_PLACE;
        if (cursor_->iLastIndex == latest_) flags |= SHM_READ_RESTART | SHM_READ_FROM_OLDEST;
        request_.dwReadFlags = flags;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(reader_.get(), client_.address(), &data, &size,
                                      &request_) != 0) {
            return false;
        }
        benchmark::DoNotOptimize(data);
        SharedMem_ReleaseReadBuffer(cursor_);
        return true;
    }

private:
    Block block_;
    Handle writer_;
    Handle reader_;
    Client client_;  // freed before the handles and the block
    SharedMemReadRequest request_ = {};
    SharedMemBufClient *cursor_ = nullptr;
    int latest_ = -1;
};

// What the library's P and V are: one semop each on the sector's semaphore,
// with SEM_UNDO. Two pairs, as in a query and its release.
class SemopPairs {
public:
    const char *SetUp() {
        if (!block_.Create("1M")) return "block set-up failed";
        semId_ = block_.info()->iSemId;
        return nullptr;
    }

    bool Step() {
        struct sembuf p = {0, -1, SEM_UNDO};
        struct sembuf v = {0, 1, SEM_UNDO};
        return semop(semId_, &p, 1) == 0 && semop(semId_, &v, 1) == 0 &&
               semop(semId_, &p, 1) == 0 && semop(semId_, &v, 1) == 0;
    }

private:
    Block block_;
    int semId_ = -1;
};

void BM_ReaderQueryRelease(benchmark::State &state) {
    RingWalk walk;
    if (const char *error = walk.SetUp()) {
        state.SkipWithError(error);
        return;
    }
    for (auto _ : state) {
        if (!walk.Step()) {
            state.SkipWithError("query refused a frame");
            break;
        }
    }
}
BENCHMARK(BM_ReaderQueryRelease);

void BM_TwoSemopPairs(benchmark::State &state) {
    SemopPairs pairs;
    if (const char *error = pairs.SetUp()) {
        state.SkipWithError(error);
        return;
    }
    for (auto _ : state) {
        if (!pairs.Step()) {
            state.SkipWithError("semop failed");
            break;
        }
    }
}
BENCHMARK(BM_TwoSemopPairs);

// The two side by side: short alternating rounds of each, so that both
// see the same machine (other load, clock changes) and the ratio holds
// even when the separate figures above drift between their runs. The
// iteration time is that of one query + release; the counters give both.
constexpr int kRound = 64;

void BM_QueryReleaseVsSemopPairs(benchmark::State &state) {
    RingWalk walk;
    SemopPairs pairs;
    const char *error = walk.SetUp();
    if (error == nullptr) error = pairs.SetUp();
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    double querySeconds = 0;
    double pairSeconds = 0;
    int64_t rounds = 0;
    for (auto _ : state) {
        Clock::time_point t0 = Clock::now();
        bool ok = true;
        for (int i = 0; i < kRound && ok; ++i) ok = walk.Step();
        Clock::time_point t1 = Clock::now();
        for (int i = 0; i < kRound && ok; ++i) ok = pairs.Step();
        Clock::time_point t2 = Clock::now();
        if (!ok) {
            state.SkipWithError("query or semop failed");
            break;
        }
        double query = std::chrono::duration<double>(t1 - t0).count();
        querySeconds += query;
        pairSeconds += std::chrono::duration<double>(t2 - t1).count();
        ++rounds;
        state.SetIterationTime(query / kRound);
    }
    if (rounds == 0) return;
    double steps = static_cast<double>(rounds) * kRound;
    state.counters["query_ns"] = querySeconds / steps * 1e9;
    state.counters["pairs_ns"] = pairSeconds / steps * 1e9;
    state.counters["ratio"] = querySeconds / pairSeconds;
}
BENCHMARK(BM_QueryReleaseVsSemopPairs)->UseManualTime()->Iterations(2000);

// ---- 2. One writer process, one reader process ---------------------------

// Frames per measurement, by size: a few tens of milliseconds each.
uint32_t FramesPerBatch(uint32_t size) {
    if (size <= 4096) return 20000;
    if (size <= 65536) return 8000;
    return 1500;
}

constexpr int kWriterCpu = 0;
constexpr int kReaderCpu = 1;
constexpr auto kBatchDeadline = std::chrono::seconds(20);

// Every byte of frame n is (n & 0xFF); the reader sums the frame as 64-bit
// words and compares with what that fill gives.
inline uint8_t FillByte(uint32_t seq) { return static_cast<uint8_t>(seq & 0xFFu); }

inline uint64_t ExpectedSum(uint32_t seq, uint32_t size) {
    return static_cast<uint64_t>(size / 8) * (0x0101010101010101ull * FillByte(seq));
}

inline uint64_t SumWords(const uint8_t *data, uint32_t size) {
    uint64_t sum = 0;
    for (uint32_t off = 0; off + 8 <= size; off += 8) {
        uint64_t word;
        memcpy(&word, data + off, sizeof word);
        sum += word;
    }
    return sum;
}

// What the writer process sends back after each batch.
struct WriterReport {
    uint32_t ok;         // 1, or 0 when the writer gave up
    uint32_t occupied;   // refusals: a reader's pin was in the way
    uint32_t unread;     // refusals: an unread frame was in the way
};

bool WriteAll(int fd, const void *data, size_t size) {
    const uint8_t *p = static_cast<const uint8_t *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool ReadAll(int fd, void *data, size_t size) {
    uint8_t *p = static_cast<uint8_t *>(data);
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

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

Progress *MapProgress() {
    void *page = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page == MAP_FAILED ? nullptr : static_cast<Progress *>(page);
}

// Frames of `size` bytes the ring holds at once: as many as fit in its
// data area, and at most one entry table's worth.
uint32_t RingCapacity(const SharedMemSectorHeader *ring, uint32_t size) {
    uint32_t byBytes = (ring->dwEndOffset - ring->dwStartOffset) / size;
    return std::min<uint32_t>(byBytes, SHM_FRAME_ENTRIES);
}

// The ring writer process: places each frame, fills it in place (or not),
// and publishes it with its sequence number as its tick.
int RingWriterMain(SharedMemHandle *writer, Progress *progress, uint32_t size, bool touch,
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
    int64_t latestPolls = 0;  // reason 8: nothing new yet
    int64_t failedPolls = 0;  // reason 4: frame claimed by the writer
    const char *error = nullptr;
};

// Reads until the frame of sequence `last` has been delivered. The
// reference tick is the caller's own: the tick of the frame it wants next,
// which is also where a first query's search would place it.
void ReadRingBatch(SharedMemHandle *reader, Client *client, SharedMemReadRequest *request,
                   Progress *progress, bool touch, uint32_t last, uint32_t *nextSeq,
                   WriterProcess *writer, ReaderTally *tally) {
    const uint32_t lastTick = kBaseTick + last;
    unsigned round = 0;
    uint32_t polls = 0;
    const Clock::time_point deadline = Clock::now() + kBatchDeadline;
    for (;;) {
        request->dwReadFlags = SHM_READ_IN_PLACE;
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

constexpr const char *kRingTotal = "64M";  // one ring, 64 MiB less its header

void BM_ShmFrames(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    const bool touch = state.range(1) != 0;
    const uint32_t batch = FramesPerBatch(size);
    CpuPin pin(kReaderCpu);
    Block block;
    Handle writerHandle;
    Handle readerHandle;
    Progress *progress = MapProgress();
    if (!pin.pinned() || progress == nullptr || !block.Create(kRingTotal) ||
        !writerHandle.Open(block.info(), 4) || !readerHandle.Open(block.info(), 3)) {
        if (progress != nullptr) munmap(progress, sizeof *progress);
        state.SkipWithError("set-up failed (two cores and a 64 MiB segment are needed)");
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
        const volatile uint8_t *area =
            static_cast<const uint8_t *>(reader->pvBase) + ring->dwStartOffset;
        uint32_t bytes = ring->dwEndOffset - ring->dwStartOffset;
        uint8_t sink = 0;
        for (uint32_t off = 0; off < bytes; off += 4096) sink ^= area[off];
        benchmark::DoNotOptimize(sink);
    }

    // Frame 0 places the client, outside the measurement.
    Client client;
    SharedMemReadRequest request = {};
    request.dwReadFlags = SHM_READ_IN_PLACE;
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
        ReadRingBatch(reader, &client, &request, progress, touch, written - 1, &nextSeq, &writer,
                      &tally);
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
int PipeWriterMain(int dataFd, uint32_t size, int commandFd, int reportFd) {
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
void BM_PipeFrames(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
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

void FrameArgs(benchmark::internal::Benchmark *b) {
    for (int64_t size : {4096, 65536, 524288}) {
        b->Args({size, 0});
        b->Args({size, 1});
    }
}

BENCHMARK(BM_ShmFrames)->Apply(FrameArgs)->UseManualTime()->Iterations(8)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_PipeFrames)
    ->Arg(4096)
    ->Arg(65536)
    ->Arg(524288)
    ->UseManualTime()
    ->Iterations(8)
    ->Unit(benchmark::kMillisecond);

// ---- Summary ------------------------------------------------------------

// The console table, and after it the ratios that the targets are about.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            Result &r = results_[run.run_name.function_name + "/" + run.run_name.args];
            r.ns.push_back(run.GetAdjustedRealTime() * NsPer(run.time_unit));
            for (const auto &counter : run.counters) {
                r.counters[counter.first].push_back(counter.second.value);
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        FILE *out = stdout;
        fprintf(out, "\n");
        fprintf(out, "summary: frame store log level %u\n", gShm_DebugLevel & 7u);
        double query = Median("BM_ReaderQueryRelease/", "");
        double pairs = Median("BM_TwoSemopPairs/", "");
        if (query > 0 && pairs > 0) {
            fprintf(out,
                    "summary: separate runs: query+release %.1f ns, two P+V pairs %.1f ns, "
                    "ratio %.3f\n",
                    query, pairs, query / pairs);
        }
        const std::string side = "BM_QueryReleaseVsSemopPairs/";
        double ratio = Median(side, "ratio");
        if (ratio > 0) {
            fprintf(out,
                    "summary: side by side:  query+release %.1f ns, two P+V pairs %.1f ns, "
                    "ratio %.3f (target <= 1.3: %s)\n",
                    Median(side, "query_ns"), Median(side, "pairs_ns"), ratio,
                    ratio <= 1.3 ? "met" : "MISSED");
        }
        fprintf(out, "summary: frames/s   %10s %14s %14s %14s %10s %10s\n", "size",
                "shm untouched", "shm touched", "pipe", "untch/pipe", "tch/pipe");
        for (int size : {4096, 65536, 524288}) {
            std::string s = std::to_string(size);
            double bare = Median("BM_ShmFrames/" + s + "/0", "frames/s");
            double touched = Median("BM_ShmFrames/" + s + "/1", "frames/s");
            double pipe = Median("BM_PipeFrames/" + s, "frames/s");
            fprintf(out, "summary: frames/s   %10s %14.0f %14.0f %14.0f %10.2f %10.2f\n",
                    (std::to_string(size / 1024) + " KiB").c_str(), bare, touched, pipe,
                    pipe > 0 ? bare / pipe : 0, pipe > 0 ? touched / pipe : 0);
            if (size == 524288 && pipe > 0) {
                fprintf(out,
                        "summary: 512 KiB shm/pipe: untouched %.1fx (target >= 10x: %s), "
                        "touched %.2fx\n",
                        bare / pipe, bare / pipe >= 10 ? "met" : "MISSED", touched / pipe);
            }
        }
        fflush(out);
    }

private:
    struct Result {
        std::vector<double> ns;
        std::map<std::string, std::vector<double>> counters;
    };

    static double NsPer(benchmark::TimeUnit unit) {
        switch (unit) {
        case benchmark::kSecond:
            return 1e9;
        case benchmark::kMillisecond:
            return 1e6;
        case benchmark::kMicrosecond:
            return 1e3;
        default:
            return 1;
        }
    }

    // Median over repetitions of a counter, or of ns per iteration when
    // the counter's name is empty.
    double Median(const std::string &name, const std::string &counter) const {
        auto it = results_.find(name);
        if (it == results_.end()) return 0;
        std::vector<double> v;
        if (counter.empty()) {
            v = it->second.ns;
        } else {
            auto c = it->second.counters.find(counter);
            if (c != it->second.counters.end()) v = c->second;
        }
        if (v.empty()) return 0;
        std::sort(v.begin(), v.end());
        size_t n = v.size();
        return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    }

    std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char **argv) {
    InstallCleanupHandlers();
    // At its default level 6 the frame store prints every refused write and
    // every reader placed anew, which is ordinary flow here: a printf per
    // frame, some of them under the sector lock. Measured at level 4
    // (warnings and errors) unless SHM_DEBUG asks for another.
    if (getenv("SHM_DEBUG") == nullptr) gShm_DebugLevel = (gShm_DebugLevel & ~7u) | 4u;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
