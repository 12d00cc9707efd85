// Registration and unregistration: every failing exit against a table
// (result, error word, handle, message, and an untouched registry), and a
// model of the registry run against sequences of operations from several
// processes, with the real stand-in daemons told of each change.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <vector>

#include "molkutil.h"
#include "services_support.h"

// Every signal 31 the library sends, from this process or a forked one, is
// logged here first: the order of the calls is what the daemons cannot see.
extern "C" int kill(pid_t pid, int sig) {
    if (sig == molk::kRegistryChangedSignal) {
        const int fd = open("/tmp/molk-signals", O_WRONLY | O_CREAT | O_APPEND, 0644);
        const std::string line = std::to_string(pid) + "\n";
        if (fd >= 0 && write(fd, line.data(), line.size()) < 0) perror("molk-signals");
        if (fd >= 0) close(fd);
    }
    return static_cast<int>(syscall(SYS_kill, pid, sig));
}

namespace {

using namespace svc;
std::string Signals() { return ReadText("/tmp/molk-signals"); }

// ---- The model: the registry as a list of entries -----------------------

struct Side { int pid = 0, count = 0; std::string config, description; };
struct Entry { std::string token, name; int useCount = 0; Side ae, re; };

bool Dropped(const Entry &e, int filter) {
    return filter > 0 && (e.ae.pid == filter || e.ae.pid == 0) && (e.re.pid == filter || e.re.pid == 0);
}

struct Model {
    std::vector<Entry> entries;
    std::string Render(int filter) const {  // the text after an operation with this filter
        std::string s = "<root>\r\n";
        for (const Entry &e : entries) {
            if (Dropped(e, filter)) continue;
            s += "\t<VideoAnalyticsConfiguration token=\"" + e.token + "\" vendor=\"acme\">\r\n\t\t<Name>" + e.name +
                 "</Name>\r\n\t\t<UseCount>" + std::to_string(e.useCount) + "</UseCount>\r\n";
            for (const char *block : {"AE", "RE"}) {
                const Side &side = block[0] == 'A' ? e.ae : e.re;
                const std::string n = block[0] == 'A' ? "\t\t\t<AnalyticsEngine" : "\t\t\t<RuleEngine";
                const std::string end = "</" + n.substr(4);
                if (side.pid == filter) continue;
                s += std::string("\t\t<") + block + ">\r\n" + n + "Description>" + side.description + end +
                     "Description>\r\n" + n + "Configuration>" + side.config + end + "Configuration>\r\n" + n +
                     "PID>" + std::to_string(side.pid) + end + "PID>\r\n" + n + "ConfigNumber>" +
                     std::to_string(side.count) + end + "ConfigNumber>\r\n\t\t</" + block + ">\r\n";
            }
            s += "\t</VideoAnalyticsConfiguration>\r\n";
        }
        return s + "</root>\r\n";
    }
    void Apply(int filter) {  // what that text reads back as
        std::vector<Entry> kept;
        for (Entry e : entries) {
            if (Dropped(e, filter)) continue;
            if (e.ae.pid == filter) e.ae = Side();
            if (e.re.pid == filter) e.re = Side();
            kept.push_back(e);
        }
        entries = kept;
    }
    uint32_t Register(const std::string &token, const std::string &name, int ae, int re) {
        for (const Entry &e : entries) {
            if (e.token == token && ((ae > 0 && e.ae.pid > 0) || (re > 0 && e.re.pid > 0))) return 1;
        }
        if (entries.size() == 10) return 16;
        size_t i = 0;
        while (i < entries.size() && entries[i].token != token) ++i;
        if (i == entries.size()) entries.push_back(Entry());
        Entry &e = entries[i];
        const std::string path = name == "other" ? "" : "/opt/" + name;
        e.token = token, e.name = name, e.useCount = 0;
        if (ae > 0) e.ae = {ae, 2, path + "/ae.cfg", path + "/ae.desc"};
        if (re > 0) e.re = {re, 3, path + "/re.cfg", path + "/re.desc"};
        return 16;
    }
    std::string Listing() const {  // as the stand-in daemons log it
        std::string s;
        for (const Entry &e : entries) {
            s += (s.empty() ? ": " : "; ") + e.token + " ae=" + std::to_string(e.ae.pid) + " re=" +
                 std::to_string(e.re.pid);
        }
        return s;
    }
};

TEST_F(RegistryTest, EveryFailingExitKeepsTheRegistry) {
    const std::string base = "<root><VideoAnalyticsConfiguration token=\"Full\" vendor=\"acme\"><Name>m</Name>"
        "<AE><AnalyticsEnginePID>21</AnalyticsEnginePID></AE><RE><RuleEnginePID>22</RuleEnginePID></RE>"
        "</VideoAnalyticsConfiguration><VideoAnalyticsConfiguration token=\"OnlyRe\"><RE>"
        "<RuleEnginePID>31</RuleEnginePID></RE></VideoAnalyticsConfiguration></root>";
    Model crowded;  // reads whole, but no room for one more module
    const std::string fill(180, 'x');
    for (int i = 0; i < 6; ++i) {
        crowded.entries.push_back({"c" + std::to_string(i), "m", 0, {5, 1, fill, fill}, {5, 1, fill, fill}});
    }
    const struct { const char *why; std::string registry; const char *packages; std::string module;
                   uint32_t error; const char *message; } cases[] = {
        {"no description", base, kPackages, "", kUnwritten, "[molkservice] Input data is NULL!\n"},
        {"no registry file", "-", kPackages, Module("N", "motion", 9, 0), kUnwritten, "semaphore initial failed!"},
        {"not XML", base, kPackages, "garbage", 2, "XMLProcessor Set buffer failed!\n"},
        {"no name", base, kPackages, "<molk><token>N</token><vendor>v</vendor><ae><pid>9</pid></ae></molk>", 2,
         "Fail to parse xml contents. :: RegisterOnvifAnalyticsService : 814"},
        {"unwritable name", base, kPackages, Module("N", "a&amp;b", 9, 0), 2, "Fail to parse xml contents"},
        {"other top level", base, kPackages, "<mod><token>N</token></mod>", 2, "Fail to parse xml contents"},
        {"AE conflict", base, kPackages, Module("Full", "motion", 9, 9), 1,
         "AE Token Conflict : Full\n[molkservice] Video Analytics Token is confclict. :: "
         "RegisterOnvifAnalyticsService : 827\n"},
        {"RE conflict", base, kPackages, Module("OnlyRe", "motion", 9, 9), 1, "RE Token Conflict : OnlyRe\n"},
        {"no package file", base, nullptr, Module("N", "motion", 9, 0), 8,
         "Set buffer failed! :: FillInformationToOnvifAnalyticsConfigFile : 689\n[molkservice] Fail to register the "
         "onvif analytics service. :: RegisterOnvifAnalyticsService : 835\n"},
        {"no module", base, "<cfg><molk><x/></molk></cfg>", Module("N", "motion", 9, 0), 8,
         "Get module path from MOLK config file failed! :: FillInformationToOnvifAnalyticsConfigFile : 697"},
        {"malformed registry", "<root><VideoAnalytics", kPackages, Module("N", "motion", 9, 0), 8, "Fail to register"},
        {"registry too long", "<root>" + std::string(8200, ' ') + "</root>", kPackages, Module("N", "m", 9, 0), 8,
         "Fail to register"},
        {"text too long", crowded.Render(0), kPackages, Module("N", "motion", 9, 0), 8,
         "MOLK : /opt/motion\n[molkservice] Fail to register"},  // read whole, then too long
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        unlink("/tmp/molk-signals");
        if (c.registry == "-") unlink(molk::kRegistryPath); else WriteText(molk::kRegistryPath, c.registry);
        if (c.packages != nullptr) WriteText(molk::kPackagePath, c.packages); else unlink(molk::kPackagePath);
        OnvifAnalyticsHandle *h = nullptr;
        uint32_t error = kUnwritten;
        std::string module = c.module;
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, RegisterOnvifAnalyticsService(&h, module.empty() ? nullptr : &module[0], &error));
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, out.find(c.message)) << out;
        EXPECT_EQ(c.error, error);
        EXPECT_EQ(nullptr, h);
        EXPECT_EQ(c.registry == "-" ? "" : c.registry, ReadText(molk::kRegistryPath));
        EXPECT_EQ(c.registry == "-", access(molk::kRegistryPath, F_OK) != 0);
        EXPECT_EQ("", Signals());
    }
}

