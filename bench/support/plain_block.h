// Helpers for benchmark programs that need nothing but the library and the
// C++ standard library (no Google Benchmark), so that they also build and
// run for armhf under qemu-arm: a block of several sectors under a key of
// this process's own, removed on exit and on SIGINT/SIGTERM/SIGHUP; the
// library's chatter kept off the console; core pinning; monotonic time;
// medians and percentiles.
#ifndef MOLK_BENCH_SUPPORT_PLAIN_BLOCK_H
#define MOLK_BENCH_SUPPORT_PLAIN_BLOCK_H

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

#include "sharedmem.h"

namespace plainbench {

// The keys of the blocks a program holds (0: a free slot), and the names
// of their companion objects (see SharedMem_WaitReadBuffer), made
// beforehand, so that the signal handler only makes system calls.
inline constexpr int kMaxBlocks = 4;
inline volatile sig_atomic_t g_keys[kMaxBlocks];
inline char g_companions[kMaxBlocks][48];

inline void RememberKey(key_t key) {
    for (int i = 0; i < kMaxBlocks; ++i) {
        if (g_keys[i] != 0) continue;
        snprintf(g_companions[i], sizeof g_companions[i], "/dev/shm/molkutil.wait.%08x",
                 static_cast<unsigned>(key));
        g_keys[i] = key;
        return;
    }
}

inline void ForgetKey(key_t key) {
    for (int i = 0; i < kMaxBlocks; ++i) {
        if (g_keys[i] == key) g_keys[i] = 0;
    }
}

inline key_t NewKey() {
    static unsigned serial = 0;
    ++serial;
    // 0x5C, then 16 bits of the pid and a serial: never IPC_PRIVATE (0),
    // and apart from the keys of the Google Benchmark programs (0x5B).
    unsigned pid = static_cast<unsigned>(getpid()) & 0xFFFFu;
    return static_cast<key_t>(0x5C000000u | (pid << 8) | (serial & 0xFFu));
}

// A child process to kill with the blocks (0: none), for programs whose
// writer process would otherwise outlive an interrupted run.
inline volatile sig_atomic_t g_childPid = 0;

// Only system calls here: the handler may run in the middle of stdio.
// Children that get the same signal remove the same objects: harmless.
inline void RemoveBlock(int sig) {
    if (g_childPid > 0) kill(static_cast<pid_t>(g_childPid), SIGKILL);
    for (int i = 0; i < kMaxBlocks; ++i) {
        key_t key = static_cast<key_t>(g_keys[i]);
        if (key == 0) continue;
        int shmId = shmget(key, 0, 0);
        if (shmId != -1) shmctl(shmId, IPC_RMID, nullptr);
        int semId = semget(key, 0, 0);
        if (semId != -1) semctl(semId, 0, IPC_RMID);
        unlink(g_companions[i]);
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

inline void InstallCleanupHandlers() {
    signal(SIGINT, RemoveBlock);
    signal(SIGTERM, RemoveBlock);
    signal(SIGHUP, RemoveBlock);
}

// Sends stdout and stderr to /dev/null for its scope.
class Quiet {
public:
    Quiet() {
        fflush(stdout);
        fflush(stderr);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        savedOut_ = dup(1);
        savedErr_ = dup(2);
        if (null >= 0) {
            dup2(null, 1);
            dup2(null, 2);
            close(null);
        }
    }
    ~Quiet() {
        fflush(stdout);
        fflush(stderr);
        if (savedOut_ >= 0) {
            dup2(savedOut_, 1);
            close(savedOut_);
        }
        if (savedErr_ >= 0) {
            dup2(savedErr_, 2);
            close(savedErr_);
        }
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

private:
    int savedOut_;
    int savedErr_;
};

// One block, attached in this process, deleted with the object. Children
// forked after Create use info() and handles of their own.
class Block {
public:
    Block() = default;
    ~Block() { Destroy(); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    // One ring sector over the whole block.
    bool Create(const char *total) {
        std::string desc = std::string(total) + "-bench";
        const char *descs[] = {desc.c_str()};
        return Create(total, descs, 1);
    }

    // Sectors in the allocator's description syntax, e.g. "8M-video" for
    // a ring or "4104K~513K~streaming" for a cache sector of 513 KiB slots.
    bool Create(const char *total, const char *const *descs, int count) {
        key_ = NewKey();
        RememberKey(key_);
        std::string totalText = total;
        std::vector<std::string> texts(descs, descs + count);  // the allocator may write in them
        std::vector<char *> pointers;
        for (std::string &text : texts) pointers.push_back(&text[0]);
        SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 64 * 1024, 0};
        Quiet quiet;
        if (SharedMemBlock_Allocate(key_, &totalText[0], count, &config, pointers.data()) != 0) {
            SharedMemBlock_Delete(key_);  // it may be half made
            ForgetKey(key_);
            key_ = 0;
            return false;
        }
        owner_ = getpid();
        return SharedMemBlock_Attach(&info_, 0, key_) == 0;
    }

    // Only the process that made the block deletes it; a forked child's
    // copy of the object does nothing.
    void Destroy() {
        if (key_ == 0 || getpid() != owner_) return;
        Quiet quiet;
        if (info_ != nullptr) SharedMemBlock_Detach(&info_);
        SharedMemBlock_Delete(key_);
        ForgetKey(key_);
        key_ = 0;
    }

    SharedMemBlockInfo *info() const { return info_; }
    int semId() const { return info_ != nullptr ? info_->iSemId : -1; }

private:
    key_t key_ = 0;
    pid_t owner_ = 0;
    SharedMemBlockInfo *info_ = nullptr;
};

inline SharedMemHandle *OpenSector(SharedMemBlockInfo *info, int sector, int attachId) {
    Quiet quiet;
    SharedMemHandle *handle = nullptr;
    return SharedMem_Initial(info, &handle, sector, attachId) == 0 ? handle : nullptr;
}

inline void CloseSector(SharedMemHandle **handle) {
    if (*handle == nullptr) return;
    Quiet quiet;
    SharedMem_Release(handle);
}

inline void FreeClient(SharedMemBufClient **client) {
    if (*client == nullptr) return;
    Quiet quiet;
    SharedMem_FreeBufClient(client);
}

inline bool PinToCpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
}

inline uint64_t NowNs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

inline void SleepUntilNs(uint64_t when) {
    struct timespec t;
    t.tv_sec = static_cast<time_t>(when / 1000000000ull);
    t.tv_nsec = static_cast<long>(when % 1000000000ull);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) != 0) {
    }
}

// The value below which `q` (0..1) of the samples lie; sorts in place.
inline double Quantile(std::vector<double> *v, double q) {
    if (v->empty()) return 0;
    std::sort(v->begin(), v->end());
    size_t i = static_cast<size_t>(q * static_cast<double>(v->size() - 1) + 0.5);
    return (*v)[std::min(i, v->size() - 1)];
}

inline double Median(std::vector<double> v) { return Quantile(&v, 0.5); }

// At the frame store's default level 6 every refused write and every
// reader placed anew prints a line; benchmarks run at level 4 (warnings
// and errors) unless SHM_DEBUG asks for another.
inline void QuietFrameStoreLog() {
    if (getenv("SHM_DEBUG") == nullptr) gShm_DebugLevel = (gShm_DebugLevel & ~7u) | 4u;
}

}  // namespace plainbench

#endif  // MOLK_BENCH_SUPPORT_PLAIN_BLOCK_H
