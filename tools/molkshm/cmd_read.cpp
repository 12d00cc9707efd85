// molkshm read: a reader as a device process would run one, printing what
// it receives frame by frame or as a summary per second.
#include <getopt.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "molkshm.h"

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

volatile sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

struct ReadOptions {
    int attachId = 16;
    uint32_t flags = SHM_READ_IN_PLACE;
    uint32_t delay = 0;
    uint32_t refTick = 0;        // 0: the current tick at every query
    uint32_t interval = 0;
    uint32_t window = 0;
    unsigned long count = 0;     // frames to deliver; 0: no limit
    unsigned long seconds = 0;   // 0: until interrupted
    bool summary = false;
    const char *label = "read";
};

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
        {"label", required_argument, nullptr, 'L'},  {nullptr, 0, nullptr, 0},
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
        default: return Fail("unknown option (see molkshm with no arguments)");
        }
        if (!ok) return Fail("bad value '%s'", optarg);
    }
    o->flags = (o->flags & ~SHM_READ_LAYER_MASK) | (layer << 14);
    return 0;
}

double Now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

struct Tally {
    unsigned long frames, keyFrames, bytes;
    double lagSum;
    unsigned long reasons[kReasons];
};

void PrintSummary(const ReadOptions &o, const Tally &t, double elapsed) {
    printf("[%s] %5.1fs: %lu frames (%lu key), %lu KiB, lag %.0f ms", o.label, elapsed, t.frames,
           t.keyFrames, t.bytes / 1024, t.frames != 0 ? t.lagSum / t.frames : 0.0);
    for (unsigned r = 1; r < kReasons; ++r) {
        if (t.reasons[r] != 0) printf(", %s %lu", kReasonNames[r], t.reasons[r]);
    }
    printf("\n");
    fflush(stdout);
}

void PrintFrame(const SharedMemBufClient *client, const SharedMemSectorHeader *ring,
                const SharedMemReadRequest &request, uint32_t size) {
    uint32_t reason = request.dwReason;
    printf("frame %4d tick %10u size %7u flags 0x%05x %s lag %u ms reason %s\n",
           client->iDeliveredIndex, client->dwDeliveredTimeTick, size,
           ring->atFrame[client->iDeliveredIndex].dwFlags,
           (ring->atFrame[client->iDeliveredIndex].dwFlags & SHM_FRAME_P) ? "P  " : "KEY",
           request.dwDelay, reason < kReasons ? kReasonNames[reason] : "?");
    fflush(stdout);
}

// Reads until the count, the time or a signal ends it. Returns the exit code.
int ReadLoop(SharedMemHandle *handle, const ReadOptions &o) {
    SharedMemBufClient *client = nullptr;
    Tally tally = {};
    double start = Now(), lastReport = start;
    unsigned long delivered = 0;
    int rc = 0;
    while (!g_stop && (o.count == 0 || delivered < o.count)) {
        double now = Now();
        if (o.seconds != 0 && now - start >= static_cast<double>(o.seconds)) break;
        if (o.summary && now - lastReport >= 1.0) {
            PrintSummary(o, tally, now - start);
            tally = Tally{};
            lastReport = now;
        }
        SharedMemReadRequest request = {o.flags, o.delay, o.refTick, o.window, 0, o.interval, 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request) == 0) {
            ++delivered;
            const SharedMemFrameEntry &e = handle->ptHeader->atFrame[client->iDeliveredIndex];
            tally.frames++;
            tally.keyFrames += (e.dwFlags & SHM_FRAME_P) == 0;
            tally.bytes += size;
            tally.lagSum += request.dwDelay;
            if (request.dwReason < kReasons) tally.reasons[request.dwReason]++;
            if (!o.summary) PrintFrame(client, handle->ptHeader, request, size);
            SharedMem_ReleaseReadBuffer(client);
            continue;
        }
        if (request.dwReason < kReasons) tally.reasons[request.dwReason]++;
        if (request.dwReason == SHM_REASON_NO_MEMORY || request.dwReason == SHM_REASON_MISUSE) {
            rc = Fail("read failed with reason %s", kReasonNames[request.dwReason]);
            break;
        }
        // Dropped frames move the cursor on: try the next one at once.
        if (request.dwReason < SHM_REASON_NOT_YET) usleep(2000);
    }
    if (o.summary) PrintSummary(o, tally, Now() - start);
    SharedMem_FreeBufClient(&client);
    return rc;
}

}  // namespace

int CmdRead(int argc, char **argv) {
    key_t key;
    if (argc < 3) return Fail("usage: molkshm read KEY TAG [options]");
    if (!ParseKey(argv[1], &key)) return Fail("bad key '%s'", argv[1]);
    const char *tag = argv[2];
    ReadOptions options;
    if (ParseReadOptions(argc - 2, argv + 2, &options) != 0) return 1;
    SharedMemBlockInfo *info = AttachOrFail(key);
    if (info == nullptr) return 1;
    SharedMemHandle *handle = nullptr;
    if (SharedMem_InitialByTag(info, &handle, tag, options.attachId) != 0) {
        SharedMemBlock_Detach(&info);
        return Fail("no sector tagged '%s'", tag);
    }
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    int rc = ReadLoop(handle, options);
    SharedMem_Release(&handle);
    SharedMemBlock_Detach(&info);
    return rc;
}
