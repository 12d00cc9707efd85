// Registrations racing in several processes, one waiting for the lock, and
// registering processes killed at random moments: nothing that reported
// success is lost, no lock stays held, and the registry file is always the
// old text or the new one, whole.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdlib>
#include <random>
#include <set>
#include <string>

#include "molkutil.h"
#include "moduleservices/named_semaphore.h"
#include "services_support.h"

namespace {

using namespace svc;

// As a module does: tries again while it loses the lock (error word
// unwritten). 0 registered, 1 refused, 2 never got the lock.
int Register(const std::string &description) {
    for (int attempt = 0; attempt < 100000; ++attempt) {
        std::string text = description;
        OnvifAnalyticsHandle *h = nullptr;
        uint32_t error = kUnwritten;
        if (RegisterOnvifAnalyticsService(&h, &text[0], &error) == 0) return 0;
        if (error != kUnwritten) return 1;
    }
    return 2;
}

pid_t SpawnRegistration(const std::string &description) {
    return Spawn([description] { return Register(description); });
}

TEST_F(RegistryTest, ConcurrentRegistrationsAreAllKept) {
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    pid_t children[9];
    for (int i = 0; i < 9; ++i) {
        children[i] = Spawn([&gate, i] {
            close(gate[1]);
            char c;
            if (read(gate[0], &c, 1) < 0) return 3;  // all start when the gate closes
            return Register(Module("P" + std::to_string(i), "motion", getpid(), i % 2 ? getpid() : 0));
        });
    }
    close(gate[0]);
    close(gate[1]);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(0, Reap(children[i])) << i;
    const std::string text = ReadText(molk::kRegistryPath);
    for (int i = 0; i < 9; ++i) {
        EXPECT_NE(std::string::npos, text.find("token=\"P" + std::to_string(i) + "\"")) << text;
        EXPECT_NE(std::string::npos, text.find("PID>" + std::to_string(children[i]) + "<")) << text;
    }
}

// Another process of the device that holds the registry's lock (here the
// test itself) holds a registration back until it lets go. A holder killed
// instead is the semaphore tests' part.
TEST_F(RegistryTest, RegistrationWaitsForTheDevicesLock) {
    MolkSemaphoreHandle *sem = nullptr;
    ASSERT_EQ(0, MolkSemaphore_Initial(&sem, molk::kRegistryPath));
    ASSERT_EQ(0, MolkSemaphore_Lock(sem));
    const pid_t waiter = SpawnRegistration(Module("W", "motion", 4343, 0));
    const int semId = molk::SemaphoreId(sem);
    EXPECT_TRUE(Eventually([&] { return semctl(semId, 0, GETNCNT) == 1; })) << "the waiter should block";
    EXPECT_EQ(0, MolkSemaphore_Unlock(sem));
    EXPECT_EQ(0, Reap(waiter));
    EXPECT_NE(std::string::npos, ReadText(molk::kRegistryPath).find("token=\"W\""));
    free(sem);  // the registration removed its set
}

long long NowUs() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000LL + t.tv_nsec / 1000;
}

TEST_F(RegistryTest, KillAtRandomMomentsLeavesOldOrNewText) {
    // Sides under foreign PIDs, so that both texts are the same in every
    // run; one whole registration in a child gives the span to aim into.
    uint32_t error;
    OnvifAnalyticsHandle *h = nullptr;
    std::string first = Module("Old", "motion", 4141, 0), second = Module("New", "rules", 0, 4242);
    ASSERT_EQ(0, RegisterOnvifAnalyticsService(&h, &first[0], &error));
    ASSERT_EQ(0, UnRegisterOnvifAnalyticsService(&h));  // reaches no side: "Old" stays
    const std::string old = ReadText(molk::kRegistryPath);
    long long start = NowUs();
    waitpid(SpawnRegistration(second), nullptr, 0);
    const long long span = NowUs() - start;
    const std::string fresh = ReadText(molk::kRegistryPath);
    const char *env = getenv("MOLK_KILL_ITERATIONS");
    const int iterations = env != nullptr ? atoi(env) : 200;
    std::mt19937 random(12345);
    std::set<key_t> keys;
    int olds = 0, news = 0;
    for (int i = 0; i < iterations; ++i) {
        WriteText(molk::kRegistryPath, old);
        keys.insert(RegistryKey());
        const pid_t child = SpawnRegistration(second);
        usleep(static_cast<useconds_t>(random() % (span * 3 / 2 + 1)));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const std::string text = ReadText(molk::kRegistryPath);
        ASSERT_TRUE(text == old || text == fresh) << "iteration " << i << ":\n" << text;
        ++(text == old ? olds : news);
    }
    printf("killed %d registrations: %d left the old text, %d the new\n", iterations, olds, news);
    // The lock is free: a registration goes through (and removes the set).
    WriteText(molk::kRegistryPath, old);
    ASSERT_EQ(0, RegisterOnvifAnalyticsService(&h, &second[0], &error));
    ASSERT_EQ(0, UnRegisterOnvifAnalyticsService(&h));
    // A process killed between its rename and the end of its hold leaves
    // an unheld set under the file's old key: removed here.
    for (key_t key : keys) {
        const int id = semget(key, 0, 0);
        if (id != -1) semctl(id, 0, IPC_RMID);
    }
}

}  // namespace
