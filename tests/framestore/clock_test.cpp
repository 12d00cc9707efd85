#include <gtest/gtest.h>

#include "framestore/clock.h"
#include "sharedmem.h"

namespace {

struct Order {
    uint32_t a, b;
    int result;
    uint32_t distance;
};

TEST(TickOrder, ComparesTheShortWayRound) {
    const Order cases[] = {
        {5, 5, 0, 0},
        {10, 5, 1, 5},
        {5, 10, -1, 5},
        {0xFFFFFFF0u, 0x10, -1, 0x20},        // wrapped: the small tick is later
        {0x10, 0xFFFFFFF0u, 1, 0x20},
        {5, 0xFFFFFFFBu, 1, 10},
        {0x80000000u, 0, -1, 0x80000000u},    // exactly 2^31 counts as wrapped
        {0, 0x80000000u, 1, 0x80000000u},
        {0x7FFFFFFFu, 0, 1, 0x7FFFFFFFu},     // one less is not
    };
    for (const Order &c : cases) {
        uint32_t d = 0xDEAD;
        EXPECT_EQ(c.result, SharedMem_DWComparator(c.a, c.b, &d)) << c.a << " vs " << c.b;
        EXPECT_EQ(c.distance, d) << c.a << " vs " << c.b;
        EXPECT_EQ(c.result, SharedMem_DWComparator(c.a, c.b, nullptr));
    }
}

TEST(TickOrder, IsAntisymmetric) {
    uint32_t x = 0x12345678;
    for (int i = 0; i < 10000; ++i) {
        x = x * 1664525u + 1013904223u;
        uint32_t y = x ^ (x >> 7) * 2654435761u;
        EXPECT_EQ(-SharedMem_DWComparator(x, y, nullptr), SharedMem_DWComparator(y, x, nullptr));
    }
}

TEST(FrameClock, ConvertsClockTicksWithoutOverflow) {
    EXPECT_EQ(1u, shm::TickFromClock(0, 100));                // 0 is never a tick
    EXPECT_EQ(10u, shm::TickFromClock(1, 100));
    EXPECT_EQ(650000u,
              shm::TickFromClock(65000, 100));
    // High and low halves are scaled apart: (1000*1/100)<<16 + 1000*5/100.
    EXPECT_EQ((10u << 16) + 50u, shm::TickFromClock(0x10005, 100));
    EXPECT_EQ(((1000u * 0xFFFF / 250) << 16) + 1000u * 0xFFFF / 250,
              shm::TickFromClock(0xFFFFFFFFu, 250));
}

}  // namespace
