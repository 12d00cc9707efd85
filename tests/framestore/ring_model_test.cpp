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
//     frame, and such frames stay live until they are released or read;
//   - the pin counters equal the pins the readers hold;
//   - a refusal says why truly (a pin, an unread frame, a frame too large),
//     a ring with nothing in the way never refuses, and a refusal moves no
//     index except by a completed rewind;
//   - dwDuration is the distance from the oldest to the latest tick;
//   - walks from a live entry of a quiet ring always end on live entries.
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
    int index;
    int attachId;
    uint32_t id;  // the frame it holds
};

struct Range {
    uint32_t begin, end;  // [begin, end) in segment offsets
};

bool Overlap(Range a, Range b) { return a.begin < b.end && b.begin < a.end; }

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
            bool tableFirst = n == 0 && area() >= 4u * kEntries;
            regime_ = tableFirst ? 0 : Pick(4);
            regimeEnd_ = n + (regime_ == 0 ? 1600 : 300) + static_cast<int>(Pick(1500));
        }
        // Tiny frames come in long runs, so that laps use up the entry table.
        uint32_t writes = regime_ == 0 ? 92 : 60;
        uint32_t roll = Pick(100);
        if (roll < writes) {
            Write(/*automatic=*/roll < writes * 3 / 4);
            if (r_->iWriteIndex == kEntries) ++tableUsedUp_;
            return Checked();
        }
        roll = Pick(100);
        if (roll < 35) {
            PinSomething();
        } else if (roll < 75) {
            ReleaseSomething();
        } else if (roll < 90) {
            ClearMarks();
        } else if (roll < 98) {
            Search();
        } else if (Pick(8) == 0) {
            Reset();  // rare: it ends the lap under way
        }
        return Checked();
    }

    const std::string &lastOp() const { return op_; }
    int tableUsedUp() const { return tableUsedUp_; }

