// molkmod register FILE: stands in for a module process. It registers the
// module description in FILE, holds the registration until SIGINT or
// SIGTERM, then unregisters. A <pid> that reads "self" becomes this
// process's PID, which is what lets the unregistration find its sides.
//
// molkmod unregister TOKEN: the library removes only the calling process's
// sides, so a separate process cannot unregister a module itself. This
// command finds the processes that hold TOKEN's sides in the registry file
// and, if they are `molkmod register` holders, stops them so that they
// unregister; any other module is left alone and reported.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "molkmod.h"
#include "molkutil.h"
#include "moduleservices/paths.h"

namespace {

constexpr long kMaxDescription = 1 << 20;
constexpr int kRegisterTries = 100;     // a module tries again after losing a lock
constexpr int kWaitSteps = 500;         // of 20 ms: how long unregister waits for a holder

void Pause20ms() {
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
}

// Whole file as a NUL-terminated heap text, with room for the "self"
// replacements; nullptr if it cannot be read.
char *ReadDescription(const char *path) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) return nullptr;
    char *text = static_cast<char *>(calloc(1, kMaxDescription + 1));
    const size_t n = text != nullptr ? fread(text, 1, kMaxDescription, file) : 0;
    const bool whole = text != nullptr && feof(file) && !ferror(file);
    fclose(file);
    if (!whole || n == 0) {
        free(text);
        return nullptr;
    }
    return text;
}

// Replaces each <pid>self</pid> by this process's PID, in place (the
// number is never longer than "self" plus the room left by the cut).
void ReplaceSelf(char *text) {
    char pid[48];
    snprintf(pid, sizeof pid, "<pid>%d</pid>", static_cast<int>(getpid()));
    const char self[] = "<pid>self</pid>";
    const size_t selfLen = sizeof self - 1, pidLen = strlen(pid);
    for (char *at = strstr(text, self); at != nullptr; at = strstr(at + pidLen, self)) {
        const size_t tail = strlen(at + selfLen);
        if (strlen(text) + pidLen - selfLen > static_cast<size_t>(kMaxDescription)) return;
        memmove(at + pidLen, at + selfLen, tail + 1);
        memcpy(at, pid, pidLen);
    }
}

const char *ErrorMeaning(uint32_t error) {
    switch (error) {
    case 16: return "registered";
    case 1: return "token conflict: a side of this token is already registered";
    case 2: return "the module description is invalid";
    case 8: return "out of memory, or the package or registry file cannot be used";
    default: return "the registry could not be locked; see the messages above";
    }
}

// Registers, trying again while the lock is lost to another process (the
// error word stays unwritten then).
int RegisterWithRetry(OnvifAnalyticsHandle **handle, char *text, uint32_t *error) {
    const uint32_t unwritten = 0xFFFFFFFFu;
    for (int attempt = 0; attempt < kRegisterTries; ++attempt) {
        *error = unwritten;
        if (RegisterOnvifAnalyticsService(handle, text, error) == 0) return 0;
        if (*error != unwritten) return -1;
        Pause20ms();
    }
    return -1;
}

// The PIDs of TOKEN's sides in the registry file; 0 when absent. -1 if the
// token is not there or the file does not parse.
int TokenPids(const char *token, int pids[2]) {
    static char text[8192];
    memset(text, 0, sizeof text);
    FILE *file = fopen(molk::kRegistryPath, "r");
    if (file == nullptr) return -1;
    const bool read = fread(text, 1, sizeof text - 1, file) > 0;
    fclose(file);
    if (!read) return -1;
    MolkXmlNavi *xml = nullptr;
    MolkXmlInitParam param = {0, 8192};
    if (MOLK_XML_Initial(&xml, &param) != 0) return -1;
    int found = -1;
    if (MOLK_XML_SetBuffer(xml, text, sizeof text, sizeof text) == 0) {
        while (found != 0 && MOLK_XML_FindChildElem(xml, "VideoAnalyticsConfiguration")) {
            char name[64] = {0};
            XML_GetChildAttrib(xml, "token", name, sizeof name);
            if (strcmp(name, token) != 0) continue;
            MOLK_XML_IntoElem(xml);
            const char *blocks[2][2] = {{"AE", "AnalyticsEnginePID"}, {"RE", "RuleEnginePID"}};
            for (int side = 0; side < 2; ++side) {
                pids[side] = 0;
                if (!MOLK_XML_FindChildElem(xml, blocks[side][0])) continue;
                MOLK_XML_IntoElem(xml);
                MolkUtil_GetChildInt(xml, blocks[side][1], &pids[side]);
                MOLK_XML_OutOfElem(xml);
            }
            found = 0;
        }
    }
    MOLK_XML_Release(&xml);
    return found;
}

