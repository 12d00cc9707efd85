// Helpers of the registry tests: files as strings, module descriptions, a
// package file, and a fixture that lays a fresh registry and checks that
// no semaphore set of the registry is left behind.
#ifndef MOLK_TESTS_REGISTRY_SUPPORT_H
#define MOLK_TESTS_REGISTRY_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "moduleservices/paths.h"

namespace regtest {

inline std::string ReadText(const char *path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}
inline void WriteText(const char *path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

// A description with a side for each PID above 0; relative texts "ae.cfg" ...
inline std::string Module(const std::string &token, const std::string &name, int ae, int re) {
    std::string s = "<molk><token>" + token + "</token><vendor>acme</vendor><name>" + name + "</name>";
    const char *tags[2] = {"ae", "re"};
    for (int i = 0; i < 2; ++i) {
        const std::string t = tags[i], pid = std::to_string(i == 0 ? ae : re);
        if ((i == 0 ? ae : re) > 0) {
            s += "<" + t + "><pid>" + pid + "</pid><config>" + t + ".cfg</config><description>" + t +
                 ".desc</description><maxconfignumber>" + std::to_string(i + 2) + "</maxconfignumber></" + t + ">";
        }
    }
    return s + "</molk>";
}

// Packages "motion" at /opt/motion and "rules" at /opt/rules, both of acme.
const char kPackages[] =
    "<cfg><molk><module><order>0,1</order>"
    "<i0><name>motion</name><vendor>acme</vendor><version>1.0</version><path>/opt/motion</path></i0>"
    "<i1><name>rules</name><vendor>acme</vendor><path>/opt/rules</path></i1></module></molk></cfg>";

constexpr uint32_t kUnwritten = 0xA5A5A5A5u;  // an error word the library never writes

// Polls for up to 30 s: a bound for liveness, not a timing requirement.
template <typename Done>
bool WaitFor(Done done) {
    for (int i = 0; i < 3000; ++i, usleep(10000)) {
        if (done()) return true;
    }
    return false;
}

inline key_t RegistryKey() { return ftok(molk::kRegistryPath, molk::kSemaphoreProjectId); }

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/etc/conf.d/config_onvif", 0755);
        WriteText(molk::kRegistryPath, "");
        WriteText(molk::kPackagePath, kPackages);
    }
    void TearDown() override {
        const int id = semget(RegistryKey(), 0, 0);
        EXPECT_EQ(-1, id) << "the registry's semaphore set was left behind";
        if (id != -1) semctl(id, 0, IPC_RMID);
    }
};

}  // namespace regtest

#endif
