// molkshm cache-write: a synthetic direct writer of a cache sector, as a
// snapshot or metadata producer would run one. Each item carries a class
// in the high 16 bits of its flag word, so that readers can pick theirs.
#include <getopt.h>
#include <time.h>

#include <cstdio>

#include "molkshm.h"

namespace {

struct CacheWriteOptions {
    uint32_t size = 1024;           // bytes of an item; at most the slot size
    unsigned long rate = 5;         // items per second; 0: as fast as possible
    uint32_t itemClass = 0;         // 0..0xFFFF, the flag word's high 16 bits
    unsigned long count = 0;        // items to offer; 0: until interrupted
    unsigned long unreadEvery = 0;  // mark every Nth item unread; 0: never
};

int ParseCacheWriteOptions(int argc, char **argv, CacheWriteOptions *o) {
    static const option kLong[] = {
        {"size", required_argument, nullptr, 's'},  {"rate", required_argument, nullptr, 'r'},
        {"class", required_argument, nullptr, 'c'}, {"count", required_argument, nullptr, 'n'},
        {"unread-every", required_argument, nullptr, 'u'}, {nullptr, 0, nullptr, 0},
    };
    unsigned long v = 0;
    optind = 1;
    for (int c; (c = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
            case 's':
                ok = ParseUnsigned(optarg, &v) && v != 0 && v <= 0xFFFFFFFFul;
                o->size = static_cast<uint32_t>(v);
                break;
            case 'r': ok = ParseUnsigned(optarg, &o->rate) && o->rate <= 100000; break;
            case 'c':
                ok = ParseUnsigned(optarg, &v) && v <= 0xFFFF;
                o->itemClass = static_cast<uint32_t>(v);
                break;
            case 'n': ok = ParseUnsigned(optarg, &o->count); break;
            case 'u': ok = ParseUnsigned(optarg, &o->unreadEvery); break;
            default: return Fail("unknown option (see molkshm --help)");
        }
        if (!ok) return Fail("bad value '%s'", optarg);
    }
    if (optind < argc) return Fail("unexpected argument '%s'", argv[optind]);
    return 0;
}

struct Tally {
    unsigned long offered, written, refused, bytes;
};

// Takes a slot, fills it and publishes it. A refused query leaves nothing
// taken: every slot is pinned or being written, and the item is dropped.
void OfferItem(SharedMemHandle *handle, const CacheWriteOptions &o, unsigned long n, Tally *t) {
    ++t->offered;
    uint8_t *place = nullptr;
    if (SharedMem_QueryWriteCache(handle, &place, o.size) != 0) {
        ++t->refused;
        printf("item %lu refused: no slot\n", n);
        return;
    }
    FillPattern(place, o.size, static_cast<uint32_t>(n));
    uint32_t flags = o.itemClass << 16;
    if (o.unreadEvery != 0 && n % o.unreadEvery == 0) flags |= SHM_FRAME_UNREAD;
    SharedMemWriteInfo info = {place, flags, o.size, 0};  // tick 0: stamped by the library
    if (SharedMem_UpdateWritedCache(handle, &info) != 0) {
        printf("item %lu: update failed\n", n);
        return;
    }
    ++t->written;
    t->bytes += o.size;
}

int CacheWriteLoop(SharedMemHandle *handle, const CacheWriteOptions &o) {
    Tally tally = {};
    RunPaced(o.count, o.rate, [&](unsigned long n) { OfferItem(handle, o, n, &tally); });
    printf("%lu items offered, %lu written (%lu KiB), %lu refused\n", tally.offered,
           tally.written, tally.bytes / 1024, tally.refused);
    fflush(stdout);
    return 0;
}

}  // namespace

int CmdCacheWrite(int argc, char **argv) {
    if (argc < 3) {
        return Fail("usage: molkshm cache-write KEY TAG [--size BYTES] [--rate N] [--class N] "
                    "[--count N] [--unread-every N]");
    }
    key_t key;
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    const char *tag = argv[2];
    CacheWriteOptions options;
    if (ParseCacheWriteOptions(argc - 2, argv + 2, &options) != 0) return 1;

    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = OpenSectorOrFail(key, tag, 16, &info);
    if (handle == nullptr) return 1;
    const SharedMemCacheHeader *cache =
        reinterpret_cast<const SharedMemCacheHeader *>(handle->ptHeader);
    int rc = 0;
    if (cache->dwSectorType != SHM_SECTOR_CACHE) {
        rc = Fail("sector '%s' is not a cache sector", tag);
    } else if (options.size > cache->dwPrimarySize) {
        rc = Fail("item size %u is larger than the slot size %u", options.size,
                  cache->dwPrimarySize);
    } else {
        rc = CacheWriteLoop(handle, options);
    }
    CloseSector(&handle, &info);
    return rc;
}
