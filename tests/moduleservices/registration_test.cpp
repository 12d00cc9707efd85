// Registration and unregistration: every failing exit against a table
// (result, error word, handle, message, and an untouched registry), and a
// model of the registry run against sequences of operations from several
// processes, with the real stand-in daemons told of each change.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <functional>
#include <vector>

#include "molkutil.h"
#include "registry_support.h"

// Every signal 31 the library sends, from this process or a forked one, is
// logged here first: the order of the calls is what the daemons cannot see.
extern "C" int kill(pid_t pid, int sig) {
    if (sig == molk::kRegistryChangedSignal) {
        const int fd = open("/tmp/molk-signals", O_WRONLY | O_CREAT | O_APPEND, 0644);
        const std::string line = std::to_string(pid) + "\n";
        if (fd >= 0 && write(fd, line.data(), line.size()) >= 0) close(fd);
    }
    return static_cast<int>(syscall(SYS_kill, pid, sig));
}

namespace {

using namespace regtest;
constexpr uint32_t kUnwritten = 0xA5A5A5A5u;

bool WaitFor(const std::function<bool()> &done) {
    for (int i = 0; i < 3000; ++i, usleep(10000)) {
        if (done()) return true;
    }
    return false;
}

std::string Signals() { return ReadText("/tmp/molk-signals"); }

std::string Registered(std::string description, uint32_t *error, bool *handleNull) {
    OnvifAnalyticsHandle *h = nullptr;
    *error = kUnwritten;
    const int result = RegisterOnvifAnalyticsService(&h, description.empty() ? nullptr : &description[0], error);
    *handleNull = h == nullptr;
    return std::to_string(result);
}

TEST_F(RegistryTest, EveryFailingExitKeepsTheRegistry) {
    const std::string base = "<root><VideoAnalyticsConfiguration token=\"Full\" vendor=\"acme\"><Name>m</Name>"
        "<AE><AnalyticsEnginePID>21</AnalyticsEnginePID></AE><RE><RuleEnginePID>22</RuleEnginePID></RE>"
        "</VideoAnalyticsConfiguration><VideoAnalyticsConfiguration token=\"OnlyRe\"><RE>"
        "<RuleEnginePID>31</RuleEnginePID></RE></VideoAnalyticsConfiguration></root>";
    std::string crowded = "<root>\r\n";  // reads whole, but no room for one more module
    const std::string fill(230, 'x');
    for (int i = 0; i < 6; ++i) {
        crowded += "<VideoAnalyticsConfiguration token=\"c" + std::to_string(i) + "\">";
        for (const char *side : {"AE><AnalyticsEngine", "RE><RuleEngine"}) {
            const std::string n = std::string(side).substr(4);
            crowded += std::string("<") + side + "Description>" + fill + "</" + n + "Description><" + n +
                       "Configuration>" + fill + "</" + n + "Configuration><" + n + "PID>5</" + n + "PID></" +
                       std::string(side, 2) + ">";
        }
        crowded += "</VideoAnalyticsConfiguration>\r\n";
    }
    crowded += "</root>\r\n";
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
        {"text too long", crowded, kPackages, Module("N", "motion", 9, 0), 8, "Fail to register"},
    };
    ASSERT_LT(crowded.size(), 8192u);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        unlink("/tmp/molk-signals");
        if (c.registry == "-") unlink(molk::kRegistryPath); else WriteText(molk::kRegistryPath, c.registry);
        if (c.packages != nullptr) WriteText(molk::kPackagePath, c.packages); else unlink(molk::kPackagePath);
        uint32_t error;
        bool handleNull;
        testing::internal::CaptureStdout();
        EXPECT_EQ("-1", Registered(c.module, &error, &handleNull));
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, out.find(c.message)) << out;
        EXPECT_EQ(c.error, error);
        EXPECT_TRUE(handleNull);
        EXPECT_EQ(c.registry == "-" ? "" : c.registry, ReadText(molk::kRegistryPath));
        EXPECT_EQ(c.registry == "-", access(molk::kRegistryPath, F_OK) != 0);
        EXPECT_EQ("", Signals());
    }
}

