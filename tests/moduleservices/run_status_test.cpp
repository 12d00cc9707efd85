// Run status and the configuration daemon client against the stand-in
// daemon (tools/standins/configer), which writes the order it is sent into
// the package file, where the next report reads it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "molkutil.h"
#include "moduleservices/paths.h"
#include "services_support.h"

// Counts the library's connects: this definition in the test program comes
// before the C library's in the lookup of the library's calls.
static int gConnects = 0;
extern "C" int connect(int fd, const struct sockaddr *address, socklen_t length) {
    ++gConnects;
    return static_cast<int>(syscall(SYS_connect, fd, address, length));
}

namespace {

using namespace svc;

constexpr char kLog[] = "/tmp/configer-test.log";
constexpr char kValues[] = "/tmp/configer-test.values";
constexpr int kMotion = 3;  // index of the package reported on

// Packages i0..i4; i3 is motion/acme.
std::string PackageFile(const std::string &order) {
    std::string s = "<cfg><molk><module><order>" + order + "</order>";
    for (int i = 0; i < 5; ++i) {
        const std::string name = i == kMotion ? "motion" : "p" + std::to_string(i);
        s += "<i" + std::to_string(i) + "><name>" + name + "</name><vendor>acme</vendor></i" +
             std::to_string(i) + ">";
    }
    return s + "</module></molk></cfg>";
}

MolkPkgId Id(int index) {
    MolkPkgId id;
    memset(&id, 0, sizeof id);
    snprintf(id.name, sizeof id.name, "%s", index == kMotion ? "motion" : ("p" + std::to_string(index)).c_str());
    snprintf(id.vendor, sizeof id.vendor, "acme");
    return id;
}

std::string Order() {
    char order[40] = "";
    EXPECT_EQ(0, MolkUtil_ParseMolkOrder(order));
    return order;
}

class RunStatusTest : public ::testing::Test {
protected:
    void SetUp() override {
        unlink(kLog);
        unlink(kValues);
        WriteText(molk::kPackagePath, PackageFile(""));
        daemon_ = StartTool("configer", {"--store", kValues}, kLog);
        ASSERT_TRUE(Eventually([] { return ReadText(kLog).find("listening") != std::string::npos; }))
            << ReadText(kLog);
        gConnects = 0;
    }
    void TearDown() override {
        StopTool(daemon_);
        unlink(molk::kPackagePath);
    }
    // Waits until the daemon has finished `n` requests in all.
    void AwaitRequests(size_t n) {
        ASSERT_TRUE(Eventually([n] { return Count(ReadText(kLog), " done\n") >= n; })) << ReadText(kLog);
        EXPECT_EQ(n, Count(ReadText(kLog), " done\n"));
    }
    std::string Value(const std::string &key) {
        const std::string values = "\n" + ReadText(kValues);
        size_t at = values.find("\n" + key + "=");
        if (at == std::string::npos) return "<none>";
        at += key.size() + 2;
        return values.substr(at, values.find('\n', at) - at);
    }
    pid_t daemon_ = -1;
};

// The order table for package 3: a package that comes up goes to the end
// unless listed, one that stops leaves, a piece that is no number ends the
// walk. The daemon brings each sent order back into the package file.
TEST_F(RunStatusTest, OrderSentFollowsTheTable) {
    const struct { const char *read; uint32_t status; const char *sent; } rows[] = {
        {"1,2", 1, "1,2,3"}, {"1,3,2", 1, "1,3,2"}, {"1,3,2", 2, "1,2"}, {"1,3,2", 0, "1,2"},
        {"3", 2, ""},        {"", 1, "3"},          {"", 2, ""},        {"1,x,3", 1, "1"},
        {"1,33", 2, "1,33"}, {"1,,2", 2, "1,2"},    {",3,", 1, ",3,"},  {"33,4", 1, "33,4,3"}};
    const char *statusText[] = {"N/A", "on", "off"};
    size_t requests = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.read) + " status " + std::to_string(row.status));
        WriteText(molk::kPackagePath, PackageFile(row.read));
        char message[] = "all well";
        ASSERT_EQ(0, MolkSet_RunStatus(Id(kMotion), row.status, message));
        AwaitRequests(++requests);
        EXPECT_EQ(row.sent, Order());
        EXPECT_EQ(row.sent, Value("molk_module_order"));
        EXPECT_EQ(statusText[row.status], Value("molk_module_i3_status"));
        EXPECT_EQ("all well", Value("molk_module_i3_statmsg"));
    }
}

