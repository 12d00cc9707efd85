// The named semaphore across processes: contention, the creation race, a
// killed holder, a removed set, and the liveness test of a handle.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "molkutil.h"
#include "moduleservices/named_semaphore.h"
#include "services_support.h"

namespace {

using namespace svc;

constexpr char kPath[] = "/tmp/semaphore-test.lock";

// Counters shared by the processes of a test.
struct Shared {
    int inside;    // processes between lock and unlock
    int overlaps;  // times a process found another one there
    int acquired;
};

int SetsInNamespace() {
    FILE *file = fopen("/proc/sysvipc/sem", "r");
    if (file == nullptr) return -1;
    int lines = 0;
    for (int c; (c = fgetc(file)) != EOF;) lines += c == '\n';
    fclose(file);
    return lines - 1;  // a header line
}

int Value(const MolkSemaphoreHandle *handle) { return semctl(molk::SemaphoreId(handle), 0, GETVAL); }

// Enters the lock of kPath, counts itself in and out, gives it back.
int CriticalSection(Shared *shared, int rounds) {
    MolkSemaphoreHandle *handle = nullptr;
    if (MolkSemaphore_Initial(&handle, kPath) != 0) return 10;
    for (int i = 0; i < rounds; ++i) {
        if (MolkSemaphore_Lock(handle) != 0) return 11;
        if (__atomic_add_fetch(&shared->inside, 1, __ATOMIC_SEQ_CST) != 1) {
            __atomic_add_fetch(&shared->overlaps, 1, __ATOMIC_SEQ_CST);
        }
        sched_yield();  // stays inside a while
        __atomic_sub_fetch(&shared->inside, 1, __ATOMIC_SEQ_CST);
        if (MolkSemaphore_Unlock(handle) != 0) return 12;
    }
    free(handle);  // the set stays for the others
    return 0;
}

class SemaphoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        WriteText(kPath, "lock");
        setsBefore_ = SetsInNamespace();
        void *map = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, map);
        shared_ = static_cast<Shared *>(map);
    }
    void TearDown() override {
        int id = semget(ftok(kPath, molk::kSemaphoreProjectId), 0, 0);
        if (id != -1) semctl(id, 0, IPC_RMID);
        EXPECT_EQ(-1, id) << "a set was left under the test's key";
        EXPECT_EQ(setsBefore_, SetsInNamespace());
        munmap(shared_, sizeof(Shared));
        unlink(kPath);
    }
    int setsBefore_ = 0;
    Shared *shared_ = nullptr;
};

