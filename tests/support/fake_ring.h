// A ring laid out in ordinary memory exactly as the allocator lays out a
// block of one ring sector, so that ring logic is tested without a System V
// segment; and readers on it, with their own handles, clients and requests.
// Operations that take a sector lock get a private semaphore set of their
// own, removed again with the ring.
#ifndef MOLK_TESTS_FAKE_RING_H
#define MOLK_TESTS_FAKE_RING_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "sharedmem.h"

// O, L, B, W and dwWriteOffset of a ring, comparable and printable.
struct RingIndices {
    int o, l, b, w;
    uint32_t writeOffset;
    bool operator==(const RingIndices &x) const {
        return o == x.o && l == x.l && b == x.b && w == x.w && writeOffset == x.writeOffset;
    }
};
inline std::ostream &operator<<(std::ostream &os, const RingIndices &x) {
    return os << "O=" << x.o << " L=" << x.l << " B=" << x.b << " W=" << x.w
              << " off=" << x.writeOffset;
}

class FakeRing {
public:
    // The memory is MAP_SHARED, so a forked child sees the same ring, and
    // the header starts a page.
    explicit FakeRing(uint32_t dataBytes) {
        const uint32_t end = SHM_HEADER_SLOT_SIZE + dataBytes;
        void *p = mmap(nullptr, end, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) abort();
        ring_ = static_cast<SharedMemSectorHeader *>(p);  // zero-filled
        ring_->dwSectorType = SHM_SECTOR_RING;
        ring_->dwMemoryType = SHM_MEMORY_SYSV;
        ring_->dwTotalSize = ring_->dwEndOffset = end;
        ring_->dwStartOffset = ring_->dwWriteOffset = SHM_HEADER_SLOT_SIZE;
        ring_->iOldestIndex = ring_->iLatestIndex = ring_->iBoundaryIndex = -1;
        ring_->iMaxIndex = SHM_FRAME_ENTRIES - 1;
        strcpy(ring_->szTag, "video");
        // IPC_PRIVATE: a set nobody else can find, made afresh for this ring.
        handle_.iSemId = SharedMem_SemaphoreInit(IPC_PRIVATE, 1);
        if (handle_.iSemId == -1) abort();
        handle_.pvBase = p;
        handle_.ptHeader = ring_;
        handle_.iAttachId = 16;  // the writer pins nothing
    }
    ~FakeRing() {
        semctl(semId(), 0, IPC_RMID);
        munmap(ring_, ring_->dwTotalSize);
    }
    FakeRing(const FakeRing &) = delete;
    FakeRing &operator=(const FakeRing &) = delete;

    SharedMemSectorHeader *ring() { return ring_; }
    SharedMemFrameEntry &entry(int i) { return ring_->atFrame[i]; }
    SharedMemHandle *handle() { return &handle_; }
    uint8_t *base() { return static_cast<uint8_t *>(handle_.pvBase); }
    uint32_t start() const { return ring_->dwStartOffset; }
    int semId() const { return handle_.iSemId; }
    RingIndices indices() const {
        return {ring_->iOldestIndex, ring_->iLatestIndex, ring_->iBoundaryIndex,
                ring_->iWriteIndex, ring_->dwWriteOffset};
    }
    // A second handle on the same sector with another AttachID, as a reader
    // process would open it.
    SharedMemHandle readerHandle(int attachId) const {
        SharedMemHandle reader = handle_;
        reader.iAttachId = attachId;
        return reader;
    }

    // The writer's cycle with automatic rewind. Returns the query's result;
    // on success the frame is published with flags and tick (0: stamped).
    int write(uint32_t size, uint32_t flags = 0, uint32_t tick = 0) {
        uint8_t *place = nullptr;
        int result = SharedMem_QueryAutoRewindWriteBuffer(&handle_, &place, size);
        if (result != 0) return result;
        SharedMemWriteInfo info = {place, flags, size, tick};
        if (SharedMem_UpdateWritedBuffer(&handle_, &info) != 0) abort();
        return 0;
    }
    uint32_t status() {
        uint32_t status = 99;
        SharedMem_QueryWriteStatus(&handle_, &status);
        return status;
    }

