// Benchmarks of the cache sectors: reading a ring through its companion
// cache sector, and reading a cache sector directly. Each cost is measured
// beside its floor, in short alternating rounds in the same run, so that
// both see the same machine. A repetition's figures are medians over its
// rounds (the machine is shared, and a burst of other work must not decide
// a ratio); the summary at the end gives the medians over the repetitions
// and the ratios that the targets are about. The Time column is the mean
// per query, bursts included.
//
// 1. BM_ReadThroughFirst: SharedMem_QueryReadBuffer with SHM_READ_VIA_CACHE
//    plus SharedMem_ReleaseReadBuffer on a ring of 512 KiB frames, by the
//    first reader of each frame: the copy is made. The floor: a bare memcpy
//    of the same 512 KiB between the same places (ring frame to cache slot,
//    in the same order) plus four bare semop P+V pairs with SEM_UNDO, as
//    many as the path takes (ring pin, cache claim, ring unpin, cache
//    release), in the path's order. Target: at most 1.2 times. The counter
//    copies/query says that every query made its copy (1.00).
//
// 2. BM_ReadThroughSecond: the same query + release by a second reader of
//    the same frames: the copy is found, nothing is copied. The floor: the
//    four P+V pairs alone. Target: at most 1.3 times. copies/query: 0.00.
//
// 3. BM_DirectCacheRead: SharedMem_QueryReadCache plus
//    SharedMem_ReleaseReadCache over a full table of 36 slots, a next-by-tick
//    search of all 36 on every query; this path takes no lock. The floor:
//    one bare P+V pair. Target: at most half of it.
//
// 4. BM_ReadThroughFrames and BM_PipeFrames: one writer process and one
//    read-through reader process, each on a core of its own, 512 KiB frames,
//    every byte written by the writer and summed by the reader from the
//    copy; beside a pipe carrying the same frames. The summary gives frames/s
//    of each and the ratio.
//
// Blocks live under keys of this process's own and are deleted on every
// path (bench/support/bench_block.h):
//   cache_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/sem.h>
#include <vector>

#include "sharedmem.h"
#include "support/bench_block.h"
#include "support/frame_pair.h"
#include "support/median_reporter.h"

namespace {

using namespace molkbench;

// ---- Read-through: a ring of 512 KiB frames and its cache sector ----------

constexpr uint32_t kFrameSize = 512u << 10;
constexpr int kRingFrames = 16;  // frames the readers walk per lap
constexpr int kCacheSlots = 8;   // fewer than kRingFrames: a lap never finds its own copies
constexpr int kRound = 8;        // steps per timed round; a divisor of kRingFrames

// The ring holds kRingFrames frames (10 MiB less its header: room for 19);
// the cache sector holds exactly kCacheSlots slots of 513 KiB, room for a
// frame and the 4-byte tick ahead of it. AttachIDs 0 and 1 get the
// "streaming" cache sector as their companion.
constexpr const char *kReadThroughDescs[] = {"10M-bench", "4104K~513K~streaming"};
constexpr int kWriterId = 4;
constexpr int kFirstReaderId = 0;
constexpr int kSecondReaderId = 1;

// A read-through reader walking the ring's frames over and over, with the
// walk of the in-place reader benchmark: the next frame on every query, and
// on the latest frame a re-placement at the oldest (SHM_READ_RESTART |
// SHM_READ_FROM_OLDEST, a first query without a search), one query in
// kRingFrames. Each query is counted as a copy made when the cache
// sector's write index moved: a copy found leaves it where it was.
class ReadThroughWalk {
public:
    const char *SetUp(SharedMemBlockInfo *info, int attachId) {
        if (!reader_.Open(info, attachId)) return "reader handle failed";
        cache_ = reader_.get()->ptCacheHeader;
        if (cache_ == nullptr) return "the reader has no cache sector";
        latest_ = reader_.get()->ptHeader->iLatestIndex;
        request_.dwReadFlags = SHM_READ_VIA_CACHE | SHM_READ_FROM_OLDEST;
        request_.dwRefTimeTick = refTick_;
        if (FirstQuery(reader_.get(), &client_, &request_) != 0) return "first query failed";
        cursor_ = client_.get();
        return nullptr;
    }

