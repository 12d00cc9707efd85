// Which pins have stayed on the same frame for long: `top` samples every
// pin once per refresh and remembers since when it has seen it.
#ifndef MOLKSHM_PIN_WATCH_H
#define MOLKSHM_PIN_WATCH_H

#include "molkshm.h"

// One pin seen: a counter of one AttachID on one entry (ring) or slot
// (cache), on the frame with that tick. The tick tells a frame from the
// next one that reuses its entry.
struct PinSeen {
    int sector, entry, attachId;
    uint32_t tick;
    double since;  // monotonic seconds when first seen on this frame
};

struct PinWatch {
    static constexpr int kMax = 256;  // pins beyond this are not followed
    PinSeen seen[kMax];
    int count;
};

// Replaces the watch's pins by those of the block now; a pin that was
// there at the last sample keeps its time. Sampled, not watched: a pin
// given back and taken again between two samples counts as one.
void SamplePins(PinWatch *watch, const SharedMemBlockInfo *info, double now);

#endif
