// Helpers of the registry and registration tests: files as strings, module
// descriptions, the package file, and a fixture that lays a fresh registry
// and removes the registry's semaphore set whatever a test did.
#ifndef MOLK_TESTS_REGISTRY_SUPPORT_H
#define MOLK_TESTS_REGISTRY_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "moduleservices/paths.h"

namespace regtest {

inline std::string ReadText(const char *path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void WriteText(const char *path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A description with a side for each PID above 0; texts relative "ae.cfg" etc.
inline std::string Module(const std::string &token, const std::string &name, int ae, int re,
                          const std::string &vendor = "acme") {
    std::string s = "<molk><token>" + token + "</token><vendor>" + vendor + "</vendor><name>" + name +
                    "</name>";
    for (int side = 0; side < 2; ++side) {
        const int pid = side == 0 ? ae : re;
        const std::string tag = side == 0 ? "ae" : "re";
        if (pid <= 0) continue;
        s += "<" + tag + "><pid>" + std::to_string(pid) + "</pid><config>" + tag + ".cfg</config>" +
             "<description>" + tag + ".desc</description><maxconfignumber>" + std::to_string(side + 2) +
             "</maxconfignumber></" + tag + ">";
    }
    return s + "</molk>";
}

// Packages "motion" at /opt/motion and "rules" at /opt/rules, both of acme.
const char kPackages[] =
    "<cfg><molk><module><order>0,1</order>"
    "<i0><name>motion</name><vendor>acme</vendor><version>1.0</version><path>/opt/motion</path></i0>"
    "<i1><name>rules</name><vendor>acme</vendor><path>/opt/rules</path></i1>"
    "</module></molk></cfg>";

inline key_t RegistryKey() { return ftok(molk::kRegistryPath, molk::kSemaphoreProjectId); }

// Removes the registry's set, if any; true if there was one.
inline bool RemoveRegistrySet() {
    const int id = semget(RegistryKey(), 0, 0);
    if (id == -1) return false;
    semctl(id, 0, IPC_RMID);
    return true;
}

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/etc/conf.d/config_onvif", 0755);
        WriteText(molk::kRegistryPath, "");
        WriteText(molk::kPackagePath, kPackages);
    }
    void TearDown() override {
        EXPECT_FALSE(RemoveRegistrySet()) << "the registry's semaphore set was left behind";
        unlink(molk::kOnvifAsdPidPath);
        unlink(molk::kOnvifdPidPath);
    }
};

}  // namespace regtest

#endif