    // One query + release; false when the query refused the frame or
    // delivered it in place.
    bool Step() {
        int writeIndex = cache_->iWriteIndex;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (!Query(&data, &size)) return false;
        benchmark::DoNotOptimize(data);
        bool copied = cursor_->dwHoldType == kHeldInCache;
        SharedMem_ReleaseReadBuffer(cursor_);
        copies_ += cache_->iWriteIndex != writeIndex;
        ++steps_;
        return copied;
    }

    // A lap of queries, each copy checked against its frame: every byte of
    // ring frame n is (n & 0xFF).
    bool CheckOneLap() {
        for (int i = 0; i < kRingFrames; ++i) {
            uint8_t *data = nullptr;
            uint32_t size = 0;
            if (!Query(&data, &size)) return false;
            uint32_t seq = cursor_->dwDeliveredTimeTick - kBaseTick;
            bool good = cursor_->dwHoldType == kHeldInCache && size == kFrameSize &&
                        SumWords(data, size) == ExpectedSum(seq, size);
            SharedMem_ReleaseReadBuffer(cursor_);
            if (!good) return false;
        }
        return true;
    }

    void ResetCounts() { copies_ = steps_ = 0; }
    double CopiesPerQuery() const { return steps_ ? static_cast<double>(copies_) / steps_ : 0; }
    SharedMemCacheHeader *cache() const { return cache_; }

private:
    static constexpr uint32_t kHeldInCache = 2;  // dwHoldType of a client holding a copy

    // The reference tick moves on with every query, as a live reader's
    // current time does: a copy's slot takes the reference as its tick, and
    // the cache writer reuses the slot with the oldest tick, so the slots
    // are taken in turn.
    bool Query(uint8_t **data, uint32_t *size) {
        uint32_t flags = SHM_READ_VIA_CACHE;
        if (cursor_->iLastIndex == latest_) flags |= SHM_READ_RESTART | SHM_READ_FROM_OLDEST;
        request_.dwReadFlags = flags;
        request_.dwRefTimeTick = ++refTick_;
        return SharedMem_QueryReadBuffer(reader_.get(), client_.address(), data, size,
                                         &request_) == 0;
    }

    Handle reader_;
    Client client_;  // freed before the handle
    SharedMemReadRequest request_ = {};
    uint32_t refTick_ = kBaseTick + kRingFrames;
    SharedMemBufClient *cursor_ = nullptr;
    SharedMemCacheHeader *cache_ = nullptr;
    int latest_ = -1;
    int64_t copies_ = 0;
    int64_t steps_ = 0;
};

// What a P and a V of the library are: one semop each, with SEM_UNDO.
inline bool SemopPair(int semId, unsigned short sem) {
    struct sembuf p = {sem, -1, SEM_UNDO};
    struct sembuf v = {sem, 1, SEM_UNDO};
    return semop(semId, &p, 1) == 0 && semop(semId, &v, 1) == 0;
}

// The ring, filled once, with its cache sector; the writer's handle is
// kept open but never writes again, so nothing races the readers.
class ReadThroughRing {
public:
    const char *SetUp() {
        if (!block_.Create("16M", kReadThroughDescs, 2) ||
            !writer_.Open(block_.info(), kWriterId)) {
            return "block set-up failed (a 16 MiB segment is needed)";
        }
        SharedMemHandle *w = writer_.get();
        for (int i = 0; i < kRingFrames; ++i) {
            uint8_t *place = nullptr;
            if (SharedMem_QueryAutoRewindWriteBuffer(w, &place, kFrameSize) != 0) {
                return "filling the ring failed";
            }
            memset(place, FillByte(static_cast<uint32_t>(i)), kFrameSize);
            SharedMemWriteInfo info = {place, 0, kFrameSize, kBaseTick + static_cast<uint32_t>(i)};
            if (SharedMem_UpdateWritedBuffer(w, &info) != 0) return "filling the ring failed";
        }
        return nullptr;
    }

