// The frame path at full speed and where its time goes, each figure beside
// its floor measured in the same run (every case runs once per repetition,
// the cases interleaved, and the summary gives medians over repetitions):
//
// 1. One writer process and one reader process, each pinned to a core of
//    its own, moving frames of 4 KiB and 512 KiB as fast as they can:
//      ring/poll   the reader queries again after a short spin when nothing
//                  is new (as frame_reader_bench's BM_ShmFrames does);
//      ring/wait   the reader sleeps in SharedMem_WaitReadBuffer instead;
//      pipe        the same frames through a pipe with a 1 MiB buffer.
//    Untouched (the transport alone) and touched (the writer fills every
//    byte, the reader sums every byte and checks the sum). The floor of
//    the ring: two bare P+V pairs with SEM_UNDO on the sector's semaphore
//    (the writer's cycle takes the lock once, a reader's query and release
//    twice; the 4 KiB target is half of what the two pairs allow).
//    Beside the rates: the context switches per frame of the writer and of
//    the reader (getrusage), which count the P operations that had to sleep
//    and the sleeps of a waiting reader.
//
// 2. The writer's cycle (query a place, publish, 4 KiB, bytes untouched)
//    alone, and while a reader process on the other core sleeps in
//    SharedMem_WaitReadBuffer and reads every frame it is woken for, beside
//    one bare P+V pair, in alternating short rounds.
//
// Needs nothing but the library, so that it also runs for armhf under
// qemu-arm (where every figure is slower and the ratios are what count):
//   frame_contention_bench [--reps N] [--scale F] [--only ring|cycle]
// --scale multiplies the frame and cycle counts (e.g. 0.1 under qemu).
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>

#include "support/bench_procs.h"
#include "support/plain_block.h"

