// Process helpers shared by the frame-store benchmarks, plain C++ so that
// the programs built for armhf can use them too: spinning politely, child
// processes that die with their parent, whole reads and writes on pipes,
// the frames' fill pattern and its check, pre-faulting a ring, and context
// switch counts.
#ifndef MOLK_BENCH_SUPPORT_BENCH_PROCS_H
#define MOLK_BENCH_SUPPORT_BENCH_PROCS_H

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "sharedmem.h"

namespace plainbench {

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
    unsigned spins = 1u << (*round < 6u ? *round : 6u);
    for (unsigned i = 0; i < spins; ++i) CpuRelax();
    ++*round;
}

// Every byte of frame n is (n & 0xFF); the reader sums the frame as 64-bit
// words and compares with what that fill gives.
inline uint8_t FillByte(uint32_t seq) { return static_cast<uint8_t>(seq & 0xFFu); }

inline uint64_t ExpectedSum(uint32_t seq, uint32_t size) {
    return static_cast<uint64_t>(size / 8) * (0x0101010101010101ull * FillByte(seq));
}

inline uint64_t SumWords(const uint8_t *data, uint32_t size) {
    uint64_t sum = 0;
    for (uint32_t off = 0; off + 8 <= size; off += 8) {
        uint64_t word;
        memcpy(&word, data + off, sizeof word);
        sum += word;
    }
    return sum;
}

inline bool WriteAll(int fd, const void *data, size_t size) {
    const uint8_t *p = static_cast<const uint8_t *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

inline bool ReadAll(int fd, void *data, size_t size) {
    uint8_t *p = static_cast<uint8_t *>(data);
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Voluntary and involuntary context switches of this process so far.
inline uint64_t Switches() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<uint64_t>(ru.ru_nvcsw) + static_cast<uint64_t>(ru.ru_nivcsw);
}

// The first lap of a fresh ring costs every process a page fault per page
// it touches; a device's processes run for days, so a measurement starts
// with every page of the ring mapped, as in the steady state. The writer
// writes its pages, a reader reads them.
inline void MapRing(SharedMemHandle *handle, bool write) {
    const SharedMemSectorHeader *ring = handle->ptHeader;
    volatile uint8_t *base = static_cast<uint8_t *>(handle->pvBase);
    uint8_t sink = 0;
    for (uint32_t off = ring->dwStartOffset; off < ring->dwEndOffset; off += 4096) {
        if (write) {
            base[off] = 0;
        } else {
            sink = static_cast<uint8_t>(sink ^ base[off]);
        }
    }
    (void)sink;
}

// Runs `body` in a child process that dies with this one and leaves the
// removal of the block to it; the child's exit code is what body returns.
template <typename Body>
pid_t Spawn(Body body) {
    fflush(stdout);
    fflush(stderr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    _exit(body());
}

// True when the child ended with exit code 0.
inline bool Reap(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace plainbench

#endif  // MOLK_BENCH_SUPPORT_BENCH_PROCS_H