    SharedMemBlockInfo *info() const { return block_.info(); }
    int semId() const { return block_.info()->iSemId; }
    SharedMemHandle *writer() const { return writer_.get(); }

private:
    Block block_;
    Handle writer_;
};

// The floor of a read-through query + release: four P+V pairs in the
// path's order (ring pin, cache claim, ring unpin, cache release) on the
// block's own semaphores 0 (the ring) and 1 (the cache sector), and, when
// `copy` is set, the memcpy the first reader makes between the claim and
// the unpin: ring frame k % 16 to slot k % 8, behind the slot's 4-byte
// tick, as the walk does.
class ReadThroughFloor {
public:
    void SetUp(const ReadThroughRing &ring, const SharedMemCacheHeader *cache, bool copy) {
        semId_ = ring.semId();
        copy_ = copy;
        SharedMemHandle *w = ring.writer();
        uint8_t *base = static_cast<uint8_t *>(w->pvBase);
        for (int i = 0; i < kRingFrames; ++i) frames_[i] = base + w->ptHeader->atFrame[i].dwOffset;
        for (int j = 0; j < kCacheSlots; ++j) slots_[j] = base + cache->atCache[j].dwOffset + 4;
    }

    bool Step() {
        if (!SemopPair(semId_, 0) || !SemopPair(semId_, 1)) return false;
        if (copy_) {
            memcpy(slots_[step_ % kCacheSlots], frames_[step_ % kRingFrames], kFrameSize);
            benchmark::ClobberMemory();
            ++step_;
        }
        return SemopPair(semId_, 0) && SemopPair(semId_, 1);
    }

private:
    int semId_ = -1;
    bool copy_ = false;
    unsigned step_ = 0;
    uint8_t *frames_[kRingFrames] = {};
    uint8_t *slots_[kCacheSlots] = {};
};

// Times `round` steps; false (and no time) when a step failed.
template <typename Step>
bool TimeRound(int round, Step step, double *seconds) {
    Clock::time_point start = Clock::now();
    for (int i = 0; i < round; ++i) {
        if (!step()) return false;
    }
    *seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return true;
}

// A cost and its floor, timed in alternating rounds of `round` steps each;
// which of the two goes first alternates too, so that neither always meets
// the caches the other left. The machine is shared: a burst of other work
// lands in a few rounds, so the figures are medians over the rounds (per
// step, and the ratio of each round's two halves), not sums.
class SideBySide {
public:
    SideBySide(benchmark::State &state, int round) : state_(state), round_(round) {
        query_.reserve(static_cast<size_t>(state.max_iterations));
        floor_.reserve(static_cast<size_t>(state.max_iterations));
    }

    template <typename Query, typename Floor>
    bool Round(Query query, Floor floor) {
        double q = 0;
        double f = 0;
        bool queryFirst = query_.size() % 2 == 0;
        bool ok = queryFirst ? TimeRound(round_, query, &q) && TimeRound(round_, floor, &f)
                             : TimeRound(round_, floor, &f) && TimeRound(round_, query, &q);
        if (!ok || f <= 0) return false;
        query_.push_back(q / round_);
        floor_.push_back(f / round_);
        ratio_.push_back(q / f);
        querySum_ += q;
        floorSum_ += f;
        state_.SetIterationTime(q / round_);
        return true;
    }

    void Report() {
        if (query_.empty()) return;
        state_.counters["query_ns"] = MedianOf(&query_) * 1e9;
        state_.counters["floor_ns"] = MedianOf(&floor_) * 1e9;
        state_.counters["ratio"] = MedianOf(&ratio_);
        state_.counters["ratio_of_sums"] = querySum_ / floorSum_;  // bursts included
    }

private:
    static double MedianOf(std::vector<double> *v) {
        std::sort(v->begin(), v->end());
        size_t n = v->size();
        return n % 2 ? (*v)[n / 2] : ((*v)[n / 2 - 1] + (*v)[n / 2]) / 2;
    }

