// Waiting for the next frame: the state readers sleep on lives beside the
// block, not in it, so that the segment's layout stays what every other
// process of the device expects.
//
// The companion is a POSIX shared-memory object named after the block's key
// ("/molkutil.wait.<key>"), made by the allocator or the first attach and
// removed with the block. It holds one WaitSector per sector: a publish
// count that is also the futex word, and the waiters registered on it by
// PID, so that the writer makes a system call only when somebody sleeps
// and a waiter killed in its sleep is found dead and dropped.
//
// Per process, each attached block's companion is found by the block's
// base address among the attachments (attachments.h).
#ifndef MOLK_FRAMESTORE_WAIT_H
#define MOLK_FRAMESTORE_WAIT_H

#include <sys/types.h>

#include <cstdint>

#include "sharedmem.h"

namespace shm {

constexpr int kWaitSectors = 256;      // sectors of a block that can be waited on
constexpr int kWaiterSlots = 14;       // sleepers registered per sector

// 64 bytes: one cache line per sector, so that publishing on one ring
// does not disturb the sleepers of another.
struct WaitSector {
    uint32_t published;                 // futex word: counts the ring's publications
    uint32_t waiters;                   // registered sleepers
    int32_t pids[kWaiterSlots];         // 0 = free slot
};
static_assert(sizeof(WaitSector) == 64, "one cache line per sector");

struct WaitArea {
    WaitSector sectors[kWaitSectors];
};
static_assert(sizeof(WaitArea) == 16384, "the companion's size is shared by every process");

// Maps (creating when missing) the companion of the block under `key`;
// null on failure, which only costs the waiters their time-outs.
WaitArea *OpenWaitArea(key_t key);
// Makes the companion of the block under `key`, if it is missing.
void MakeWaitArea(key_t key);
// Unmaps a companion; null is ignored.
void CloseWaitArea(WaitArea *area);
// Removes the companion of the block under `key`.
void RemoveWaitArea(key_t key);

// The writer has published on `handle`'s sector: wakes its sleepers, if it
// has any. No system call otherwise.
void WakeReaders(const SharedMemHandle *handle);

}  // namespace shm

#endif  // MOLK_FRAMESTORE_WAIT_H
