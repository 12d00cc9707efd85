// molkshm: the frame store's command-line tool for people who run devices.
#ifndef MOLKSHM_H
#define MOLKSHM_H

#include <signal.h>
#include <sys/types.h>
#include <time.h>

#include "sharedmem.h"

struct MolkshmCommand {
    const char *name;
    const char *usage;  // arguments after the command's name
    int (*run)(int argc, char **argv);  // argv[0] is the command's name
};

// Parses a key in decimal or 0x hex; false on anything else.
bool ParseKey(const char *text, key_t *key);
// Parses an unsigned number in decimal or 0x hex; false on anything else.
bool ParseUnsigned(const char *text, unsigned long *value);
// Prints "molkshm: " + message to stderr; returns the exit code 1.
int Fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Attaches the block under key, or reports why not.
SharedMemBlockInfo *AttachOrFail(key_t key);
// Attaches the block under key and opens the sector tagged `tag`, or
// reports why not; CloseSector gives both back.
SharedMemHandle *OpenSectorOrFail(key_t key, const char *tag, int attachId,
                                  SharedMemBlockInfo **info);
void CloseSector(SharedMemHandle **handle, SharedMemBlockInfo **info);

int CmdCreate(int argc, char **argv);
int CmdInfo(int argc, char **argv);
int CmdReset(int argc, char **argv);
int CmdDelete(int argc, char **argv);
int CmdRead(int argc, char **argv);
int CmdStamp(int argc, char **argv);
int CmdWrite(int argc, char **argv);
int CmdCacheWrite(int argc, char **argv);
int CmdTop(int argc, char **argv);
int CmdUnpin(int argc, char **argv);

// Per-ring detail below a ring's summary line in `info`.
void PrintRingDetail(const SharedMemSectorHeader *ring);
// The slot table below a cache sector's summary lines in `info`.
void PrintCacheDetail(const SharedMemBlockInfo *info, const SharedMemCacheHeader *cache);

// Header slot i of an attached block.
const SharedMemSectorHeader *SectorAt(const SharedMemBlockInfo *info, int index);
// True when the cache sector is one that ring readers copy frames into:
// only these tags are ever given to a ring's handle as its cache.
bool IsReadThroughCache(const SharedMemCacheHeader *cache);

// What a person wants to know of a sector at a glance. A ring's figures
// come from SharedMem_QueryInfo; a cache sector's from its completed slots.
struct SectorFigures {
    bool ok;
    uint32_t fpsMilli;       // frames per second in thousandths; 0: unknown
    uint32_t kbpsNow;        // recent bit rate, kbit/s (rings only)
    uint32_t kbpsAverage;    // over the whole stored duration, kbit/s
    uint32_t durationMs;
    uint32_t frames;         // frames or items stored
    uint32_t bytes;
    int slotsUsed, slotsTotal;  // cache sectors: assigned slots / slots the area holds
};
SectorFigures QueryFigures(SharedMemBlockInfo *info, int index);

// Pins per AttachID summed over entries `stride` bytes apart, the first
// counter array at `counts`.
void SumPins(const uint8_t *counts, size_t stride, int entries, unsigned pins[16]);

// The synthetic payload of `write` and `cache-write`: the item number in
// the first 4 bytes, its low byte in all the others. CheckPattern skips
// the last word, which a ring pads to a multiple of 4.
void FillPattern(uint8_t *place, uint32_t size, uint32_t number);
bool CheckPattern(const uint8_t *data, uint32_t size);

// Set by SIGINT and SIGTERM once StopOnSignals() has run: the loops of
// the long-running subcommands end cleanly, closing their sectors.
extern volatile sig_atomic_t g_stop;
void StopOnSignals();

// Sleeps until item n is due at `rate` items per second (0: at once), or
// until a signal stops the tool.
void WaitForNth(const timespec &start, unsigned long n, unsigned long rate);

// Calls step(n) for n = 0, 1, ... at `rate` calls a second (0: at once),
// `count` times (0: until a signal stops the tool).
template <typename Step>
void RunPaced(unsigned long count, unsigned long rate, Step step) {
    StopOnSignals();
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (unsigned long n = 0; !g_stop && (count == 0 || n < count); ++n) {
        WaitForNth(start, n, rate);
        if (g_stop) break;
        step(n);
    }
}
// Monotonic seconds.
double Now();

#endif
