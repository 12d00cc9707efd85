// Blocks, handles and clients for benchmarks, under keys of this process's
// own (derived from its pid), removed at the end of their benchmark, on
// every failure path and on SIGINT/SIGTERM/SIGHUP; the library's chatter on
// block creation and deletion is kept off the console. Also the pinning of
// a process to one core and the backoff of a polling loop.
#ifndef MOLK_BENCH_SUPPORT_BENCH_BLOCK_H
#define MOLK_BENCH_SUPPORT_BENCH_BLOCK_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vector>

#include "plain_block.h"
#include "sharedmem.h"

namespace molkbench {

// The plain programs' helpers that these benchmarks share.
using plainbench::PinToCpu;
using plainbench::Quiet;
using plainbench::QuietFrameStoreLog;

inline constexpr int kMaxLiveKeys = 4;
inline volatile sig_atomic_t g_liveKeys[kMaxLiveKeys];  // 0: free
inline volatile sig_atomic_t g_childPid = 0;           // the current writer process

inline key_t NewKey() {
    static unsigned serial = 0;
    ++serial;
    // 0x5B, then 16 bits of the pid and a serial: never IPC_PRIVATE (0).
    unsigned pid = static_cast<unsigned>(getpid()) & 0xFFFFu;
    return static_cast<key_t>(0x5B000000u | (pid << 8) | (serial & 0xFFu));
}

inline void RememberKey(key_t key) {
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        if (g_liveKeys[i] == 0) {
            g_liveKeys[i] = key;
            return;
        }
    }
}

inline void ForgetKey(key_t key) {
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        if (g_liveKeys[i] == key) g_liveKeys[i] = 0;
    }
}

// Only system calls here: the handler may run in the middle of stdio.
inline void RemoveEverything(int sig) {
    if (g_childPid > 0) kill(static_cast<pid_t>(g_childPid), SIGKILL);
    for (int i = 0; i < kMaxLiveKeys; ++i) {
        key_t key = static_cast<key_t>(g_liveKeys[i]);
        if (key == 0) continue;
        int shmId = shmget(key, 0, 0);
        if (shmId != -1) shmctl(shmId, IPC_RMID, nullptr);
        int semId = semget(key, 0, 0);
        if (semId != -1) semctl(semId, 0, IPC_RMID);
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

inline void InstallCleanupHandlers() {
    signal(SIGINT, RemoveEverything);
    signal(SIGTERM, RemoveEverything);
    signal(SIGHUP, RemoveEverything);
}

// One block, attached, deleted with the object: a single ring sector, or
// the sectors the caller describes.
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
            // A block of ours may be half made: shmget succeeded, semget not.
            SharedMemBlock_Delete(key_);
            ForgetKey(key_);
            key_ = 0;
            return false;
        }
        return SharedMemBlock_Attach(&info_, 0, key_) == 0;
    }

    void Destroy() {
        Quiet quiet;
        if (info_ != nullptr) SharedMemBlock_Detach(&info_);
        if (key_ != 0) {
            SharedMemBlock_Delete(key_);
            ForgetKey(key_);
            key_ = 0;
        }
    }

    SharedMemBlockInfo *info() const { return info_; }

private:
    key_t key_ = 0;
    SharedMemBlockInfo *info_ = nullptr;
};

// A sector handle, released with the object.
class Handle {
public:
    Handle() = default;
    ~Handle() {
        if (handle_ != nullptr) SharedMem_Release(&handle_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    bool Open(SharedMemBlockInfo *info, int attachId) {
        Quiet quiet;
        return info != nullptr && SharedMem_Initial(info, &handle_, 0, attachId) == 0;
    }
    SharedMemHandle *get() const { return handle_; }

private:
    SharedMemHandle *handle_ = nullptr;
};

// A reader client, freed (with its pin) with the object.
class Client {
public:
    Client() = default;
    ~Client() {
        if (client_ != nullptr) {
            Quiet quiet;
            SharedMem_FreeBufClient(&client_);
        }
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    SharedMemBufClient **address() { return &client_; }
    SharedMemBufClient *get() const { return client_; }

private:
    SharedMemBufClient *client_ = nullptr;
};

// The first query of a new client prints the client's address: done here,
// quietly, so that the measured loops only ever meet an existing client.
inline int FirstQuery(SharedMemHandle *handle, Client *client, SharedMemReadRequest *request) {
    Quiet quiet;
    uint8_t *data = nullptr;
    uint32_t size = 0;
    int result = SharedMem_QueryReadBuffer(handle, client->address(), &data, &size, request);
    if (result == 0) SharedMem_ReleaseReadBuffer(client->get());
    return result;
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    __asm__ __volatile__("yield" ::: "memory");
#else
    __asm__ __volatile__("" ::: "memory");
#endif
}

// Spins 1, 2, 4 ... 64 pauses (a few microseconds at most, about one
// system call): an idle reader gives the writer time without falling far
// behind it.
inline void Backoff(unsigned *round) {
    unsigned spins = 1u << std::min(*round, 6u);
    for (unsigned i = 0; i < spins; ++i) CpuRelax();
    ++*round;
}

// Pins the calling process to one core for its scope and restores the
// affinity it had.
class CpuPin {
public:
    explicit CpuPin(int cpu) {
        saved_ok_ = sched_getaffinity(0, sizeof saved_, &saved_) == 0;
        pinned_ = PinToCpu(cpu);
    }
    ~CpuPin() {
        if (saved_ok_) sched_setaffinity(0, sizeof saved_, &saved_);
    }
    CpuPin(const CpuPin &) = delete;
    CpuPin &operator=(const CpuPin &) = delete;
    bool pinned() const { return pinned_; }

private:
    cpu_set_t saved_;
    bool saved_ok_ = false;
    bool pinned_ = false;
};

inline constexpr uint32_t kBaseTick = 1000;  // ms; frame n carries kBaseTick + n

inline bool PublishFrame(SharedMemHandle *writer, uint32_t size, uint32_t flags, uint32_t tick) {
    uint8_t *place = nullptr;
    if (SharedMem_QueryAutoRewindWriteBuffer(writer, &place, size) != 0) return false;
    SharedMemWriteInfo info = {place, flags, size, tick};
    return SharedMem_UpdateWritedBuffer(writer, &info) == 0;
}

}  // namespace molkbench

#endif  // MOLK_BENCH_SUPPORT_BENCH_BLOCK_H
