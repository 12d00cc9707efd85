// Adaptive reading: a reader is thinned (mark frames only, a rate limit, a
// lowest layer) until a tick published in a small shared file opens a
// window; inside it the full stream flows. The file holds one native
// 32-bit word, the active tick on the frames' clock, or 0. The library
// creates and clears it but never publishes a tick.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framestore/paths.h"
#include "framestore/reader.h"
#include "framestore/stamp_path.h"

namespace {

constexpr uint32_t kAdaptiveFlags = SHM_READ_ADAPTIVE_BY_ATTACH | SHM_READ_ADAPTIVE_MARK_ONLY |
                                    SHM_READ_ADAPTIVE_RATE_LIMIT;
constexpr uint32_t kDefaultWindow = 10000;   // ms, when the request gives 0
constexpr uint32_t kStaleAfter = 120000;     // ms past the window's end
constexpr uint32_t kLayerAfterStart = 5;     // layer waited for after a start

// The sector's own stamp file if its second tag names one.
void StampPath(const SharedMemSectorHeader *ring, char (&path)[SHM_TAG_SIZE]) {
    memcpy(path, ring->szSecondTag, sizeof path);
    path[SHM_TAG_MAX] = '\0';
    if (path[0] == '\0') {
        strncpy(path, shm::kAdaptiveStampPath, sizeof path - 1);
    }
}

constexpr int kRefused = -2;  // OpenStamp: never to be tried again

// Refuses a stamp path once for the handle: logged, and the handle gets a
// private word of zeros in place of the file, so that it reads as if no
// tick were published and never comes back here.
int Refuse(const char *path, const char *why) {
    shm::LogError("Adaptive stamp file %s refused: %s\n", path, why);
    return kRefused;
}

// Opens the stamp file without following a symbolic link in its last
// component, creating it when missing. A descriptor, -1 for a failure the
// next query retries, or kRefused.
int OpenStamp(const char *path) {
    const char *why = shm::StampPathRefusal(path);
    if (why != nullptr) return Refuse(path, why);
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = open(path, kFlags, 0600);
    if (fd < 0 && errno != ELOOP && errno != EISDIR) {
        perror("open");
        fd = open(path, kFlags | O_CREAT, 0600);
        if (fd < 0 && errno != ELOOP && errno != EISDIR) {
            perror("create");
            return -1;
        }
    }
    if (fd < 0) return Refuse(path, errno == ELOOP ? "a symbolic link" : "a directory");
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return Refuse(path, "not a regular file");
    }
    return fd;
}

// A file shorter than its word would fault the reader on the first load:
// it is padded with zeros to the word's size, which publishes nothing.
bool HoldsAWord(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    if (st.st_size >= static_cast<off_t>(sizeof(uint32_t))) return true;
    return ftruncate(fd, sizeof(uint32_t)) == 0;
}

uint32_t *ZeroWord() {
    void *word = mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return word == MAP_FAILED ? nullptr : static_cast<uint32_t *>(word);
}

// Maps the stamp word into the handle, once; a failure is retried by the
// next query and reads as 0 meanwhile. SharedMem_Release unmaps the word,
// the file's or the private one of a refused path alike.
void MapStamp(SharedMemHandle *handle) {
    char path[SHM_TAG_SIZE];
    StampPath(handle->ptHeader, path);
    int fd = OpenStamp(path);
    if (fd == kRefused) handle->pdwAdaptiveStamp = ZeroWord();
    if (fd < 0) return;
    void *word = MAP_FAILED;
    if (HoldsAWord(fd)) {
        word = mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (word == MAP_FAILED) perror("mmap");
    }
    handle->pdwAdaptiveStamp = word == MAP_FAILED ? nullptr : static_cast<uint32_t *>(word);
    printf("mmap %p\n", static_cast<void *>(handle->pdwAdaptiveStamp));
    close(fd);
}