    // A reader's pin as the frame reader takes it: under the lock, refused
    // on a marked or dead entry; clears SHM_FRAME_UNREAD. Returns a client
    // record (calloc'd, to be ended with SharedMem_FreeBufClient) that
    // holds the pin, or nullptr when refused.
    SharedMemBufClient *pin(int index, SharedMemHandle *reader) {
        if (SharedMem_SemaphoreP(semId(), 0) != 0) return nullptr;
        SharedMemFrameEntry &e = ring_->atFrame[index];
        bool usable = SharedMem_CheckIndexValid(ring_, index, e.dwTimeTick, nullptr) == 0 &&
                      !(e.dwFlags & SHM_FRAME_WRITING);
        if (usable) {
            ++e.abyAccessCount[reader->iAttachId];
            e.dwFlags &= ~SHM_FRAME_UNREAD;
        }
        SharedMem_SemaphoreV(semId(), 0);
        if (!usable) return nullptr;
        auto *client = static_cast<SharedMemBufClient *>(calloc(1, sizeof(SharedMemBufClient)));
        client->iLastIndex = client->iDeliveredIndex = index;
        client->dwHeld = 1;
        client->dwLastTimeTick = client->dwDeliveredTimeTick = e.dwTimeTick;
        client->ptHandle = reader;
        client->dwHoldType = 1;
        return client;
    }

private:
    SharedMemSectorHeader *ring_;
    SharedMemHandle handle_ = {};
};

// Sets gShm_DebugLevel for a scope.
class DebugLevel {
public:
    explicit DebugLevel(uint32_t level) : saved_(gShm_DebugLevel) { gShm_DebugLevel = level; }
    ~DebugLevel() { gShm_DebugLevel = saved_; }
    DebugLevel(const DebugLevel &) = delete;
    DebugLevel &operator=(const DebugLevel &) = delete;

private:
    uint32_t saved_;
};

// What fn prints to stdout, and whether any piece of it was printed while
// semaphore 0 of semId was taken. A line on a slow console must never hold
// a sector lock.
struct Printed { int semId; std::string text; bool underLock; };
inline Printed PrintedWhile(int semId, const std::function<void()> &fn) {
    Printed out = {semId, "", false};
    cookie_io_functions_t io = {};
    io.write = [](void *cookie, const char *data, size_t size) -> ssize_t {
        Printed *p = static_cast<Printed *>(cookie);
        p->text.append(data, size);
        p->underLock |= semctl(p->semId, 0, GETVAL) != 1;
        return static_cast<ssize_t>(size);
    };
    FILE *probe = fopencookie(&out, "w", io);
    setvbuf(probe, nullptr, _IONBF, 0);
    fflush(stdout);
    FILE *saved = stdout;
    stdout = probe;
    fn();
    stdout = saved;
    fclose(probe);
    return out;
}

// Frame flags as the writer's caller gives them, and the read request's
// shorthands.
constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;
constexpr uint32_t kKey = 0;
inline uint32_t Predicted(uint32_t layer = 0) { return SHM_FRAME_P | (layer << 3); }
// The lowest-layer field of a read request.
inline uint32_t WantLayer(uint32_t layer) { return layer << 14; }

// Ticks first, first + step, ...
inline std::vector<uint32_t> Ticks(int n, uint32_t first, uint32_t step) {
    std::vector<uint32_t> ticks;
    for (int k = 0; k < n; ++k) ticks.push_back(first + step * static_cast<uint32_t>(k));
    return ticks;
}

// Publishes frames of `size` bytes with the given ticks and flags; fails
// the calling test if the writer refuses one.
inline void WriteFrames(FakeRing &ring, const std::vector<uint32_t> &ticks,
                        const std::vector<uint32_t> &flags, uint32_t size = 100) {
    ASSERT_EQ(ticks.size(), flags.size());
    for (size_t i = 0; i < ticks.size(); ++i) {
        ASSERT_EQ(0, ring.write(size, flags[i], ticks[i])) << "frame " << i << " status "
                                                            << ring.status();
    }
}

// n frames of 100 bytes at Ticks(n, first, step); a key frame every
// `keyEvery` frames (0: all key frames), the rest predicted layer 0.
inline void WriteRun(FakeRing &ring, int n, uint32_t first, uint32_t step, int keyEvery = 0) {
    std::vector<uint32_t> flags;
    for (int k = 0; k < n; ++k) {
        flags.push_back(keyEvery == 0 || k % keyEvery == 0 ? kKey : Predicted());
    }
    WriteFrames(ring, Ticks(n, first, step), flags);
}

// How a query ended: its result, the reason, the entry it delivered (-1:
// none) and the client's cursor (-9: no client).
struct Outcome {
    int result;
    uint32_t reason;
    int entry;
    int cursor;
    bool operator==(const Outcome &o) const {
        return result == o.result && reason == o.reason && entry == o.entry && cursor == o.cursor;
    }
};
inline std::ostream &operator<<(std::ostream &os, const Outcome &o) {
    return os << "{result " << o.result << ", reason " << o.reason << ", entry " << o.entry
              << ", cursor " << o.cursor << "}";
}
// Delivered entry i with no reason, or refused with `reason`, cursor on i.
inline Outcome Got(int i) { return {0, SHM_REASON_NONE, i, i}; }
inline Outcome Refused(uint32_t reason, int cursor) { return {-1, reason, -1, cursor}; }