// True if pid runs "molkmod register ...".
bool IsRegisterHolder(int pid) {
    char path[64], args[256] = {0};
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    FILE *file = fopen(path, "r");
    if (file == nullptr) return false;
    const size_t n = fread(args, 1, sizeof args - 1, file);
    fclose(file);
    const char *base = strrchr(args, '/');
    base = base != nullptr ? base + 1 : args;
    const size_t first = strlen(args) + 1;
    return strcmp(base, "molkmod") == 0 && first < n && strcmp(args + first, "register") == 0;
}

bool TokenHeldBy(const char *token, int pid) {
    int pids[2] = {0, 0};
    return TokenPids(token, pids) == 0 && (pids[0] == pid || pids[1] == pid);
}

}  // namespace

int CmdRegister(int argc, char **argv) {
    if (argc != 2) return Fail("usage: molkmod register FILE");
    if (access(molk::kRegistryPath, F_OK) != 0) {
        return Fail("no registry file %s: the device makes it before the first registration",
                    molk::kRegistryPath);
    }
    char *text = ReadDescription(argv[1]);
    if (text == nullptr) return Fail("cannot read the module description %s", argv[1]);
    ReplaceSelf(text);
    // Blocked from here, so that an early interrupt still unregisters.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    OnvifAnalyticsHandle *handle = nullptr;
    uint32_t error = 0;
    const int result = RegisterWithRetry(&handle, text, &error);
    free(text);
    if (result != 0) return Fail("registration failed (error word %u: %s)", error, ErrorMeaning(error));
    printf("molkmod: registered (pid %d, error word %u); holding until SIGINT or SIGTERM\n",
           static_cast<int>(getpid()), error);
    fflush(stdout);
    int sig = 0;
    sigwait(&stop, &sig);
    if (UnRegisterOnvifAnalyticsService(&handle) != 0) return Fail("unregistration failed");
    printf("molkmod: unregistered (pid %d)\n", static_cast<int>(getpid()));
    return 0;
}

int CmdUnregister(int argc, char **argv) {
    if (argc != 2) return Fail("usage: molkmod unregister TOKEN");
    const char *token = argv[1];
    int pids[2] = {0, 0};
    if (TokenPids(token, pids) != 0) {
        return Fail("no configuration with token '%s' in %s", token, molk::kRegistryPath);
    }
    int failures = 0;
    for (int side = 0; side < 2; ++side) {
        const int pid = pids[side];
        if (pid <= 0 || (side == 1 && pid == pids[0])) continue;
        if (!IsRegisterHolder(pid)) {
            failures += Fail("pid %d of '%s' is not a 'molkmod register' process: stop that module itself",
                             pid, token);
            continue;
        }
        if (kill(pid, SIGTERM) != 0) {
            failures += Fail("cannot signal pid %d: %s", pid, strerror(errno));
            continue;
        }
        int step = 0;
        while (step < kWaitSteps && TokenHeldBy(token, pid)) {
            Pause20ms();
            ++step;
        }
        if (step == kWaitSteps) failures += Fail("pid %d still holds '%s'", pid, token);
        else printf("molkmod: '%s' released by pid %d\n", token, pid);
    }
    return failures == 0 ? 0 : 1;
}
