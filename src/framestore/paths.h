// Fixed paths and well-known names of the frame store.
#ifndef MOLK_FRAMESTORE_PATHS_H
#define MOLK_FRAMESTORE_PATHS_H

namespace shm {

constexpr char kShmMaxPath[] = "/proc/sys/kernel/shmmax";
constexpr char kAdaptiveStampPath[] = "/var/run/timeshift_adaptive.active";

// Tags of the cache sectors that ring handles take as companions.
constexpr char kStreamingTag[] = "streaming";
constexpr char kRecorderTag[] = "recorder";

}  // namespace shm

#endif  // MOLK_FRAMESTORE_PATHS_H
