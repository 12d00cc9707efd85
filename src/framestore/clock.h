// The frame clock: a wrapping 32-bit count of milliseconds derived from
// times(), never 0. Every place that stamps or compares ticks uses this.
#ifndef MOLK_FRAMESTORE_CLOCK_H
#define MOLK_FRAMESTORE_CLOCK_H

#include <cstdint>

namespace shm {

// gShm_Clktck must have been set (SharedMemBlock_Attach does it).
uint32_t CurrentTick();

// Tick of a times() reading c, with hz clock ticks per second. Split into
// 16-bit halves so that 1000*c never overflows 32 bits.
constexpr uint32_t TickFromClock(uint32_t c, uint32_t hz) {
    uint32_t tick = ((1000u * (c >> 16) / hz) << 16) + 1000u * (c & 0xFFFFu) / hz;
    return tick == 0 ? 1u : tick;
}

}  // namespace shm

#endif  // MOLK_FRAMESTORE_CLOCK_H
