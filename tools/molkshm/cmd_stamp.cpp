// molkshm stamp: publishes (or clears) the tick that opens adaptive
// readers' windows, standing in for the device process that does so. The
// file holds one native 32-bit word on the frames' clock.
#include <fcntl.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framestore/clock.h"
#include "molkshm.h"

namespace {

uint32_t FrameClockNow() {
    struct tms unused;
    uint32_t hz = static_cast<uint32_t>(sysconf(_SC_CLK_TCK));
    return shm::TickFromClock(static_cast<uint32_t>(times(&unused)), hz);
}

}  // namespace

int CmdStamp(int argc, char **argv) {
    if (argc < 2 || argc > 3) return Fail("usage: molkshm stamp PATH [TICK|now|0]");
    uint32_t tick = FrameClockNow();
    if (argc == 3 && strcmp(argv[2], "now") != 0) {
        unsigned long v;
        if (!ParseUnsigned(argv[2], &v) || v > 0xFFFFFFFFul) return Fail("bad tick '%s'", argv[2]);
        tick = static_cast<uint32_t>(v);
    }
    int fd = open(argv[1], O_WRONLY | O_CREAT, 0600);
    if (fd < 0) return Fail("cannot open %s: %s", argv[1], strerror(errno));
    // One aligned 4-byte write at offset 0: readers map the word and never
    // see half of it.
    ssize_t n = pwrite(fd, &tick, sizeof tick, 0);
    close(fd);
    if (n != static_cast<ssize_t>(sizeof tick)) return Fail("cannot write %s", argv[1]);
    printf(tick != 0 ? "adaptive tick %u published in %s\n" : "adaptive tick %u: %s cleared\n",
           tick, argv[1]);
    return 0;
}
