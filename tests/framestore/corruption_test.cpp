// A damaged header is refused, with one line naming the sector and the
// field, and no call writes anywhere or hands out a pointer because of it.
#include <functional>
#include <string>
#include <vector>

#include "fake_ring.h"
#include "ipc_fixture.h"

namespace {

// The cases below reach into the fixture through lambdas: all of it public.
class Corruption : public IpcTest {
public:
    void SetUp() override {
        info_ = MakeBlock("1M", {"512K-video", "64K~8K~streaming"}, &key_);
        ASSERT_NE(nullptr, info_);
        ASSERT_EQ(0, SharedMem_Initial(info_, &writer_, 0, 16));
        ASSERT_EQ(0, SharedMem_Initial(info_, &reader_, 0, 3));
        ASSERT_EQ(0, SharedMem_Initial(info_, &cache_, 1, 4));
        ASSERT_EQ(0, SharedMem_Initial(info_, &viaCache_, 0, 0));
        for (uint32_t k = 0; k < 20; ++k) ASSERT_EQ(0, Write(100 + k));
    }
    void TearDown() override {
        for (SharedMemHandle **h : {&writer_, &reader_, &cache_, &viaCache_}) SharedMem_Release(h);
        IpcTest::TearDown();
    }
    int Write(uint32_t tick) {
        uint8_t *place = nullptr;
        if (SharedMem_QueryAutoRewindWriteBuffer(writer_, &place, 1000) != 0) return -1;
        SharedMemWriteInfo info = {place, 0, 1000, tick};
        return SharedMem_UpdateWritedBuffer(writer_, &info);
    }
    int Read(SharedMemHandle *h, uint32_t flags = SHM_READ_IN_PLACE | SHM_READ_FROM_OLDEST) {
        SharedMemBufClient *client = nullptr;
        SharedMemReadRequest request = {flags, 0, 5000, 0, 0, 0, 0, 0};
        uint8_t *data = nullptr;
        uint32_t size = 0;
        int result = SharedMem_QueryReadBuffer(h, &client, &data, &size, &request);
        SharedMem_FreeBufClient(&client);
        return result;
    }
    SharedMemSectorHeader *ring() { return Ring(info_, 0); }
    static SharedMemCacheHeader *CacheSector(SharedMemBlockInfo *info) { return Cache(info, 1); }
    SharedMemHandle *viaCache() { return viaCache_; }

    SharedMemBlockInfo *info_ = nullptr;
    key_t key_ = 0;
    SharedMemHandle *writer_ = nullptr, *reader_ = nullptr, *cache_ = nullptr;
    SharedMemHandle *viaCache_ = nullptr;
};

TEST_F(Corruption, DamagedFieldsAreRefusedByName) {
    const uint32_t segment = Ring(info_, 0)->dwTotalSize;
    const struct {
        const char *field;  // what the logged line names
        std::function<void(Corruption &)> damage;
        std::function<int(Corruption &)> call;
    } cases[] = {
        {"iOldestIndex", [](Corruption &t) { t.ring()->iOldestIndex = 100000; },
         [](Corruption &t) { return t.Write(500); }},
        {"iBoundaryIndex", [](Corruption &t) { t.ring()->iBoundaryIndex = 5000; },
         [](Corruption &t) { return t.Read(t.reader_); }},
        {"dwWriteOffset", [](Corruption &t) { t.ring()->dwWriteOffset = 0; },
         [](Corruption &t) { return t.Write(500); }},
        {"dwStartOffset", [](Corruption &t) { t.ring()->dwStartOffset = 0; },
         [](Corruption &t) { return SharedMem_RewindWriteBuffer(t.writer_); }},
        {"dwEndOffset", [](Corruption &t) { t.ring()->dwEndOffset = 0xFFFFFF00u; },
         [](Corruption &t) { return t.Write(500); }},
        {"iMaxIndex", [](Corruption &t) { t.ring()->iMaxIndex = -5; },
         [](Corruption &t) {
             SharedMemBufClient client = {};
             client.iLastIndex = 1000000;
             return SharedMem_CheckClientValid(t.ring(), &client, "query");
         }},
        {"lies outside the data area",
         [segment](Corruption &t) { t.ring()->atFrame[0].dwOffset = segment + 4096; },
         [](Corruption &t) { return t.Read(t.reader_); }},
        {"is not a ring", [](Corruption &) {},
         [](Corruption &t) {
             uint8_t *place = nullptr;
             return SharedMem_QueryAutoRewindWriteBuffer(t.cache_, &place, 100) == 0 ? 0
                                                                                     : t.Read(t.cache_);
         }},
        {"Must be mode 2 sector", [](Corruption &) {},
         [](Corruption &t) {
             uint8_t *place = nullptr;
             return SharedMem_QueryWriteCache(t.writer_, &place, 100);
         }},
        {"iPrimaryBoundary", [](Corruption &t) { CacheSector(t.info_)->iPrimaryBoundary = 99; },
         [](Corruption &t) { return t.Read(t.viaCache(), SHM_READ_VIA_CACHE); }},
    };
    DebugLevel errorsShown(3);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.field);
        std::vector<uint8_t> before(static_cast<uint8_t *>(info_->pvDataBase),
                                    static_cast<uint8_t *>(info_->pvDataBase) + segment);
        c.damage(*this);
        std::vector<uint8_t> damaged(static_cast<uint8_t *>(info_->pvDataBase),
                                     static_cast<uint8_t *>(info_->pvDataBase) + segment);
        testing::internal::CaptureStdout();
        int result = c.call(*this);
        std::string said = testing::internal::GetCapturedStdout();
        EXPECT_EQ(-1, result);
        EXPECT_NE(std::string::npos, said.find(c.field)) << said;
        EXPECT_EQ(0, memcmp(damaged.data(), info_->pvDataBase, segment)) << "the call wrote";
        memcpy(info_->pvDataBase, before.data(), segment);
    }
}

TEST_F(Corruption, DumpAttachAndTheWholeLayout) {
    // The dump writes the segment the kernel gave, whatever the header says.
    SharedMemSectorHeader *first = ring();
    uint32_t real = first->dwTotalSize;
    first->dwTotalSize = real * 2;
    char *text = nullptr;
    size_t length = 0;
    FILE *out = open_memstream(&text, &length);
    EXPECT_EQ(0, SharedMem_Dump(writer_, out));
    fclose(out);
    free(text);
    EXPECT_EQ(real, length);
    first->dwTotalSize = real;

    // A chain of byHasNext stops where the header slots end.
    Cache(info_, 1)->byHasNext = 1;
    SharedMemBlockInfo *again = nullptr;
    ASSERT_EQ(0, SharedMemBlock_Attach(&again, 0, key_));
    EXPECT_EQ(2, again->iSectorNum);
    SharedMemBlock_Detach(&again);
    Cache(info_, 1)->byHasNext = 0;

    // The rings laid out anew as a whole (as by a repartition) are taken.
    char desc[] = "256K-video";
    char *descs[] = {desc};
    ASSERT_EQ(0, SharedMemBlock_Repartition(info_, 1, descs));
    EXPECT_EQ(0, Write(900));
    EXPECT_EQ(0, Read(reader_));
}

}  // namespace
