// Reading a ring through its companion cache sector: one copy per ring
// frame for every reader of that cache, and a ring that is free at once.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "ipc_fixture.h"

namespace {

constexpr uint32_t kViaCache = SHM_READ_VIA_CACHE | SHM_READ_FROM_OLDEST;

uint8_t ByteOf(uint32_t seq, uint32_t i) { return static_cast<uint8_t>(seq * 131 + i * 7); }

bool BytesOf(uint32_t seq, const uint8_t *data, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
        if (data[i] != ByteOf(seq, i)) return false;
    }
    return true;
}

// A block with ring "video" (sector 0) and cache "streaming" (sector 1, 8
// slots of 8 KiB), the test process as its writer.
class ReadThrough : public IpcTest {
protected:
    void SetUp() override {
        info_ = MakeBlock("1M", {"256K-video", "64K~8K~streaming"}, &key_);
        ASSERT_NE(nullptr, info_);
        writer_ = Open(16);
    }
    void TearDown() override {
        for (SharedMemHandle *&h : handles_) SharedMem_Release(&h);
        IpcTest::TearDown();
    }
    SharedMemHandle *Open(int attachId) {
        SharedMemHandle *h = nullptr;
        EXPECT_EQ(0, SharedMem_InitialByTag(info_, &h, "video", attachId));
        handles_.push_back(h);
        return h;
    }
    // Frame `seq` of `size` bytes; the writer's status, 0 when it was placed.
    uint32_t Write(uint32_t seq, uint32_t size = 1000) {
        uint8_t *place = nullptr;
        if (SharedMem_QueryAutoRewindWriteBuffer(writer_, &place, size) != 0) {
            return writer_->dwWriteStatus != 0 ? writer_->dwWriteStatus : 99;
        }
        for (uint32_t i = 0; i < size; ++i) place[i] = ByteOf(seq, i);
        SharedMemWriteInfo info = {place, 0, size, 1000 + 33 * seq};
        EXPECT_EQ(0, SharedMem_UpdateWritedBuffer(writer_, &info));
        return 0;
    }
    SharedMemCacheHeader *cache() { return Cache(info_, 1); }
    SharedMemSectorHeader *ring() { return Ring(info_, 0); }
    int Pins(int slot, int attachId) { return cache()->atCache[slot].abyAccessCount[attachId]; }

    SharedMemBlockInfo *info_ = nullptr;
    key_t key_ = 0;
    SharedMemHandle *writer_ = nullptr;
    std::vector<SharedMemHandle *> handles_;
};

// One reader's query: result, reason, where the frame was held.
struct Read {
    SharedMemHandle *handle;
    SharedMemBufClient *client = nullptr;
    SharedMemReadRequest request = {};
    uint8_t *data = nullptr;
    uint32_t size = 0;
    explicit Read(SharedMemHandle *h) : handle(h) {}
    ~Read() { SharedMem_FreeBufClient(&client); }
    int Query(uint32_t flags, uint32_t ref = 2000) {
        if (client != nullptr) SharedMem_ReleaseReadBuffer(client);
        request = {flags, 0, ref, 0, 0, 0, 0, 0};
        data = nullptr;
        return SharedMem_QueryReadBuffer(handle, &client, &data, &size, &request);
    }
    uint32_t seq() const { return (client->dwLastTimeTick - 1000) / 33; }
};

// Three reader processes, one AttachID each, ask in turn for one frame:
// the first copies it, the others find the copy.
TEST_F(ReadThrough, ReaderProcessesShareOneCopyAndFreeTheRing) {
    for (uint32_t seq = 0; seq < 3; ++seq) ASSERT_EQ(0u, Write(seq));
    const int ids[] = {0, 1, 2};
    int toParent[2], toChildren[2];
    ASSERT_EQ(0, pipe(toParent));
    ASSERT_EQ(0, pipe(toChildren));
    std::vector<pid_t> children;
    for (int id : ids) {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            SharedMemBlockInfo *info = nullptr;
            SharedMemHandle *h = nullptr;
            if (SharedMemBlock_Attach(&info, 0, key_) != 0 ||
                SharedMem_InitialByTag(info, &h, "video", id) != 0) {
                _exit(1);
            }
            Read r(h);
            char said = 'x';
            if (r.Query(kViaCache) == 0 && r.client->dwHoldType == 2 && r.size == 1000 &&
                BytesOf(0, r.data, r.size)) {
                said = static_cast<char>('0' + r.client->iCacheSlot);
            }
            char go;
            if (write(toParent[1], &said, 1) != 1 || read(toChildren[0], &go, 1) != 1) _exit(2);
            _exit(r.client != nullptr && SharedMem_ReleaseReadBuffer(r.client) == 0 ? 0 : 3);
        }
        children.push_back(pid);
        char said = 0;
        ASSERT_EQ(1, read(toParent[0], &said, 1));
        EXPECT_EQ('0', said) << "AttachID " << id;
    }
    // All three hold the one copy in slot 0; the ring entry is pinned by none.
    EXPECT_EQ(0, cache()->iPrimaryBoundary);
    EXPECT_EQ(0u, cache()->atCache[0].dwFlags);  // key of ring entry 0 of sector 0
    for (int id : ids) EXPECT_EQ(1, Pins(0, id)) << id;
    EXPECT_EQ(0, memcmp(ring()->atFrame[0].abyAccessCount, g_abyNULLArray, 16));
    ASSERT_EQ(3, write(toChildren[1], "ggg", 3));
    for (pid_t pid : children) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(0, status);
    }
    for (int id : ids) EXPECT_EQ(0, Pins(0, id)) << id;
    for (int fd : {toParent[0], toParent[1], toChildren[0], toChildren[1]}) close(fd);
}