// Unregistration: no handle, a registry with no configuration, no
// registry file (the handle then stays the caller's, to call again).
TEST_F(RegistryTest, UnregistrationFailuresWriteNothing) {
    EXPECT_EQ(-1, UnRegisterOnvifAnalyticsService(nullptr));
    for (const char *registry : {"", "<root>\r\n</root>\r\n", "<root><x"}) {
        uint32_t error;
        std::string module = Module("U", "motion", getpid(), 0);
        OnvifAnalyticsHandle *h = nullptr;
        WriteText(molk::kRegistryPath, "");
        ASSERT_EQ(0, RegisterOnvifAnalyticsService(&h, &module[0], &error));
        WriteText(molk::kRegistryPath, registry);
        unlink("/tmp/molk-signals");
        EXPECT_EQ(-1, UnRegisterOnvifAnalyticsService(&h));
        EXPECT_EQ(registry, ReadText(molk::kRegistryPath));
        EXPECT_EQ("", Signals());
    }
    OnvifAnalyticsHandle *h = nullptr;
    uint32_t error;
    std::string module = Module("U", "motion", getpid(), 0);
    WriteText(molk::kRegistryPath, "");
    ASSERT_EQ(0, RegisterOnvifAnalyticsService(&h, &module[0], &error));
    const std::string registered = ReadText(molk::kRegistryPath);
    unlink(molk::kRegistryPath);
    EXPECT_EQ(-1, UnRegisterOnvifAnalyticsService(&h));
    WriteText(molk::kRegistryPath, registered);
    EXPECT_EQ(0, UnRegisterOnvifAnalyticsService(&h));  // the handle was kept
}

// ---- The model ----------------------------------------------------------

struct Side { int pid = 0, count = 0; std::string config, description; };
struct Entry { std::string token, name, vendor; int useCount = 0; Side ae, re; };