// Random reports of five packages against a model of the order: running
// packages in the order in which they came up. The message is sent only up
// to its first line feed.
TEST_F(RunStatusTest, RandomReportsKeepTheOrderOfRunningPackages) {
    std::mt19937 random(11);
    std::vector<int> model;
    for (size_t step = 1; step <= 60; ++step) {
        const int index = static_cast<int>(random() % 5);
        const uint32_t status = static_cast<uint32_t>(random() % 3);
        char message[64];
        snprintf(message, sizeof message, "step %zu\nsecond line", step);
        ASSERT_EQ(0, MolkSet_RunStatus(Id(index), status, message));
        EXPECT_STREQ(("step " + std::to_string(step)).c_str(), message);
        auto at = std::find(model.begin(), model.end(), index);
        if (status == 1 && at == model.end()) model.push_back(index);
        if (status != 1 && at != model.end()) model.erase(at);
        std::string want;
        for (int i : model) want += (want.empty() ? "" : ",") + std::to_string(i);
        AwaitRequests(step);
        ASSERT_EQ(want, Order()) << "step " << step;
        EXPECT_EQ("step " + std::to_string(step), Value("molk_module_i" + std::to_string(index) + "_statmsg"));
    }
}

// Refusals send nothing, not even a connect: a run status with a bad status
// or of an unknown package (looked up first), and a command longer than the
// 490 characters that fill the 512-byte request with the prefix and the
// NUL. The first request the daemon sees is the longest command that fits.
TEST_F(RunStatusTest, RefusalsSendNothing) {
    WriteText(molk::kPackagePath, PackageFile("1"));
    const struct { MolkPkgId id; uint32_t status; const char *printed; } rows[] = {
        {Id(kMotion), 3, "Invalid running status\n"}, {Id(9), 1, "Package is inexistent\n"},
        {Id(9), 3, "Package is inexistent\n"}};
    for (const auto &row : rows) {
        char message[] = "first\nsecond";
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, MolkSet_RunStatus(row.id, row.status, message));
        EXPECT_EQ(row.printed, testing::internal::GetCapturedStdout());
        EXPECT_STREQ("first\nsecond", message);
    }
    const std::string fits = "k=" + std::string(488, 'v');
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, SetToConfiger((fits + "v").c_str()));
    EXPECT_EQ("[MOLKUTIL] command too long!!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, gConnects);
    EXPECT_EQ(0, SetToConfiger(fits.c_str()));
    EXPECT_EQ(1, gConnects);
    AwaitRequests(1);
    EXPECT_NE(std::string::npos, ReadText(kLog).find("request 1: " + fits + "\n"));
    EXPECT_EQ(std::string(488, 'v'), Value("k"));
    EXPECT_EQ("1", Order());
}

// With the daemon down a request tries five connects and gives up with a
// message; a run status is still reported as attempted.
TEST_F(RunStatusTest, DaemonDownGivesUpAfterFiveTries) {
    StopTool(daemon_);
    daemon_ = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, SetToConfiger("a=1"));
    EXPECT_EQ("Connect to configer failed...\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(5, gConnects);

    gConnects = 0;
    char message[] = "lost";
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, MolkSet_RunStatus(Id(kMotion), 1, message));
    EXPECT_EQ("Connect to configer failed...\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(5, gConnects);
    EXPECT_EQ("", Order());
}

}  // namespace
