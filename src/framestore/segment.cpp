#include "framestore/segment.h"

#include <cstring>

extern "C" {
// An entry is free of readers when its 16 pin counters equal this.
const uint8_t g_abyNULLArray[16] = {0};
}

namespace shm {

void CopyTag(char (&field)[SHM_TAG_SIZE], const char *text) {
    memset(field, 0, sizeof field);
    if (text != nullptr) strncpy(field, text, kTagMax);
}

int CountSectors(void *headerBase, int maxSlots) {
    int count = 0;
    while (count < maxSlots) {
        void *slot = SlotAt(headerBase, count);
        ++count;
        if (*HasNextOf(slot) != 1) break;
    }
    return count;
}

}  // namespace shm
