// Readers that sleep until the writer publishes, across processes.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fake_ring.h"
#include "framestore/wait.h"
#include "ipc_fixture.h"

namespace {

constexpr uint32_t kLong = 10000;  // ms: a wait that only a wake or a failure ends

std::string AreaName(key_t key) {
    char name[32];
    snprintf(name, sizeof name, "/molkutil.wait.%08x", static_cast<unsigned>(key));
    return name;
}

class WaitTest : public IpcTest {
protected:
    void SetUp() override {
        info_ = MakeBlock("1M", {"512K-video"}, &key_);
        ASSERT_NE(nullptr, info_);
        ASSERT_EQ(0, SharedMem_Initial(info_, &writer_, 0, 16));
        int fd = shm_open(AreaName(key_).c_str(), O_RDWR, 0);
        ASSERT_GE(fd, 0) << "the allocator makes the companion";
        void *p = mmap(nullptr, sizeof(shm::WaitArea), PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        ASSERT_NE(MAP_FAILED, p);
        area_ = static_cast<const shm::WaitArea *>(p);
    }
    void TearDown() override {
        SharedMem_Release(&writer_);
        if (area_ != nullptr) munmap(const_cast<shm::WaitArea *>(area_), sizeof *area_);
        IpcTest::TearDown();
    }
    void Publish(SharedMemHandle *h, uint32_t seq) {
        uint8_t *place = nullptr;
        ASSERT_EQ(0, SharedMem_QueryAutoRewindWriteBuffer(h, &place, 64));
        memcpy(place, &seq, sizeof seq);
        SharedMemWriteInfo info = {place, 0, 64, 1000 + seq};
        ASSERT_EQ(0, SharedMem_UpdateWritedBuffer(h, &info));
    }
    uint32_t Waiters() const { return __atomic_load_n(&area_->sectors[0].waiters, __ATOMIC_SEQ_CST); }
    // Polls (no timing asserted) until the sector counts `n` sleepers.
    bool WaitersBecome(uint32_t n) {
        for (int k = 0; k < 5000 && Waiters() != n; ++k) usleep(1000);
        return Waiters() == n;
    }
    pid_t Fork(int (*child)(key_t key)) {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) _exit(child(key_));
        return pid;
    }
    static int ExitStatus(pid_t pid) {
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
    }

