// The texts that describe a block's sectors, e.g. "16M-video",
// "32M+video:/var/run/timeshift_adaptive.active", "4M~streaming",
// "6144K~512K~streaming", and the total size text ("64M").
#ifndef MOLK_FRAMESTORE_SECTOR_DESC_H
#define MOLK_FRAMESTORE_SECTOR_DESC_H

#include <cstdint>

namespace shm {

constexpr uint32_t kUnitMiB = 0x100000;
constexpr uint32_t kUnitKiB = 1024;

// One description as the allocator reads it. The tag texts point into the
// caller's text, whose first ':' in a ring's tag has been overwritten by NUL.
struct SectorDesc {
    bool isCache;
    bool timeshift;
    uint32_t size;         // bytes asked for, before clamping to what is left
    bool hasSlotSize;      // cache: a slot size stands between two '~'
    uint32_t slotSize;     // cache: bytes of one primary slot when given
    const char *tag;       // nullptr: no tag
    const char *secondTag; // ring: the text after ':' or nullptr
};

// Total size: atoi of the text times 1 MiB if it holds 'M' or 'm', else 1 KiB.
uint32_t ParseTotalSize(const char *text);

// Reads one description in the allocation grammar; writes a NUL over the
// first ':' of a ring's tag text.
SectorDesc ParseAllocationDesc(char *text);

// Repartition reads descriptions more simply: 'M' or 'm' anywhere (the tag
// included) makes the unit 1 MiB. The timeshift flag: -1 leaves it, 0 clears
// it ('-' wins), 1 sets it ('+').
struct RepartitionDesc {
    uint32_t size;
    int timeshift;
};
RepartitionDesc ParseRepartitionDesc(const char *text);

// Clamps size to what is left of total after `used` bytes and adds it to
// `used`. 64-bit so that no description can wrap the running total.
uint32_t ClampToRemaining(uint64_t *used, uint32_t size, uint32_t total);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_SECTOR_DESC_H