TEST_F(ReadThrough, StaleLargeAndUncacheableFrames) {
    DebugLevel quiet(2);
    for (uint32_t seq = 0; seq < 12; ++seq) ASSERT_EQ(0u, Write(seq, seq == 2 ? 9000 : 1000));
    Read a(Open(0)), b(Open(1)), inPlace(Open(3));

    // A copy whose stamp no longer matches is made anew, in another slot.
    ASSERT_EQ(0, a.Query(kViaCache));
    EXPECT_EQ(0, a.client->iCacheSlot);
    ASSERT_EQ(0, SharedMem_ReleaseReadBuffer(a.client));
    uint32_t wrong = 7;
    memcpy(static_cast<uint8_t *>(info_->pvDataBase) + cache()->atCache[0].dwOffset, &wrong, 4);
    ASSERT_EQ(0, b.Query(kViaCache));
    EXPECT_EQ(1, b.client->iCacheSlot);
    EXPECT_TRUE(BytesOf(0, b.data, b.size));

    // Too large for a slot: held in the ring, where it lies.
    ASSERT_EQ(0, b.Query(SHM_READ_VIA_CACHE));
    ASSERT_EQ(0, b.Query(SHM_READ_VIA_CACHE));
    EXPECT_EQ(2u, b.seq());
    EXPECT_EQ(1u, b.client->dwHoldType);
    EXPECT_EQ(static_cast<uint8_t *>(info_->pvDataBase) + ring()->atFrame[2].dwOffset, b.data);
    EXPECT_EQ(1, ring()->atFrame[2].abyAccessCount[1]);

    // Neither in place nor through the cache: not delivered, the ring free,
    // the reason untouched, the frame lost to this reader alone.
    ASSERT_EQ(-1, b.Query(0));
    EXPECT_EQ(SHM_REASON_NONE, b.request.dwReason);
    EXPECT_EQ(0u, b.client->dwHeld);
    EXPECT_EQ(3u, b.seq());
    EXPECT_EQ(0, memcmp(ring()->atFrame[3].abyAccessCount, g_abyNULLArray, 16));
    ASSERT_EQ(0, inPlace.Query(SHM_READ_FROM_OLDEST));  // no cache on AttachID 3: in place
    EXPECT_EQ(0u, inPlace.seq());

    // Every slot held by somebody else and no room for another: no copy,
    // and the next query goes on.
    SharedMem_ReleaseReadBuffer(b.client);
    cache()->dwLeftSize = 0;
    const int slots = cache()->iPrimaryBoundary + 1;
    for (int slot = 0; slot < slots; ++slot) cache()->atCache[slot].abyAccessCount[9] = 1;
    ASSERT_EQ(-1, b.Query(SHM_READ_VIA_CACHE));
    EXPECT_EQ(4u, b.seq());
    EXPECT_EQ(0, memcmp(ring()->atFrame[4].abyAccessCount, g_abyNULLArray, 16));
    for (int slot = 0; slot < slots; ++slot) cache()->atCache[slot].abyAccessCount[9] = 0;
    ASSERT_EQ(0, b.Query(SHM_READ_VIA_CACHE));
    EXPECT_EQ(5u, b.seq());
    EXPECT_TRUE(BytesOf(5, b.data, b.size));

    // Copiers that died mid-copy left every slot marked as being written;
    // with their pins cleared the slots serve again, all but the one whose
    // copier still holds it.
    SharedMem_ReleaseReadBuffer(b.client);
    for (int slot = 0; slot < slots; ++slot) cache()->atCache[slot].dwFlags = SHM_FRAME_WRITING;
    cache()->atCache[0].abyAccessCount[9] = 1;
    ASSERT_EQ(0, b.Query(SHM_READ_VIA_CACHE));
    EXPECT_NE(0, b.client->iCacheSlot);
    EXPECT_TRUE(BytesOf(6, b.data, b.size));
    EXPECT_EQ(SHM_FRAME_WRITING, cache()->atCache[0].dwFlags);
    cache()->atCache[0].abyAccessCount[9] = 0;
}

// A reader that sits on a frame stops the writer when it holds the frame in
// the ring, and never when it holds a copy.
TEST_F(ReadThrough, ASlowReaderStallsTheWriterOnlyInPlace) {
    DebugLevel quiet(2);
    const struct {
        int attachId;
        uint32_t flags;
        bool refused;
    } cases[] = {{0, kViaCache, false}, {3, SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST, true}};
    uint32_t seq = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.attachId);
        ASSERT_EQ(0u, Write(seq++));
        Read slow(Open(c.attachId));
        ASSERT_EQ(0, slow.Query(c.flags, 1000 + 33 * seq));
        uint32_t refusals = 0;
        for (int k = 0; k < 1000; ++k) {
            uint32_t status = Write(seq);
            if (status == 0) {
                ++seq;
            } else {
                EXPECT_EQ(SHM_WRITE_OCCUPIED, status);
                ++refusals;
                break;
            }
        }
        EXPECT_EQ(c.refused, refusals != 0);
        EXPECT_TRUE(BytesOf(slow.seq(), slow.data, slow.size));
    }
}

}  // namespace
