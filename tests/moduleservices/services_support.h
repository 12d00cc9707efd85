// Helpers of the module services tests: files read and written whole as
// strings, waits for other processes, forked children, the stand-in
// programs of tools/standins, and the registry's module descriptions and
// fixture.
#ifndef MOLK_TESTS_SERVICES_SUPPORT_H
#define MOLK_TESTS_SERVICES_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "moduleservices/paths.h"

namespace svc {

inline std::string ReadText(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}
inline void WriteText(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Polls `done` until it holds; false after `seconds` of wall time. A bound
// for liveness only: a loaded machine may take long, never forever.
inline bool Eventually(const std::function<bool()> &done, int seconds = 120) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A forked child that runs `body` and exits with its result. What the child
// prints stays unwritten unless it flushes.
inline pid_t Spawn(const std::function<int()> &body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// The child's exit code, 128 + the signal that ended it, or -2 (and the
// child killed) if it did not end in time.
inline int Reap(pid_t pid) {
    int status = 0;
    if (!Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -2;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts tools/NAME with `args`, its output appended to `log`. The build
// tells where the tools are (MOLK_TOOLS_DIR) and, in a cross build, the
// emulator that runs them (MOLK_TOOLS_EMULATOR, words split at spaces).
inline pid_t StartTool(const std::string &name, const std::vector<std::string> &args,
                       const std::string &log) {
    const char *dir = getenv("MOLK_TOOLS_DIR");
    std::vector<std::string> words;
    std::istringstream emulator(getenv("MOLK_TOOLS_EMULATOR") ? getenv("MOLK_TOOLS_EMULATOR") : "");
    for (std::string word; emulator >> word;) words.push_back(word);
    words.push_back(std::string(dir ? dir : ".") + "/" + name);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    return Spawn([&] {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        execvp(argv[0], argv.data());
        return 127;
    });
}

// Runs a tool to its end; its exit code.
inline int RunTool(const std::string &name, const std::vector<std::string> &args) {
    return Reap(StartTool(name, args, "/dev/null"));
}

inline void StopTool(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

inline size_t Count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

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

inline key_t RegistryKey() { return ftok(molk::kRegistryPath, molk::kSemaphoreProjectId); }

// A fresh registry and package file; no semaphore set of the registry may
// be left behind.
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

}  // namespace svc

#endif  // MOLK_TESTS_SERVICES_SUPPORT_H
