// Helpers for frame reader tests: a reader with its own handle, client and
// request on a FakeRing, frame flag shorthands, log capture, and the
// adaptive stamp file.
#ifndef MOLK_TESTS_READ_HELPERS_H
#define MOLK_TESTS_READ_HELPERS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_ring.h"
#include "sharedmem.h"

namespace readtest {

constexpr uint32_t kInPlace = SHM_READ_IN_PLACE;
// Frame flags as the writer's caller gives them.
constexpr uint32_t kKey = 0;
inline uint32_t Predicted(uint32_t layer = 0) { return SHM_FRAME_P | (layer << 3); }
// The lowest-layer field of a read request.
inline uint32_t WantLayer(uint32_t layer) { return layer << 14; }

// Publishes frames of `size` bytes with the given ticks and flags; fails
// the calling test if the writer refuses one.
void WriteFrames(FakeRing &ring, const std::vector<uint32_t> &ticks,
                 const std::vector<uint32_t> &flags, uint32_t size = 100);
// n frames of `size` bytes, ticks first, first + step, ...; a key frame
// every `keyEvery` frames (0: all key frames), the rest predicted layer 0.
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
        uint32_t sizeLimit = 0;
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
    uint32_t size() const { return size_; }
    // Index of the frame the last successful query delivered, by pointer.
    int deliveredEntry() const;
    uint32_t deliveredTick() const;
    // This reader's pin counter on entry i.
    int pins(int i) const;

private:
    FakeRing &ring_;
    SharedMemHandle handle_;
    SharedMemBufClient *client_ = nullptr;
    SharedMemReadRequest request_ = {};
    uint8_t *data_ = nullptr;
    uint32_t size_ = 0;
};

// True when no AttachID pins entry i.
bool Unpinned(FakeRing &ring, int i);

// An adaptive stamp file: by default the one named by the ring's second
// tag, under /tmp (the tests run with a private /tmp).
class StampFile {
public:
    explicit StampFile(FakeRing &ring);
    explicit StampFile(std::string path);
    ~StampFile();
    void Publish(uint32_t tick);  // creates the file if needed
    uint32_t Read() const;        // 0xFFFFFFFF when the file is missing

private:
    std::string path_;
};

}  // namespace readtest

#endif
