// Processes that die at any moment: a writer and four readers (in place,
// through the cache, timeshift, adaptive) are killed with SIGKILL at random
// and restarted, the test standing in for the device's supervisor, which
// clears each dead reader's AttachID before its successor starts. Then the
// writer must still publish, no sector lock may be held, every delivered
// frame must have checked, and once every process has stopped no pin may
// be left. The soak runs the same processes for a fixed count of frames
// without killing any (ctest -L soak).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fake_ring.h"
#include "frame_procs.h"
#include "ipc_fixture.h"

namespace {

using procs::kKinds;
using procs::Shared;

constexpr char kStampPath[] = "/tmp/molk_torture.stamp";
constexpr int kWriter = kKinds;  // process slot of the writer, after the readers
constexpr int kProcesses = kKinds + 1;
// Liveness bounds, far beyond what a healthy run needs even under qemu.
constexpr int kPatienceMs = 120 * 1000;

uint32_t FromEnvironment(const char *name, uint32_t otherwise) {
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? static_cast<uint32_t>(strtoul(value, nullptr, 10))
                                              : otherwise;
}

void SleepMs(uint32_t ms) {
    timespec t = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    nanosleep(&t, nullptr);
}

// Waits until `done` or the patience is spent; false then.
template <typename F>
bool Eventually(F done) {
    for (int waited = 0; waited < kPatienceMs; waited += 5) {
        if (done()) return true;
        SleepMs(5);
    }
    return done();
}

class FrameProcesses : public IpcTest {
protected:
    void SetUp() override {
        void *area = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, area);
        s_ = static_cast<Shared *>(area);  // zero-filled by mmap
        s_->frameLimit = 0xFFFFFFFFu;
        const std::string ring = std::string("2M+") + procs::kRingTag + ":" + kStampPath;
        info_ = MakeBlock("3M", {ring, "512K~16K~streaming"}, &key_);
        ASSERT_NE(nullptr, info_);
        for (pid_t &pid : pids_) pid = -1;
    }
    void TearDown() override {
        for (int p = 0; p < kProcesses; ++p) Kill(p);
        munmap(s_, sizeof(Shared));
        unlink(kStampPath);
        IpcTest::TearDown();
    }

    void Start(int p) {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            _exit(p == kWriter ? procs::RunWriter(key_, s_) : procs::RunReader(key_, s_, p));
        }
        pids_[p] = pid;
    }
    // SIGKILL, then the supervisor's part: a dead reader's AttachID is
    // cleared before anybody uses it again. The pins it took off.
    int Kill(int p) {
        if (pids_[p] <= 0) return 0;
        kill(pids_[p], SIGKILL);
        waitpid(pids_[p], nullptr, 0);
        pids_[p] = -1;
        return p == kWriter ? 0 : SharedMemBlock_ClearAttachId(info_, procs::kAttachIdOf[p]);
    }
    // Asks every process to end on its own and collects the exit codes.
    void StopAll() {
        __atomic_store_n(&s_->stop, 1u, __ATOMIC_RELEASE);
        for (int p = 0; p < kProcesses; ++p) {
            if (pids_[p] <= 0) continue;
            int status = -1;
            waitpid(pids_[p], &status, 0);
            pids_[p] = -1;
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                << (p == kWriter ? "writer" : procs::kKindName[p]) << " status " << status;
        }
    }
    uint32_t Published() const { return __atomic_load_n(&s_->published, __ATOMIC_ACQUIRE); }
    void PublishStamp(uint32_t tick) {
        int fd = open(kStampPath, O_RDWR | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(4, pwrite(fd, &tick, 4, 0));
        close(fd);
    }

    // What must hold once every process has stopped.
    void ExpectCleanBlock() {
        semid_ds ds = {};
        ASSERT_EQ(0, semctl(info_->iSemId, 0, IPC_STAT, &ds));
        for (unsigned i = 0; i < ds.sem_nsems; ++i) {
            EXPECT_EQ(1, semctl(info_->iSemId, static_cast<int>(i), GETVAL)) << "lock " << i;
        }
        int pinned = 0;
        for (const SharedMemFrameEntry &e : Ring(info_, 0)->atFrame) {
            pinned += memcmp(e.abyAccessCount, g_abyNULLArray, 16) != 0;
        }
        for (const SharedMemCacheEntry &e : Cache(info_, 1)->atCache) {
            pinned += memcmp(e.abyAccessCount, g_abyNULLArray, 16) != 0;
        }
        EXPECT_EQ(0, pinned) << "entries or slots still pinned";
    }
    void ExpectEveryFrameChecked(const char *run) {
        printf("%s: %u frames, %u refusals; delivered", run, Published(), s_->refused);
        for (int k = 0; k < kKinds; ++k) printf(" %s %u", procs::kKindName[k], s_->delivered[k]);
        printf("\n");
        for (int k = 0; k < kKinds; ++k) {
            EXPECT_GT(s_->delivered[k], 0u) << procs::kKindName[k];
            EXPECT_EQ(0u, s_->bad[k]) << "broken or out of order, " << procs::kKindName[k];
        }
    }

    Shared *s_ = nullptr;
    SharedMemBlockInfo *info_ = nullptr;
    key_t key_ = 0;
    pid_t pids_[kProcesses];
};

