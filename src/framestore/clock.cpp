#include "framestore/clock.h"

#include <cerrno>
#include <sys/times.h>

#include "sharedmem.h"

extern "C" {
uint32_t gShm_Clktck = 0;

MOLK_API int SharedMem_DWComparator(uint32_t dwA, uint32_t dwB, uint32_t *pdwDistance) {
    if (pdwDistance != nullptr) *pdwDistance = 0;
    if (dwA == dwB) return 0;
    uint32_t d = dwA > dwB ? dwA - dwB : dwB - dwA;
    bool wrapped = d > ~d;  // d >= 2^31: the short way round crosses 0
    if (pdwDistance != nullptr) *pdwDistance = wrapped ? 0u - d : d;
    return shm::TickLater(dwA, dwB) ? 1 : -1;
}
}

namespace shm {

uint32_t CurrentTick() {
    struct tms unused;
    clock_t now = times(&unused);
    uint32_t c = now == static_cast<clock_t>(-1) ? ~static_cast<uint32_t>(errno)
                                                  : static_cast<uint32_t>(now);
    // A process that never attached has no clock rate; the common 100 Hz
    // keeps the arithmetic defined rather than dividing by zero.
    return TickFromClock(c, gShm_Clktck != 0 ? gShm_Clktck : 100u);
}

}  // namespace shm
