// Helpers of the tests that meet the stand-in programs of tools/standins:
// start one (under the cross build's emulator when there is one), wait for
// what it writes, stop it. Files are read and written whole as strings.
#ifndef MOLK_TESTS_STANDIN_SUPPORT_H
#define MOLK_TESTS_STANDIN_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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

namespace svctest {

inline std::string Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void Spill(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Polls `done` until it holds; false after a generous time (liveness only).
inline bool Eventually(const std::function<bool()> &done, int seconds = 30) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
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
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

// Runs a tool to its end; its exit code, or -1.
inline int RunTool(const std::string &name, const std::vector<std::string> &args,
                   const std::string &log = "/dev/null") {
    int status = 0;
    pid_t pid = StartTool(name, args, log);
    if (pid <= 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
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

}  // namespace svctest

#endif  // MOLK_TESTS_STANDIN_SUPPORT_H