// Unregistration: nothing written and nobody told when the registry holds
// no configuration; without a registry file the handle stays the caller's.
TEST_F(RegistryTest, UnregistrationFailuresWriteNothing) {
    EXPECT_EQ(-1, UnRegisterOnvifAnalyticsService(nullptr));
    std::string module = Module("U", "motion", getpid(), 0);
    for (const char *registry : {"", "<root>\r\n</root>\r\n", "<root><x", "-"}) {
        OnvifAnalyticsHandle *h = nullptr;
        uint32_t error;
        WriteText(molk::kRegistryPath, "");
        ASSERT_EQ(0, RegisterOnvifAnalyticsService(&h, &module[0], &error));
        const std::string registered = ReadText(molk::kRegistryPath);
        if (registry[0] == '-') unlink(molk::kRegistryPath); else WriteText(molk::kRegistryPath, registry);
        unlink("/tmp/molk-signals");
        EXPECT_EQ(-1, UnRegisterOnvifAnalyticsService(&h));
        EXPECT_EQ(registry[0] == '-' ? "" : registry, ReadText(molk::kRegistryPath));
        EXPECT_EQ("", Signals());
        if (registry[0] != '-') continue;
        WriteText(molk::kRegistryPath, registered);
        EXPECT_EQ(0, UnRegisterOnvifAnalyticsService(&h));  // the same handle, kept
    }
}

