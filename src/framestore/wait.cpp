#include "framestore/wait.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include "framestore/attachments.h"
#include "framestore/ring.h"

namespace {

using shm::WaitArea;
using shm::WaitSector;

// A waiter whose companion cannot be had looks again this often, in ms.
constexpr uint32_t kPollMs = 10;

void NameOf(key_t key, char (&name)[32]) {
    snprintf(name, sizeof name, "/molkutil.wait.%08x", static_cast<unsigned>(key));
}

WaitArea *MapArea(key_t key) {
    char name[32];
    NameOf(key, name);
    int fd = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    fchmod(fd, 0666);  // every process of the device may wait; fails harmlessly if not ours
    struct stat st;
    bool sized = fstat(fd, &st) == 0 &&
                 (st.st_size >= static_cast<off_t>(sizeof(WaitArea)) ||
                  ftruncate(fd, sizeof(WaitArea)) == 0);
    void *p = sized ? mmap(nullptr, sizeof(WaitArea), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                    : MAP_FAILED;
    close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<WaitArea *>(p);
}

WaitSector *SectorOf(const SharedMemHandle *handle) {
    if (handle->iSectorIndex < 0 || handle->iSectorIndex >= shm::kWaitSectors) return nullptr;
    const shm::Attachment *a = shm::AttachmentAt(handle->pvBase);
    return a != nullptr && a->wait != nullptr ? &a->wait->sectors[handle->iSectorIndex] : nullptr;
}

long Futex(uint32_t *word, int op, uint32_t value, const struct timespec *timeout) {
    return syscall(SYS_futex, word, op, value, timeout, nullptr, 0);
}

// A sleeper registers by its pid, and getpid() is a system call: a whole
// microsecond on some devices, twice per sleep. The pid is kept per
// process and forgotten in a child made by fork(); a child cloned without
// fork() would register under its parent's pid, which only delays the
// freeing of its slot until the parent is gone too.
int32_t g_pid = 0;

void ForgetPid() { __atomic_store_n(&g_pid, 0, __ATOMIC_RELAXED); }

int32_t MyPid() {
    int32_t pid = __atomic_load_n(&g_pid, __ATOMIC_RELAXED);
    if (pid != 0) return pid;
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, ForgetPid); });
    pid = static_cast<int32_t>(getpid());
    __atomic_store_n(&g_pid, pid, __ATOMIC_RELAXED);
    return pid;
}

// Frees the slots of waiters that died in their sleep.
void DropDeadWaiters(WaitSector *s) {
    for (int32_t &slot : s->pids) {
        int32_t pid = __atomic_load_n(&slot, __ATOMIC_RELAXED);
        if (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH) continue;
        if (__atomic_compare_exchange_n(&slot, &pid, 0, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_RELAXED)) {
            __atomic_fetch_sub(&s->waiters, 1, __ATOMIC_SEQ_CST);
        }
    }
}

// Registers this process as a sleeper of the sector; the slot, or -1 when
// every slot is held by a live waiter.
int Register(WaitSector *s) {
    const int32_t me = MyPid();
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < shm::kWaiterSlots; ++i) {
            int32_t free = 0;
            if (__atomic_compare_exchange_n(&s->pids[i], &free, me, false, __ATOMIC_SEQ_CST,
                                            __ATOMIC_RELAXED)) {
                __atomic_fetch_add(&s->waiters, 1, __ATOMIC_SEQ_CST);
                return i;
            }
        }
        DropDeadWaiters(s);
    }
    return -1;
}

void Unregister(WaitSector *s, int slot) {
    int32_t me = MyPid();
    if (__atomic_compare_exchange_n(&s->pids[slot], &me, 0, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_RELAXED)) {
        __atomic_fetch_sub(&s->waiters, 1, __ATOMIC_SEQ_CST);
    }
}

// True when the ring holds a frame after the client's cursor: the cursor
// is not on the latest frame, or its entry has been written anew.
bool FrameAfter(const SharedMemSectorHeader *ring, const SharedMemBufClient *client) {
    int latest = shm::LoadIndex(ring->iLatestIndex);
    if (!shm::InTable(latest)) return false;
    if (client == nullptr || client->iLastIndex != latest) return true;
    return shm::LoadWord(ring->atFrame[latest].dwTimeTick) != client->dwLastTimeTick;
}

uint64_t NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

struct timespec SpanOf(uint64_t ms) {
    struct timespec span;
    span.tv_sec = static_cast<time_t>(ms / 1000);
    span.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    return span;
}

// One sleep of at most `ms`: on the sector's publish count when this
// process could register, else a plain nap.
void SleepOnce(const SharedMemSectorHeader *ring, const SharedMemBufClient *client,
               WaitSector *s, uint64_t ms) {
    int slot = s != nullptr ? Register(s) : -1;
    if (slot < 0) {
        struct timespec nap = SpanOf(ms < kPollMs ? ms : kPollMs);
        nanosleep(&nap, nullptr);
        return;
    }
    // Registered before the count is read, and the writer counts before it
    // looks for sleepers: either it sees this sleeper, or the sleep below
    // sees the new count and does not begin.
    uint32_t seen = __atomic_load_n(&s->published, __ATOMIC_SEQ_CST);
    if (!FrameAfter(ring, client)) {
        struct timespec span = SpanOf(ms);
        Futex(&s->published, FUTEX_WAIT, seen, &span);
    }
    Unregister(s, slot);
}

}  // namespace

namespace shm {

WaitArea *OpenWaitArea(key_t key) { return MapArea(key); }

void MakeWaitArea(key_t key) {
    WaitArea *area = MapArea(key);
    if (area != nullptr) munmap(area, sizeof(WaitArea));
}

void CloseWaitArea(WaitArea *area) {
    if (area != nullptr) munmap(area, sizeof(WaitArea));
}

void RemoveWaitArea(key_t key) {
    char name[32];
    NameOf(key, name);
    shm_unlink(name);
}

void WakeReaders(const SharedMemHandle *handle) {
    WaitSector *s = SectorOf(handle);
    if (s == nullptr) return;
    __atomic_fetch_add(&s->published, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&s->waiters, __ATOMIC_SEQ_CST) == 0) return;
    // Nobody woken although somebody is counted: a sleeper may have died.
    if (Futex(&s->published, FUTEX_WAKE, INT_MAX, nullptr) == 0) DropDeadWaiters(s);
}

}  // namespace shm

extern "C" {

MOLK_API int SharedMem_WaitReadBuffer(SharedMemHandle *ptHandle, SharedMemBufClient *ptClient,
                                      uint32_t timeoutMs) {
    if (ptHandle == nullptr || ptHandle->ptHeader == nullptr ||
        ptHandle->ptHeader->dwSectorType != SHM_SECTOR_RING ||
        (ptClient != nullptr && ptClient->ptHandle != ptHandle)) {
        return -1;
    }
    const SharedMemSectorHeader *ring = ptHandle->ptHeader;
    WaitSector *s = SectorOf(ptHandle);
    uint64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        if (FrameAfter(ring, ptClient)) return 0;
        uint64_t now = NowMs();
        if (now >= deadline) return 1;
        SleepOnce(ring, ptClient, s, deadline - now);
    }
}

}  // extern "C"
