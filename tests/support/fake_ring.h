// A ring laid out in ordinary memory exactly as the allocator lays out a
// block of one ring sector, so that ring logic is tested without a System V
// segment; and readers on it, with their own handles, clients and requests.
// Operations that take a sector lock get a private semaphore set of their
// own, removed again with the ring.
#ifndef MOLK_TESTS_FAKE_RING_H
#define MOLK_TESTS_FAKE_RING_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
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
std::ostream &operator<<(std::ostream &os, const RingIndices &x);

class FakeRing {
public:
    // The memory is MAP_SHARED, so a forked child sees the same ring, and
    // the header starts a page.
    explicit FakeRing(uint32_t dataBytes);
    ~FakeRing();
    FakeRing(const FakeRing &) = delete;
    FakeRing &operator=(const FakeRing &) = delete;

    SharedMemSectorHeader *ring() { return ring_; }
    SharedMemFrameEntry &entry(int i) { return ring_->atFrame[i]; }
    SharedMemHandle *handle() { return &handle_; }
    // A second handle on the same sector with another AttachID, as a reader
    // process would open it.
    SharedMemHandle readerHandle(int attachId) const;
    uint8_t *base() { return base_; }
    uint32_t start() const { return ring_->dwStartOffset; }
    int semId() const { return semId_; }
    RingIndices indices() const;

    // The writer's cycle with automatic rewind. Returns the query's result;
    // on success the frame is published with flags and tick (0: stamped).
    int write(uint32_t size, uint32_t flags = 0, uint32_t tick = 0);
    uint32_t status();

    // A reader's pin as the frame reader takes it: under the lock, refused
    // on a marked or dead entry; clears SHM_FRAME_UNREAD. Returns a client
    // record (calloc'd, to be ended with SharedMem_FreeBufClient) that
    // holds the pin, or nullptr when refused.
    SharedMemBufClient *pin(int index, SharedMemHandle *reader);

private:
    uint8_t *base_ = nullptr;
    size_t bytes_ = 0;
    int semId_ = -1;
    SharedMemSectorHeader *ring_ = nullptr;
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
struct Printed {
    int semId;
    std::string text;
    bool underLock;
};
Printed PrintedWhile(int semId, const std::function<void()> &fn);

// Frame flags as the writer's caller gives them, and the read request's
// shorthands.
constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;
constexpr uint32_t kKey = 0;
inline uint32_t Predicted(uint32_t layer = 0) { return SHM_FRAME_P | (layer << 3); }
// The lowest-layer field of a read request.
inline uint32_t WantLayer(uint32_t layer) { return layer << 14; }

// Ticks first, first + step, ...
std::vector<uint32_t> Ticks(int n, uint32_t first, uint32_t step);
// Publishes frames of `size` bytes with the given ticks and flags; fails
// the calling test if the writer refuses one.
void WriteFrames(FakeRing &ring, const std::vector<uint32_t> &ticks,
                 const std::vector<uint32_t> &flags, uint32_t size = 100);
// n frames of `size` bytes at Ticks(n, first, step); a key frame every
// `keyEvery` frames (0: all key frames), the rest predicted layer 0.
void WriteRun(FakeRing &ring, int n, uint32_t first, uint32_t step, int keyEvery = 0,
              uint32_t size = 100);

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
std::ostream &operator<<(std::ostream &os, const Outcome &o);
// Delivered entry i with no reason, or refused with `reason`, cursor on i.
inline Outcome Got(int i) { return {0, SHM_REASON_NONE, i, i}; }
inline Outcome Refused(uint32_t reason, int cursor) { return {-1, reason, -1, cursor}; }

// A reader process's view: its own handle on the ring (own AttachID, own
// stamp mapping), one client, one request record that every query fills
// afresh.
class Reader {
public:
    Reader(FakeRing &ring, int attachId);
    ~Reader();
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
    int Query(const Ask &ask, bool releaseFirst = true);
    Outcome Do(const Ask &ask, bool releaseFirst = true);
    int Release() { return SharedMem_ReleaseReadBuffer(client_); }

    SharedMemHandle *handle() { return &handle_; }
    SharedMemBufClient *client() { return client_; }
    SharedMemBufClient **clientSlot() { return &client_; }
    SharedMemReadRequest &request() { return request_; }
    uint32_t reason() const { return request_.dwReason; }
    uint8_t *data() const { return data_; }
    // Index of the frame the last successful query delivered, by pointer.
    int deliveredEntry() const;
    // This reader's pin counter on entry i.
    int pins(int i) const { return ring_.ring()->atFrame[i].abyAccessCount[handle_.iAttachId]; }

private:
    FakeRing &ring_;
    SharedMemHandle handle_;
    SharedMemBufClient *client_ = nullptr;
    SharedMemReadRequest request_ = {};
    uint8_t *data_ = nullptr;
};

// True when no AttachID pins entry i.
bool Unpinned(FakeRing &ring, int i);

// The adaptive stamp file named by the ring's second tag, made fresh under
// /tmp (the tests run with a private /tmp).
class StampFile {
public:
    explicit StampFile(FakeRing &ring);
    ~StampFile();
    void Publish(uint32_t tick);  // creates the file if needed
    uint32_t Read() const;        // 0xFFFFFFFF when the file is missing

private:
    std::string path_;
};

#endif