TEST_F(SemaphoreTest, MissingPathMakesNoSet) {
    MolkSemaphoreHandle *handle = reinterpret_cast<MolkSemaphoreHandle *>(0x1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, MolkSemaphore_Initial(&handle, "/tmp/no-such-lock"));
    EXPECT_EQ("[MolkSemaphore_Initial] Semaphore initial failed, missing resource config\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(reinterpret_cast<MolkSemaphoreHandle *>(0x1), handle);
    EXPECT_EQ(setsBefore_, SetsInNamespace());
}

// Processes that open a path with no set at the same moment: only one of
// them sets it free, so the lock never has two holders, and later openers
// leave the value alone.
TEST_F(SemaphoreTest, CreationRaceSetsTheLockFreeOnce) {
    for (int round = 0; round < 60; ++round) {
        int gate[2];
        ASSERT_EQ(0, pipe(gate));
        std::vector<pid_t> children;
        for (int p = 0; p < 5; ++p) {
            children.push_back(Spawn([this, &gate] {
                close(gate[1]);
                char byte;
                if (read(gate[0], &byte, 1) != 0) return 20;  // opened by the close
                return CriticalSection(shared_, 3);
            }));
        }
        close(gate[0]);
        close(gate[1]);
        for (pid_t child : children) ASSERT_EQ(0, Reap(child)) << "round " << round;
        ASSERT_EQ(0, shared_->overlaps) << "round " << round;
        int id = semget(ftok(kPath, molk::kSemaphoreProjectId), 0, 0);
        ASSERT_NE(-1, id);
        EXPECT_EQ(1, semctl(id, 0, GETVAL));
        semctl(id, 0, IPC_RMID);
    }
}

// A set made but never given a value (its creator killed in between) is
// made anew after a bounded wait, free.
TEST_F(SemaphoreTest, SetOfAKilledCreatorIsMadeAnew) {
    const int stale = semget(ftok(kPath, molk::kSemaphoreProjectId), 1, IPC_CREAT | 0666);
    ASSERT_NE(-1, stale);
    MolkSemaphoreHandle *handle = nullptr;
    ASSERT_EQ(0, MolkSemaphore_Initial(&handle, kPath));
    EXPECT_NE(stale, molk::SemaphoreId(handle));
    EXPECT_EQ(1, Value(handle));
    EXPECT_EQ(-1, semctl(stale, 0, GETVAL));
    EXPECT_EQ(0, MolkSemaphore_Release(&handle));
}

// A waiter goes on when the holder is killed; its opening of the held lock
// does not set it free. (That a waiter goes on after an unlock, the
// creation race shows.)
TEST_F(SemaphoreTest, WaiterGoesOnWhenTheHolderDies) {
    const pid_t holder = Spawn([this] {
        MolkSemaphoreHandle *h = nullptr;
        if (MolkSemaphore_Initial(&h, kPath) != 0 || MolkSemaphore_Lock(h) != 0) return 1;
        __atomic_store_n(&shared_->acquired, -1, __ATOMIC_SEQ_CST);
        pause();
        return 0;
    });
    ASSERT_TRUE(Eventually([this] { return __atomic_load_n(&shared_->acquired, __ATOMIC_SEQ_CST) == -1; }));
    const pid_t waiter = Spawn([this] {
        MolkSemaphoreHandle *h = nullptr;
        if (MolkSemaphore_Initial(&h, kPath) != 0 || MolkSemaphore_Lock(h) != 0) return 1;
        __atomic_store_n(&shared_->acquired, 1, __ATOMIC_SEQ_CST);
        return MolkSemaphore_Unlock(h) == 0 ? 0 : 2;
    });
    MolkSemaphoreHandle *handle = nullptr;
    ASSERT_EQ(0, MolkSemaphore_Initial(&handle, kPath));
    const int id = molk::SemaphoreId(handle);
    ASSERT_TRUE(Eventually([id] { return semctl(id, 0, GETNCNT) == 1; }));
    EXPECT_EQ(-1, shared_->acquired);
    kill(holder, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, Reap(holder));
    EXPECT_EQ(0, Reap(waiter));
    EXPECT_EQ(1, shared_->acquired);
    EXPECT_EQ(1, Value(handle));
    EXPECT_EQ(0, MolkSemaphore_Release(&handle));
}

// Removal ends the lock for everyone: a blocked waiter and a later unlock
// fail with their messages, a second removal only says so.
TEST_F(SemaphoreTest, RemovedSetFailsItsUsers) {
    MolkSemaphoreHandle *none = nullptr;
    EXPECT_EQ(-1, MolkSemaphore_Release(nullptr));
    EXPECT_EQ(-1, MolkSemaphore_Release(&none));
    EXPECT_EQ(-1, MolkSemaphore_Lock(nullptr));
    EXPECT_EQ(-1, MolkSemaphore_Unlock(nullptr));

    MolkSemaphoreHandle *first = nullptr, *second = nullptr;
    ASSERT_EQ(0, MolkSemaphore_Initial(&first, kPath));
    ASSERT_EQ(0, MolkSemaphore_Initial(&second, kPath));
    ASSERT_EQ(0, MolkSemaphore_Lock(first));
    const char *log = "/tmp/semaphore-waiter.log";
    pid_t waiter = Spawn([log] {
        if (freopen(log, "w", stdout) == nullptr) return 3;
        MolkSemaphoreHandle *h = nullptr;
        if (MolkSemaphore_Initial(&h, kPath) != 0) return 1;
        int result = MolkSemaphore_Lock(h);
        free(h);
        fflush(stdout);
        return result == -1 ? 0 : 2;
    });
    const int id = molk::SemaphoreId(first);
    ASSERT_TRUE(Eventually([id] { return semctl(id, 0, GETNCNT) == 1; }));
    EXPECT_EQ(0, MolkSemaphore_Release(&first));
    EXPECT_EQ(0, Reap(waiter));
    EXPECT_EQ("semaphore_p failed\nMolkSemaphore_Lock-190 failed!\n", ReadText(log));
    unlink(log);

    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, MolkSemaphore_Unlock(second));
    EXPECT_EQ(0, MolkSemaphore_Release(&second));
    EXPECT_EQ(-1, semaphore_p(id));
    EXPECT_EQ(-1, set_semavalue(id));
    EXPECT_EQ("semaphore_v failed\nMolkSemaphore_Unlock-210 failed!\n"
              "[MolkSemaphore_Release] Fail to remove ID in semaphore array\n"
              "semaphore_p failed\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(nullptr, second);
}

// A handle is live while its path names its key and that key names its
// set: not after the set is made anew, nor after a rename gives the path a
// file of another identity.
TEST_F(SemaphoreTest, LivenessFollowsTheSetAndThePath) {
    MolkSemaphoreHandle *old = nullptr, *remover = nullptr, *current = nullptr;
    ASSERT_EQ(0, MolkSemaphore_Initial(&old, kPath));
    EXPECT_EQ(semget(ftok(kPath, 101), 1, 0), molk::SemaphoreId(old));
    EXPECT_EQ(1, Value(old));
    EXPECT_TRUE(molk::SemaphoreIsLive(old, kPath));
    EXPECT_EQ(ftok(kPath, 101), molk::SemaphoreKey(kPath));
    EXPECT_EQ(molk::SemaphoreKey(kPath), molk::SemaphoreKeyOf(old));
    ASSERT_EQ(0, MolkSemaphore_Initial(&remover, kPath));
    ASSERT_EQ(0, MolkSemaphore_Release(&remover));
    EXPECT_FALSE(molk::SemaphoreIsLive(old, kPath));
    EXPECT_EQ(-1, molk::SemaphoreKeyOf(old));
    ASSERT_EQ(0, MolkSemaphore_Initial(&current, kPath));
    EXPECT_TRUE(molk::SemaphoreIsLive(current, kPath));

    const std::string replacement = std::string(kPath) + ".new";
    WriteText(replacement, "other file");
    ASSERT_EQ(0, rename(replacement.c_str(), kPath));
    EXPECT_NE(molk::SemaphoreKeyOf(current), molk::SemaphoreKey(kPath));
    EXPECT_FALSE(molk::SemaphoreIsLive(current, kPath));
    EXPECT_FALSE(molk::SemaphoreIsLive(nullptr, kPath));
    EXPECT_EQ(0, MolkSemaphore_Release(&current));
    free(old);  // its set is gone already
}

}  // namespace