// The kill count comes from the build: fewer under an emulator.
TEST_F(FrameProcesses, KilledAtRandomAndRestartedTheBlockStaysWhole) {
    DebugLevel quiet(2);  // conflicts and lost readers are the ordinary flow here
    const uint32_t kills = FromEnvironment("MOLK_TORTURE_KILLS", 1000);
    unsigned seed = static_cast<unsigned>(getpid());
    printf("torture: %u kills, seed %u\n", kills, seed);
    PublishStamp(0);
    for (int p = 0; p < kProcesses; ++p) Start(p);
    uint32_t killed[kProcesses] = {}, cleared = 0;
    for (uint32_t k = 0; k < kills; ++k) {
        SleepMs(rand_r(&seed) % 25);
        const int victim = static_cast<int>(rand_r(&seed) % kProcesses);
        const int pins = Kill(victim);
        ASSERT_GE(pins, 0);
        cleared += static_cast<uint32_t>(pins);
        ++killed[victim];
        // Now and then a window opens for the adaptive reader.
        if (k % 50 == 25) PublishStamp(procs::TickOf(Published()));
        Start(victim);
    }
    printf("torture: killed writer %u, readers %u %u %u %u; %u pins cleared\n", killed[kWriter],
           killed[0], killed[1], killed[2], killed[3], cleared);
    // The writer goes on after all the deaths around it, and every reader
    // started last reads again.
    const uint32_t before = Published();
    auto deliveredBy = [&](int k) { return __atomic_load_n(&s_->delivered[k], __ATOMIC_RELAXED); };
    uint32_t delivered[kKinds];
    for (int k = 0; k < kKinds; ++k) delivered[k] = deliveredBy(k);
    const bool going = Eventually([&] {
        bool all = Published() >= before + 1000;
        for (int k = 0; k < kKinds; ++k) all &= deliveredBy(k) > delivered[k];
        return all;
    });
    EXPECT_TRUE(going) << "the writer stalled at " << Published() << " or a reader reads no more";
    for (int k = 0; k < kKinds && !going; ++k) {
        EXPECT_GT(deliveredBy(k), delivered[k]) << procs::kKindName[k] << " reads no more";
    }
    StopAll();
    ExpectEveryFrameChecked("torture");
    ExpectCleanBlock();
}

// A long run without deaths: the frame count comes from the soak's
// environment; the ordinary test run skips it.
TEST_F(FrameProcesses, SoakEveryFrameWhole) {
    const uint32_t frames = FromEnvironment("MOLK_SOAK_FRAMES", 0);
    if (frames == 0) GTEST_SKIP() << "run by ctest -L soak";
    DebugLevel quiet(2);
    s_->frameLimit = frames;
    PublishStamp(0);
    for (int p = 0; p < kProcesses; ++p) Start(p);
    int status = -1;
    waitpid(pids_[kWriter], &status, 0);
    pids_[kWriter] = -1;
    EXPECT_EQ(0, status) << "writer";
    EXPECT_EQ(frames, Published());
    StopAll();
    ExpectEveryFrameChecked("soak");
    ExpectCleanBlock();
}

}  // namespace
