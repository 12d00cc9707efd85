#include "read_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace readtest {

std::ostream &operator<<(std::ostream &os, const Outcome &o) {
    return os << "{result " << o.result << ", reason " << o.reason << ", entry " << o.entry
              << ", cursor " << o.cursor << "}";
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
    for (int k = 0; k < n; ++k) {
        uint32_t flags = keyEvery == 0 || k % keyEvery == 0 ? kKey : Predicted();
        ASSERT_EQ(0, ring.write(size, flags, first + step * static_cast<uint32_t>(k)))
            << "frame " << k << " status " << ring.status();
    }
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
    request_ = SharedMemReadRequest{};
    request_.dwReadFlags = ask.flags;
    request_.dwRefTimeTick = ask.ref;
    request_.dwDelay = ask.delay;
    request_.dwMinInterval = ask.minInterval;
    request_.dwAdaptiveWindow = ask.window;
    request_.dwSizeLimit = ask.sizeLimit;
    request_.dwReason = 0xEEEE;  // shows a reason that was never written
    data_ = nullptr;
    size_ = 0;
    return SharedMem_QueryReadBuffer(&handle_, &client_, &data_, &size_, &request_);
}

Outcome Reader::Do(const Ask &ask, bool releaseFirst) {
    int result = Query(ask, releaseFirst);
    return {result, reason(), deliveredEntry(), client_ != nullptr ? client_->iLastIndex : -9};
}

int Reader::deliveredEntry() const {
    if (data_ == nullptr) return -1;
    uint32_t offset = static_cast<uint32_t>(data_ - ring_.base());
    for (int i = 0; i < SHM_FRAME_ENTRIES; ++i) {
        const SharedMemFrameEntry &e = ring_.ring()->atFrame[i];
        if (e.dwOffset == offset && e.dwTimeTick != 0 && i <= ring_.ring()->iBoundaryIndex) {
            return i;
        }
    }
    return -1;
}

uint32_t Reader::deliveredTick() const {
    int i = deliveredEntry();
    return i < 0 ? 0 : ring_.ring()->atFrame[i].dwTimeTick;
}

int Reader::pins(int i) const {
    if (handle_.iAttachId < 0 || handle_.iAttachId > 15) return 0;
    return ring_.ring()->atFrame[i].abyAccessCount[handle_.iAttachId];
}

bool Unpinned(FakeRing &ring, int i) {
    return memcmp(ring.entry(i).abyAccessCount, g_abyNULLArray, 16) == 0;
}

namespace {
int g_stampFiles = 0;
}

StampFile::StampFile(FakeRing &ring) {
    path_ = "/tmp/molk_stamp_" + std::to_string(getpid()) + "_" + std::to_string(++g_stampFiles);
    unlink(path_.c_str());
    memset(ring.ring()->szSecondTag, 0, sizeof ring.ring()->szSecondTag);
    strncpy(ring.ring()->szSecondTag, path_.c_str(), SHM_TAG_MAX);
}

StampFile::StampFile(std::string path) : path_(std::move(path)) { unlink(path_.c_str()); }

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

}  // namespace readtest
