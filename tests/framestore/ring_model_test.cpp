// Randomized model test of a ring: long random sequences of writes of random
// sizes (both writer cycles, given and stamped ticks, abandoned queries),
// reader pins on random AttachIDs, SHM_FRAME_UNREAD frames, cleared marks
// and resets, on small rings. After every step the ring is held against
// what must always be true of it:
//   - the indices are in one of the four forms; dwWriteOffset stays inside
//     the data area;
//   - each generation's frames lie back to back, live frames never share a
//     byte, and each still carries the bytes, tick, offset, size and flags
//     it was published with;
//   - a place handed out for writing never overlaps a pinned or unread
//     frame, lies behind the latest frame whenever it fits there, every
//     live frame it destroys is marked, and pinned or unread
//     frames stay live until they are released or read;
//   - the pin counters equal the pins the readers hold;
//   - a refusal says why truly (a pin, an unread frame, a frame too large),
//     a ring with nothing in the way never refuses, and a refusal moves no
//     index except by a completed rewind;
//   - dwDuration is the distance from the oldest to the latest tick;
//   - walks from a live entry of a quiet ring always end on live entries,
//     and no walk from anywhere leaves the table.
//
// Reproducible by seed: MOLK_RING_SEED=n runs that seed alone,
// MOLK_RING_STEPS=n sets the steps per seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "sharedmem.h"

namespace {

constexpr int kEntries = SHM_FRAME_ENTRIES;
constexpr uint32_t kKeptFlags = ~(SHM_FRAME_WRITING | SHM_FRAME_UNREAD);

uint8_t PatternByte(uint32_t id, uint32_t k) {
    return static_cast<uint8_t>((id * 2654435761u + k * 40503u) >> 13);
}

struct Frame {
    bool written = false;
    uint32_t id = 0, tick = 0, offset = 0, size = 0, rounded = 0, flags = 0;
};

struct Pin {
    SharedMemBufClient *client;
    int index, attachId;
    uint32_t id;  // the frame it holds
};

struct Range {
    uint32_t begin, end;  // [begin, end) in segment offsets
    bool overlaps(Range b) const { return begin < b.end && b.begin < end; }
};

template <typename T>
void Erase(std::vector<T> &v, const T &x) {
    v.erase(std::remove(v.begin(), v.end(), x), v.end());
}

class RingModel {
public:
    RingModel(uint32_t seed, uint32_t dataBytes)
        : rng_(seed), f_(dataBytes), r_(f_.ring()), shadow_(r_->dwTotalSize, 0) {
        for (int id = 0; id <= 16; ++id) handles_[id] = f_.readerHandle(id);
    }
    ~RingModel() {
        for (Pin &p : pins_) free(p.client);
    }

    // Runs one random step; returns an empty string or what went wrong.
    std::string Step(int n) {
        error_.clear();
        op_ = "nothing to do";
        if (n >= regimeEnd_) {
            // A ring that can hold 1280 tiny frames starts on them, so that
            // every such run uses up the entry table at least once.
            regime_ = n == 0 && area() >= 4u * kEntries ? 0 : Pick(4);
            regimeEnd_ = n + (regime_ == 0 ? 1600 : 300) + static_cast<int>(Pick(1500));
        }
        uint32_t writes = regime_ == 0 ? 92 : 60, roll = Pick(100);
        if (roll < writes) {
            Write(/*automatic=*/roll < writes * 3 / 4);
            tableUsedUp_ += r_->iWriteIndex == kEntries;
        } else if ((roll = Pick(100)) < 35) {
            PinSomething();
        } else if (roll < 75) {
            ReleaseSomething();
        } else if (roll < 90) {
            int index = static_cast<int>(Pick(kEntries + 2)) - 1;
            op_ = "clear marks from " + std::to_string(index);
            SharedMem_ClearFrameOccupied(r_, index);
        } else if (roll < 98) {
            Search();
        } else if (Pick(8) == 0) {
            Reset();  // rare: it ends the lap under way
        }
        if (error_.empty()) CheckRing();
        if (error_.empty()) CheckSearchesEndOnLiveEntries();
        return error_;
    }

