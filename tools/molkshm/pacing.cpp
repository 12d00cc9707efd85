// Time for the tools: the pace of the synthetic writers, where item n is
// due n / rate seconds after the start so that a slow item does not shift
// all that follow, the monotonic clock of readers and `top`, and the stop
// that SIGINT and SIGTERM give their loops.
#include "molkshm.h"

volatile sig_atomic_t g_stop = 0;

namespace {
void OnSignal(int) { g_stop = 1; }
}  // namespace

void StopOnSignals() {
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
}

void WaitForNth(const timespec &start, unsigned long n, unsigned long rate) {
    if (rate == 0) return;
    unsigned long long ns = static_cast<unsigned long long>(n) * 1000000000ull / rate;
    timespec at = start;
    at.tv_sec += static_cast<time_t>(ns / 1000000000ull);
    at.tv_nsec += static_cast<long>(ns % 1000000000ull);
    if (at.tv_nsec >= 1000000000L) {
        at.tv_sec += 1;
        at.tv_nsec -= 1000000000L;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) != 0 && !g_stop) {
    }
}

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}
