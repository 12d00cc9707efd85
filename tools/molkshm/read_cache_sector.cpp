// molkshm read on a cache sector: follows what a direct writer stores,
// item after item by tick, optionally of one class only.
#include <unistd.h>

#include <cstdio>

#include "read.h"

namespace {

constexpr useconds_t kIdleSleepUs = 5000;  // nothing newer yet: poll again

struct CacheTally {
    unsigned long items, bytes, bad;
};

void PrintCacheSummary(const ReadOptions &o, const CacheTally &t, double elapsed) {
    printf("[%s] %5.1fs: %lu items, %lu KiB", o.label, elapsed, t.items, t.bytes / 1024);
    if (o.verify) printf(", %lu bad", t.bad);
    printf("\n");
    fflush(stdout);
}

void PrintItem(const SharedMemCacheEntry &e, int slot, uint32_t size, bool bad) {
    printf("item slot %2d tick %10u size %7u flags 0x%08x class %u%s\n", slot, e.dwTimeTick,
           size, e.dwFlags, e.dwFlags >> 16, bad ? " BAD" : "");
    fflush(stdout);
}

}  // namespace

int ReadCacheLoop(SharedMemHandle *handle, const ReadOptions &o) {
    const SharedMemCacheHeader *cache =
        reinterpret_cast<const SharedMemCacheHeader *>(handle->ptHeader);
    SharedMemBufClient *client = nullptr;
    CacheTally tally = {};
    double start = Now(), lastReport = start;
    unsigned long delivered = 0;
    while (KeepReading(o, delivered, start)) {
        if (o.summary && Now() - lastReport >= 1.0) {
            PrintCacheSummary(o, tally, Now() - start);
            tally = CacheTally{};
            lastReport = Now();
        }
        SharedMemReadRequest request = {};
        request.dwCacheClass = o.cacheClass;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (SharedMem_QueryReadCache(handle, &client, &data, &size, &request) != 0) {
            if (client == nullptr) return Fail("read failed: no memory for a client");
            usleep(kIdleSleepUs);
            continue;
        }
        ++delivered;
        bool bad = o.verify && !CheckPattern(data, size);
        tally.items++;
        tally.bytes += size;
        tally.bad += bad;
        if (!o.summary) PrintItem(cache->atCache[client->iLastIndex], client->iLastIndex, size, bad);
        HoldFrame(o);
        SharedMem_ReleaseReadCache(handle, client);
    }
    if (o.summary) PrintCacheSummary(o, tally, Now() - start);
    SharedMem_FreeBufClient(&client);
    return 0;
}