struct Model {
    std::vector<Entry> entries;
    // The text the registry must hold after an operation with this filter.
    std::string Render(int filter) const {
        std::string s = "<root>\r\n";
        for (const Entry &e : entries) {
            if (filter > 0 && (e.ae.pid == filter || e.ae.pid == 0) && (e.re.pid == filter || e.re.pid == 0)) continue;
            s += "\t<VideoAnalyticsConfiguration token=\"" + e.token + "\" vendor=\"" + e.vendor + "\">\r\n\t\t<Name>" +
                 e.name + "</Name>\r\n\t\t<UseCount>" + std::to_string(e.useCount) + "</UseCount>\r\n";
            const char *names[2] = {"AnalyticsEngine", "RuleEngine"}, *blocks[2] = {"AE", "RE"};
            for (int i = 0; i < 2; ++i) {
                const Side &side = i == 0 ? e.ae : e.re;
                if (side.pid == filter) continue;
                const std::string n = names[i];
                s += std::string("\t\t<") + blocks[i] + ">\r\n\t\t\t<" + n + "Description>" + side.description + "</" +
                     n + "Description>\r\n\t\t\t<" + n + "Configuration>" + side.config + "</" + n +
                     "Configuration>\r\n\t\t\t<" + n + "PID>" + std::to_string(side.pid) + "</" + n + "PID>\r\n\t\t\t<" +
                     n + "ConfigNumber>" + std::to_string(side.count) + "</" + n + "ConfigNumber>\r\n\t\t</" +
                     blocks[i] + ">\r\n";
            }
            s += "\t</VideoAnalyticsConfiguration>\r\n";
        }
        return s + "</root>\r\n";
    }
    // What the file reads back as after Render(filter).
    void Apply(int filter) {
        std::vector<Entry> kept;
        for (Entry e : entries) {
            if (filter > 0 && (e.ae.pid == filter || e.ae.pid == 0) && (e.re.pid == filter || e.re.pid == 0)) continue;
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
        const std::string path = name == "motion" ? "/opt/motion" : name == "rules" ? "/opt/rules" : "";
        e.token = token, e.name = name, e.vendor = "acme", e.useCount = 0;
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

// A forked module process: registers and unregisters when told.
struct ModuleProcess {
    pid_t pid = -1;
    int fd = -1;
    ModuleProcess() {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds));
        pid = fork();
        if (pid == 0) {
            close(fds[0]);
            Serve(fds[1]);
        }
        close(fds[1]);
        fd = fds[0];
    }
    static void Serve(int fd) {
        OnvifAnalyticsHandle *h = nullptr;
        char command[4096];
        ssize_t n;
        while ((n = read(fd, command, sizeof command - 1)) > 0) {
            command[n] = '\0';
            uint32_t error = kUnwritten;
            int result = 0;
            if (command[0] == 'U') result = UnRegisterOnvifAnalyticsService(&h);
            else result = RegisterOnvifAnalyticsService(&h, command, &error);
            const std::string reply = std::to_string(result) + " " + std::to_string(error);
            if (write(fd, reply.data(), reply.size()) < 0) break;
        }
        _exit(0);
    }
    std::string Call(const std::string &command) {
        EXPECT_EQ(static_cast<ssize_t>(command.size()), write(fd, command.data(), command.size()));
        char reply[64] = {0};
        EXPECT_GT(read(fd, reply, sizeof reply - 1), 0);
        return reply;
    }
    ~ModuleProcess() {
        close(fd);
        waitpid(pid, nullptr, 0);
    }
};

pid_t StartDaemon(const char *name) {
    const std::string tool = std::string(getenv("MOLK_TOOLS_DIR")) + "/" + name;
    const std::string log = std::string("/tmp/") + name + ".log";
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        execl(tool.c_str(), name, static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

// The last line a daemon logged for its n-th signal, "" until it has.
std::string DaemonLine(const char *name, int n) {
    const std::string log = ReadText((std::string("/tmp/") + name + ".log").c_str());
    const std::string head = std::string(name) + ": signal " + std::to_string(n) + ": ";
    const size_t at = log.find(head);
    return at == std::string::npos ? "" : log.substr(at, log.find('\n', at) - at);
}

TEST_F(RegistryTest, SequencesFromSeveralProcessesFollowTheModel) {
    ASSERT_NE(nullptr, getenv("MOLK_TOOLS_DIR"));
    const std::string pre = "<root><VideoAnalyticsConfiguration token=\"Pre\" vendor=\"acme\"><Name>old</Name>"
        "<UseCount>7</UseCount><AE><AnalyticsEngineDescription>/d</AnalyticsEngineDescription>"
        "<AnalyticsEngineConfiguration>/c</AnalyticsEngineConfiguration><AnalyticsEnginePID>999999"
        "</AnalyticsEnginePID><AnalyticsEngineConfigNumber>1</AnalyticsEngineConfigNumber></AE>"
        "</VideoAnalyticsConfiguration></root>";
    WriteText(molk::kRegistryPath, pre);
    Model model;
    model.entries.push_back({"Pre", "old", "acme", 7, {999999, 1, "/c", "/d"}, {}});
    const pid_t asd = StartDaemon("onvifasd"), d = StartDaemon("onvifd");
    ASSERT_TRUE(WaitFor([] { return access(molk::kOnvifAsdPidPath, F_OK) == 0 && access(molk::kOnvifdPidPath, F_OK) == 0; }));
    unlink("/tmp/molk-signals");
    ModuleProcess p[6];
    // Process, token, package name, AE?, RE?; "U" unregisters; a foreign
    // PID registers sides that its process's unregistration never reaches.
    const struct { int process; const char *token, *name; bool ae, re; int foreignPid; } steps[] = {
        {0, "T1", "motion", true, false, 0}, {1, "T1", "rules", false, true, 0},
        {2, "T1", "motion", true, true, 0},  {0, "U", "", false, false, 0},
        {2, "T2", "motion", true, true, 0},  {3, "T1", "other", true, false, 0},
        {1, "U", "", false, false, 0},       {3, "T3", "rules", false, true, 0},
        {4, "F0", "motion", true, false, 0}, {4, "F1", "motion", true, true, 0},
        {4, "F2", "rules", false, true, 0},  {4, "F3", "motion", true, false, 0},
        {4, "F4", "motion", true, false, 0}, {4, "F5", "motion", true, false, 0},
        {4, "F6", "motion", true, false, 0}, {3, "T1", "rules", false, true, 0},
        {4, "U", "", false, false, 0},       {5, "T4", "motion", true, false, 424242},
        {5, "U", "", false, false, 0},       {3, "U", "", false, false, 0},
        {2, "U", "", false, false, 0},
    };
    int changes = 0;
    for (const auto &s : steps) {
        ModuleProcess &proc = p[s.process];
        const int pid = s.foreignPid != 0 ? s.foreignPid : proc.pid;
        SCOPED_TRACE(testing::Message() << "process " << s.process << " " << s.token);
        std::string expected;
        int filter = 0;
        if (std::string(s.token) == "U") {
            expected = "0 " + std::to_string(kUnwritten);
            filter = proc.pid;
        } else {
            const uint32_t error = model.Register(s.token, s.name, s.ae ? pid : 0, s.re ? pid : 0);
            expected = (error == 16 ? "0 " : "-1 ") + std::to_string(error);
            if (error != 16) filter = -1;
        }
        EXPECT_EQ(expected, proc.Call(s.token[0] == 'U' ? "U" : Module(s.token, s.name, s.ae ? pid : 0, s.re ? pid : 0)));
        if (filter >= 0) ++changes;
        EXPECT_EQ(filter < 0 ? "" : model.Render(filter), filter < 0 ? "" : ReadText(molk::kRegistryPath));
        if (filter >= 0) model.Apply(filter);
        std::string told;
        for (int i = 0; i < changes; ++i) told += std::to_string(asd) + "\n" + std::to_string(d) + "\n";
        EXPECT_EQ(told, Signals());
        for (const char *daemon : {"onvifasd", "onvifd"}) {
            if (changes == 0) continue;
            EXPECT_TRUE(WaitFor([&] { return !DaemonLine(daemon, changes).empty(); })) << daemon;
            EXPECT_EQ(std::string(daemon) + ": signal " + std::to_string(changes) + ": parsed, " +
                      std::to_string(model.entries.size()) + " configurations" + model.Listing(),
                      DaemonLine(daemon, changes));
        }
    }
    EXPECT_EQ(2u, model.entries.size());  // "Pre", its UseCount kept, and the foreign T4
    kill(asd, SIGTERM);
    kill(d, SIGTERM);
    waitpid(asd, nullptr, 0);
    waitpid(d, nullptr, 0);
}

}  // namespace