shm::Thinning ThinningOutsideWindow(uint32_t flags, int attachId) {
    shm::Thinning t = {(flags & SHM_READ_LAYER_MASK) >> 14, false, false};
    if (flags & SHM_READ_ADAPTIVE_BY_ATTACH) {
        t.markOnly = attachId == 0 || attachId == 2;
        t.rateLimit = attachId == 1 || attachId == 2;
    }
    if (flags & SHM_READ_ADAPTIVE_MARK_ONLY) t.markOnly = true;
    if (flags & SHM_READ_ADAPTIVE_RATE_LIMIT) t.rateLimit = true;
    return t;
}

// A client entering a window goes back to the frame behind its last
// delivery, so that what the thinning skipped comes through.
int StartWindow(shm::ReadStep *q, uint32_t end, uint32_t flagLayer) {
    SharedMemBufClient *client = q->client;
    client->dwAdaptiveActive = 1;
    SHM_LOG(shm::kLevelConflict, "Adaptive Active timestamp %u\n", end);
    if (q->request->dwReadFlags & SHM_READ_KEY_START) {
        uint32_t next = 0;
        if (SharedMem_CheckIndexValid(q->ring, client->iDeliveredIndex,
                                      client->dwDeliveredTimeTick, &next) != 0 ||
            !shm::InTable(static_cast<int>(next))) {
            SHM_LOG(shm::kLevelConflict, "Adaptive Search out-of-range");
            client->iLastIndex = -1;
            q->request->dwReason = SHM_REASON_FAILED;
            return -1;
        }
        shm::MoveCandidate(q, static_cast<int>(next));
    }
    int delivered = client->iDeliveredIndex;
    if (flagLayer != 0 && shm::InTable(delivered) && shm::IsPredicted(q->ring, delivered)) {
        client->dwLayerWait = kLayerAfterStart;
    }
    return 0;
}

// Inside a window the thinning is lifted, but a client that started on a
// predicted frame drops predicted frames below the awaited layer until a
// frame of that layer comes.
void LiftThinning(shm::ReadStep *q, shm::Thinning *t) {
    SharedMemBufClient *client = q->client;
    t->markOnly = false;
    t->rateLimit = false;
    if (client->dwLayerWait == 0) {
        t->layer = 0;
    } else if (shm::LayerOf(shm::LoadWord(q->ring->atFrame[q->candidate].dwFlags)) ==
               client->dwLayerWait) {
        client->dwLayerWait = 0;
        t->layer = 0;
    } else {
        t->layer = client->dwLayerWait;
    }
}

}  // namespace

namespace shm {

int DecideThinning(ReadStep *q, Thinning *thinning) {
    uint32_t flags = q->request->dwReadFlags;
    *thinning = Thinning{(flags & SHM_READ_LAYER_MASK) >> 14, false, false};
    if ((flags & kAdaptiveFlags) == 0) return 0;

    SharedMemHandle *handle = q->handle;
    if (handle->pdwAdaptiveStamp == nullptr) MapStamp(handle);
    uint32_t stamp = handle->pdwAdaptiveStamp != nullptr
                         ? __atomic_load_n(handle->pdwAdaptiveStamp, __ATOMIC_RELAXED)
                         : 0;
    *thinning = ThinningOutsideWindow(flags, handle->iAttachId);
    if (stamp == 0) {
        q->client->dwAdaptiveActive = 0;
        return 0;
    }
    uint32_t window = q->request->dwAdaptiveWindow != 0 ? q->request->dwAdaptiveWindow
                                                        : kDefaultWindow;
    uint32_t end = stamp + window;
    uint32_t past = 0;
    // The window follows the frames' ticks, not the clock: a late reader is
    // inside it for as long as its frames are.
    if (SharedMem_DWComparator(end, q->tick, &past) <= 0) {
        q->client->dwAdaptiveActive = 0;
        if (past > kStaleAfter) {
            SHM_LOG(kLevelConflict, "Adaptive Reset active timestamp");
            __atomic_store_n(handle->pdwAdaptiveStamp, 0u, __ATOMIC_RELAXED);
        }
        return 0;
    }
    if (q->client->dwAdaptiveActive == 0 && StartWindow(q, end, thinning->layer) != 0) return -1;
    LiftThinning(q, thinning);
    return 0;
}

}  // namespace shm
