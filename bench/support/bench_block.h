// Handles and clients for the Google Benchmark programs, released with
// their objects, on top of the plain programs' blocks (plain_block.h: keys
// of this process's own, removed at the end, on every failure path and on
// SIGINT/SIGTERM/SIGHUP) and process helpers (bench_procs.h). Also the
// pinning of a process to one core for a scope.
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

#include "bench_procs.h"
#include "plain_block.h"
#include "sharedmem.h"

namespace molkbench {

// The plain programs' helpers that these benchmarks share.
using plainbench::Backoff;
using plainbench::Block;
using plainbench::CpuRelax;
using plainbench::g_childPid;
using plainbench::InstallCleanupHandlers;
using plainbench::PinToCpu;
using plainbench::Quiet;
using plainbench::QuietFrameStoreLog;

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

// The main of a program whose reporter prints summary lines beside Google
// Benchmark's console output: blocks removed on signals, the library quiet.
template <typename Reporter>
int RunWithSummary(int argc, char **argv) {
    InstallCleanupHandlers();
    QuietFrameStoreLog();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace molkbench

#endif  // MOLK_BENCH_SUPPORT_BENCH_BLOCK_H