// A forked module process: registers the description it is sent, or
// unregisters on "U", and answers "result errorword".
struct ModuleProcess {
    pid_t pid = -1;
    int fd = -1;
    ModuleProcess() {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds));
        if ((pid = fork()) == 0) {
            close(fds[0]);
            OnvifAnalyticsHandle *h = nullptr;
            char command[4096];
            ssize_t n;
            while ((n = read(fds[1], command, sizeof command - 1)) > 0) {
                command[n] = '\0';
                uint32_t error = kUnwritten;
                const int result = command[0] == 'U' ? UnRegisterOnvifAnalyticsService(&h)
                                                     : RegisterOnvifAnalyticsService(&h, command, &error);
                const std::string reply = std::to_string(result) + " " + std::to_string(error);
                if (write(fds[1], reply.data(), reply.size()) < 0) break;
            }
            _exit(0);
        }
        close(fds[1]);
        fd = fds[0];
    }
    std::string Call(const std::string &command) {
        char reply[64] = {0};
        EXPECT_EQ(static_cast<ssize_t>(command.size()), write(fd, command.data(), command.size()));
        EXPECT_GT(read(fd, reply, sizeof reply - 1), 0);
        return reply;
    }
    ~ModuleProcess() {
        close(fd);
        waitpid(pid, nullptr, 0);
    }
};

pid_t StartDaemon(const char *name) {
    const std::string log = std::string("/tmp/") + name + ".log";
    unlink(log.c_str());
    return StartTool(name, {}, log);
}

// The line a daemon logged for its n-th signal, "" until it has written
// all of it: a reader may meet a line of the log half written.
std::string DaemonLine(const char *name, int n) {
    const std::string log = ReadText(std::string("/tmp/") + name + ".log");
    const size_t at = log.find(std::string(name) + ": signal " + std::to_string(n) + ": ");
    const size_t end = at == std::string::npos ? at : log.find('\n', at);
    return end == std::string::npos ? "" : log.substr(at, end - at);
}

