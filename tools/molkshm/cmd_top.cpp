// molkshm top: a live view of a block, refreshed every second. On a
// terminal it redraws in place until interrupted; with --count, or when
// its output is a pipe or a file, it prints one plain block per refresh,
// so that it can be logged and compared.
#include <getopt.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "pin_watch.h"

namespace {

constexpr const char *kClearHome = "\033[H\033[2J";


struct TopOptions {
    unsigned long count = 0;       // refreshes; 0: until interrupted
    unsigned long stuckAfter = 5;  // seconds a pin may stay on one frame
};

int ParseTopOptions(int argc, char **argv, TopOptions *o) {
    static const option kLong[] = {
        {"count", required_argument, nullptr, 'n'},
        {"stuck-after", required_argument, nullptr, 's'},
        {nullptr, 0, nullptr, 0},
    };
    optind = 1;
    for (int c; (c = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
            case 'n': ok = ParseUnsigned(optarg, &o->count) && o->count != 0; break;
            case 's': ok = ParseUnsigned(optarg, &o->stuckAfter); break;
            default: return Fail("unknown option (see molkshm --help)");
        }
        if (!ok) return Fail("bad value '%s'", optarg);
    }
    if (optind < argc) return Fail("unexpected argument '%s'", argv[optind]);
    return 0;
}

const char *TypeName(const SharedMemSectorHeader *sector) {
    if (sector->dwSectorType == SHM_SECTOR_CACHE) return "cache";
    return sector->byTimeshift ? "timeshift" : "ring";
}

void PrintPins(const SharedMemSectorHeader *sector) {
    unsigned pins[16];
    if (sector->dwSectorType == SHM_SECTOR_CACHE) {
        const SharedMemCacheHeader *cache = reinterpret_cast<const SharedMemCacheHeader *>(sector);
        SumPins(cache->atCache[0].abyAccessCount, sizeof cache->atCache[0], SHM_CACHE_ENTRIES,
                pins);
    } else {
        SumPins(sector->atFrame[0].abyAccessCount, sizeof sector->atFrame[0], SHM_FRAME_ENTRIES,
                pins);
    }
    bool any = false;
    for (int id = 0; id < SHM_ATTACH_IDS; ++id) {
        if (pins[id] == 0) continue;
        printf(" %d:%u", id, pins[id]);
        any = true;
    }
    printf("%s\n", any ? "" : " -");
}

void PrintSector(SharedMemBlockInfo *info, int index) {
    const SharedMemSectorHeader *sector = SectorAt(info, index);
    const char *tag = sector->dwSectorType == SHM_SECTOR_CACHE
                          ? reinterpret_cast<const SharedMemCacheHeader *>(sector)->szTag
                          : sector->szTag;
    SectorFigures f = QueryFigures(info, index);
    printf("%6d  %-16.35s %-9s %3u.%u", index, tag, TypeName(sector), f.fpsMilli / 1000,
           f.fpsMilli % 1000 / 100);
    if (sector->dwSectorType == SHM_SECTOR_CACHE) {
        printf(" %7s", "-");
    } else {
        printf(" %7u", f.kbpsNow);
    }
    printf(" %7u %6u.%u %7u", f.kbpsAverage, f.durationMs / 1000, f.durationMs % 1000 / 100,
           f.frames);
    if (sector->dwSectorType == SHM_SECTOR_CACHE) {
        printf("   %2d/%-2d", f.slotsUsed, f.slotsTotal);
    } else {
        printf("   %5s", "-");
    }
    PrintPins(sector);
}

void PrintStuck(const SharedMemBlockInfo *info, const PinWatch &watch, const TopOptions &o,
                double now) {
    for (int i = 0; i < watch.count; ++i) {
        const PinSeen &p = watch.seen[i];
        double held = now - p.since;
        if (held <= static_cast<double>(o.stuckAfter)) continue;
        bool cache = SectorAt(info, p.sector)->dwSectorType == SHM_SECTOR_CACHE;
        printf("stuck: AttachID %d on sector %d %s %d (tick %u) for %.0f s\n", p.attachId,
               p.sector, cache ? "slot" : "entry", p.entry, p.tick, held);
    }
}

void PrintBlock(SharedMemBlockInfo *info, key_t key, const PinWatch &watch, const TopOptions &o,
                double now) {
    char clock[16];
    time_t wall = time(nullptr);
    tm local;
    strftime(clock, sizeof clock, "%H:%M:%S", localtime_r(&wall, &local));
    printf("molkshm top 0x%x  %s  %d sectors, %u bytes\n", static_cast<unsigned>(key), clock,
           info->iSectorNum, SectorAt(info, 0)->dwTotalSize);
    printf("SECTOR  %-16s %-9s %5s %7s %7s %8s %7s   %5s PINS\n", "TAG", "TYPE", "FPS",
           "KBIT/S", "AVG", "DUR/S", "FRAMES", "SLOTS");
    for (int i = 0; i < info->iSectorNum; ++i) PrintSector(info, i);
    PrintStuck(info, watch, o, now);
}

int TopLoop(SharedMemBlockInfo *info, key_t key, const TopOptions &o) {
    static PinWatch watch;  // kept off the stack
    bool redraw = o.count == 0 && isatty(STDOUT_FILENO);
    RunPaced(o.count, 1, [&](unsigned long n) {
        double now = Now();
        SamplePins(&watch, info, now);
        if (redraw) {
            fputs(kClearHome, stdout);
        } else if (n != 0) {
            putchar('\n');
        }
        PrintBlock(info, key, watch, o, now);
        fflush(stdout);
    });
    return 0;
}

}  // namespace

int CmdTop(int argc, char **argv) {
    if (argc < 2) return Fail("usage: molkshm top KEY [--count N] [--stuck-after S]");
    key_t key;
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    TopOptions options;
    if (ParseTopOptions(argc - 1, argv + 1, &options) != 0) return 1;
    SharedMemBlockInfo *info = AttachOrFail(key);
    if (info == nullptr) return 1;
    int rc = TopLoop(info, key, options);
    SharedMemBlock_Detach(&info);
    return rc;
}
