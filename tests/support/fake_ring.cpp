#include "fake_ring.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void FillCommon(SharedMemSectorHeader *slot, uint32_t type, uint32_t total, uint32_t start,
                uint32_t end) {
    slot->dwSectorType = type;
    slot->dwMemoryType = SHM_MEMORY_SYSV;
    slot->dwTotalSize = total;
    slot->dwPhysicalBase = 0;
    slot->dwEndOffset = end;
    slot->dwStartOffset = start;
}

}  // namespace

std::ostream &operator<<(std::ostream &os, const RingIndices &x) {
    return os << "O=" << x.o << " L=" << x.l << " B=" << x.b << " W=" << x.w
              << " off=" << x.writeOffset;
}

std::string Stdout(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

Printed PrintedWhile(int semId, const std::function<void()> &fn) {
    Printed out = {semId, "", {}};
    cookie_io_functions_t io = {};
    io.write = [](void *cookie, const char *data, size_t size) -> ssize_t {
        Printed *p = static_cast<Printed *>(cookie);
        p->text.append(data, size);
        p->lock.push_back(semctl(p->semId, 0, GETVAL));
        return static_cast<ssize_t>(size);
    };
    FILE *probe = fopencookie(&out, "w", io);
    setvbuf(probe, nullptr, _IONBF, 0);
    fflush(stdout);
    FILE *saved = stdout;
    stdout = probe;
    fn();
    stdout = saved;
    fclose(probe);
    return out;
}

FakeRing::FakeRing(const FakeRingOptions &options) {
    int sectors = options.withCache ? 2 : 1;
    uint32_t headers = static_cast<uint32_t>(sectors) * SHM_HEADER_SLOT_SIZE;
    uint32_t ringEnd = headers + options.dataBytes;
    uint32_t cacheBytes = options.withCache ? options.cacheSlotBytes * options.cacheSlots : 0;
    uint32_t total = ringEnd + cacheBytes;
    bytes_ = total;
    if (options.sharedAcrossFork) {
        void *p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        base_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t *>(p);
        mapped_ = true;
    } else {
        base_ = static_cast<uint8_t *>(calloc(1, bytes_));
    }
    if (base_ == nullptr) abort();

    // The buffer comes from calloc or mmap: aligned for any record.
    ring_ = static_cast<SharedMemSectorHeader *>(static_cast<void *>(base_));
    FillCommon(ring_, SHM_SECTOR_RING, total, headers, ringEnd);
    ring_->dwWriteOffset = headers;
    ring_->iOldestIndex = ring_->iLatestIndex = ring_->iBoundaryIndex = -1;
    ring_->iWriteIndex = 0;
    ring_->iMaxIndex = SHM_FRAME_ENTRIES - 1;
    strcpy(ring_->szTag, "video");
    ring_->byHasNext = options.withCache ? 1 : 0;

    if (options.withCache) {
        cache_ = static_cast<SharedMemCacheHeader *>(static_cast<void *>(base_ + SHM_HEADER_SLOT_SIZE));
        FillCommon(static_cast<SharedMemSectorHeader *>(static_cast<void *>(cache_)),
                   SHM_SECTOR_CACHE, total, ringEnd, total);
        cache_->dwPrimarySize = options.cacheSlotBytes;
        cache_->dwLeftSize = cacheBytes;
        cache_->iOldestIndex = cache_->iLatestIndex = -1;
        cache_->iPrimaryBoundary = cache_->iSecondaryBoundary = -1;
        cache_->iSecondaryEnd = SHM_CACHE_ENTRIES - 1;
        strcpy(cache_->szTag, "streaming");
        cache_->byHasNext = 0;
    }

    // IPC_PRIVATE: a set nobody else can find, made afresh for this ring.
    semId_ = SharedMem_SemaphoreInit(IPC_PRIVATE, sectors);
    if (semId_ == -1) abort();

    handle_.ptCacheHeader = cache_;
    handle_.pvBase = base_;
    handle_.ptHeader = ring_;
    handle_.iAttachId = 16;  // the writer pins nothing
    handle_.iSemId = semId_;
    handle_.iSectorIndex = 0;
    handle_.iCacheIndex = options.withCache ? 1 : 0;
}

FakeRing::~FakeRing() {
    semctl(semId_, 0, IPC_RMID);
    if (mapped_) {
        munmap(base_, bytes_);
    } else {
        free(base_);
    }
}

SharedMemHandle FakeRing::readerHandle(int attachId) const {
    SharedMemHandle reader = handle_;
    reader.iAttachId = attachId;
    return reader;
}

RingIndices FakeRing::indices() const {
    return {ring_->iOldestIndex, ring_->iLatestIndex, ring_->iBoundaryIndex, ring_->iWriteIndex,
            ring_->dwWriteOffset};
}

int FakeRing::write(uint32_t size, uint32_t flags, uint32_t tick) {
    uint8_t *place = nullptr;
    int result = SharedMem_QueryAutoRewindWriteBuffer(&handle_, &place, size);
    if (result != 0) return result;
    SharedMemWriteInfo info = {place, flags, size, tick};
    if (SharedMem_UpdateWritedBuffer(&handle_, &info) != 0) abort();
    return 0;
}

uint32_t FakeRing::status() {
    uint32_t status = 99;
    SharedMem_QueryWriteStatus(&handle_, &status);
    return status;
}

SharedMemBufClient *FakeRing::pin(int index, SharedMemHandle *reader) {
    if (SharedMem_SemaphoreP(semId_, 0) != 0) return nullptr;
    SharedMemFrameEntry &e = ring_->atFrame[index];
    bool usable = SharedMem_CheckIndexValid(ring_, index, e.dwTimeTick, nullptr) == 0 &&
                  !(e.dwFlags & SHM_FRAME_WRITING);
    if (usable) {
        if (reader->iAttachId >= 0 && reader->iAttachId < 16) ++e.abyAccessCount[reader->iAttachId];
        e.dwFlags &= ~SHM_FRAME_UNREAD;
    }
    SharedMem_SemaphoreV(semId_, 0);
    if (!usable) return nullptr;
    SharedMemBufClient *client =
        static_cast<SharedMemBufClient *>(calloc(1, sizeof(SharedMemBufClient)));
    client->iLastIndex = client->iDeliveredIndex = index;
    client->dwHeld = 1;
    client->dwLastTimeTick = client->dwDeliveredTimeTick = e.dwTimeTick;
    client->ptHandle = reader;
    client->dwHoldType = 1;
    return client;
}

bool FakeRing::isEmpty() const {
    const RingIndices x = indices();
    return x.o == -1 && x.l == -1 && x.b == -1 && x.w == 0 && x.writeOffset == start();
}

bool FakeRing::isOneGeneration() const {
    const RingIndices x = indices();
    return x.o == 0 && x.w >= 1 && x.l == x.w - 1 && x.b == x.l;
}

bool FakeRing::isJustRewound() const {
    const RingIndices x = indices();
    return x.o == 0 && x.w == 0 && x.l == x.b && x.writeOffset == start();
}

bool FakeRing::isTwoGenerations() const {
    const RingIndices x = indices();
    return x.l >= 0 && x.w == x.l + 1 && x.w <= x.o && x.o <= x.b;
}