namespace {

using namespace plainbench;

constexpr int kWriterCpu = 0;
constexpr int kReaderCpu = 1;
constexpr uint32_t kBaseTick = 1000;  // frame n carries tick kBaseTick + n
constexpr uint32_t kWaitMs = 100;

struct Options {
    int reps = 5;
    double scale = 1.0;
    bool ring = true;
    bool cycle = true;
};

// A page shared by the parent and its child: the start signal, the
// reader's progress (the writer stays at most `window` frames ahead, as
// a pipe's buffer bounds its writer) and what the child reports.
struct Shared {
    alignas(64) uint32_t go;
    alignas(64) uint32_t released;  // frames the reader has given back
    alignas(64) uint32_t stop;
    uint32_t ready;
    uint32_t failed;
    uint64_t switches;              // the child's context switches over its run
    uint64_t refused;
};

Shared *MapShared() {
    void *p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
    if (p == MAP_FAILED) return nullptr;
    memset(p, 0, sizeof(Shared));
    return static_cast<Shared *>(p);
}

bool Publish(SharedMemHandle *writer, uint32_t size, uint32_t seq, bool touch, uint64_t *refused) {
    uint8_t *place = nullptr;
    unsigned round = 0;
    while (SharedMem_QueryAutoRewindWriteBuffer(writer, &place, size) != 0) {
        uint32_t status = 0;
        SharedMem_QueryWriteStatus(writer, &status);
        if (status != SHM_WRITE_OCCUPIED && status != SHM_WRITE_UNREAD) return false;
        ++*refused;
        Backoff(&round);
    }
    if (touch) memset(place, FillByte(seq), size);
    SharedMemWriteInfo info = {place, 0, size, kBaseTick + seq};
    return SharedMem_UpdateWritedBuffer(writer, &info) == 0;
}

// ---- Bare semaphore pairs ---------------------------------------------------

void SemOp(int semId, short delta) {
    struct sembuf op = {0, delta, SEM_UNDO};
    while (semop(semId, &op, 1) != 0 && errno == EINTR) {
    }
}

// ns per P+V pair, over `pairs` pairs.
double PairNs(int semId, uint32_t pairs) {
    uint64_t t0 = NowNs();
    for (uint32_t i = 0; i < pairs; ++i) {
        SemOp(semId, -1);
        SemOp(semId, 1);
    }
    return static_cast<double>(NowNs() - t0) / pairs;
}

// ---- 1. Writer and reader at full speed ----------------------------------------

enum Mode { kRingPoll, kRingWait, kPipe };
const char *const kModeNames[] = {"ring/poll", "ring/wait", "pipe"};

struct PairFigures {
    double framesPerS = 0;
    double writerSwitches = 0;  // per frame
    double readerSwitches = 0;
    double refused = 0;         // per frame
};

const char *RingPair(Mode mode, uint32_t size, bool touch, uint32_t frames, PairFigures *out) {
    const char *descs[] = {"64M-bench"};
    Block block;
    Shared *shared = MapShared();
    if (shared == nullptr || !block.Create("64M", descs, 1)) return "set-up failed";
    struct Unmap {
        Shared *p;
        ~Unmap() { munmap(p, sizeof *p); }
    } unmap{shared};
    SharedMemBlockInfo *info = block.info();
    SharedMemHandle *reader = OpenSector(info, 0, 3);
    if (reader == nullptr) return "no reader handle";
    const SharedMemSectorHeader *ring = reader->ptHeader;
    const uint32_t window =
        std::min<uint32_t>((ring->dwEndOffset - ring->dwStartOffset) / size, SHM_FRAME_ENTRIES) / 2;

    pid_t pid = Spawn([info, shared, size, touch, frames, window]() {
        if (!PinToCpu(kWriterCpu)) return 2;
        SharedMemHandle *writer = OpenSector(info, 0, 4);
        if (writer == nullptr) return 3;
        MapRing(writer, true);
        uint64_t refused = 0;
        if (!Publish(writer, size, 0, touch, &refused)) return 4;  // places the reader
        __atomic_store_n(&shared->ready, 1u, __ATOMIC_RELEASE);
        while (__atomic_load_n(&shared->go, __ATOMIC_ACQUIRE) == 0) CpuRelax();
        uint64_t sw0 = Switches();
        for (uint32_t seq = 1; seq <= frames; ++seq) {
            while (seq - __atomic_load_n(&shared->released, __ATOMIC_ACQUIRE) >= window) {
                CpuRelax();
            }
            if (!Publish(writer, size, seq, touch, &refused)) return 5;
        }
        shared->switches = Switches() - sw0;
        shared->refused = refused;
        return 0;
    });
    CloseSector(&reader);  // reopened below, pinned, after the writer's set-up
    if (pid < 0) return "fork failed";
    if (!PinToCpu(kReaderCpu)) {
        kill(pid, SIGKILL);
        Reap(pid);
        return "two cores are needed";
    }
    reader = OpenSector(info, 0, 3);
    if (reader != nullptr) MapRing(reader, false);
    while (__atomic_load_n(&shared->ready, __ATOMIC_ACQUIRE) == 0) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return "the writer failed to start";
        usleep(1000);
    }
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {SHM_READ_IN_PLACE, 0, kBaseTick, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t got = 0;
    {
        Quiet quiet;  // a new client prints its address
        if (reader == nullptr ||
            SharedMem_QueryReadBuffer(reader, &client, &data, &got, &request) != 0) {
            kill(pid, SIGKILL);
            Reap(pid);
            return "the first frame did not come through";
        }
    }
    SharedMem_ReleaseReadBuffer(client);
    __atomic_store_n(&shared->released, 1u, __ATOMIC_RELEASE);

    const char *error = nullptr;
    uint32_t next = 1;
    uint64_t sw0 = Switches();
    uint64_t t0 = NowNs();
    __atomic_store_n(&shared->go, 1u, __ATOMIC_RELEASE);
    unsigned round = 0;
    while (next <= frames && error == nullptr) {
        request = {SHM_READ_IN_PLACE, 0, kBaseTick + next, 0, 0, 0, 0, 0};
        if (SharedMem_QueryReadBuffer(reader, &client, &data, &got, &request) == 0) {
            round = 0;
            uint32_t seq = client->dwDeliveredTimeTick - kBaseTick;
            if (seq != next) {
                error = "a frame was missed or came twice";
            } else if (touch && SumWords(data, got) != ExpectedSum(seq, got)) {
                error = "frame bytes differ from what the writer filled";
            }
            SharedMem_ReleaseReadBuffer(client);
            next = seq + 1;
            __atomic_store_n(&shared->released, next, __ATOMIC_RELEASE);
            continue;
        }
        if (request.dwReason != SHM_REASON_LATEST && request.dwReason != SHM_REASON_FAILED) {
            error = "query failed for an unexpected reason";
        } else if (mode == kRingWait && request.dwReason == SHM_REASON_LATEST) {
            if (SharedMem_WaitReadBuffer(reader, client, kWaitMs) == 1 &&
                waitpid(pid, nullptr, WNOHANG) == pid) {
                error = "the writer stopped";
            }
        } else {
            Backoff(&round);
        }
    }
    uint64_t elapsed = NowNs() - t0;
    uint64_t readerSwitches = Switches() - sw0;
    FreeClient(&client);
    CloseSector(&reader);
    if (error != nullptr) kill(pid, SIGKILL);
    if (!Reap(pid) && error == nullptr) error = "the writer failed";
    if (error != nullptr) return error;
    out->framesPerS = frames / (static_cast<double>(elapsed) / 1e9);
    out->writerSwitches = static_cast<double>(shared->switches) / frames;
    out->readerSwitches = static_cast<double>(readerSwitches) / frames;
    out->refused = static_cast<double>(shared->refused) / frames;
    return nullptr;
}

// The pipe gets the largest buffer the system allows (1 MiB by default).
const char *PipePair(uint32_t size, bool touch, uint32_t frames, PairFigures *out) {
    int fds[2];
    Shared *shared = MapShared();
    if (shared == nullptr || pipe2(fds, O_CLOEXEC) != 0) return "set-up failed";
    struct Unmap {
        Shared *p;
        ~Unmap() { munmap(p, sizeof *p); }
    } unmap{shared};
    int maxPipe = 1 << 20;
    if (FILE *f = fopen("/proc/sys/fs/pipe-max-size", "r")) {
        if (fscanf(f, "%d", &maxPipe) != 1) maxPipe = 1 << 20;
        fclose(f);
    }
    fcntl(fds[1], F_SETPIPE_SZ, maxPipe);
    pid_t pid = Spawn([fds, shared, size, touch, frames]() {
        close(fds[0]);
        if (!PinToCpu(kWriterCpu)) return 2;
        uint8_t *frame = static_cast<uint8_t *>(calloc(1, size));
        if (frame == nullptr) return 3;
        __atomic_store_n(&shared->ready, 1u, __ATOMIC_RELEASE);
        while (__atomic_load_n(&shared->go, __ATOMIC_ACQUIRE) == 0) CpuRelax();
        uint64_t sw0 = Switches();
        for (uint32_t seq = 1; seq <= frames; ++seq) {
            if (touch) memset(frame, FillByte(seq), size);
            if (!WriteAll(fds[1], frame, size)) return 4;
        }
        shared->switches = Switches() - sw0;
        free(frame);
        return 0;
    });
    close(fds[1]);
    if (pid < 0 || !PinToCpu(kReaderCpu)) {
        if (pid > 0) kill(pid, SIGKILL);
        Reap(pid);
        close(fds[0]);
        return "two cores are needed";
    }
    uint8_t *frame = static_cast<uint8_t *>(calloc(1, size));
    while (__atomic_load_n(&shared->ready, __ATOMIC_ACQUIRE) == 0) usleep(1000);
    const char *error = frame == nullptr ? "out of memory" : nullptr;
    uint64_t sw0 = Switches();
    uint64_t t0 = NowNs();
    __atomic_store_n(&shared->go, 1u, __ATOMIC_RELEASE);
    for (uint32_t seq = 1; seq <= frames && error == nullptr; ++seq) {
        if (!ReadAll(fds[0], frame, size)) {
            error = "the pipe closed early";
        } else if (touch && SumWords(frame, size) != ExpectedSum(seq, size)) {
            error = "frame bytes differ from what the writer filled";
        }
    }
    uint64_t elapsed = NowNs() - t0;
    uint64_t readerSwitches = Switches() - sw0;
    close(fds[0]);
    free(frame);
    if (!Reap(pid) && error == nullptr) error = "the writer failed";
    if (error != nullptr) return error;
    out->framesPerS = frames / (static_cast<double>(elapsed) / 1e9);
    out->writerSwitches = static_cast<double>(shared->switches) / frames;
    out->readerSwitches = static_cast<double>(readerSwitches) / frames;
    return nullptr;
}

struct PairCase {
    uint32_t size;
    bool touch;
    Mode mode;
};

const PairCase kPairCases[] = {
    {4096, false, kRingPoll},   {4096, false, kRingWait},   {4096, false, kPipe},
    {4096, true, kRingPoll},    {4096, true, kRingWait},    {4096, true, kPipe},
    {524288, false, kRingPoll}, {524288, false, kRingWait}, {524288, false, kPipe},
    {524288, true, kRingPoll},  {524288, true, kRingWait},  {524288, true, kPipe},
};
constexpr int kPairCount = sizeof kPairCases / sizeof kPairCases[0];

uint32_t FramesFor(uint32_t size, double scale) {
    double n = (size <= 4096 ? 40000 : 3000) * scale;
    return static_cast<uint32_t>(std::max(200.0, n));
}

int RunPairs(const Options &o) {
    const char *descs[] = {"1M-pairs"};
    Block semBlock;  // the floor: a sector semaphore of a block of its own
    if (!semBlock.Create("1M", descs, 1)) {
        fprintf(stderr, "set-up failed\n");
        return 1;
    }
    std::vector<PairFigures> runs[kPairCount];
    std::vector<double> twoPairsNs;
    for (int rep = 0; rep < o.reps; ++rep) {
        for (int c = 0; c < kPairCount; ++c) {
            const PairCase &k = kPairCases[c];
            if (c % 3 == 0) {  // the floor, between the cases, on the reader's core
                PinToCpu(kReaderCpu);
                twoPairsNs.push_back(2 * PairNs(semBlock.semId(), static_cast<uint32_t>(
                                                                      50000 * o.scale + 1000)));
            }
            PairFigures f;
            uint32_t frames = FramesFor(k.size, o.scale);
            const char *error = k.mode == kPipe ? PipePair(k.size, k.touch, frames, &f)
                                                : RingPair(k.mode, k.size, k.touch, frames, &f);
            if (error != nullptr) {
                fprintf(stderr, "%s %u %s: %s\n", kModeNames[k.mode], k.size,
                        k.touch ? "touched" : "untouched", error);
                return 1;
            }
            runs[c].push_back(f);
        }
    }
    double floorNs = Median(twoPairsNs);
    double floorRate = 1e9 / floorNs;
    printf("two bare P+V pairs: %.0f ns (median of %zu), allow %.0f frames/s\n", floorNs,
           twoPairsNs.size(), floorRate);
    printf("%-10s %7s %9s %12s %9s %9s %9s %9s\n", "mode", "size", "bytes", "frames/s",
           "of floor", "w sw/fr", "r sw/fr", "refused");
    double rate[kPairCount];
    for (int c = 0; c < kPairCount; ++c) {
        const PairCase &k = kPairCases[c];
        auto pick = [&runs, c](double PairFigures::*field) {
            std::vector<double> x;
            for (const PairFigures &f : runs[c]) x.push_back(f.*field);
            return Median(x);
        };
        rate[c] = pick(&PairFigures::framesPerS);
        printf("%-10s %6uK %9s %12.0f %8.1f%% %9.3f %9.3f %9.4f\n", kModeNames[k.mode],
               k.size / 1024, k.touch ? "touched" : "untouched", rate[c], 100 * rate[c] / floorRate,
               pick(&PairFigures::writerSwitches), pick(&PairFigures::readerSwitches),
               pick(&PairFigures::refused));
    }
    // Cases come in threes: poll, wait, pipe.
    for (int c = 0; c < kPairCount; c += 3) {
        const PairCase &k = kPairCases[c];
        printf("summary: %uK %-9s ring/poll %.0f (%.1f%% of two pairs), ring/wait %.0f "
               "(%.1f%%), pipe %.0f; poll/pipe %.2fx, wait/pipe %.2fx, wait/poll %.3f",
               k.size / 1024, k.touch ? "touched" : "untouched", rate[c], 100 * rate[c] / floorRate,
               rate[c + 1], 100 * rate[c + 1] / floorRate, rate[c + 2], rate[c] / rate[c + 2],
               rate[c + 1] / rate[c + 2], rate[c + 1] / rate[c]);
        if (k.size == 4096 && !k.touch) {
            printf(" (target >= 50%% of two pairs: %s)",
                   std::max(rate[c], rate[c + 1]) >= floorRate / 2 ? "met" : "MISSED");
        } else if (k.size == 524288 && !k.touch) {
            printf(" (target >= 10x pipe: %s)",
                   std::max(rate[c], rate[c + 1]) >= 10 * rate[c + 2] ? "met" : "MISSED");
        }
        printf("\n");
    }
    return 0;
}

// ---- 2. The writer's cycle with and without a waiting reader ------------------

constexpr uint32_t kCycleBytes = 4096;
constexpr int kCycleRounds = 200;

// `rounds` alternating rounds of `per` writer cycles and `per` bare pairs;
// ns per cycle and per pair, summed over the rounds.
void CycleRounds(SharedMemHandle *writer, int semId, uint32_t per, uint32_t *tick,
                 double *cycleNs, double *pairNs) {
    uint64_t cycles = 0, pairs = 0;
    for (int r = 0; r < kCycleRounds; ++r) {
        uint64_t t0 = NowNs();
        for (uint32_t i = 0; i < per; ++i) {
            uint8_t *place = nullptr;
            if (SharedMem_QueryAutoRewindWriteBuffer(writer, &place, kCycleBytes) != 0) continue;
            SharedMemWriteInfo info = {place, SHM_FRAME_P, kCycleBytes, ++*tick};
            SharedMem_UpdateWritedBuffer(writer, &info);
        }
        uint64_t t1 = NowNs();
        for (uint32_t i = 0; i < per; ++i) {
            SemOp(semId, -1);
            SemOp(semId, 1);
        }
        uint64_t t2 = NowNs();
        cycles += t1 - t0;
        pairs += t2 - t1;
    }
    *cycleNs = static_cast<double>(cycles) / (static_cast<double>(per) * kCycleRounds);
    *pairNs = static_cast<double>(pairs) / (static_cast<double>(per) * kCycleRounds);
}

// A reader process on the other core that sleeps until woken and reads
// every frame there is, until told to stop.
int WaitingReader(SharedMemBlockInfo *info, Shared *shared) {
    if (!PinToCpu(kReaderCpu)) return 2;
    SharedMemHandle *reader = OpenSector(info, 0, 3);
    if (reader == nullptr) return 3;
    MapRing(reader, false);
    SharedMemBufClient *client = nullptr;
    uint64_t sw0 = Switches();
    __atomic_store_n(&shared->ready, 1u, __ATOMIC_RELEASE);
    while (__atomic_load_n(&shared->stop, __ATOMIC_ACQUIRE) == 0) {
        SharedMemReadRequest request = {SHM_READ_IN_PLACE, 0, 0, 0, 0, 0, 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(reader, &client, &data, &size, &request) == 0) {
            SharedMem_ReleaseReadBuffer(client);
        } else if (request.dwReason == SHM_REASON_LATEST || client == nullptr) {
            SharedMem_WaitReadBuffer(reader, client, kWaitMs);
        }
    }
    shared->switches = Switches() - sw0;
    return 0;
}

int RunCycle(const Options &o) {
    const char *descs[] = {"16M-cycle"};
    const char *floorDescs[] = {"1M-floor"};
    Block block;
    Block floor;  // the bare pair on a semaphore of its own, which the reader never takes
    Shared *shared = MapShared();
    if (shared == nullptr || !block.Create("16M", descs, 1) || !floor.Create("1M", floorDescs, 1)) {
        fprintf(stderr, "set-up failed\n");
        return 1;
    }
    SharedMemHandle *writer = OpenSector(block.info(), 0, 4);
    if (writer == nullptr || !PinToCpu(kWriterCpu)) {
        fprintf(stderr, "set-up failed (two cores are needed)\n");
        return 1;
    }
    MapRing(writer, true);
    const uint32_t per = static_cast<uint32_t>(std::max(20.0, 200 * o.scale));
    uint32_t tick = kBaseTick;
    std::vector<double> alone, alonePair, with, withPair;
    double c = 0, p = 0;
    CycleRounds(writer, floor.semId(), per, &tick, &c, &p);  // warm-up
    for (int rep = 0; rep < o.reps; ++rep) {
        CycleRounds(writer, floor.semId(), per, &tick, &c, &p);
        alone.push_back(c);
        alonePair.push_back(p);
    }
    shared->ready = 0;
    SharedMemBlockInfo *info = block.info();
    pid_t pid = Spawn([info, shared]() {
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);  // a new client prints its address
        if (null >= 0) dup2(null, 1);
        return WaitingReader(info, shared);
    });
    while (pid > 0 && __atomic_load_n(&shared->ready, __ATOMIC_ACQUIRE) == 0) usleep(1000);
    uint64_t published = tick;
    uint64_t sw0 = Switches();
    for (int rep = 0; rep < o.reps; ++rep) {
        CycleRounds(writer, floor.semId(), per, &tick, &c, &p);
        with.push_back(c);
        withPair.push_back(p);
    }
    published = tick - published;
    double writerSwitches = static_cast<double>(Switches() - sw0) / static_cast<double>(published);
    __atomic_store_n(&shared->stop, 1u, __ATOMIC_RELEASE);
    bool ok = Reap(pid);
    double readerSwitches = static_cast<double>(shared->switches) / static_cast<double>(published);
    CloseSector(&writer);
    munmap(shared, sizeof *shared);
    if (!ok) {
        fprintf(stderr, "the waiting reader failed\n");
        return 1;
    }
    double a = Median(alone), ap = Median(alonePair), w = Median(with), wp = Median(withPair);
    printf("writer cycle alone:               %7.1f ns, one bare P+V pair %7.1f ns, ratio %.3f "
           "(target <= 1.25: %s)\n",
           a, ap, a / ap, a / ap <= 1.25 ? "met" : "MISSED");
    printf("writer cycle with a waiting reader: %7.1f ns, one bare P+V pair %7.1f ns, ratio %.3f; "
           "with/alone %.3f; context switches per frame: writer %.3f, reader %.3f\n",
           w, wp, w / wp, w / a, writerSwitches, readerSwitches);
    return 0;
}

bool ParseOptions(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        bool more = i + 1 < argc;
        if (strcmp(argv[i], "--reps") == 0 && more) {
            o->reps = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--scale") == 0 && more) {
            o->scale = atof(argv[++i]);
        } else if (strcmp(argv[i], "--only") == 0 && more) {
            const char *what = argv[++i];
            o->ring = strcmp(what, "ring") == 0;
            o->cycle = strcmp(what, "cycle") == 0;
        } else {
            return false;
        }
    }
    return o->reps > 0 && o->scale > 0 && (o->ring || o->cycle);
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (!ParseOptions(argc, argv, &o)) {
        fprintf(stderr, "usage: %s [--reps N] [--scale F] [--only ring|cycle]\n", argv[0]);
        return 2;
    }
    InstallCleanupHandlers();
    QuietFrameStoreLog();
    printf("frame path: %d repetitions, scale %.2f, frame store log level %u\n", o.reps, o.scale,
           gShm_DebugLevel & 7u);
    if (o.ring && RunPairs(o) != 0) return 1;
    if (o.cycle && RunCycle(o) != 0) return 1;
    return 0;
}
