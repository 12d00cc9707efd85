#include "fake_ring.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

std::ostream &operator<<(std::ostream &os, const RingIndices &x) {
    return os << "O=" << x.o << " L=" << x.l << " B=" << x.b << " W=" << x.w
              << " off=" << x.writeOffset;
}

Printed PrintedWhile(int semId, const std::function<void()> &fn) {
    Printed out = {semId, "", false};
    cookie_io_functions_t io = {};
    io.write = [](void *cookie, const char *data, size_t size) -> ssize_t {
        Printed *p = static_cast<Printed *>(cookie);
        p->text.append(data, size);
        p->underLock |= semctl(p->semId, 0, GETVAL) != 1;
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

FakeRing::FakeRing(uint32_t dataBytes) {
    const uint32_t end = SHM_HEADER_SLOT_SIZE + dataBytes;
    bytes_ = end;
    void *p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) abort();
    base_ = static_cast<uint8_t *>(p);  // zero-filled, aligned for any record
    ring_ = static_cast<SharedMemSectorHeader *>(p);
    ring_->dwSectorType = SHM_SECTOR_RING;
    ring_->dwMemoryType = SHM_MEMORY_SYSV;
    ring_->dwTotalSize = ring_->dwEndOffset = end;
    ring_->dwStartOffset = ring_->dwWriteOffset = SHM_HEADER_SLOT_SIZE;
    ring_->iOldestIndex = ring_->iLatestIndex = ring_->iBoundaryIndex = -1;
    ring_->iMaxIndex = SHM_FRAME_ENTRIES - 1;
    strcpy(ring_->szTag, "video");

    // IPC_PRIVATE: a set nobody else can find, made afresh for this ring.
    semId_ = SharedMem_SemaphoreInit(IPC_PRIVATE, 1);
    if (semId_ == -1) abort();
    handle_.pvBase = base_;
    handle_.ptHeader = ring_;
    handle_.iAttachId = 16;  // the writer pins nothing
    handle_.iSemId = semId_;
}

FakeRing::~FakeRing() {
    semctl(semId_, 0, IPC_RMID);
    munmap(base_, bytes_);
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
        ++e.abyAccessCount[reader->iAttachId];
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

std::ostream &operator<<(std::ostream &os, const Outcome &o) {
    return os << "{result " << o.result << ", reason " << o.reason << ", entry " << o.entry
              << ", cursor " << o.cursor << "}";
}

std::vector<uint32_t> Ticks(int n, uint32_t first, uint32_t step) {
    std::vector<uint32_t> ticks;
    for (int k = 0; k < n; ++k) ticks.push_back(first + step * static_cast<uint32_t>(k));
    return ticks;
}

void WriteFrames(FakeRing &ring, const std::vector<uint32_t> &ticks,
                 const std::vector<uint32_t> &flags, uint32_t size) {
    ASSERT_EQ(ticks.size(), flags.size());
    for (size_t i = 0; i < ticks.size(); ++i) {
        ASSERT_EQ(0, ring.write(size, flags[i], ticks[i])) << "frame " << i << " status "
                                                            << ring.status();
    }
}

void WriteRun(FakeRing &ring, int n, uint32_t first, uint32_t step, int keyEvery,
              uint32_t size) {
    std::vector<uint32_t> flags;
    for (int k = 0; k < n; ++k) {
        flags.push_back(keyEvery == 0 || k % keyEvery == 0 ? kKey : Predicted());
    }
    WriteFrames(ring, Ticks(n, first, step), flags, size);
}

Reader::Reader(FakeRing &ring, int attachId)
    : ring_(ring), handle_(ring.readerHandle(attachId)) {
    handle_.pdwAdaptiveStamp = nullptr;
}

Reader::~Reader() {
    SharedMem_FreeBufClient(&client_);
    if (handle_.pdwAdaptiveStamp != nullptr) munmap(handle_.pdwAdaptiveStamp, sizeof(uint32_t));
}

int Reader::Query(const Ask &ask, bool releaseFirst) {
    if (releaseFirst && client_ != nullptr) SharedMem_ReleaseReadBuffer(client_);
    request_ = {ask.flags, ask.delay, ask.ref, ask.window, 0, ask.minInterval, 0, 0};
    request_.dwReason = 0xEEEE;  // shows a reason that was never written
    data_ = nullptr;
    uint32_t size = 0;
    return SharedMem_QueryReadBuffer(&handle_, &client_, &data_, &size, &request_);
}

Outcome Reader::Do(const Ask &ask, bool releaseFirst) {
    int result = Query(ask, releaseFirst);
    return {result, reason(), deliveredEntry(), client_ != nullptr ? client_->iLastIndex : -9};
}

int Reader::deliveredEntry() const {
    if (data_ == nullptr) return -1;
    uint32_t offset = static_cast<uint32_t>(data_ - ring_.base());
    for (int i = 0; i <= ring_.ring()->iBoundaryIndex; ++i) {
        const SharedMemFrameEntry &e = ring_.ring()->atFrame[i];
        if (e.dwOffset == offset && e.dwTimeTick != 0) return i;
    }
    return -1;
}

bool Unpinned(FakeRing &ring, int i) {
    return memcmp(ring.entry(i).abyAccessCount, g_abyNULLArray, 16) == 0;
}

StampFile::StampFile(FakeRing &ring) {
    static int made = 0;
    path_ = "/tmp/molk_stamp_" + std::to_string(getpid()) + "_" + std::to_string(++made);
    unlink(path_.c_str());
    memset(ring.ring()->szSecondTag, 0, sizeof ring.ring()->szSecondTag);
    strncpy(ring.ring()->szSecondTag, path_.c_str(), SHM_TAG_MAX);
}

StampFile::~StampFile() { unlink(path_.c_str()); }

void StampFile::Publish(uint32_t tick) {
    int fd = open(path_.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(sizeof tick), pwrite(fd, &tick, sizeof tick, 0));
    close(fd);
}

uint32_t StampFile::Read() const {
    uint32_t tick = 0xFFFFFFFFu;
    int fd = open(path_.c_str(), O_RDONLY);
    if (fd < 0) return tick;
    if (pread(fd, &tick, sizeof tick, 0) != static_cast<ssize_t>(sizeof tick)) tick = 0xFFFFFFFEu;
    close(fd);
    return tick;
}
