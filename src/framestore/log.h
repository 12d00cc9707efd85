// The frame store's logging rules, in one place.
//
// Every message has a fixed level, tested against the low 3 bits of
// gShm_DebugLevel when it is issued, before anything is formatted:
//   errors     stdout with "[shmem] : " at level >= 3, syslog LOG_ERR always
//   warnings   stdout with the prefix at level >= 4,   syslog LOG_WARNING always
//   cache-path failures  stdout at level >= 5, no syslog
//   conflicts a caller handles (occupied, unread, stale)  level >= 6
//   trace of normal events  level 7
// Trace categories in the higher bits are tested on their own bit.
// Administrative output (allocation, inspection) has no prefix and is
// printed whatever the level: plain printf, not these helpers.
#ifndef MOLK_FRAMESTORE_LOG_H
#define MOLK_FRAMESTORE_LOG_H

#include <cstdint>

#include "sharedmem.h"

namespace shm {

enum LogLevel : uint32_t {
    kLevelError = 3,
    kLevelWarning = 4,
    kLevelCacheFailure = 5,
    kLevelConflict = 6,
    kLevelTrace = 7,
};

enum TraceBit : uint32_t {
    kTracePins = 16,       // pin counters raised and lowered
    kTraceMargin = 32,     // readers' margin tests
    kTraceCacheSearch = 64,
    kTraceCacheFailure = 128,
};

constexpr uint32_t kLevelMask = 7;
constexpr uint32_t kDefaultDebugLevel = 6;

inline bool LevelAtLeast(uint32_t level) { return (gShm_DebugLevel & kLevelMask) >= level; }
inline bool TraceOn(uint32_t bit) { return (gShm_DebugLevel & bit) != 0; }

// "[shmem] : " + text to standard output. Callers test the level first.
void LogPrint(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// An error: prefixed to stdout when the level allows, to syslog (priority 3)
// always, there with a trailing newline. errno is preserved.
void LogError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// A warning: the same at level >= 4 and syslog priority 4.
void LogWarning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Applies the environment variable SHM_DEBUG, if set.
void ApplyDebugEnvironment();

}  // namespace shm

#define SHM_LOG(level, ...)                                   \
    do {                                                      \
        if (shm::LevelAtLeast(level)) shm::LogPrint(__VA_ARGS__); \
    } while (0)

#define SHM_TRACE(bit, ...)                                   \
    do {                                                      \
        if (shm::TraceOn(bit)) shm::LogPrint(__VA_ARGS__);    \
    } while (0)

#endif  // MOLK_FRAMESTORE_LOG_H