    SharedMemBlockInfo *info_ = nullptr;
    key_t key_ = 0;
    SharedMemHandle *writer_ = nullptr;
    const shm::WaitArea *area_ = nullptr;
};

SharedMemHandle *ReaderHandle(key_t key, int attachId) {
    SharedMemBlockInfo *info = nullptr;
    SharedMemHandle *h = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return nullptr;
    return SharedMem_Initial(info, &h, 0, attachId) == 0 ? h : nullptr;
}

constexpr uint32_t kFrames = 300;

// Waits before every query; every frame must come, in order, each by a
// wake and none by a timeout.
int FollowEveryFrame(key_t key) {
    SharedMemHandle *h = ReaderHandle(key, 3);
    if (h == nullptr) return 1;
    SharedMemBufClient *client = nullptr;
    for (uint32_t want = 0; want < kFrames;) {
        if (SharedMem_WaitReadBuffer(h, client, kLong) != 0) return 2;
        SharedMemReadRequest request = {SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST, 0, 1000, 0,
                                        0,                  0, 0,    0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        while (SharedMem_QueryReadBuffer(h, &client, &data, &size, &request) == 0) {
            uint32_t seq;
            memcpy(&seq, data, sizeof seq);
            if (seq != want++) return 3;
            SharedMem_ReleaseReadBuffer(client);
        }
    }
    return 0;
}

TEST_F(WaitTest, ASleeperInAnotherProcessWakesForEveryFrame) {
    pid_t reader = Fork(FollowEveryFrame);
    for (uint32_t seq = 0; seq < kFrames; ++seq) {
        if (seq % 10 == 0) {  // now and then only once the reader sleeps
            ASSERT_TRUE(WaitersBecome(1)) << "frame " << seq;
        }
        Publish(writer_, seq);
    }
    EXPECT_EQ(0, ExitStatus(reader));
    EXPECT_EQ(0u, Waiters());
}

int SleepLong(key_t key) {
    SharedMemHandle *h = ReaderHandle(key, 4);
    return h != nullptr ? SharedMem_WaitReadBuffer(h, nullptr, kLong) : 9;
}

TEST_F(WaitTest, TimeoutsArgumentsAndAKilledSleeper) {
    // An empty ring: nothing to wait for. This process has slept once
    // before it forks, so its child must not register under its pid.
    EXPECT_EQ(1, SharedMem_WaitReadBuffer(writer_, nullptr, 20));
    // A sleeper killed in its sleep on the empty ring is dropped at the
    // next publication.
    pid_t sleeper = Fork(SleepLong);
    ASSERT_TRUE(WaitersBecome(1));
    kill(sleeper, SIGKILL);
    EXPECT_EQ(100 + SIGKILL, ExitStatus(sleeper));
    EXPECT_EQ(1u, Waiters());
    // A client on the latest frame has nothing to wait for either.
    Publish(writer_, 0);
    EXPECT_EQ(0u, Waiters());
    EXPECT_EQ(0, SharedMem_WaitReadBuffer(writer_, nullptr, 20));
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {SHM_READ_IN_PLACE, 0, 2000, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(writer_, &client, &data, &size, &request));
    SharedMem_ReleaseReadBuffer(client);
    EXPECT_EQ(1, SharedMem_WaitReadBuffer(writer_, client, 20));
    SharedMemHandle other = *writer_;
    EXPECT_EQ(-1, SharedMem_WaitReadBuffer(&other, client, 20));  // another handle's client
    EXPECT_EQ(-1, SharedMem_WaitReadBuffer(nullptr, nullptr, 20));
    SharedMem_FreeBufClient(&client);
}

// A writer that publishes without waking, as an older build would: it maps
// the segment itself, so no companion is known at its address.
int PublishUnannounced(key_t key) {
    usleep(50 * 1000);
    void *base = shmat(shmget(key, 0, 0), nullptr, 0);
    if (base == reinterpret_cast<void *>(-1)) return 1;
    SharedMemHandle h = {};
    h.pvBase = base;
    h.ptHeader = static_cast<SharedMemSectorHeader *>(base);
    h.iSemId = semget(key, 0, 0);
    h.iAttachId = 16;
    uint8_t *place = nullptr;
    if (SharedMem_QueryAutoRewindWriteBuffer(&h, &place, 64) != 0) return 2;
    SharedMemWriteInfo info = {place, 0, 64, 5000};
    return SharedMem_UpdateWritedBuffer(&h, &info) == 0 ? 0 : 3;
}

TEST_F(WaitTest, AWriterThatNeverWakesCostsOnlyTheTimeout) {
    Publish(writer_, 0);
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {SHM_READ_IN_PLACE, 0, 2000, 0, 0, 0, 0, 0};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(0, SharedMem_QueryReadBuffer(writer_, &client, &data, &size, &request));
    SharedMem_ReleaseReadBuffer(client);
    pid_t old = Fork(PublishUnannounced);
    // The frame of the silent writer is seen when the timeout ends.
    EXPECT_EQ(0, SharedMem_WaitReadBuffer(writer_, client, 1500));
    EXPECT_EQ(0, ExitStatus(old));
    EXPECT_EQ(0u, Waiters());
    SharedMem_FreeBufClient(&client);
}

TEST_F(WaitTest, TheCompanionGoesWithTheBlock) {
    EXPECT_EQ(0, SharedMemBlock_Delete(key_));
    int fd = shm_open(AreaName(key_).c_str(), O_RDONLY, 0);
    EXPECT_EQ(-1, fd);
    if (fd >= 0) close(fd);
}

}  // namespace
