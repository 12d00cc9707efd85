// molkshm read: a reader as a device process would run one, printing what
// it receives frame by frame or as a summary per second. A ring is read
// with SharedMem_QueryReadBuffer (in place or through its cache sector), a
// cache sector directly (read_cache_sector.cpp).
#include <getopt.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "read.h"

volatile sig_atomic_t g_readStop = 0;

namespace {

struct FlagName {
    const char *name;
    uint32_t mask;
};

const FlagName kReadFlags[] = {
    {"in_place", SHM_READ_IN_PLACE},
    {"via_cache", SHM_READ_VIA_CACHE},
    {"key_start", SHM_READ_KEY_START},
    {"mark_only", SHM_READ_MARK_ONLY},
    {"calibrate", SHM_READ_CALIBRATE},
    {"jump", SHM_READ_JUMP},
    {"restart", SHM_READ_RESTART},
    {"no_overtake", SHM_READ_NO_OVERTAKE},
    {"crossover", SHM_READ_CROSSOVER},
    {"rate_limit", SHM_READ_RATE_LIMIT},
    {"adaptive_by_attach", SHM_READ_ADAPTIVE_BY_ATTACH},
    {"adaptive_mark_only", SHM_READ_ADAPTIVE_MARK_ONLY},
    {"adaptive_rate_limit", SHM_READ_ADAPTIVE_RATE_LIMIT},
    {"new_only", SHM_READ_NEW_ONLY},
    {"size_limit", SHM_READ_SIZE_LIMIT},
    {"from_oldest", SHM_READ_FROM_OLDEST},
};

const char *const kReasonNames[] = {
    "none", "calibrated", "jumped", "crossover", "failed", "no_memory", "misuse",
    "reserved", "latest", "wait", "not_yet", "not_mark", "layer", "too_early",
};
constexpr unsigned kReasons = sizeof kReasonNames / sizeof kReasonNames[0];

constexpr uint32_t kWaitSliceMs = 200;  // longest sleep before the loop looks around
constexpr uint32_t kRetryMs = 2;        // pause before asking again after a refusal

void OnSignal(int) { g_readStop = 1; }

bool ParseFlags(const char *text, uint32_t *flags) {
    char copy[512];
    snprintf(copy, sizeof copy, "%s", text);
    *flags = 0;
    for (char *save = nullptr, *word = strtok_r(copy, ",|", &save); word != nullptr;
         word = strtok_r(nullptr, ",|", &save)) {
        bool known = false;
        for (const FlagName &f : kReadFlags) {
            if (strcmp(word, f.name) == 0) {
                *flags |= f.mask;
                known = true;
            }
        }
        if (!known) return false;
    }
    return true;
}

bool ParseU32(const char *text, uint32_t *value) {
    unsigned long v;
    if (!ParseUnsigned(text, &v) || v > 0xFFFFFFFFul) return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

int ParseReadOptions(int argc, char **argv, ReadOptions *o) {
    static const option kLong[] = {
        {"attach", required_argument, nullptr, 'a'}, {"flags", required_argument, nullptr, 'f'},
        {"delay", required_argument, nullptr, 'd'},  {"ref", required_argument, nullptr, 'r'},
        {"interval", required_argument, nullptr, 'i'}, {"layer", required_argument, nullptr, 'l'},
        {"window", required_argument, nullptr, 'w'}, {"count", required_argument, nullptr, 'n'},
        {"seconds", required_argument, nullptr, 's'}, {"summary", no_argument, nullptr, 'S'},
        {"label", required_argument, nullptr, 'L'},  {"hold", required_argument, nullptr, 'h'},
        {"class", required_argument, nullptr, 'c'},  {"verify", no_argument, nullptr, 'v'},
        {"poll", required_argument, nullptr, 'p'},   {nullptr, 0, nullptr, 0},
    };
    uint32_t layer = 0;
    unsigned long attach = 0;
    optind = 1;
    for (int c; (c = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 'a':
            ok = ParseUnsigned(optarg, &attach) && attach < 256;
            o->attachId = static_cast<int>(attach);
            break;
        case 'f': ok = ParseFlags(optarg, &o->flags); break;
        case 'd': ok = ParseU32(optarg, &o->delay); break;
        case 'r': ok = ParseU32(optarg, &o->refTick); break;
        case 'i': ok = ParseU32(optarg, &o->interval); break;
        case 'l': ok = ParseU32(optarg, &layer) && layer < 8; break;
        case 'w': ok = ParseU32(optarg, &o->window); break;
        case 'n': ok = ParseUnsigned(optarg, &o->count); break;
        case 's': ok = ParseUnsigned(optarg, &o->seconds); break;
        case 'S': o->summary = true; break;
        case 'L': o->label = optarg; break;
        case 'h': ok = ParseU32(optarg, &o->hold); break;
        case 'c': ok = ParseU32(optarg, &o->cacheClass); break;
        case 'v': o->verify = true; break;
        case 'p': ok = ParseU32(optarg, &o->poll) && o->poll != 0; break;
        default: return Fail("unknown option (see molkshm with no arguments)");
        }
        if (!ok) return Fail("bad value '%s'", optarg);
    }
    o->flags = (o->flags & ~SHM_READ_LAYER_MASK) | (layer << 14);
    return 0;
}

struct Tally {
    unsigned long frames, keyFrames, bytes, viaCache, bad;
    double lagSum;
    unsigned long reasons[kReasons];
};

// One line per second, and at the end the whole run's line marked "total".
void PrintSummary(const ReadOptions &o, const Tally &t, double elapsed, bool total) {
    printf("[%s]%s %5.1fs: %lu frames (%lu key), %lu KiB, lag %.0f ms", o.label,
           total ? " total" : "", elapsed, t.frames, t.keyFrames, t.bytes / 1024,
           t.frames != 0 ? t.lagSum / t.frames : 0.0);
    if (t.viaCache != 0) printf(", %lu via cache", t.viaCache);
    if (o.verify) printf(", %lu bad", t.bad);
    for (unsigned r = 1; r < kReasons; ++r) {
        if (t.reasons[r] != 0) printf(", %s %lu", kReasonNames[r], t.reasons[r]);
    }
    printf("\n");
    fflush(stdout);
}

void Add(Tally *total, const Tally &t) {
    total->frames += t.frames;
    total->keyFrames += t.keyFrames;
    total->bytes += t.bytes;
    total->viaCache += t.viaCache;
    total->bad += t.bad;
    total->lagSum += t.lagSum;
    for (unsigned r = 0; r < kReasons; ++r) total->reasons[r] += t.reasons[r];
}

// dwHoldType 2: the client holds a copy in a cache slot, not the ring entry.
constexpr uint32_t kHeldInCache = 2;

void PrintFrame(const SharedMemBufClient *client, const SharedMemSectorHeader *ring,
                const SharedMemReadRequest &request, uint32_t size, bool bad) {
    uint32_t reason = request.dwReason;
    printf("frame %4d tick %10u size %7u flags 0x%05x %s lag %u ms reason %s",
           client->iDeliveredIndex, client->dwDeliveredTimeTick, size,
           ring->atFrame[client->iDeliveredIndex].dwFlags,
           (ring->atFrame[client->iDeliveredIndex].dwFlags & SHM_FRAME_P) ? "P  " : "KEY",
           request.dwDelay, reason < kReasons ? kReasonNames[reason] : "?");
    if (client->dwHoldType == kHeldInCache) printf(" cache slot %d", client->iCacheSlot);
    printf("%s\n", bad ? " BAD" : "");
    fflush(stdout);
}

void Count(Tally *t, const SharedMemBufClient *client, const SharedMemFrameEntry &e,
           const SharedMemReadRequest &request, uint32_t size, bool bad) {
    t->frames++;
    t->keyFrames += (e.dwFlags & SHM_FRAME_P) == 0;
    t->bytes += size;
    t->viaCache += client->dwHoldType == kHeldInCache;
    t->bad += bad;
    t->lagSum += request.dwDelay;
    if (request.dwReason < kReasons) t->reasons[request.dwReason]++;
}

// Reads until the count, the time or a signal ends it. Returns the exit code.
int ReadLoop(SharedMemHandle *handle, const ReadOptions &o) {
    SharedMemBufClient *client = nullptr;
    Tally tally = {}, total = {};
    double start = Now(), lastReport = start;
    unsigned long delivered = 0;
    int rc = 0;
    while (KeepReading(o, delivered, start)) {
        if (o.summary && Now() - lastReport >= 1.0) {
            PrintSummary(o, tally, Now() - start, false);
            Add(&total, tally);
            tally = Tally{};
            lastReport = Now();
        }
        SharedMemReadRequest request = {o.flags, o.delay, o.refTick, o.window, 0, o.interval,
                                        o.cacheClass, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request) == 0) {
            ++delivered;
            bool bad = o.verify && !CheckPattern(data, size);
            Count(&tally, client, handle->ptHeader->atFrame[client->iDeliveredIndex], request,
                  size, bad);
            if (!o.summary) PrintFrame(client, handle->ptHeader, request, size, bad);
            HoldFrame(o);
            SharedMem_ReleaseReadBuffer(client);
            continue;
        }
        if (request.dwReason < kReasons) tally.reasons[request.dwReason]++;
        if (request.dwReason == SHM_REASON_NO_MEMORY || request.dwReason == SHM_REASON_MISUSE) {
            rc = Fail("read failed with reason %s", kReasonNames[request.dwReason]);
            break;
        }
        // Dropped frames move the cursor on: try the next one at once. On
        // the latest frame, sleep until the writer publishes (a slice at a
        // time, so that the time limit and signals are heard), unless asked
        // to poll.
        if (request.dwReason == SHM_REASON_LATEST && o.poll == 0) {
            SharedMem_WaitReadBuffer(handle, client, kWaitSliceMs);
        } else if (request.dwReason < SHM_REASON_NOT_YET) {
            usleep((o.poll != 0 ? o.poll : kRetryMs) * 1000);
        }
    }
    if (o.summary) {
        PrintSummary(o, tally, Now() - start, false);
        Add(&total, tally);
        PrintSummary(o, total, Now() - start, true);
    }
    SharedMem_FreeBufClient(&client);
    return rc;
}

}  // namespace

void HoldFrame(const ReadOptions &o) {
    if (o.hold == 0) return;
    struct timespec left = {static_cast<time_t>(o.hold / 1000),
                            static_cast<long>(o.hold % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR && !g_readStop) {
    }
}

bool KeepReading(const ReadOptions &o, unsigned long delivered, double start) {
    if (g_readStop || (o.count != 0 && delivered >= o.count)) return false;
    return o.seconds == 0 || Now() - start < static_cast<double>(o.seconds);
}

int CmdRead(int argc, char **argv) {
    key_t key;
    if (argc < 3) return Fail("usage: molkshm read KEY TAG [options]");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    const char *tag = argv[2];
    ReadOptions options;
    if (ParseReadOptions(argc - 2, argv + 2, &options) != 0) return 1;
    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *handle = OpenSectorOrFail(key, tag, options.attachId, &info);
    if (handle == nullptr) return 1;
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    bool cache = handle->ptHeader->dwSectorType == SHM_SECTOR_CACHE;
    int rc = cache ? ReadCacheLoop(handle, options) : ReadLoop(handle, options);
    CloseSector(&handle, &info);
    return rc;
}
