// The detail of one ring below its summary in `molkshm info`: which of its
// four forms the indices are in, and every entry that carries a pin, the
// writer's mark or the unread mark. Read without the lock, so a ring under
// a running writer shows one moment of it, possibly a torn one.
#include <cstdio>
#include <cstring>

#include "molkshm.h"

namespace {

constexpr int kMaxListed = 32;

struct Indices {
    int o, l, b, w;
    uint32_t writeOffset, start;
};

bool IsLive(const Indices &x, int i) { return i <= x.b && !(x.l < i && i < x.o); }

void PrintForm(const Indices &x) {
    printf("    form: ");
    if (x.o == -1 && x.l == -1 && x.b == -1 && x.w == 0 && x.writeOffset == x.start) {
        printf("empty\n");
    } else if (x.o == 0 && x.w >= 1 && x.l == x.w - 1 && x.b == x.l) {
        printf("one generation, entries 0..%d (%d frames)%s\n", x.l, x.l + 1,
               x.w == SHM_FRAME_ENTRIES ? ", entry table used up" : "");
    } else if (x.o == 0 && x.w == 0 && x.l == x.b && x.writeOffset == x.start) {
        printf("just rewound, entries 0..%d still readable\n", x.b);
    } else if (x.l >= 0 && x.w == x.l + 1 && x.w <= x.o && x.o <= x.b) {
        printf("two generations, older %d..%d, newer 0..%d (%d frames)\n", x.o, x.b, x.l,
               x.b - x.o + 1 + x.l + 1);
    } else {
        printf("none of the four (O %d L %d B %d W %d): torn by a writer, or damaged\n", x.o,
               x.l, x.b, x.w);
    }
}

void PrintEntry(const SharedMemFrameEntry &e, int i, bool live) {
    printf("      entry %4d %s tick %10u offset %u size %u flags 0x%x%s%s%s", i,
           live ? "live " : "stale", e.dwTimeTick, e.dwOffset, e.dwSize, e.dwFlags,
           (e.dwFlags & SHM_FRAME_P) ? " P" : " key",
           (e.dwFlags & SHM_FRAME_WRITING) ? " writing" : "",
           (e.dwFlags & SHM_FRAME_UNREAD) ? " unread" : "");
    bool first = true;
    for (int id = 0; id < 16; ++id) {
        if (e.abyAccessCount[id] == 0) continue;
        printf("%s%d:%d", first ? " pins " : " ", id, e.abyAccessCount[id]);
        first = false;
    }
    printf("\n");
}

}  // namespace

void PrintRingDetail(const SharedMemSectorHeader *ring) {
    Indices x = {ring->iOldestIndex, ring->iLatestIndex,   ring->iBoundaryIndex,
                 ring->iWriteIndex,  ring->dwWriteOffset, ring->dwStartOffset};
    PrintForm(x);
    int listed = 0, more = 0;
    for (int i = 0; i < SHM_FRAME_ENTRIES; ++i) {
        const SharedMemFrameEntry &e = ring->atFrame[i];
        bool pinned = memcmp(e.abyAccessCount, g_abyNULLArray, sizeof e.abyAccessCount) != 0;
        bool marked = (e.dwFlags & (SHM_FRAME_WRITING | SHM_FRAME_UNREAD)) != 0;
        if (!pinned && !marked) continue;
        if (listed == 0) printf("    entries with pins or marks:\n");
        if (listed == kMaxListed) {
            ++more;
            continue;
        }
        PrintEntry(e, i, IsLive(x, i));
        ++listed;
    }
    if (more != 0) printf("      ... and %d more\n", more);
}
