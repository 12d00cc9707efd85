// The frame clock: a wrapping 32-bit count of milliseconds derived from
// times(), never 0. Every place that stamps or compares ticks uses this.
#ifndef MOLK_FRAMESTORE_CLOCK_H
#define MOLK_FRAMESTORE_CLOCK_H

#include <cstdint>

namespace shm {

// a is a later tick than b: the short way round from b to a goes forward.
// At exactly half the circle the numerically smaller tick is the later.
// Inline, for the searches that compare every slot or entry.
constexpr bool TickLater(uint32_t a, uint32_t b) {
    uint32_t forward = a - b;
    return forward != 0 && (forward < 0x80000000u || (forward == 0x80000000u && a < b));
}

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