// Merging by token, conflicts by side, a full list, the builder's filter
// and UseCount, step by step: the text byte for byte, one signal to each
// daemon per change (onvifasd first), and what each daemon then read. The
// registry starts with "Pre", whose AE belongs to nobody here, and "Nil"
// without sides, kept until the first unregistration drops it. Each step
// waits for both daemons, so no two signals to one daemon ever merge.
TEST_F(RegistryTest, SequencesFromSeveralProcessesFollowTheModel) {
    ASSERT_NE(nullptr, getenv("MOLK_TOOLS_DIR"));
    Model model;
    model.entries.push_back({"Pre", "old", 7, {999999, 1, "/c", "/d"}, {}});
    model.entries.push_back({"Nil", "old", 3, {}, {}});
    WriteText(molk::kRegistryPath, model.Render(0));
    const pid_t asd = StartDaemon("onvifasd"), d = StartDaemon("onvifd");
    ASSERT_TRUE(Eventually(
        [] { return !ReadText(molk::kOnvifAsdPidPath).empty() && !ReadText(molk::kOnvifdPidPath).empty(); }));
    unlink("/tmp/molk-signals");
    ModuleProcess p[6];
    // Process, token ("U": unregister), package, sides; process 5 registers
    // under a foreign PID that its unregistration never reaches.
    const struct { int process; const char *token, *name; int ae, re; } steps[] = {
        {0, "T1", "motion", 1, 0}, {1, "T1", "rules", 0, 1},  {2, "T1", "motion", 1, 1}, {0, "U", "", 0, 0},
        {2, "T2", "motion", 1, 1}, {3, "T1", "other", 1, 0},  {1, "U", "", 0, 0},        {3, "T3", "rules", 0, 1},
        {4, "F0", "motion", 1, 0}, {4, "F1", "motion", 1, 1}, {4, "F2", "rules", 0, 1},  {4, "F3", "motion", 1, 0},
        {4, "F4", "motion", 1, 0}, {4, "F5", "motion", 1, 0}, {4, "F6", "motion", 1, 0}, {3, "T1", "rules", 0, 1},
        {4, "U", "", 0, 0},        {5, "T4", "motion", 1, 0}, {5, "U", "", 0, 0},        {3, "U", "", 0, 0},
        {2, "U", "", 0, 0},
    };
    int changes = 0;
    for (const auto &s : steps) {
        ModuleProcess &proc = p[s.process];
        const int pid = s.process == 5 ? 424242 : proc.pid;
        const bool unregister = s.token[0] == 'U';
        SCOPED_TRACE(testing::Message() << "process " << s.process << " " << s.token);
        const uint32_t error = unregister ? kUnwritten : model.Register(s.token, s.name, s.ae * pid, s.re * pid);
        const std::string reply = proc.Call(unregister ? "U" : Module(s.token, s.name, s.ae * pid, s.re * pid));
        EXPECT_EQ((error == 1 ? "-1 " : "0 ") + std::to_string(error), reply);
        if (error != 1) {
            const int filter = unregister ? proc.pid : 0;
            EXPECT_EQ(model.Render(filter), ReadText(molk::kRegistryPath));
            model.Apply(filter);
            ++changes;
        }
        std::string told;
        for (int i = 0; i < changes; ++i) told += std::to_string(asd) + "\n" + std::to_string(d) + "\n";
        EXPECT_EQ(told, Signals());
        for (const char *daemon : {"onvifasd", "onvifd"}) {
            if (changes == 0) continue;
            EXPECT_TRUE(Eventually([&] { return !DaemonLine(daemon, changes).empty(); })) << daemon;
            EXPECT_EQ(std::string(daemon) + ": signal " + std::to_string(changes) + ": parsed, " +
                          std::to_string(model.entries.size()) + " configurations" + model.Listing(),
                      DaemonLine(daemon, changes));
        }
    }
    EXPECT_EQ(2u, model.entries.size());  // "Pre" with its UseCount, and the foreign T4
    kill(asd, SIGTERM);
    kill(d, SIGTERM);
    waitpid(asd, nullptr, 0);
    waitpid(d, nullptr, 0);
}

}  // namespace
