// libFuzzer target over the shared segment: a block with a ring and a
// cache sector, holding frames and copies, has header fields and entries
// overwritten with the fuzzer's bytes, and then meets every kind of caller.
// After each call nothing outside the sectors that call may change has
// changed, and every pointer handed out lies inside the data area of a
// sector it may hand out from, with all of its bytes.
//
// Input: the debug word, a count n, n records of 7 bytes (what to
// overwrite, where, the value), then bytes that choose sizes, flags and indices for the calls.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "sharedmem.h"

// The library's syslog lines, formatted and dropped: a real syslog would
// reconnect to a missing log socket at every line and set the pace.
extern "C" void syslog(int, const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
}

namespace {

constexpr int kRing = 0, kCache = 1, kSectors = 2;
constexpr uint32_t kSlot = SHM_HEADER_SLOT_SIZE;

struct Area {
    uint32_t begin, end;
};

struct Block {
    key_t key = 0;
    SharedMemBlockInfo *info = nullptr;
    uint8_t *base = nullptr;
    uint32_t size = 0;
    SharedMemHandle *writer = nullptr, *inPlace = nullptr, *viaCache = nullptr;
    SharedMemHandle *cacheReader = nullptr, *cacheWriter = nullptr;
    Area header[kSectors], data[kSectors];
    Area pristineData[kSectors];
    uint8_t *pristine = nullptr;   // the segment before any input
    uint8_t *reference = nullptr;  // what each sector may be compared with
    unsigned referenceValid = 0;   // bit per sector: its reference is the segment as it is
    FILE *sink = nullptr;
};

Block g;

void Die(const char *what) {
    fprintf(stderr, "segment_fuzz: %s\n", what);
    abort();
}

void Cleanup() { SharedMemBlock_Delete(g.key); }

void WriteFrame(SharedMemHandle *h, uint32_t size, uint32_t tick, uint32_t flags) {
    uint8_t *place = nullptr;
    if (SharedMem_QueryAutoRewindWriteBuffer(h, &place, size) != 0) return;
    memset(place, static_cast<int>(tick), size);
    SharedMemWriteInfo info = {place, flags, size, tick};
    SharedMem_UpdateWritedBuffer(h, &info);
}

void ReadThroughCache(SharedMemHandle *h, int frames) {
    SharedMemBufClient *client = nullptr;
    for (int k = 0; k < frames; ++k) {
        SharedMemReadRequest request = {SHM_READ_VIA_CACHE | SHM_READ_FROM_OLDEST, 0, 5000, 0,
                                        0,                  0, 0,   0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(h, &client, &data, &size, &request) == 0) {
            SharedMem_ReleaseReadBuffer(client);
        }
    }
    SharedMem_FreeBufClient(&client);
}

void Setup() {
    g.key = static_cast<key_t>(0x4D460000 | (getpid() & 0xFFFF));
    SharedMemBlock_Delete(g.key);
    char total[] = "144K";
    char ring[] = "128K-video", cache[] = "16K~4K~streaming";
    char *descs[] = {ring, cache};
    SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 4096, 0};
    if (SharedMemBlock_Allocate(g.key, total, kSectors, &config, descs) != 0) Die("allocate");
    atexit(Cleanup);
    if (SharedMemBlock_Attach(&g.info, 0, g.key) != 0) Die("attach");
    g.base = static_cast<uint8_t *>(g.info->pvDataBase);
    struct shmid_ds st;
    shmctl(g.info->iShmId, IPC_STAT, &st);
    g.size = static_cast<uint32_t>(st.shm_segsz);
    SharedMem_Initial(g.info, &g.writer, kRing, 16);
    SharedMem_Initial(g.info, &g.inPlace, kRing, 3);
    SharedMem_Initial(g.info, &g.viaCache, kRing, 0);
    SharedMem_Initial(g.info, &g.cacheReader, kCache, 4);
    SharedMem_Initial(g.info, &g.cacheWriter, kCache, 16);
    for (uint32_t k = 0; k < 80; ++k) {
        WriteFrame(g.writer, 100 + (k * 37) % 1400, 1000 + 33 * k, k % 10 ? SHM_FRAME_P : 0);
    }
    ReadThroughCache(g.viaCache, 6);
    for (int s = 0; s < kSectors; ++s) {
        const SharedMemSectorHeader *h =
            reinterpret_cast<const SharedMemSectorHeader *>(g.base + s * kSlot);
        g.header[s] = {s * kSlot, (s + 1) * kSlot};
        g.pristineData[s] = {h->dwStartOffset, h->dwEndOffset};
    }
    g.pristine = static_cast<uint8_t *>(malloc(g.size));
    g.reference = static_cast<uint8_t *>(malloc(g.size));
    g.referenceValid = 0;
    memcpy(g.pristine, g.base, g.size);
    g.sink = fopen("/dev/null", "w");
    if (freopen("/dev/null", "w", stdout) == nullptr) Die("stdout");

}