    const std::string &lastOp() const { return op_; }
    int tableUsedUp() const { return tableUsedUp_; }

private:
    // mt19937's output is fixed by the standard, so a seed replays the same
    // run on every platform (distributions are not).
    uint32_t Pick(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

    template <typename T>
    void Expect(bool ok, const char *what, T detail) {
        if (ok || !error_.empty()) return;
        std::ostringstream s;
        s << what << " (" << detail << ")";
        error_ = s.str();
    }

    uint32_t area() const { return r_->dwEndOffset - r_->dwStartOffset; }
    const SharedMemFrameEntry &E(int i) const { return r_->atFrame[i]; }
    bool Flag(int i, uint32_t flag) const { return (E(i).dwFlags & flag) != 0; }
    bool Pinned(int i) const { return memcmp(E(i).abyAccessCount, g_abyNULLArray, 16) != 0; }
    Range RangeOf(int i) const { return {E(i).dwOffset, E(i).dwOffset + E(i).dwSize}; }

    // The live entries as the indices stand now, which every judgement
    // takes first (the ring only moves inside calls).
    void Refresh() {
        oldest_ = r_->iOldestIndex;
        latest_ = r_->iLatestIndex;
        boundary_ = r_->iBoundaryIndex;
        live_.clear();
        for (int i = 0; i <= boundary_ && i < kEntries; ++i) {
            if (Live(i)) live_.push_back(i);
        }
    }
    bool Live(int i) const { return i >= 0 && i <= boundary_ && !(latest_ < i && i < oldest_); }

    // Sizes by regime: tiny frames that use up the entry table, mixed,
    // large, and sizes at the edge of the data area.
    uint32_t FrameSize() {
        switch (regime_) {
            case 0: return 1 + Pick(4);
            case 1: return 1 + Pick(std::max(2u, area() / 8));
            case 2: return 1 + Pick(area());
            default: {
                uint32_t r = Pick(50);
                if (r < 5) return area();
                if (r == 5) return area() + 1 + Pick(8);  // logged: keep it rare
                return area() / 2 + Pick(area() / 2 + 1);
            }
        }
    }
    uint32_t FrameFlags() {
        uint32_t flags = Pick(10) < 7 ? SHM_FRAME_P | (Pick(8) << 3) : 0;
        if (Pick(25) == 0) flags |= SHM_FRAME_UNREAD;
        if (Pick(4) == 0) flags |= Pick(0x10000) << 16;  // the caller's own bits
        return flags;
    }
    uint32_t FrameTick() {
        uint32_t r = Pick(20);
        if (r == 0) return 0;                  // stamped by the library
        if (r == 1) return tick_ - Pick(500);  // earlier than before
        if (r == 2) tick_ += 0x40000000u;      // a long pause, wrapping
        tick_ += 1 + Pick(80);
        return tick_ == 0 ? ++tick_ : tick_;
    }

    // One frame through either cycle. On refusal the reason is judged; on a
    // place, the place is judged, then filled and published, or given up.
    void Write(bool automatic) {
        uint32_t size = FrameSize(), rounded = (size + 3) & ~3u, flags = FrameFlags();
        uint32_t tick = FrameTick();
        bool pinned = false, unread = false;
        for (int i = 0; i < kEntries; ++i) {
            pinned |= Pinned(i);
            unread |= Flag(i, SHM_FRAME_UNREAD);
        }
        RingIndices before = f_.indices();
        std::ostringstream op;
        op << (automatic ? "auto" : "plain") << " write " << size << " flags 0x" << std::hex
           << flags << std::dec << " tick " << tick;
        op_ = op.str();

        uint8_t *place = nullptr;
        int result = automatic ? SharedMem_QueryAutoRewindWriteBuffer(f_.handle(), &place, size)
                               : PlainQuery(size, &place);
        uint32_t status = f_.status();
        if (result != 0) {
            op_ += " refused " + std::to_string(status);
            if (rounded > area()) {
                Expect(status == SHM_WRITE_TOO_LARGE, "too large, yet status", status);
            } else {
                Expect((status == SHM_WRITE_OCCUPIED && pinned) ||
                           (status == SHM_WRITE_UNREAD && unread),
                       "refused with nothing of that kind in the way, status", status);
            }
            RingIndices now = f_.indices();
            Expect(now == before || (f_.isJustRewound() && now.l == before.l),
                   "a refusal moved the indices", now);
            if (Pick(3) == 0) ReadersCatchUp();
            return;
        }
        Expect(rounded <= area(), "a frame larger than the area got a place", rounded);
        // No rewind while the frame still fits behind the latest, in bytes and entries.
        bool fitted = before.w < kEntries && rounded <= r_->dwEndOffset - before.writeOffset;
        Expect(!fitted || place == f_.base() + before.writeOffset, "rewound though it fit", before);
        JudgePlace(place, rounded);
        if (!error_.empty()) return;

        if (Pick(4) == 0) PinSomething();  // a reader between query and update
        int entry = r_->iWriteIndex;
        if (Pick(20) == 0) {  // the caller gives the frame up before writing it
            if (Pick(2) == 0) SharedMem_ClearFrameOccupied(r_, entry);
            op_ += " (given up)";
            return;
        }
        Frame &frame = frames_[entry];
        frame = Frame{true, ++nextId_, tick, static_cast<uint32_t>(place - f_.base()), size,
                      rounded, flags};
        for (uint32_t k = 0; k < size; ++k) place[k] = PatternByte(frame.id, k);
        memcpy(&shadow_[frame.offset], place, size);
        SharedMemWriteInfo info = {place, flags, size, tick};
        if (SharedMem_UpdateWritedBuffer(f_.handle(), &info) != 0) return Expect(false, "update", 0);
        if (tick == 0) frame.tick = E(entry).dwTimeTick;
        Expect(frame.tick != 0, "stamped tick is 0", entry);
        if (flags & SHM_FRAME_UNREAD) unread_.push_back(frame.id);
        Expect(r_->iLatestIndex == entry, "the frame is not the latest", entry);
        uint32_t distance = 0;
        SharedMem_DWComparator(E(r_->iOldestIndex).dwTimeTick, E(entry).dwTimeTick, &distance);
        Expect(r_->dwDuration == distance, "dwDuration", r_->dwDuration);
    }

    // The plain cycle: ask, and rewind by hand when the place is too small.
    int PlainQuery(uint32_t size, uint8_t **place) {
        SharedMemHandle *h = f_.handle();
        if (size > area()) {  // the plain cycle's caller judges this itself
            h->dwWriteStatus = SHM_WRITE_TOO_LARGE;
            return -1;
        }
        uint32_t granted = size;
        int result = SharedMem_QueryWriteBuffer(h, place, &granted);
        if (result == 0 && granted >= size) return 0;
        if (result != 0 && h->dwWriteStatus != 0) return result;
        if (SharedMem_PrepareRewindWriteBuffer(r_, &h->dwWriteStatus) != 0) return -1;
        SharedMem_RewindWriteBuffer(h);
        granted = size;
        result = SharedMem_QueryWriteBuffer(h, place, &granted);
        Expect(result != 0 || granted == size, "granted too little after a rewind", granted);
        return granted == size ? result : -1;
    }

    void JudgePlace(uint8_t *place, uint32_t rounded) {
        Refresh();
        uint32_t offset = static_cast<uint32_t>(place - f_.base());
        Expect(offset == r_->dwWriteOffset, "place is not at dwWriteOffset", offset);
        Expect(offset >= r_->dwStartOffset && offset + rounded <= r_->dwEndOffset,
               "place outside the data area", offset);
        Range target = {offset, offset + rounded};
        for (const Pin &p : pins_) {
            if (p.attachId < 16) Expect(!target.overlaps(RangeOf(p.index)), "place over a pin", p.index);
        }
        // Every live frame the write will destroy (its bytes, or its entry)
        // is marked, so that no reader can pin it any more.
        for (int i : live_) {
            bool over = target.overlaps(RangeOf(i));
            Expect(!over || !Flag(i, SHM_FRAME_UNREAD), "place over an unread frame", i);
            if (over || i == r_->iWriteIndex) {
                Expect(Flag(i, SHM_FRAME_WRITING), "doomed frame not marked", i);
            }
        }
    }

    // A reader pins a live frame as the frame reader does (refused on a
    // marked entry; the pin clears the unread mark).
    bool TryPin(int index, int attachId) {
        bool marked = Flag(index, SHM_FRAME_WRITING);
        SharedMemBufClient *client = f_.pin(index, &handles_[attachId]);
        Expect((client != nullptr) == !marked, "pin of a live entry, marked", marked);
        if (client == nullptr) return false;
        Erase(unread_, frames_[index].id);
        pins_.push_back({client, index, attachId, frames_[index].id});
        return true;
    }

    // Unread frames by preference, or the latest.
    void PinSomething() {
        if (pins_.size() >= 4) return ReleaseSomething();
        Refresh();
        if (live_.empty()) return;
        std::vector<int> unread;
        for (int i : live_) {
            if (Flag(i, SHM_FRAME_UNREAD)) unread.push_back(i);
        }
        const std::vector<int> &from = !unread.empty() && Pick(2) == 0 ? unread : live_;
        int index = Pick(4) == 0 ? r_->iLatestIndex : from[Pick(from.size())];
        int attachId = Pick(3) == 0 ? 16 : static_cast<int>(Pick(16));
        op_ = "pin " + std::to_string(index) + " by " + std::to_string(attachId);
        TryPin(index, attachId);
    }

    void ReleaseSomething(size_t k) {
        Pin pin = pins_[k];
        pins_.erase(pins_.begin() + k);
        op_ = "release " + std::to_string(pin.index) + " by " + std::to_string(pin.attachId);
        bool counted = pin.attachId < 16;
        if (counted) {
            Expect(SharedMem_CheckClientValid(r_, pin.client, "query") == 0,
                   "pinned frame no longer valid", pin.index);
        }
        // An uncounted frame may be gone: a release would only warn to syslog.
        if (counted || SharedMem_CheckIndexValid(r_, pin.index, pin.client->dwLastTimeTick,
                                                 nullptr) == 0) {
            const uint8_t &count = E(pin.index).abyAccessCount[pin.attachId & 15];
            int before = count;
            Expect(SharedMem_ReleaseReadBuffer(pin.client) == 0, "release", pin.index);
            Expect(!counted || count == before - 1, "count after release", count);
        }
        free(pin.client);
    }
    void ReleaseSomething() {
        if (!pins_.empty()) ReleaseSomething(Pick(pins_.size()));
    }

    // The readers that stop the writer move on: every pin is given back and
    // every unread frame is read (pinned and released).
    void ReadersCatchUp() {
        std::string op = op_;
        while (!pins_.empty() && error_.empty()) ReleaseSomething(0);
        Refresh();
        for (int i : live_) {
            if (error_.empty() && Flag(i, SHM_FRAME_UNREAD) && TryPin(i, 1)) {
                ReleaseSomething(pins_.size() - 1);
            }
        }
        op_ = op + ", readers catch up";
    }

    // Searches of random kinds from random starts, live or not: whatever
    // comes back must be -1 or an entry of the table.
    void Search() {
        op_ = "searches";
        for (int k = 0; k < 8; ++k) {
            SharedMemReadRequest r = {};
            r.dwReadFlags = Pick(2) * SHM_READ_KEY_START | Pick(2) * SHM_READ_SIZE_LIMIT;
            r.dwRefTimeTick = tick_ + Pick(200);
            r.dwDelay = Pick(1000);
            r.dwSizeLimit = Pick(area());
            uint32_t start = Pick(kEntries + 5);
            int got = SharedMem_QueryDeltaTimeBuffer(r_, start, 1 + Pick(2), &r);
            Expect(got >= -1 && got < kEntries, "search answer outside the table", got);
        }
    }

    void Reset() {
        op_ = "reset";
        Expect(SharedMem_ResetHeader(r_, f_.semId(), 0) == 0, "reset", 0);
        for (Pin &p : pins_) {
            Expect(SharedMem_ReleaseReadBuffer(p.client) == 0, "release after reset", p.index);
            Expect(p.client->iLastIndex == -1, "cursor after reset", p.client->iLastIndex);
            free(p.client);
        }
        pins_.clear();
        unread_.clear();
        for (Frame &frame : frames_) frame = Frame();
    }

    // ---- the invariants ------------------------------------------------

    void CheckRing() {
        Refresh();
        const RingIndices x = f_.indices();
        bool one = f_.isOneGeneration(), rewound = f_.isJustRewound(), two = f_.isTwoGenerations();
        Expect(f_.isEmpty() || one || rewound || two, "indices in no form", x);
        Expect(x.w >= 0 && x.w <= kEntries && x.b < kEntries, "index outside the table", x);
        Expect(x.writeOffset >= r_->dwStartOffset && x.writeOffset <= r_->dwEndOffset,
               "dwWriteOffset outside the data area", x.writeOffset);
        if (!error_.empty()) return;

        // Each generation lies back to back; the newer one from the start.
        if (one || two) CheckRun(0, x.l, r_->dwStartOffset, x.writeOffset);
        if (rewound && x.b >= 0) CheckRun(0, x.b, r_->dwStartOffset, 0);
        if (two) {
            CheckRun(x.o, x.b, E(x.o).dwOffset, 0);
            Expect(E(x.o).dwOffset >= x.writeOffset, "older generation below dwWriteOffset", x.o);
        }
        CheckLiveFrames();
        CheckPinsAndUnread();
    }

    // Entries first..last follow each other from `from`; when `to` is
    // given, the run ends there.
    void CheckRun(int first, int last, uint32_t from, uint32_t to) {
        uint32_t at = from;
        for (int i = first; i <= last; ++i) {
            Expect(E(i).dwOffset == at, "gap or overlap at entry", i);
            Expect(E(i).dwSize > 0 && E(i).dwSize % 4 == 0, "size of entry", i);
            at = E(i).dwOffset + E(i).dwSize;
        }
        Expect(at <= r_->dwEndOffset, "run ends past the data area", last);
        Expect(to == 0 || at == to, "dwWriteOffset is not the end of the latest frame", at);
    }

    void CheckLiveFrames() {
        for (size_t k = 0; k < live_.size() && error_.empty(); ++k) {
            int i = live_[k];
            const Frame &frame = frames_[i];
            Expect(frame.written, "live entry never written", i);
            Expect(!frame.written || (E(i).dwTimeTick == frame.tick && E(i).dwTimeTick != 0),
                   "tick of live entry", i);
            Expect(!frame.written || (E(i).dwOffset == frame.offset && E(i).dwSize == frame.rounded),
                   "place of entry", i);
            Expect((E(i).dwFlags & kKeptFlags) == (frame.flags & kKeptFlags), "flags of entry", i);
            // The shadow keeps what was written last at every offset; a live
            // frame overwritten by a newer one would also overlap it, which
            // the order test catches.
            Expect(!frame.written ||
                       memcmp(f_.base() + E(i).dwOffset, &shadow_[E(i).dwOffset], frame.size) == 0,
                   "bytes of live entry overwritten", i);
            // In every form the live entries, in index order, lie in
            // ascending byte order: so no two of them share a byte.
            Expect(k == 0 || RangeOf(live_[k - 1]).end <= RangeOf(i).begin,
                   "live frame shares bytes with the one before it", i);
        }
    }

    void CheckPinsAndUnread() {
        static uint8_t expected[kEntries][16];
        memset(expected, 0, sizeof expected);
        for (const Pin &p : pins_) {
            if (p.attachId >= 16) continue;
            ++expected[p.index][p.attachId];
            Expect(Live(p.index) && frames_[p.index].id == p.id, "pinned frame lost", p.index);
        }
        for (int i = 0; i < kEntries; ++i) {
            Expect(memcmp(expected[i], E(i).abyAccessCount, 16) == 0, "pin counters of entry", i);
        }
        for (uint32_t id : unread_) {
            bool found = false;
            for (int i : live_) found |= frames_[i].id == id && Flag(i, SHM_FRAME_UNREAD);
            Expect(found, "unread frame lost", id);
        }
    }

    // On a ring that stands still, a walk from a live entry ends on live
    // entries, and never gives up.
    void CheckSearchesEndOnLiveEntries() {
        Refresh();
        if (live_.empty()) return;
        static int (*const walks[])(SharedMemSectorHeader *, uint32_t, uint32_t *,
                                    SharedMemReadRequest *) = {
            SharedMem_ForwardSearch, SharedMem_BackwardSearch, SharedMem_BackwardSearchPreSize};
        for (int k = 0; k < 2; ++k) {
            uint32_t start = static_cast<uint32_t>(live_[Pick(live_.size())]);
            SharedMemReadRequest r = {};
            r.dwRefTimeTick = E(live_[Pick(live_.size())]).dwTimeTick + Pick(3) - 1;
            r.dwSizeLimit = Pick(area());
            for (auto walk : walks) {
                uint32_t key = 0xDEAD;
                int got = walk(r_, start, &key, &r);
                Expect(got >= 0 && Live(got) && Live(static_cast<int>(key)), "walk from", start);
            }
        }
    }

    std::mt19937 rng_;
    FakeRing f_;
    SharedMemSectorHeader *const r_;
    std::vector<uint8_t> shadow_;  // every byte as the writer's caller wrote it last
    int oldest_ = -1, latest_ = -1, boundary_ = -1;
    std::vector<int> live_;  // the live entries at the last Refresh()
    SharedMemHandle handles_[17];
    Frame frames_[kEntries];
    std::vector<Pin> pins_;
    std::vector<uint32_t> unread_;  // ids of frames published unread and not read since
    uint32_t tick_ = 0xFFFF0000u;  // wraps early in every run
    uint32_t nextId_ = 0, regime_ = 1;
    int regimeEnd_ = 0, tableUsedUp_ = 0;  // steps that left W at 1280
    std::string op_, error_;
};

uint32_t EnvNumber(const char *name, uint32_t fallback) {
    const char *text = getenv(name);
    return text != nullptr && *text != '\0' ? static_cast<uint32_t>(strtoul(text, nullptr, 0))
                                             : fallback;
}

// Runs one seed; the ring's size comes from the seed too (5400 bytes hold
// 1350 frames of 4). Returns how often the run used up the entry table.
int RunSeed(uint32_t seed, int steps) {
    static const uint32_t kSizes[] = {64, 1000, 4096, 5400};
    RingModel model(seed, kSizes[seed % 4]);
    std::vector<std::string> recent;
    for (int n = 0; n < steps; ++n) {
        std::string error = model.Step(n);
        recent.push_back(model.lastOp());
        if (recent.size() > 8) recent.erase(recent.begin());
        if (!error.empty()) {
            std::ostringstream trail;
            for (const std::string &op : recent) trail << "\n    " << op;
            ADD_FAILURE() << "seed " << seed << " (MOLK_RING_SEED=" << seed << "), step " << n
                          << ": " << error << "\n  last operations:" << trail.str();
            break;
        }
    }
    return model.tableUsedUp();
}

TEST(RingModel, RandomSequencesKeepEveryInvariant) {
    DebugLevel quiet(2);  // refusals are everyday events here
    int steps = static_cast<int>(EnvNumber("MOLK_RING_STEPS", 5000));
    if (uint32_t only = EnvNumber("MOLK_RING_SEED", 0)) return (void)RunSeed(only, steps);
    int tableUsedUp = 0;
    for (uint32_t seed = 1; seed <= 8 && !HasFailure(); ++seed) tableUsedUp += RunSeed(seed, steps);
    // The runs must reach the edge they are meant to test.
    if (steps >= 5000) {
        EXPECT_GT(tableUsedUp, 0) << "no run used up the entry table";
    }
}

}  // namespace
