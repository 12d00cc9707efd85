// A writer process and reader processes of four kinds on one real block,
// for runs where processes die at random and for long runs. Every frame
// carries its sequence number and a checksum of its bytes; every reader
// checks every frame it is handed and that its sequence only goes up.
// Processes meet the test through a Shared record in MAP_SHARED memory and
// each attaches the block on its own, as a device process does.
#ifndef MOLK_TESTS_FRAME_PROCS_H
#define MOLK_TESTS_FRAME_PROCS_H

#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "sharedmem.h"

namespace procs {

constexpr char kRingTag[] = "video";
constexpr uint32_t kKeyEvery = 30;
constexpr uint32_t kFrameMs = 33;  // 30 frames a second on the frames' clock

// The four reader kinds. Each has an AttachID of its own, so that a killed
// reader's pins can be cleared by its AttachID. The cache reader's
// AttachID 0 gives its handle the "streaming" cache sector.
enum Kind { kInPlace, kViaCache, kTimeshift, kAdaptive, kKinds };
constexpr int kAttachIdOf[kKinds] = {3, 0, 4, 5};
constexpr const char *kKindName[kKinds] = {"in place", "via cache", "timeshift", "adaptive"};
constexpr int kWriterAttachId = 16;  // the writer pins nothing

struct Shared {
    uint32_t published;   // frames published so far: the next sequence number
    uint32_t frameLimit;  // the writer stops after this sequence number
    uint32_t stop;        // readers and the writer end cleanly when set
    uint32_t refused;     // the writer's refusals: pins in the way
    uint32_t delivered[kKinds], bad[kKinds];
};

// 16 bytes to a little over 4 KiB: laps end on bytes and now and then on
// the entry table.
inline uint32_t SizeOf(uint32_t seq) { return 16 + 4 * (((seq * 0x9E3779B1u) >> 8) % 1025); }
inline uint32_t TickOf(uint32_t seq) { return 1 + kFrameMs * seq; }

// FNV-1a over the words behind the header (seq, checksum).
inline uint32_t Checksum(const uint8_t *bytes, uint32_t size) {
    uint32_t h = 0x811C9DC5u;
    for (uint32_t i = 8, word; i + 4 <= size; i += 4) {
        memcpy(&word, bytes + i, 4);
        h = (h ^ word) * 0x01000193u;
    }
    return h;
}

inline void Fill(uint8_t *bytes, uint32_t seq, uint32_t size) {
    for (uint32_t i = 8, x = seq; i + 4 <= size; i += 4) {
        x = x * 1664525u + 1013904223u;
        memcpy(bytes + i, &x, 4);
    }
    const uint32_t header[2] = {seq, Checksum(bytes, size)};
    memcpy(bytes, header, sizeof header);
}

// True when the frame is whole: its size and its checksum fit its number.
inline bool Intact(const uint8_t *data, uint32_t size, uint32_t *seq) {
    if (data == nullptr || size < 8) return false;
    uint32_t header[2];
    memcpy(header, data, sizeof header);
    *seq = header[0];
    return size == SizeOf(header[0]) && Checksum(data, size) == header[1];
}

inline bool Stopped(const Shared *s) { return __atomic_load_n(&s->stop, __ATOMIC_ACQUIRE) != 0; }

// A restarted writer goes on after the newest frame in the ring, whatever
// its predecessor got to publish before it died.
inline uint32_t NextSequence(const SharedMemSectorHeader *ring) {
    const int latest = __atomic_load_n(&ring->iLatestIndex, __ATOMIC_RELAXED);
    if (latest < 0 || latest >= SHM_FRAME_ENTRIES) return 0;
    const uint32_t tick = __atomic_load_n(&ring->atFrame[latest].dwTimeTick, __ATOMIC_RELAXED);
    return tick == 0 ? 0 : (tick - 1) / kFrameMs + 1;
}

// The writer's life: 0 when stopped or done, else what went wrong.
inline int RunWriter(key_t key, Shared *s) {
    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return 1;
    if (SharedMem_InitialByTag(info, &handle, kRingTag, kWriterAttachId) != 0) return 1;
    for (uint32_t seq = NextSequence(handle->ptHeader); seq < s->frameLimit && !Stopped(s); ++seq) {
        const uint32_t size = SizeOf(seq);
        uint8_t *place = nullptr;
        while (SharedMem_QueryAutoRewindWriteBuffer(handle, &place, size) != 0) {
            uint32_t status = 0;
            SharedMem_QueryWriteStatus(handle, &status);
            if (status != SHM_WRITE_OCCUPIED) return 2;  // no frame here is ever unread
            if (Stopped(s)) return 0;
            __atomic_fetch_add(&s->refused, 1u, __ATOMIC_RELAXED);
            sched_yield();
        }
        Fill(place, seq, size);
        SharedMemWriteInfo frame = {place, seq % kKeyEvery == 0 ? 0 : SHM_FRAME_P, size,
                                    TickOf(seq)};
        if (SharedMem_UpdateWritedBuffer(handle, &frame) != 0) return 3;
        __atomic_store_n(&s->published, seq + 1, __ATOMIC_RELEASE);
    }
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return 0;
}

// What each kind asks. The timeshift reader follows 10 frames behind the
// newest, pulled forward by calibration and jumps; the adaptive reader
// gets key frames only until a published tick opens a window.
inline SharedMemReadRequest RequestOf(int kind, uint32_t ref) {
    switch (kind) {
    case kViaCache:
        return {SHM_READ_VIA_CACHE, 0, ref, 0, 0, 0, 0, 0};
    case kTimeshift:
        return {SHM_READ_IN_PLACE | SHM_READ_CALIBRATE | SHM_READ_JUMP | SHM_READ_NO_OVERTAKE,
                10 * kFrameMs, ref, 0, 0, 0, 0, 0};
    case kAdaptive:
        return {SHM_READ_IN_PLACE | SHM_READ_ADAPTIVE_MARK_ONLY | SHM_READ_KEY_START, 0, ref,
                1000, 0, 0, 0, 0};
    default:
        return {SHM_READ_IN_PLACE, 0, ref, 0, 0, 0, 0, 0};
    }
}

// A reader's life, until the test sets stop: 0, or what went wrong.
inline int RunReader(key_t key, Shared *s, int kind) {
    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return 1;
    if (SharedMem_InitialByTag(info, &handle, kRingTag, kAttachIdOf[kind]) != 0) return 1;
    SharedMemBufClient *client = nullptr;
    int64_t lastSeq = -1;
    while (!Stopped(s)) {
        const uint32_t ref = TickOf(__atomic_load_n(&s->published, __ATOMIC_ACQUIRE));
        SharedMemReadRequest request = RequestOf(kind, ref);
        uint8_t *data = nullptr;
        uint32_t size = 0, seq = 0;
        if (SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request) == 0) {
            const bool good = Intact(data, size, &seq) && static_cast<int64_t>(seq) > lastSeq;
            lastSeq = seq;
            __atomic_fetch_add(good ? &s->delivered[kind] : &s->bad[kind], 1u, __ATOMIC_RELAXED);
            SharedMem_ReleaseReadBuffer(client);
        } else if (request.dwReason == SHM_REASON_LATEST) {
            if (SharedMem_WaitReadBuffer(handle, client, 20) < 0) return 6;
        } else {
            sched_yield();
        }
    }
    SharedMem_FreeBufClient(&client);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return 0;
}

}  // namespace procs

#endif  // MOLK_TESTS_FRAME_PROCS_H
