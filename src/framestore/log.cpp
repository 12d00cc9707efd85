#include "framestore/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

extern "C" {
uint32_t gShm_DebugLevel = shm::kDefaultDebugLevel;

MOLK_API void SharedMem_UpdateDebugLevel(void) { shm::ApplyDebugEnvironment(); }
}

namespace shm {
namespace {

constexpr char kPrefix[] = "[shmem] : ";

void PrintPrefixed(const char *fmt, va_list ap) {
    fputs(kPrefix, stdout);
    vprintf(fmt, ap);
}

// syslog gets the text without the prefix and always ends on a newline.
void SyslogLine(int priority, const char *fmt, va_list ap) {
    char line[512];
    int n = vsnprintf(line, sizeof line, fmt, ap);
    if (n < 0) return;
    size_t len = strlen(line);
    if (len == 0 || line[len - 1] != '\n') {
        if (len + 1 >= sizeof line) len = sizeof line - 2;
        line[len] = '\n';
        line[len + 1] = '\0';
    }
    syslog(priority, "%s", line);
}

void Report(int priority, uint32_t level, const char *fmt, va_list ap) {
    int saved = errno;
    if (LevelAtLeast(level)) {
        va_list copy;
        va_copy(copy, ap);
        PrintPrefixed(fmt, copy);
        va_end(copy);
    }
    SyslogLine(priority, fmt, ap);
    errno = saved;
}

}  // namespace

void LogPrint(const char *fmt, ...) {
    int saved = errno;
    va_list ap;
    va_start(ap, fmt);
    PrintPrefixed(fmt, ap);
    va_end(ap);
    errno = saved;
}

void LogError(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    Report(LOG_ERR, kLevelError, fmt, ap);
    va_end(ap);
}

void LogWarning(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    Report(LOG_WARNING, kLevelWarning, fmt, ap);
    va_end(ap);
}

void ApplyDebugEnvironment() {
    const char *value = getenv("SHM_DEBUG");
    if (value == nullptr) return;
    gShm_DebugLevel = static_cast<uint32_t>(atoi(value));
    printf("Update debug level to %d\n", static_cast<int>(gShm_DebugLevel));
}

}  // namespace shm
