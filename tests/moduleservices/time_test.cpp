// Time services against the stand-in writer of the time-zone file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstdint>
#include <cstring>

#include "molkutil.h"
#include "moduleservices/paths.h"
#include "services_support.h"

namespace {

using namespace svc;

class TimeTest : public ::testing::Test {
protected:
    void SetUp() override { unlink(molk::kTimezonePath); }
    void TearDown() override {
        if (handle_ != nullptr) {
            EXPECT_EQ(0, MolkTime_Release(&handle_));
        }
        unlink(molk::kTimezonePath);
    }
    void Write(int32_t offset0, int32_t offset1) {
        ASSERT_EQ(0, RunTool("tzwriter", {std::to_string(offset0), std::to_string(offset1)}));
    }
    // UTC must lie between two clock readings taken around it, less the sum.
    void ExpectUtc(int64_t sum) {
        struct timeval before, utc, after;
        gettimeofday(&before, nullptr);
        ASSERT_EQ(0, MolkTime_GetUtcTime(handle_, &utc));
        gettimeofday(&after, nullptr);
        EXPECT_GE(static_cast<int64_t>(utc.tv_sec), static_cast<int64_t>(before.tv_sec) - sum);
        EXPECT_LE(static_cast<int64_t>(utc.tv_sec), static_cast<int64_t>(after.tv_sec) - sum);
        EXPECT_TRUE(utc.tv_usec >= 0 && utc.tv_usec < 1000000);
    }
    MolkTimeHandle *handle_ = nullptr;
};

// A file that does not hold the record yet (missing, then made empty by
// the first handle, or cut short) reads as offsets 0 without a fault; the
// same handle then follows every record the writer stores. The word at
// byte 4 comes out through the first out-argument.
TEST_F(TimeTest, FollowsTheWriterFromAFileWithoutRecord) {
    const int32_t records[][2] = {{900, 0}, {300, 300}, {-600, 0}, {10, 20}, {0, -3600}, {-43200, 50400}};
    auto expect = [this](int32_t offset0, int32_t offset1) {
        int first = 7, second = 7;
        ASSERT_EQ(0, MolkTime_GetTimezone(handle_, &first, &second));
        EXPECT_EQ(offset1, first);
        EXPECT_EQ(offset0, second);
        ExpectUtc(static_cast<int64_t>(offset0) + offset1);
    };
    for (const bool missing : {true, false}) {
        SCOPED_TRACE(missing ? "missing" : "short");
        unlink(molk::kTimezonePath);
        if (!missing) WriteText(molk::kTimezonePath, "\x10\x20\x30\x40");
        ASSERT_EQ(0, MolkTime_Initial(&handle_));
        struct stat info;
        ASSERT_EQ(0, stat(molk::kTimezonePath, &info));
        EXPECT_TRUE(!missing || (info.st_size == 0 && (info.st_mode & 0777) == 0600)) << info.st_size;
        expect(0, 0);
        for (const auto &r : records) {
            SCOPED_TRACE(std::to_string(r[0]) + "," + std::to_string(r[1]));
            Write(r[0], r[1]);
            const std::string bytes = ReadText(molk::kTimezonePath);
            int32_t stored[2] = {};
            ASSERT_GE(bytes.size(), sizeof stored);
            memcpy(stored, bytes.data(), sizeof stored);
            EXPECT_TRUE(stored[0] == r[0] && stored[1] == r[1]);  // native words at bytes 0 and 4
            expect(r[0], r[1]);
        }
        ASSERT_EQ(0, MolkTime_Release(&handle_));
        handle_ = nullptr;
    }
}

TEST_F(TimeTest, RefusesMissingArgumentsAndLeavesOutputsAlone) {
    struct timeval tv = {11, 22};
    int a = 5, b = 6;
    EXPECT_EQ(-1, MolkTime_GetUtcTime(nullptr, &tv));
    EXPECT_EQ(-1, MolkTime_GetTimezone(nullptr, &a, &b));
    EXPECT_EQ(11, tv.tv_sec);
    EXPECT_EQ(22, tv.tv_usec);
    EXPECT_EQ(5, a);
    EXPECT_EQ(6, b);
    EXPECT_EQ(-1, MolkTime_GetLocalTime(nullptr, nullptr));
    MolkTimeHandle *none = nullptr;
    EXPECT_EQ(-1, MolkTime_Release(&none));
    // The local time needs no handle.
    EXPECT_EQ(0, MolkTime_GetLocalTime(nullptr, &tv));
    EXPECT_NE(11, tv.tv_sec);
}

}  // namespace