    benchmark::State &state_;
    int round_;
    std::vector<double> query_;
    std::vector<double> floor_;
    std::vector<double> ratio_;
    double querySum_ = 0;
    double floorSum_ = 0;
};

void BM_ReadThroughFirst(benchmark::State &state) {
    ReadThroughRing ring;
    ReadThroughWalk first;
    ReadThroughFloor floor;
    const char *error = ring.SetUp();
    if (error == nullptr) error = first.SetUp(ring.info(), kFirstReaderId);
    if (error == nullptr && !first.CheckOneLap()) error = "a copy differs from its frame";
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    // Every slot has been assigned by now: the floor copies into them.
    floor.SetUp(ring, first.cache(), true);
    first.ResetCounts();
    SideBySide side(state, kRound);
    for (auto _ : state) {
        if (!side.Round([&] { return first.Step(); }, [&] { return floor.Step(); })) {
            state.SkipWithError("query, copy or semop failed");
            return;
        }
    }
    side.Report();
    state.counters["copies/query"] = first.CopiesPerQuery();
}
BENCHMARK(BM_ReadThroughFirst)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

// The first reader goes a round ahead, untimed, making the copies; the
// second reader then walks the same frames and finds every one of them.
void BM_ReadThroughSecond(benchmark::State &state) {
    ReadThroughRing ring;
    ReadThroughWalk first;
    ReadThroughWalk second;
    ReadThroughFloor floor;
    const char *error = ring.SetUp();
    if (error == nullptr) error = first.SetUp(ring.info(), kFirstReaderId);
    if (error == nullptr) error = second.SetUp(ring.info(), kSecondReaderId);
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    floor.SetUp(ring, first.cache(), false);
    SideBySide side(state, kRound);
    for (auto _ : state) {
        for (int i = 0; i < kRound; ++i) {
            if (!first.Step()) {
                state.SkipWithError("the first reader's query failed");
                return;
            }
        }
        if (!side.Round([&] { return second.Step(); }, [&] { return floor.Step(); })) {
            state.SkipWithError("query or semop failed");
            return;
        }
    }
    side.Report();
    state.counters["copies/query"] = second.CopiesPerQuery();
}
BENCHMARK(BM_ReadThroughSecond)->UseManualTime()->Iterations(300)->Unit(benchmark::kMicrosecond);

// ---- Direct reading of a full cache table --------------------------------

constexpr uint32_t kItemSize = 4096;
constexpr int kDirectRound = 64;

// 36 slots of 4 KiB, exactly: the sector's data area holds no 37th.
constexpr const char *kDirectDescs[] = {"1M-bench", "144K~4K~direct"};

// A direct writer fills all 36 slots once (ticks 40 ms apart); a reader
// then follows them by tick. Each query searches all 36 slots for the one
// after its tick. On the latest slot the reader's tick is set back to 0,
// which the range test fails, so that the next query starts again at the
// oldest slot: one query in 36, with the same search.
class DirectCacheWalk {
public:
    const char *SetUp() {
        if (!block_.Create("2M", kDirectDescs, 2) || !writer_.Open(block_.info(), 1, 5) ||
            !reader_.Open(block_.info(), 1, 3)) {
            return "block set-up failed";
        }
        SharedMemHandle *w = writer_.get();
        for (int i = 0; i < SHM_CACHE_ENTRIES; ++i) {
            uint8_t *place = nullptr;
            if (SharedMem_QueryWriteCache(w, &place, kItemSize) != 0) return "cache write failed";
            memset(place, FillByte(static_cast<uint32_t>(i)), kItemSize);
            SharedMemWriteInfo info = {place, 0, kItemSize, kBaseTick + 40u * i};
            if (SharedMem_UpdateWritedCache(w, &info) != 0) return "cache update failed";
        }
        cache_ = reinterpret_cast<SharedMemCacheHeader *>(reader_.get()->ptHeader);
        if (cache_->iPrimaryBoundary != SHM_CACHE_ENTRIES - 1) return "the table is not full";
        Quiet quiet;  // the first query makes the client
        return Step() ? nullptr : "first query failed";
    }

    bool Step() {
        SharedMemBufClient *client = client_.get();
        if (client != nullptr && client->iLastIndex == cache_->iLatestIndex) {
            client->dwLastTimeTick = 0;
        }
        uint8_t *data = nullptr;
        uint32_t size = 0;
        SharedMemHandle *r = reader_.get();
        if (SharedMem_QueryReadCache(r, client_.address(), &data, &size, &request_) != 0) {
            return false;
        }
        benchmark::DoNotOptimize(data);
        return SharedMem_ReleaseReadCache(r, client_.get()) == 0;
    }

