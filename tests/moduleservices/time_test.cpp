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

// One handle follows every record the writer stores; the word at byte 4
// comes out through the first out-argument.
TEST_F(TimeTest, FollowsTheWriterWithTheByteOrderOfTheRecord) {
    struct Row {
        int32_t offset0, offset1;
    };
    const Row rows[] = {{900, 0}, {300, 300}, {-600, 0}, {10, 20}, {0, -3600}, {-43200, 50400}};
    Write(0, 0);
    ASSERT_EQ(0, MolkTime_Initial(&handle_));
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.offset0) + "," + std::to_string(row.offset1));
        Write(row.offset0, row.offset1);
        const std::string bytes = ReadText(molk::kTimezonePath);
        ASSERT_GE(bytes.size(), 8u);
        int32_t stored[2];
        memcpy(stored, bytes.data(), sizeof stored);
        EXPECT_EQ(row.offset0, stored[0]);  // native words at bytes 0 and 4
        EXPECT_EQ(row.offset1, stored[1]);
        int first = 1, second = 1;
        ASSERT_EQ(0, MolkTime_GetTimezone(handle_, &first, &second));
        EXPECT_EQ(row.offset1, first);
        EXPECT_EQ(row.offset0, second);
        ExpectUtc(static_cast<int64_t>(row.offset0) + row.offset1);
    }
}

// A file that does not hold the record yet (missing, then made empty by
// the first handle, or cut short) reads as offsets 0 without a fault, and
// a record written later is seen through the same handle.
TEST_F(TimeTest, FileWithoutRecordReadsAsZeroUntilWritten) {
    for (const char *start : {"missing", "short"}) {
        SCOPED_TRACE(start);
        unlink(molk::kTimezonePath);
        if (strcmp(start, "short") == 0) WriteText(molk::kTimezonePath, "\x10\x20\x30\x40");
        ASSERT_EQ(0, MolkTime_Initial(&handle_));
        struct stat info;
        ASSERT_EQ(0, stat(molk::kTimezonePath, &info));
        if (strcmp(start, "missing") == 0) {
            EXPECT_EQ(0, info.st_size);
            EXPECT_EQ(0600u, info.st_mode & 0777);
        }
        int first = 7, second = 7;
        ASSERT_EQ(0, MolkTime_GetTimezone(handle_, &first, &second));
        EXPECT_EQ(0, first);
        EXPECT_EQ(0, second);
        ExpectUtc(0);
        Write(120, 3600);
        ASSERT_EQ(0, MolkTime_GetTimezone(handle_, &first, &second));
        EXPECT_EQ(3600, first);
        EXPECT_EQ(120, second);
        ExpectUtc(3720);
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
