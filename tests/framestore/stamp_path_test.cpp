// Which stamp paths an adaptive reader opens. The path comes from the
// segment, so one that leaves the run-time directories, goes through a
// subdirectory of one, climbs with '..', or ends on a link, a directory or
// a FIFO is refused once, logged, and reads as no tick; the thing it names
// is left as it was.
#include <sys/stat.h>
#include <unistd.h>

#include "fake_ring.h"

namespace {

enum Kind { kMissing, kFile, kLink, kDir, kFifo };

struct StampCase {
    const char *path;
    Kind kind;  // what stands at the path before the reader comes
    bool accepted;
};

// A regular file outside the run-time directories: what a link points to,
// and what a refused path must never create or clear.
constexpr char kElsewhere[] = "/etc/conf.d/stamp-target";
constexpr uint32_t kTick = 4242;

void Make(const char *path, Kind kind) {
    switch (kind) {
    case kFile: {
        FILE *f = fopen(path, "w");
        ASSERT_NE(nullptr, f);
        ASSERT_EQ(1u, fwrite(&kTick, 4, 1, f));
        fclose(f);
        break;
    }
    case kLink: ASSERT_EQ(0, symlink(kElsewhere, path)); break;
    case kDir: ASSERT_EQ(0, mkdir(path, 0700)); break;
    case kFifo: ASSERT_EQ(0, mkfifo(path, 0600)); break;
    case kMissing: break;
    }
}

TEST(StampPath, OnlyRegularFilesDirectlyInTheRunTimeDirectories) {
    const StampCase cases[] = {
        {"/tmp/stamp-file", kFile, true},
        {"/tmp/stamp-new", kMissing, true},  // created
        {"/run/stamp-file", kFile, true},
        {"/var/run/stamp-file", kFile, true},
        {"/tmp//deep/../stamp-file", kMissing, false},
        {"/tmp/../etc/conf.d/stamp-new", kMissing, false},
        {"tmp/stamp-relative", kMissing, false},
        {"/tmp/stamp-link", kLink, false},
        {"/tmp/stamp-dirlink/stamp-target", kMissing, false},  // through a linked directory
        {"/tmp/no-such-dir/stamp", kMissing, false},
        {"/tmp/stamp-dir", kDir, false},
        {"/tmp/stamp-fifo", kFifo, false},
        {"/etc/conf.d/stamp-new", kMissing, false},      // outside the list
        {"/tmpfoo/stamp", kMissing, false},             // a prefix is not a directory
        {"/tmp/", kMissing, false},
    };
    ASSERT_EQ(0, symlink("/etc/conf.d", "/tmp/stamp-dirlink"));
    for (const StampCase &c : cases) {
        SCOPED_TRACE(c.path);
        unlink(kElsewhere);
        Make(kElsewhere, kFile);
        Make(c.path, c.kind);
        struct stat st;
        const bool existed = lstat(c.path, &st) == 0;
        FakeRing f(4000);
        StampFile stamp(f, c.path);  // and removed with it
        WriteRun(f, 3, 10000, 100, 5);
        Reader r(f, 3);
        // Two queries: a refusal is logged by the first alone.
        const Printed out = PrintedWhile(f.semId(), [&] {
            r.Query({kInPlace | SHM_READ_ADAPTIVE_MARK_ONLY | SHM_READ_FROM_OLDEST, 10000});
            r.Query({kInPlace | SHM_READ_ADAPTIVE_MARK_ONLY, 10000});
        });
        size_t refusals = 0;
        for (size_t at = 0; (at = out.text.find("refused", at)) != std::string::npos; ++at) {
            ++refusals;
        }
        EXPECT_EQ(c.accepted ? 0u : 1u, refusals) << out.text;
        ASSERT_NE(nullptr, r.handle()->pdwAdaptiveStamp);
        EXPECT_EQ(c.accepted && c.kind == kFile ? kTick : 0u, *r.handle()->pdwAdaptiveStamp);
        EXPECT_EQ(kTick, StampWord(kElsewhere)) << "the file elsewhere was touched";
        if (c.accepted) {
            EXPECT_NE(0xFFFFFFFFu, stamp.Read()) << "not made";
        } else {
            EXPECT_EQ(existed, lstat(c.path, &st) == 0) << "made";
        }
        if (c.kind == kDir) rmdir(c.path);
    }
    unlink(kElsewhere);
    unlink("/tmp/stamp-dirlink");
}

}  // namespace
