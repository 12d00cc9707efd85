// A ring laid out in ordinary memory exactly as the allocator lays out a
// block of one ring sector (and, optionally, a "streaming" cache sector
// behind it), so that ring logic is tested without a System V segment.
// Operations that take a sector lock get a private semaphore set of their
// own, removed again with the ring.
#ifndef MOLK_TESTS_FAKE_RING_H
#define MOLK_TESTS_FAKE_RING_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "sharedmem.h"

struct FakeRingOptions {
    uint32_t dataBytes = 1000;   // the ring's data area
    bool withCache = false;      // sector 1: cache "streaming"
    uint32_t cacheSlotBytes = 256;
    uint32_t cacheSlots = 4;
    bool sharedAcrossFork = false;  // MAP_SHARED memory instead of calloc
};

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
    explicit FakeRing(const FakeRingOptions &options = FakeRingOptions());
    explicit FakeRing(uint32_t dataBytes) : FakeRing(FakeRingOptions{dataBytes}) {}
    ~FakeRing();
    FakeRing(const FakeRing &) = delete;
    FakeRing &operator=(const FakeRing &) = delete;

    SharedMemSectorHeader *ring() { return ring_; }
    SharedMemCacheHeader *cache() { return cache_; }
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

    // Forms of the indices; checks dwWriteOffset too.
    bool isEmpty() const;
    bool isOneGeneration() const;
    bool isJustRewound() const;
    bool isTwoGenerations() const;

private:
    uint8_t *base_ = nullptr;
    size_t bytes_ = 0;
    bool mapped_ = false;
    int semId_ = -1;
    SharedMemSectorHeader *ring_ = nullptr;
    SharedMemCacheHeader *cache_ = nullptr;
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

// What fn prints to stdout.
std::string Stdout(const std::function<void()> &fn);

// What fn prints to stdout, and for each piece of it the value semaphore 0
// of semId had at that moment (1: the lock is free). A line on a slow
// console must never hold a sector lock.
struct Printed {
    int semId;
    std::string text;
    std::vector<int> lock;
    bool lockFreeThroughout() const {
        for (int value : lock) {
            if (value != 1) return false;
        }
        return true;
    }
};
Printed PrintedWhile(int semId, const std::function<void()> &fn);

#endif