private:
    std::string Checked() {
        if (error_.empty()) CheckRing();
        if (error_.empty()) CheckSearchesEndOnLiveEntries();
        return error_;
    }

    // mt19937's output is fixed by the standard, so a seed replays the same
    // run on every platform (distributions are not).
    uint32_t Pick(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }

    void Fail(const std::string &what) {
        if (error_.empty()) error_ = what;
    }
    template <typename T>
    void Expect(bool ok, const char *what, T detail) {
        if (!ok) {
            std::ostringstream s;
            s << what << " (" << detail << ")";
            Fail(s.str());
        }
    }

    SharedMemSectorHeader *ring() { return r_; }
    uint32_t area() { return r_->dwEndOffset - r_->dwStartOffset; }
    // The live test on the indices as they stood at the last Refresh(),
    // which every judgement calls first (the ring only moves inside calls).
    void Refresh() {
        oldest_ = r_->iOldestIndex;
        latest_ = r_->iLatestIndex;
        boundary_ = r_->iBoundaryIndex;
        live_.clear();
        for (int i = 0; i <= boundary_ && i < kEntries; ++i) {
            if (Live(i)) live_.push_back(i);
        }
    }
    bool Live(int i) const {
        return i >= 0 && i <= boundary_ && !(latest_ < i && i < oldest_);
    }
    Range RangeOf(int i) {
        return {ring()->atFrame[i].dwOffset, ring()->atFrame[i].dwOffset + ring()->atFrame[i].dwSize};
    }

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
        if (r == 0) return 0;                                // stamped by the library
        if (r == 1) return tick_ - Pick(500);                // earlier than before
        if (r == 2) tick_ += 0x40000000u;                    // a long pause, wrapping
        tick_ += 1 + Pick(80);
        return tick_ == 0 ? ++tick_ : tick_;
    }

    bool AnythingInTheWay() {
        for (int i = 0; i < kEntries; ++i) {
            const SharedMemFrameEntry &e = ring()->atFrame[i];
            if ((e.dwFlags & SHM_FRAME_UNREAD) ||
                memcmp(e.abyAccessCount, g_abyNULLArray, 16) != 0) {
                return true;
            }
        }
        return false;
    }
    bool AnyPinned() {
        for (const Pin &p : pins_) {
            if (p.attachId < 16) return true;
        }
        return false;
    }
    bool AnyUnread() {
        for (int i = 0; i < kEntries; ++i) {
            if (ring()->atFrame[i].dwFlags & SHM_FRAME_UNREAD) return true;
        }
        return false;
    }

    struct Snapshot {
        int o, l, b, w;
        uint32_t writeOffset;
    };
    Snapshot Indices() {
        const SharedMemSectorHeader *r = ring();
        return {r->iOldestIndex, r->iLatestIndex, r->iBoundaryIndex, r->iWriteIndex,
                r->dwWriteOffset};
    }

    // One frame through either cycle. On refusal the reason is judged; on a
    // place, the place is judged, then filled and published, or given up.
    void Write(bool automatic) {
        uint32_t size = FrameSize();
        uint32_t rounded = (size + 3) & ~3u;
        uint32_t flags = FrameFlags();
        uint32_t tick = FrameTick();
        bool inTheWay = AnythingInTheWay();
        Snapshot before = Indices();
        std::ostringstream op;
        op << (automatic ? "auto" : "plain") << " write " << size << " flags 0x" << std::hex
           << flags << std::dec << " tick " << tick;
        op_ = op.str();

        uint8_t *place = nullptr;
        uint32_t status = 0;
        int result = automatic ? SharedMem_QueryAutoRewindWriteBuffer(f_.handle(), &place, size)
                               : PlainQuery(size, &place);
        SharedMem_QueryWriteStatus(f_.handle(), &status);
        if (result != 0) {
            JudgeRefusal(automatic, rounded, status, inTheWay, before);
            if (Pick(3) == 0) ReadersCatchUp();
            return;
        }
        Expect(rounded <= area(), "a frame larger than the area got a place", rounded);
        JudgePlace(place, rounded);
        if (!error_.empty()) return;

        if (Pick(4) == 0) PinSomething();  // a reader between query and update
        int entry = ring()->iWriteIndex;
        if (Pick(20) == 0) {  // the caller gives the frame up before writing it
            if (Pick(2) == 0) SharedMem_ClearFrameOccupied(ring(), entry);
            op_ += " (given up)";
            return;
        }
        Frame &frame = frames_[entry];
        frame = Frame{true, ++nextId_, tick, static_cast<uint32_t>(place - f_.base()), size,
                      rounded, flags};
        for (uint32_t k = 0; k < size; ++k) place[k] = PatternByte(frame.id, k);
        memcpy(&shadow_[frame.offset], place, size);
        SharedMemWriteInfo info = {place, flags, size, tick};
        if (SharedMem_UpdateWritedBuffer(f_.handle(), &info) != 0) return Fail("update refused");
        if (tick == 0) {
            frame.tick = ring()->atFrame[entry].dwTimeTick;
            Expect(frame.tick != 0, "stamped tick is 0", entry);
        }
        if (flags & SHM_FRAME_UNREAD) unread_.push_back(frame.id);
        Expect(ring()->iLatestIndex == entry, "the frame is not the latest", entry);
        uint32_t distance = 0;
        SharedMem_DWComparator(ring()->atFrame[ring()->iOldestIndex].dwTimeTick,
                               ring()->atFrame[ring()->iLatestIndex].dwTimeTick, &distance);
        Expect(ring()->dwDuration == distance, "dwDuration", ring()->dwDuration);
    }

    // The plain cycle: ask, and rewind by hand when the place is too small.
    int PlainQuery(uint32_t size, uint8_t **place) {
        if (size > area()) {  // the plain cycle's caller judges this itself
            f_.handle()->dwWriteStatus = SHM_WRITE_TOO_LARGE;
            return -1;
        }
        uint32_t granted = size;
        int result = SharedMem_QueryWriteBuffer(f_.handle(), place, &granted);
        uint32_t status = f_.handle()->dwWriteStatus;
        if (result == 0 && granted >= size) return 0;
        if (result != 0 && status != 0) return result;
        uint32_t prepared = 0;
        if (SharedMem_PrepareRewindWriteBuffer(ring(), &prepared) != 0) {
            f_.handle()->dwWriteStatus = prepared;
            return -1;
        }
        SharedMem_RewindWriteBuffer(f_.handle());
        granted = size;
        result = SharedMem_QueryWriteBuffer(f_.handle(), place, &granted);
        if (result == 0 && granted < size) return Fail("granted too little after a rewind"), -1;
        return result;
    }

    void JudgeRefusal(bool automatic, uint32_t rounded, uint32_t status, bool inTheWay,
                      const Snapshot &before) {
        op_ += " refused " + std::to_string(status);
        if (rounded > area()) {
            Expect(status == SHM_WRITE_TOO_LARGE, "too large, yet status", status);
        } else {
            Expect(status == SHM_WRITE_OCCUPIED || status == SHM_WRITE_UNREAD,
                   "refusal with status", status);
            Expect(inTheWay, "refused with nothing in the way, status", status);
            if (status == SHM_WRITE_OCCUPIED) Expect(AnyPinned(), "occupied without a pin", 0);
            if (status == SHM_WRITE_UNREAD) Expect(AnyUnread(), "unread without a frame", 0);
        }
        Snapshot now = Indices();
        bool unchanged = memcmp(&now, &before, sizeof now) == 0;
        bool rewound = now.o == 0 && now.w == 0 && now.l == before.l && now.b == before.l &&
                       now.writeOffset == ring()->dwStartOffset;
        Expect(unchanged || rewound, "a refusal moved the indices", automatic);
    }

    void JudgePlace(uint8_t *place, uint32_t rounded) {
        Refresh();
        uint32_t offset = static_cast<uint32_t>(place - f_.base());
        Expect(offset == ring()->dwWriteOffset, "place is not at dwWriteOffset", offset);
        Expect(offset >= ring()->dwStartOffset && offset + rounded <= ring()->dwEndOffset,
               "place outside the data area", offset);
        Range target = {offset, offset + rounded};
        for (const Pin &p : pins_) {
            if (p.attachId >= 16) continue;
            Expect(!Overlap(target, RangeOf(p.index)), "place over a pinned frame", p.index);
        }
        // Every live frame the write will destroy (its bytes, or its entry)
        // is marked, so that no reader can pin it any more.
        int reused = ring()->iWriteIndex;
        for (int i : live_) {
            uint32_t flags = ring()->atFrame[i].dwFlags;
            bool doomed = i == reused || Overlap(target, RangeOf(i));
            if (flags & SHM_FRAME_UNREAD) {
                Expect(!Overlap(target, RangeOf(i)), "place over an unread frame", i);
            }
            if (doomed) Expect((flags & SHM_FRAME_WRITING) != 0, "doomed frame not marked", i);
        }
    }

    // A reader pins a live frame, unread ones by preference, as the frame
    // reader does: refused on a marked entry; the pin clears the unread mark.
    void PinSomething() {
        if (pins_.size() >= 4) return ReleaseSomething();
        Refresh();
        const std::vector<int> &live = live_;
        std::vector<int> unread;
        for (int i : live) {
            if (ring()->atFrame[i].dwFlags & SHM_FRAME_UNREAD) unread.push_back(i);
        }
        if (live.empty()) return;
        const std::vector<int> &from = !unread.empty() && Pick(2) == 0 ? unread : live;
        int index = Pick(4) == 0 ? ring()->iLatestIndex : from[Pick(from.size())];
        int attachId = Pick(3) == 0 ? 16 : static_cast<int>(Pick(16));
        op_ = "pin " + std::to_string(index) + " by " + std::to_string(attachId);
        bool marked = ring()->atFrame[index].dwFlags & SHM_FRAME_WRITING;
        SharedMemBufClient *client = f_.pin(index, &handles_[attachId]);
        Expect((client != nullptr) == !marked, "pin of a live entry, marked", marked);
        if (client == nullptr) return;
        Frame &frame = frames_[index];
        unread_.erase(std::remove(unread_.begin(), unread_.end(), frame.id), unread_.end());
        pins_.push_back({client, index, attachId, frame.id});
    }

    void ReleaseSomething() {
        if (pins_.empty()) return;
        size_t k = Pick(pins_.size());
        Pin pin = pins_[k];
        pins_.erase(pins_.begin() + k);
        op_ = "release " + std::to_string(pin.index) + " by " + std::to_string(pin.attachId);
        if (pin.attachId < 16) {
            Expect(SharedMem_CheckClientValid(ring(), pin.client, "query") == 0,
                   "pinned frame no longer valid", pin.index);
        } else if (SharedMem_CheckIndexValid(ring(), pin.index, pin.client->dwLastTimeTick,
                                             nullptr) != 0) {
            // Nothing protected this frame and it is gone: a release would
            // only send a warning to syslog.
            free(pin.client);
            return;
        }
        uint8_t &count = ring()->atFrame[pin.index].abyAccessCount[pin.attachId & 15];
        int before = count;
        Expect(SharedMem_ReleaseReadBuffer(pin.client) == 0, "release", pin.index);
        if (pin.attachId < 16) Expect(count == before - 1, "count after release", count);
        free(pin.client);
    }

    // The readers that stop the writer move on: every pin is given back and
    // every unread frame is read (pinned and released).
    void ReadersCatchUp() {
        while (!pins_.empty() && error_.empty()) ReleaseSomething();
        Refresh();
        for (int i : live_) {
            if (!error_.empty()) break;
            if (!(ring()->atFrame[i].dwFlags & SHM_FRAME_UNREAD)) continue;
            SharedMemBufClient *client = f_.pin(i, &handles_[1]);
            if (client == nullptr) continue;  // marked: read by nobody yet
            const uint32_t id = frames_[i].id;
            unread_.erase(std::remove(unread_.begin(), unread_.end(), id), unread_.end());
            Expect(SharedMem_ReleaseReadBuffer(client) == 0, "release of an unread frame", i);
            free(client);
        }
        op_ += ", readers catch up";
    }

    void ClearMarks() {
        int index = static_cast<int>(Pick(kEntries + 2)) - 1;
        op_ = "clear marks from " + std::to_string(index);
        SharedMem_ClearFrameOccupied(ring(), index);
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
            int got = SharedMem_QueryDeltaTimeBuffer(ring(), start, 1 + Pick(2), &r);
            Expect(got >= -1 && got < kEntries, "search answer outside the table", got);
        }
    }

    void Reset() {
        op_ = "reset";
        Expect(SharedMem_ResetHeader(ring(), f_.semId(), 0) == 0, "reset", 0);
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
        const SharedMemSectorHeader *r = ring();
        int o = r->iOldestIndex, l = r->iLatestIndex, b = r->iBoundaryIndex, w = r->iWriteIndex;
        uint32_t start = r->dwStartOffset, end = r->dwEndOffset, wo = r->dwWriteOffset;
        bool empty = o == -1 && l == -1 && b == -1 && w == 0 && wo == start;
        bool one = o == 0 && w >= 1 && l == w - 1 && b == l;
        bool rewound = o == 0 && w == 0 && l == b && wo == start;
        bool two = l >= 0 && w == l + 1 && w <= o && o <= b;
        if (!(empty || one || rewound || two)) {
            return Fail("indices in no form: O=" + std::to_string(o) + " L=" + std::to_string(l) +
                        " B=" + std::to_string(b) + " W=" + std::to_string(w));
        }
        Expect(w >= 0 && w <= kEntries && b < kEntries, "index outside the table", w);
        Expect(wo >= start && wo <= end, "dwWriteOffset outside the data area", wo);
        if (!error_.empty()) return;

        // Each generation lies back to back; the newer one from the start.
        if (one || two) CheckRun(0, l, start, wo);
        if (rewound && b >= 0) CheckRun(0, b, start, 0);
        if (two) {
            CheckRun(o, b, r->atFrame[o].dwOffset, 0);
            Expect(r->atFrame[o].dwOffset >= wo, "older generation below dwWriteOffset", o);
        }
        CheckLiveFrames();
        CheckPinsAndUnread();
    }

    // Entries first..last follow each other from `from`; when `to` is
    // given, the run ends there.
    void CheckRun(int first, int last, uint32_t from, uint32_t to) {
        uint32_t at = from;
        for (int i = first; i <= last; ++i) {
            const SharedMemFrameEntry &e = ring()->atFrame[i];
            Expect(e.dwOffset == at, "gap or overlap at entry", i);
            Expect(e.dwSize > 0 && e.dwSize % 4 == 0, "size of entry", i);
            at = e.dwOffset + e.dwSize;
        }
        Expect(at <= ring()->dwEndOffset, "run ends past the data area", last);
        if (to != 0) Expect(at == to, "dwWriteOffset is not the end of the latest frame", at);
    }

    void CheckLiveFrames() {
        for (int i : live_) {
            const SharedMemFrameEntry &e = ring()->atFrame[i];
            const Frame &frame = frames_[i];
            Expect(frame.written, "live entry never written", i);
            if (!frame.written) return;
            Expect(e.dwTimeTick == frame.tick && e.dwTimeTick != 0, "tick of live entry", i);
            Expect(e.dwOffset == frame.offset && e.dwSize == frame.rounded, "place of entry", i);
            Expect((e.dwFlags & kKeptFlags) == (frame.flags & kKeptFlags), "flags of entry", i);
            // The shadow keeps what was written last at every offset. A live
            // frame overwritten by a newer one would also overlap it, which
            // the order test below catches.
            if (memcmp(f_.base() + e.dwOffset, &shadow_[e.dwOffset], frame.size) != 0) {
                return Fail("bytes of live entry " + std::to_string(i) + " overwritten");
            }
        }
        // In every form the live entries, in index order, lie in ascending
        // byte order (the newer generation below dwWriteOffset, the older
        // one above it): so no two of them share a byte.
        for (size_t k = 1; k < live_.size(); ++k) {
            if (RangeOf(live_[k - 1]).end > RangeOf(live_[k]).begin) {
                return Fail("live frames " + std::to_string(live_[k - 1]) + " and " +
                            std::to_string(live_[k]) + " share bytes");
            }
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
            if (memcmp(expected[i], ring()->atFrame[i].abyAccessCount, 16) != 0) {
                return Fail("pin counters of entry " + std::to_string(i));
            }
        }
        std::vector<uint32_t> liveUnread;
        for (int i : live_) {
            if (ring()->atFrame[i].dwFlags & SHM_FRAME_UNREAD) {
                liveUnread.push_back(frames_[i].id);
            }
        }
        std::sort(liveUnread.begin(), liveUnread.end());
        for (uint32_t id : unread_) {
            Expect(std::binary_search(liveUnread.begin(), liveUnread.end(), id),
                   "unread frame lost", id);
        }
    }

    // On a ring that stands still, a walk from a live entry ends on live
    // entries, and never gives up.
    void CheckSearchesEndOnLiveEntries() {
        Refresh();
        const std::vector<int> &live = live_;
        if (live.empty()) return;
        for (int k = 0; k < 2; ++k) {
            uint32_t start = static_cast<uint32_t>(live[Pick(live.size())]);
            SharedMemReadRequest r = {};
            r.dwRefTimeTick = ring()->atFrame[live[Pick(live.size())]].dwTimeTick + Pick(3) - 1;
            r.dwSizeLimit = Pick(area());
            uint32_t key = 0xDEAD;
            int got = SharedMem_ForwardSearch(ring(), start, &key, &r);
            Expect(got >= 0 && Live(got) && Live(static_cast<int>(key)), "forward walk from",
                   start);
            got = SharedMem_BackwardSearch(ring(), start, &key, &r);
            Expect(got >= 0 && Live(got) && Live(static_cast<int>(key)), "backward walk from",
                   start);
            got = SharedMem_BackwardSearchPreSize(ring(), start, &key, &r);
            Expect(got >= 0 && Live(got) && Live(static_cast<int>(key)), "sized walk from",
                   start);
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
    std::vector<uint32_t> unread_;
    uint32_t tick_ = 0xFFFF0000u;  // wraps early in every run
    uint32_t nextId_ = 0;
    uint32_t regime_ = 1;
    int regimeEnd_ = 0;
    int tableUsedUp_ = 0;  // steps that left W at 1280
    std::string op_, error_;
};

uint32_t EnvNumber(const char *name, uint32_t fallback) {
    const char *text = getenv(name);
    return text != nullptr && *text != '\0' ? static_cast<uint32_t>(strtoul(text, nullptr, 0))
                                             : fallback;
}

// Runs one seed; the ring's size comes from the seed too. Returns how often
// the run used up the entry table.
int RunSeed(uint32_t seed, int steps) {
    // 5400 bytes hold 1350 frames of 4: enough to use up the entry table.
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
    uint32_t saved = gShm_DebugLevel;
    gShm_DebugLevel = 2;  // refusals are everyday events here
    int steps = static_cast<int>(EnvNumber("MOLK_RING_STEPS", 5000));
    uint32_t only = EnvNumber("MOLK_RING_SEED", 0);
    if (only != 0) {
        RunSeed(only, steps);
    } else {
        int tableUsedUp = 0;
        for (uint32_t seed = 1; seed <= 8 && !HasFailure(); ++seed) {
            tableUsedUp += RunSeed(seed, steps);
        }
        // The runs must reach the edge they are meant to test.
        if (steps >= 5000) {
            EXPECT_GT(tableUsedUp, 0) << "no run used up the entry table";
        }
    }
    gShm_DebugLevel = saved;
}

}  // namespace
