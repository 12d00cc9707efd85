// tzwriter: stands in for the device's keeper of the time-zone file. It
// changes the two offsets in place, as readers that map the file need (a
// file replaced by a new one would leave their mappings on the old one).
// Usage: tzwriter [OFFSET0 OFFSET1]   (seconds; without them it prints the record)
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../../src/moduleservices/paths.h"

namespace {

bool ParseSeconds(const char *text, int32_t *value) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    *value = static_cast<int32_t>(v);
    return true;
}

int Usage() {
    fprintf(stderr, "usage: tzwriter [OFFSET0 OFFSET1]\n"
                    "  stores the two offsets (seconds, local time minus UTC is their sum)\n"
                    "  at bytes 0 and 4 of %s; without them prints the record\n",
            molk::kTimezonePath);
    return 2;
}

int Show() {
    int fd = open(molk::kTimezonePath, O_RDONLY);
    if (fd == -1) {
        fprintf(stderr, "tzwriter: cannot open %s\n", molk::kTimezonePath);
        return 1;
    }
    int32_t record[2] = {0, 0};
    ssize_t got = pread(fd, record, sizeof record, 0);
    close(fd);
    if (got != static_cast<ssize_t>(sizeof record)) {
        printf("%s holds no record (%zd bytes)\n", molk::kTimezonePath, got < 0 ? 0 : got);
        return 0;
    }
    printf("tzoffset0 %d tzoffset1 %d\n", record[0], record[1]);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 1) return Show();
    int32_t record[2];
    if (argc != 3 || !ParseSeconds(argv[1], &record[0]) || !ParseSeconds(argv[2], &record[1])) {
        return Usage();
    }
    int fd = open(molk::kTimezonePath, O_RDWR | O_CREAT, 0600);
    if (fd == -1) {
        fprintf(stderr, "tzwriter: cannot open %s\n", molk::kTimezonePath);
        return 1;
    }
    // One write of both words at offset 0, so a reader sees the old pair or
    // the new one unless it copies in the very middle of it.
    ssize_t put = pwrite(fd, record, sizeof record, 0);
    if (close(fd) != 0 || put != static_cast<ssize_t>(sizeof record)) {
        fprintf(stderr, "tzwriter: cannot write %s\n", molk::kTimezonePath);
        return 1;
    }
    printf("tzoffset0 %d tzoffset1 %d written to %s\n", record[0], record[1], molk::kTimezonePath);
    return 0;
}
