// The synthetic payload that `write` and `cache-write` produce and that
// `read --verify` checks, so that a copy made on the way can be trusted.
#include <cstring>

#include "molkshm.h"

void FillPattern(uint8_t *place, uint32_t size, uint32_t number) {
    memcpy(place, &number, size < 4 ? size : 4);
    if (size > 4) memset(place + 4, static_cast<int>(number & 0xFF), size - 4);
}

bool CheckPattern(const uint8_t *data, uint32_t size) {
    if (size < 8) return true;
    uint32_t number;
    memcpy(&number, data, 4);
    const uint8_t fill = static_cast<uint8_t>(number & 0xFF);
    for (uint32_t i = 4; i < size - 4; ++i) {
        if (data[i] != fill) return false;
    }
    return true;
}