// A reader process's view: its own handle on the ring (own AttachID, own
// stamp mapping), one client, one request record that every query fills
// afresh.
class Reader {
public:
    Reader(FakeRing &ring, int attachId) : ring_(ring), handle_(ring.readerHandle(attachId)) {}
    ~Reader() {
        SharedMem_FreeBufClient(&client_);
        if (handle_.pdwAdaptiveStamp != nullptr) munmap(handle_.pdwAdaptiveStamp, 4);
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    struct Ask {
        uint32_t flags = SHM_READ_IN_PLACE;
        uint32_t ref = 0;
        uint32_t delay = 0;
        uint32_t minInterval = 0;
        uint32_t window = 0;
    };
    // One query; the frame it delivers, if any, is released first when
    // `releaseFirst` (the usual loop of a reader).
    int Query(const Ask &ask, bool releaseFirst = true) {
        if (releaseFirst && client_ != nullptr) SharedMem_ReleaseReadBuffer(client_);
        request_ = {ask.flags, ask.delay, ask.ref, ask.window, 0, ask.minInterval, 0, 0};
        request_.dwReason = 0xEEEE;  // shows a reason that was never written
        data_ = nullptr;
        uint32_t size = 0;
        return SharedMem_QueryReadBuffer(&handle_, &client_, &data_, &size, &request_);
    }
    Outcome Do(const Ask &ask, bool releaseFirst = true) {
        int result = Query(ask, releaseFirst);
        return {result, reason(), deliveredEntry(), client_ != nullptr ? client_->iLastIndex : -9};
    }
    int Release() { return SharedMem_ReleaseReadBuffer(client_); }

    SharedMemHandle *handle() { return &handle_; }
    SharedMemBufClient *client() { return client_; }
    SharedMemBufClient **clientSlot() { return &client_; }
    SharedMemReadRequest &request() { return request_; }
    uint32_t reason() const { return request_.dwReason; }
    uint8_t *data() const { return data_; }
    // This reader's pin counter on entry i.
    int pins(int i) { return ring_.entry(i).abyAccessCount[handle_.iAttachId]; }
    // Index of the frame the last successful query delivered, by pointer.
    int deliveredEntry() const {
        for (int i = 0; data_ != nullptr && i <= ring_.ring()->iBoundaryIndex; ++i) {
            const SharedMemFrameEntry &e = ring_.entry(i);
            if (ring_.base() + e.dwOffset == data_ && e.dwTimeTick != 0) return i;
        }
        return -1;
    }

private:
    FakeRing &ring_;
    SharedMemHandle handle_;
    SharedMemBufClient *client_ = nullptr;
    SharedMemReadRequest request_ = {};
    uint8_t *data_ = nullptr;
};

// True when no AttachID pins entry i.
inline bool Unpinned(FakeRing &ring, int i) {
    return memcmp(ring.entry(i).abyAccessCount, g_abyNULLArray, 16) == 0;
}

// The word at the start of a stamp file; 0xFFFFFFFF when the file is
// missing, 0xFFFFFFFE when it is shorter.
inline uint32_t StampWord(const std::string &path) {
    uint32_t tick = 0xFFFFFFFFu;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0 && pread(fd, &tick, 4, 0) != 4) tick = 0xFFFFFFFEu;
    if (fd >= 0) close(fd);
    return tick;
}

// The adaptive stamp file named by the ring's second tag: the path given,
// or one made fresh under /tmp (the tests run with a private /tmp).
class StampFile {
public:
    explicit StampFile(FakeRing &ring, std::string path = "") : path_(std::move(path)) {
        static int made = 0;
        if (path_.empty()) {
            path_ = "/tmp/molk_stamp_" + std::to_string(getpid()) + "_" + std::to_string(++made);
            unlink(path_.c_str());
        }
        memset(ring.ring()->szSecondTag, 0, sizeof ring.ring()->szSecondTag);
        strncpy(ring.ring()->szSecondTag, path_.c_str(), SHM_TAG_MAX);
    }
    ~StampFile() { unlink(path_.c_str()); }
    void Publish(uint32_t tick) {  // creates the file if needed
        int fd = open(path_.c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(4, pwrite(fd, &tick, 4, 0));
        close(fd);
    }
    uint32_t Read() const { return StampWord(path_); }

private:
    std::string path_;
};

#endif
