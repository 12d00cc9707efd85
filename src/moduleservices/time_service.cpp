// UTC and the time-zone offsets. The system clock holds local time; another
// process keeps the offsets in a small shared file, changed in place:
//   OFFSET SIZE FIELD      NOTE
//        0    4 tzoffset0  seconds, signed, native byte order
//        4    4 tzoffset1  seconds, signed, native byte order
// Local time minus UTC is their sum. 32 bytes of the file are mapped
// read-only and shared, so each reading sees what the writer last stored.
// No lock exists between writer and readers: a reading takes both words in
// one copy and may meet a change half way.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "molkutil.h"
#include "moduleservices/paths.h"

struct MolkTimeHandle {
    const void *record;  // the shared mapping
    // Open only while the file was too short to hold the record when it was
    // mapped: a reading beyond the end of a file faults (SIGBUS), so each
    // reading then asks the file's size first. -1 otherwise.
    int shortFile;
};

namespace {

struct TimezoneRecord {
    int32_t tzoffset0;
    int32_t tzoffset1;
};
static_assert(sizeof(TimezoneRecord) == 8, "the writer stores two 32-bit words at bytes 0 and 4");

bool HoldsRecord(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && info.st_size >= static_cast<off_t>(sizeof(TimezoneRecord));
}

// The record as it stands now; offsets 0 while the file does not hold one.
bool ReadRecord(const MolkTimeHandle *handle, TimezoneRecord *record) {
    if (handle == nullptr || handle->record == nullptr) return false;
    memset(record, 0, sizeof *record);
    if (handle->shortFile == -1 || HoldsRecord(handle->shortFile)) {
        memcpy(record, handle->record, sizeof *record);
    }
    return true;
}

}  // namespace

extern "C" {

MOLK_API int MolkTime_Initial(MolkTimeHandle **pptHandle) {
    if (pptHandle == nullptr) return -1;
    MolkTimeHandle *handle = static_cast<MolkTimeHandle *>(malloc(sizeof(MolkTimeHandle)));
    if (handle == nullptr) return -1;
    int fd = open(molk::kTimezonePath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd == -1) {
        free(handle);
        return -1;
    }
    void *map = mmap(nullptr, molk::kTimezoneMapSize, PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        puts("Timezone mmap read failed");
        free(handle);
        close(fd);
        return -1;
    }
    handle->record = map;
    handle->shortFile = -1;
    if (HoldsRecord(fd)) {
        close(fd);  // the mapping does not need it
    } else {
        handle->shortFile = fd;
    }
    *pptHandle = handle;
    return 0;
}

MOLK_API int MolkTime_Release(MolkTimeHandle **pptHandle) {
    if (pptHandle == nullptr || *pptHandle == nullptr) return -1;
    MolkTimeHandle *handle = *pptHandle;
    if (handle->record != nullptr) munmap(const_cast<void *>(handle->record), molk::kTimezoneMapSize);
    if (handle->shortFile != -1) close(handle->shortFile);
    free(handle);
    return 0;
}

MOLK_API int MolkTime_GetUtcTime(MolkTimeHandle *ptHandle, struct timeval *ptTime) {
    TimezoneRecord record;
    if (ptTime == nullptr || !ReadRecord(ptHandle, &record)) return -1;
    struct timeval now;
    gettimeofday(&now, nullptr);
    // The sum wraps in 32 bits as the device computes it; the subtraction
    // wraps in the width of the clock's seconds.
    using Seconds = std::make_unsigned<decltype(now.tv_sec)>::type;
    const int32_t offset = static_cast<int32_t>(static_cast<uint32_t>(record.tzoffset1) +
                                                static_cast<uint32_t>(record.tzoffset0));
    ptTime->tv_sec = static_cast<decltype(now.tv_sec)>(static_cast<Seconds>(now.tv_sec) -
                                                       static_cast<Seconds>(offset));
    ptTime->tv_usec = now.tv_usec;
    return 0;
}

MOLK_API int MolkTime_GetLocalTime(MolkTimeHandle *ptHandle, struct timeval *ptTime) {
    (void)ptHandle;
    if (ptTime == nullptr) return -1;
    gettimeofday(ptTime, nullptr);
    return 0;
}

MOLK_API int MolkTime_GetTimezone(MolkTimeHandle *ptHandle, int *piOffset1, int *piOffset0) {
    TimezoneRecord record;
    if (piOffset1 == nullptr || piOffset0 == nullptr || !ReadRecord(ptHandle, &record)) return -1;
    *piOffset1 = record.tzoffset1;
    *piOffset0 = record.tzoffset0;
    return 0;
}

}  // extern "C"
