// Fixed paths and well-known names of the frame store.
#ifndef MOLK_FRAMESTORE_PATHS_H
#define MOLK_FRAMESTORE_PATHS_H

namespace shm {

constexpr char kShmMaxPath[] = "/proc/sys/kernel/shmmax";
constexpr char kAdaptiveStampPath[] = "/var/run/timeshift_adaptive.active";

// The run-time directories a ring's own stamp file may lie in, separated
// by ':'. The path comes from the segment, which any process can scribble
// on, so a stamp file is never opened outside them. A device build sets
// its own list with the CMake option MOLK_STAMP_DIRS.
#ifndef MOLK_STAMP_DIRS
#define MOLK_STAMP_DIRS "/var/run:/run:/tmp"
#endif
constexpr char kStampDirs[] = MOLK_STAMP_DIRS;

// Tags of the cache sectors that ring handles take as companions.
constexpr char kStreamingTag[] = "streaming";
constexpr char kRecorderTag[] = "recorder";

}  // namespace shm

#endif  // MOLK_FRAMESTORE_PATHS_H