// Reads the fuzzer's bytes one at a time, zeros once they are used up.
struct Bytes {
    const uint8_t *p;
    size_t n;
    uint8_t u8() { return n > 0 ? (--n, *p++) : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
};

// Overwrites one header word or entry word of either sector.
void Corrupt(Bytes &in) {
    uint8_t kind = in.u8();
    uint16_t at = in.u16();
    uint32_t value = in.u32();
    uint32_t offset = 0;
    switch (kind & 3) {
    case 0: offset = kRing * kSlot + (at % 32u) * 4; break;                            // ring header
    case 1: offset = kRing * kSlot + 128 + (at % 1280u) * 32 + ((kind >> 2) % 8u) * 4; break;
    case 2: offset = kCache * kSlot + (at % 26u) * 4; break;                           // cache header
    default: offset = kCache * kSlot + 104 + (at % 36u) * 32 + ((kind >> 2) % 8u) * 4; break;
    }
    memcpy(g.base + offset, &value, sizeof value);
}

// The data areas the calls may use: those the headers now describe, when
// they describe a whole layout (as after a repartition: the data areas lie
// behind the header slots, in order, inside the segment), else those
// of the block as it was made.
void TakeAreas() {
    Area now[kSectors];
    uint32_t expected = kSectors * kSlot;
    bool whole = true;
    for (int s = 0; s < kSectors; ++s) {
        const SharedMemSectorHeader *h =
            reinterpret_cast<const SharedMemSectorHeader *>(g.base + s * kSlot);
        now[s] = {h->dwStartOffset, h->dwEndOffset};
        whole = whole && now[s].begin >= expected && now[s].end >= now[s].begin;
        expected = now[s].end;
    }
    whole = whole && expected <= g.size;
    for (int s = 0; s < kSectors; ++s) g.data[s] = whole ? now[s] : g.pristineData[s];
}

bool Inside(const uint8_t *p, uint32_t size, Area a) {
    if (p < g.base + a.begin || p > g.base + a.end) return false;
    return size <= static_cast<uint32_t>(g.base + a.end - p);
}

// A pointer handed out by a call on `sectors` (bit per sector).
void CheckPointer(const uint8_t *p, uint32_t size, unsigned sectors, const char *call) {
    for (int s = 0; s < kSectors; ++s) {
        if ((sectors & (1u << s)) && Inside(p, size, g.data[s])) {
            // One byte of every page and the last one: a pointer into
            // nothing would fault here rather than in a caller.
            volatile uint8_t sum = 0;
            for (uint32_t i = 0; i < size; i += 4096) sum = static_cast<uint8_t>(sum + p[i]);
            if (size != 0) sum = static_cast<uint8_t>(sum + p[size - 1]);
            return;
        }
    }
    fprintf(stderr, "segment_fuzz: %s handed out %p+%u outside its data area\n", call,
            static_cast<const void *>(p), size);
    abort();
}

void CopyReference(int s) {
    for (Area a : {g.header[s], g.data[s]}) {
        memcpy(g.reference + a.begin, g.base + a.begin, a.end - a.begin);
    }
    g.referenceValid |= 1u << s;
}

// Before a call that may change `sectors`: the others get a reference.
void Before(unsigned sectors) {
    for (int s = 0; s < kSectors; ++s) {
        if (!(sectors & (1u << s)) && !(g.referenceValid & (1u << s))) CopyReference(s);
    }
}

// After it: every other sector is as before.
void CheckSectors(unsigned sectors, const char *call) {
    for (int s = 0; s < kSectors; ++s) {
        if (sectors & (1u << s)) {
            g.referenceValid &= ~(1u << s);
            continue;
        }
        for (Area a : {g.header[s], g.data[s]}) {
            if (memcmp(g.reference + a.begin, g.base + a.begin, a.end - a.begin) != 0) {
                fprintf(stderr, "segment_fuzz: %s changed sector %d\n", call, s);
                abort();
            }
        }
    }
}

constexpr unsigned kRingOnly = 1u << kRing, kCacheOnly = 1u << kCache;
constexpr unsigned kBoth = kRingOnly | kCacheOnly;

void Write(Bytes &in) {
    Before(kRingOnly);
    uint8_t *place = nullptr;
    uint32_t size = in.u16();
    if (SharedMem_QueryAutoRewindWriteBuffer(g.writer, &place, size) == 0) {
        CheckPointer(place, size, kRingOnly, "ring writer");
        SharedMemWriteInfo info = {place, in.u32(), size, in.u32()};
        SharedMem_UpdateWritedBuffer(g.writer, &info);
    }
    CheckSectors(kRingOnly, "ring writer");
}

void Read(Bytes &in, SharedMemHandle *h, uint32_t flags, unsigned sectors, const char *call) {
    Before(sectors);
    SharedMemBufClient *client = nullptr;
    for (int k = in.u8() % 4; k >= 0; --k) {
        SharedMemReadRequest request = {flags | (in.u32() & 0xFFFFFu & ~SHM_READ_IN_PLACE), in.u16(),
                                        in.u32(), in.u16(), 0, in.u16(), 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(h, &client, &data, &size, &request) == 0) {
            CheckPointer(data, size, sectors, call);
        }
        CheckSectors(sectors, call);
    }
    if (client != nullptr) {
        client->iLastIndex = static_cast<int>(in.u32());  // a cursor as a bug would leave it
        SharedMem_CheckClientValid(g.writer->ptHeader, client, "query");
        SharedMem_FreeBufClient(&client);
    }
    CheckSectors(sectors, call);
}

void ReadCache(Bytes &in) {
    Before(kCacheOnly);
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {};
    request.dwCacheClass = in.u8() & 1;
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (SharedMem_QueryReadCache(g.cacheReader, &client, &data, &size, &request) == 0) {
        CheckPointer(data, size, kCacheOnly, "cache reader");
        SharedMem_ReleaseReadCache(g.cacheReader, client);
    }
    uint8_t *slot = g.base + g.pristineData[kCache].begin + (in.u8() % 4u) * 4096;
    if (SharedMem_QueryReadCacheByPointer(g.cacheReader, &client, slot) == 0) {
        SharedMem_ReleaseReadCache(g.cacheReader, client);
    }
    SharedMem_ClearFobiddenReadCacheByPointer(g.cacheReader, slot);
    SharedMem_ReleaseReadCacheIndex(g.cacheReader, static_cast<int>(in.u32()));
    SharedMem_SearchNextBufferIndex(reinterpret_cast<SharedMemCacheHeader *>(g.base + kSlot),
                                    in.u32(), in.u8() & 1, in.u8() % 3);
    SharedMem_FreeBufClient(&client);
    CheckSectors(kCacheOnly, "cache reader");

    uint8_t *place = nullptr;
    uint32_t want = in.u16();
    if (SharedMem_QueryWriteCache(g.cacheWriter, &place, want) == 0) {
        CheckPointer(place, want, kCacheOnly, "cache writer");
        SharedMemWriteInfo info = {place, in.u32(), in.u16(), in.u32()};
        SharedMem_UpdateWritedCache(g.cacheWriter, &info);
    }
    CheckSectors(kCacheOnly, "cache writer");
}

// Calls on a handle of the other sector kind are refused and change nothing.
void WrongKind(Bytes &in) {
    Before(0);
    uint8_t *place = nullptr;
    uint32_t size = in.u16();
    if (SharedMem_QueryAutoRewindWriteBuffer(g.cacheWriter, &place, size) == 0 ||
        SharedMem_QueryWriteCache(g.writer, &place, size) == 0) {
        Die("a writer of one kind got a place in a sector of the other");
    }
    SharedMemWriteInfo info = {g.base, 0, size, 5};
    SharedMem_UpdateWritedBuffer(g.cacheWriter, &info);
    SharedMem_UpdateWritedCache(g.writer, &info);
    SharedMemBufClient *client = nullptr;
    uint8_t *data = nullptr;
    SharedMemReadRequest request = {SHM_READ_IN_PLACE, 0, 5000, 0, 0, 0, 0, 0};
    if (SharedMem_QueryReadBuffer(g.cacheReader, &client, &data, &size, &request) == 0 ||
        SharedMem_QueryReadCache(g.inPlace, &client, &data, &size, &request) == 0) {
        Die("a reader of one kind got a frame from a sector of the other");
    }
    SharedMem_FreeBufClient(&client);
    CheckSectors(0, "a call on the other kind of sector");
}

// Calls that change nothing: searches, figures, dump, a second attach.
void Look(Bytes &in) {
    Before(0);
    SharedMemSectorHeader *ring = g.writer->ptHeader;
    uint32_t key = 0;
    SharedMemReadRequest request = {in.u32(), in.u16(), in.u32(), 0, 0, 0, 0, in.u16()};
    uint32_t start = in.u16();
    SharedMem_ForwardSearch(ring, start, &key, &request);
    SharedMem_BackwardSearch(ring, start, &key, &request);
    SharedMem_BackwardSearchPreSize(ring, start, &key, &request);
    SharedMem_QueryDeltaTimeBuffer(ring, start, in.u8() % 3, &request);
    SharedMem_CheckIndexValid(ring, static_cast<int>(in.u32()), in.u32(), &key);
    SharedMem_IsFrameTooOld(ring, in.u32());
    SharedMem_IsInsideMargin(ring, in.u32());
    for (SharedMemHandle *h : {g.writer, g.cacheReader}) {
        uint32_t info[8] = {0, 0, 0, 0, 0, 0, 0, in.u32()};
        SharedMem_QueryInfo(h, info, sizeof info);
        SharedMem_ShowInfo(h);
    }
    size_t dumped = 0;
    cookie_io_functions_t counter = {};
    counter.write = [](void *count, const char *, size_t n) -> ssize_t {
        *static_cast<size_t *>(count) += n;
        return static_cast<ssize_t>(n);
    };
    FILE *dump = fopencookie(&dumped, "w", counter);
    SharedMem_Dump(g.writer, dump);
    fclose(dump);
    if (dumped > g.size) Die("the dump ran past the segment");
    SharedMemBlockInfo *again = nullptr;
    if ((in.u8() & 15) == 1 && SharedMemBlock_Attach(&again, 0, g.key) == 0) {
        if (again->iSectorNum > kSectors) Die("attach walked past the header slots");
        SharedMemBlock_Detach(&again);
    }
    CheckSectors(0, "a looking call");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (g.base == nullptr) Setup();
    memcpy(g.base, g.pristine, g.size);
    unsigned short ones[kSectors] = {1, 1};
    semctl(g.info->iSemId, 0, SETALL, ones);
    Bytes in = {data, size};
    gShm_DebugLevel = in.u8();  // mostly quiet; now and then every line formatted
    for (int n = in.u8() % 16; n > 0; --n) Corrupt(in);
    TakeAreas();
    g.referenceValid = 0;
    Write(in);
    Read(in, g.inPlace, SHM_READ_IN_PLACE, kRingOnly, "in-place reader");
    Read(in, g.viaCache, SHM_READ_VIA_CACHE, kBoth, "read-through reader");
    ReadCache(in);
    WrongKind(in);
    Look(in);
    Write(in);
    return 0;
}