    int semId() const { return block_.info()->iSemId; }

private:
    // A handle on a sector by index, released with the object.
    class SectorHandle {
    public:
        ~SectorHandle() {
            if (handle_ != nullptr) SharedMem_Release(&handle_);
        }
        bool Open(SharedMemBlockInfo *info, int sector, int attachId) {
            Quiet quiet;
            return info != nullptr && SharedMem_Initial(info, &handle_, sector, attachId) == 0;
        }
        SharedMemHandle *get() const { return handle_; }

    private:
        SharedMemHandle *handle_ = nullptr;
    };

    Block block_;
    SectorHandle writer_;
    SectorHandle reader_;
    Client client_;  // freed before the handles and the block
    SharedMemReadRequest request_ = {};
    SharedMemCacheHeader *cache_ = nullptr;
};

void BM_DirectCacheRead(benchmark::State &state) {
    DirectCacheWalk walk;
    if (const char *error = walk.SetUp()) {
        state.SkipWithError(error);
        return;
    }
    int semId = walk.semId();
    SideBySide side(state, kDirectRound);
    for (auto _ : state) {
        if (!side.Round([&] { return walk.Step(); }, [&] { return SemopPair(semId, 1); })) {
            state.SkipWithError("query or semop failed");
            return;
        }
    }
    side.Report();
}
BENCHMARK(BM_DirectCacheRead)->UseManualTime()->Iterations(2000);

// ---- One writer process, one read-through reader process -----------------

// A ring of 64 MiB and a cache sector of 4 slots: the reader releases each
// copy before its next query, so that one slot at a time is in use.
constexpr const char *kFramesDescs[] = {"64M-bench", "2052K~513K~streaming"};

void BM_ReadThroughFrames(benchmark::State &state) {
    static const RingFramesSetup setup = {
        "72M", kFramesDescs, 2, kWriterId, kFirstReaderId, SHM_READ_VIA_CACHE,
        "set-up failed (two cores and a 72 MiB segment are needed)"};
    RunRingFrames(state, setup, kFrameSize, true);
}
BENCHMARK(BM_ReadThroughFrames)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);

// The pipe gets the largest buffer the system allows it, its best case.
void BM_PipeFrames(benchmark::State &state) { RunPipeFrames(state, kFrameSize); }
BENCHMARK(BM_PipeFrames)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);

// ---- Summary ------------------------------------------------------------

class SummaryReporter : public MedianReporter {
public:
    void Finalize() override {
        ConsoleReporter::Finalize();
        FILE *out = stdout;
        fprintf(out, "\nsummary: frame store log level %u; medians over repetitions\n",
                gShm_DebugLevel & 7u);
        Ratio(out, "BM_ReadThroughFirst/", "read-through, copy made:  query+release",
              "memcpy 512 KiB + 4 P+V", 1.2);
        Ratio(out, "BM_ReadThroughSecond/", "read-through, copy found: query+release",
              "4 P+V", 1.3);
        Ratio(out, "BM_DirectCacheRead/", "direct cache, 36 slots:   query+release", "1 P+V", 0.5);
        double shm = Median("BM_ReadThroughFrames/", "frames/s");
        double pipe = Median("BM_PipeFrames/", "frames/s");
        if (shm > 0 && pipe > 0) {
            fprintf(out,
                    "summary: 512 KiB frames/s: read-through %.0f, pipe %.0f, ratio %.2f "
                    "(refused/frame %.3f)\n",
                    shm, pipe, shm / pipe, Median("BM_ReadThroughFrames/", "refused/frame"));
        }
        fflush(out);
    }

private:
    void Ratio(FILE *out, const std::string &name, const char *what, const char *floor,
               double target) const {
        double ratio = Median(name, "ratio");
        if (ratio <= 0) return;
        fprintf(out, "summary: %s %.1f ns, %s %.1f ns, ratio %.3f (target <= %.1f: %s)",
                what, Median(name, "query_ns"), floor, Median(name, "floor_ns"), ratio, target,
                ratio <= target ? "met" : "MISSED");
        fprintf(out, ", ratio of sums %.3f", Median(name, "ratio_of_sums"));
        double copies = Median(name, "copies/query");
        if (name != "BM_DirectCacheRead/") fprintf(out, ", copies/query %.2f", copies);
        fprintf(out, "\n");
    }
};

}  // namespace

int main(int argc, char **argv) { return RunWithSummary<SummaryReporter>(argc, argv); }
