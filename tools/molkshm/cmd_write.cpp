// molkshm write: a synthetic encoder. It appends frames to a ring at a
// given rate, a key frame every N frames, and prints every refusal with its
// status, as a device's writer would have to handle it.
#include <getopt.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "molkshm.h"

namespace {

struct WriteOptions {
    uint32_t size = 4096;          // bytes of a predicted frame
    uint32_t keySize = 0;          // bytes of a key frame; 0: four times size
    unsigned long rate = 25;       // frames per second; 0: as fast as possible
    unsigned long keyEvery = 25;   // a key frame every N frames (1: all key)
    unsigned long count = 0;       // frames to offer; 0: until interrupted
    unsigned long unreadEvery = 0; // mark every Nth frame unread; 0: never
    int attachId = 16;             // a writer pins nothing
};

const char *StatusName(uint32_t status) {
    switch (status) {
        case SHM_WRITE_OCCUPIED: return "occupied";
        case SHM_WRITE_UNREAD: return "unread";
        case SHM_WRITE_TOO_LARGE: return "too large";
        default: return "lock failed";
    }
}

bool ParseSize(const char *text, uint32_t *value) {
    unsigned long v;
    if (!ParseUnsigned(text, &v) || v == 0 || v > 0xFFFFFFFFul) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

int ParseWriteOptions(int argc, char **argv, WriteOptions *o) {
    static const option kLong[] = {
        {"size", required_argument, nullptr, 's'},   {"key-size", required_argument, nullptr, 'K'},
        {"rate", required_argument, nullptr, 'r'},   {"key-every", required_argument, nullptr, 'k'},
        {"count", required_argument, nullptr, 'n'},  {"unread-every", required_argument, nullptr, 'u'},
        {"attach", required_argument, nullptr, 'a'}, {nullptr, 0, nullptr, 0},
    };
    unsigned long attach = 0;
    optind = 1;
    for (int c; (c = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
            case 's': ok = ParseSize(optarg, &o->size); break;
            case 'K': ok = ParseSize(optarg, &o->keySize); break;
            case 'r': ok = ParseUnsigned(optarg, &o->rate) && o->rate <= 100000; break;
            case 'k': ok = ParseUnsigned(optarg, &o->keyEvery) && o->keyEvery != 0; break;
            case 'n': ok = ParseUnsigned(optarg, &o->count); break;
            case 'u': ok = ParseUnsigned(optarg, &o->unreadEvery); break;
            case 'a':
                ok = ParseUnsigned(optarg, &attach) && attach < 256;
                o->attachId = static_cast<int>(attach);
                break;
            default: return Fail("unknown option (see molkshm with no arguments)");
        }
        if (!ok) return Fail("bad value '%s'", optarg);
    }
    if (optind < argc) return Fail("unexpected argument '%s'", argv[optind]);
    if (o->keySize == 0) o->keySize = o->size <= 0xFFFFFFFFu / 4 ? o->size * 4 : o->size;
    return 0;
}

struct Tally {
    unsigned long offered, written, bytes;
    unsigned long refused[5];  // by status; 0 = the lock could not be taken
};

// Offers one frame: asks for a place, fills it, publishes it. A refused
// frame is dropped, as a live encoder would drop it.
void OfferFrame(SharedMemHandle *handle, const WriteOptions &o, unsigned long n, Tally *t) {
    bool key = n % o.keyEvery == 0;
    uint32_t size = key ? o.keySize : o.size;
    uint32_t flags = key ? 0u : SHM_FRAME_P;
    if (o.unreadEvery != 0 && n % o.unreadEvery == 0) flags |= SHM_FRAME_UNREAD;
    ++t->offered;
    uint8_t *place = nullptr;
    if (SharedMem_QueryAutoRewindWriteBuffer(handle, &place, size) != 0) {
        uint32_t status = 0;
        SharedMem_QueryWriteStatus(handle, &status);
        ++t->refused[status < 5 ? status : 0];
        printf("frame %lu (%s, %u bytes) refused: %s (status %u)\n", n, key ? "key" : "P", size,
               StatusName(status), status);
        return;
    }
    FillPattern(place, size, static_cast<uint32_t>(n));
    SharedMemWriteInfo info = {place, flags, size, 0};  // tick 0: stamped by the library
    if (SharedMem_UpdateWritedBuffer(handle, &info) != 0) {
        printf("frame %lu: update failed\n", n);
        return;
    }
    ++t->written;
    t->bytes += size;
}

int WriteLoop(SharedMemHandle *handle, const WriteOptions &o) {
    Tally tally = {};
    RunPaced(o.count, o.rate, [&](unsigned long n) { OfferFrame(handle, o, n, &tally); });
    printf("%lu frames offered, %lu written (%lu KiB), refused: %lu occupied, %lu unread, "
           "%lu too large, %lu lock failures\n",
           tally.offered, tally.written, tally.bytes / 1024, tally.refused[SHM_WRITE_OCCUPIED],
           tally.refused[SHM_WRITE_UNREAD], tally.refused[SHM_WRITE_TOO_LARGE], tally.refused[0]);
    return 0;
}

}  // namespace

int CmdWrite(int argc, char **argv) {
    if (argc < 3) {
        return Fail("usage: molkshm write KEY TAG [--size BYTES] [--key-size BYTES] [--rate FPS] "
                    "[--key-every N] [--count N] [--unread-every N] [--attach ID]");
    }
    key_t key;
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    const char *tag = argv[2];
    WriteOptions options;
    if (ParseWriteOptions(argc - 2, argv + 2, &options) != 0) return 1;

    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = OpenSectorOrFail(key, tag, options.attachId, &info);
    if (handle == nullptr) return 1;
    int rc = 0;
    if (handle->ptHeader->dwSectorType != SHM_SECTOR_RING) {
        rc = Fail("sector '%s' is not a ring", tag);
    } else {
        rc = WriteLoop(handle, options);
    }
    CloseSector(&handle, &info);
    return rc;
}
