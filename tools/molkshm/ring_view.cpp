// The detail of one ring below its summary in `molkshm info`.
#include "molkshm.h"

void PrintRingDetail(const SharedMemSectorHeader *ring) { (void)ring; }
