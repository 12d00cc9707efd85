// One AttachID's column of pin counters in a table of ring entries or
// cache slots: what a reader that is gone left behind.
#ifndef MOLK_FRAMESTORE_PIN_COLUMN_H
#define MOLK_FRAMESTORE_PIN_COLUMN_H

#include "framestore/segment.h"

namespace shm {

inline bool PinsSomething(int attachId) { return attachId >= 0 && attachId < kAttachIds; }

// Zeroes the counter of `attachId` (0..15, checked by the caller) in
// entries[0..count) and returns the pins those counters held.
template <typename Entry>
int ClearPinColumn(Entry *entries, int count, int attachId) {
    int cleared = 0;
    for (int k = 0; k < count; ++k) {
        cleared += entries[k].abyAccessCount[attachId];
        entries[k].abyAccessCount[attachId] = 0;
    }
    return cleared;
}

}  // namespace shm

#endif  // MOLK_FRAMESTORE_PIN_COLUMN_H
