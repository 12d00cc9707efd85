// A peer process for the cross-architecture test: one build of it makes a
// block and writes into it, another build (the other word size, under
// qemu-arm) attaches the same block and checks every word.
//   shm_peer make KEY | check KEY | delete KEY
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sharedmem.h"

namespace {

constexpr char kPattern[] = "frame bytes written by the peer";

int Fail(const char *what) {
    fprintf(stderr, "shm_peer: %s\n", what);
    return 1;
}

template <typename Header>
Header *Slot(SharedMemBlockInfo *info, int i) {
    void *slot = static_cast<char *>(info->pvHeaderBase) + i * SHM_HEADER_SLOT_SIZE;
    return static_cast<Header *>(slot);
}

#define CHECK(cond) \
    if (!(cond)) return Fail("mismatch: " #cond)
// Written by the maker, compared by both: each build reaches the word
// through its own layout of the records.
#define FIELD(lvalue, value)          \
    do {                              \
        if (make) (lvalue) = (value); \
        CHECK((lvalue) == (value));   \
    } while (0)

int Peer(SharedMemBlockInfo *info, bool make) {
    // What the allocator of the making build wrote.
    CHECK(info->iSectorNum == 3);
    SharedMemSectorHeader *ring = Slot<SharedMemSectorHeader>(info, 0);
    CHECK(ring->dwTotalSize == 8u * 0x100000 && ring->dwEndOffset == 2u * 0x100000);
    CHECK(ring->dwStartOffset == 3 * SHM_HEADER_SLOT_SIZE);
    CHECK(strcmp(ring->szTag, "video") == 0 && ring->iMaxIndex == 1279);
    SharedMemSectorHeader *shift = Slot<SharedMemSectorHeader>(info, 1);
    CHECK(shift->byTimeshift == 1 && strcmp(shift->szSecondTag, "/var/run/x") == 0);
    SharedMemCacheHeader *cache = Slot<SharedMemCacheHeader>(info, 2);
    CHECK(strcmp(cache->szTag, "streaming") == 0 && cache->byHasNext == 0);
    CHECK(cache->iSecondaryEnd == 35);

    FIELD(ring->iOldestIndex, 5);
    FIELD(ring->iLatestIndex, 4);
    FIELD(ring->iWriteIndex, 5);
    FIELD(ring->iBoundaryIndex, 1279);
    FIELD(ring->dwDuration, 0xA5A5A5A5u);
    SharedMemFrameEntry &e = ring->atFrame[1279];
    FIELD(e.dwFlags, SHM_FRAME_UNREAD | SHM_FRAME_P);
    FIELD(e.dwTimeTick, 0xFFFFFFF0u);
    FIELD(e.dwOffset, ring->dwStartOffset);
    FIELD(e.dwSize, static_cast<uint32_t>(sizeof kPattern));
    FIELD(e.abyAccessCount[15], 200);
    FIELD(cache->iPrimaryBoundary, 35);
    FIELD(cache->atCache[35].dwTimeTick, 0x01020304u);
    FIELD(cache->atCache[35].abyAccessCount[0], 7);
    char *bytes = static_cast<char *>(info->pvDataBase) + e.dwOffset;
    if (make) memcpy(bytes, kPattern, sizeof kPattern);
    CHECK(memcmp(bytes, kPattern, sizeof kPattern) == 0);

    // The same words read at their raw byte offsets.
    const unsigned char *raw = reinterpret_cast<unsigned char *>(ring);
    uint32_t word;
    memcpy(&word, raw + 28, 4);
    CHECK(word == 0xA5A5A5A5u);
    memcpy(&word, raw + 128 + 1279 * 32 + 4, 4);
    CHECK(word == 0xFFFFFFF0u);
    CHECK(raw[SHM_HEADER_SLOT_SIZE + 126] == 1);
    if (!make) printf("shm_peer: %zu-bit process sees the block as written\n", sizeof(void *) * 8);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) return Fail("usage: shm_peer make|check|delete KEY");
    key_t key = static_cast<key_t>(strtoul(argv[2], nullptr, 0));
    if (strcmp(argv[1], "delete") == 0) return SharedMemBlock_Delete(key);
    const bool make = strcmp(argv[1], "make") == 0;
    if (make) {
        char total[] = "8M", d0[] = "2M-video", d1[] = "1M+shift:/var/run/x",
             d2[] = "1M~streaming";
        char *descs[] = {d0, d1, d2};
        SharedMemBlockConfig config = {SHM_MEMORY_SYSV, 0, 0, 4096, 0};
        if (SharedMemBlock_Allocate(key, total, 3, &config, descs) != 0) return Fail("allocate");
    }
    SharedMemBlockInfo *info = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) return Fail("attach");
    int rc = Peer(info, make);
    SharedMemBlock_Detach(&info);
    return rc;
}
