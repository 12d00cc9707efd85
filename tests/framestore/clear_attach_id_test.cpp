// Clearing a dead reader's AttachID takes exactly its column of pins off
// every ring entry and cache slot, and nothing else.
#include <cstring>

#include "fake_ring.h"
#include "ipc_fixture.h"

namespace {

struct Pin { int sector, entry, attachId, count; };

class ClearAttachId : public IpcTest {};

TEST_F(ClearAttachId, TakesOneColumnOffEveryRingAndCacheSector) {
    DebugLevel quiet(2);
    SharedMemBlockInfo *info =
        MakeBlock("4M", {"1M-video", "1M-audio", "256K~8K~streaming", "256K~8K~recorder"});
    ASSERT_NE(nullptr, info);
    const bool isCache[] = {false, false, true, true};
    // Pins a dead reader left (AttachID 3 in every sector, at the edges of
    // the tables) beside the pins of others that must stay.
    const Pin pins[] = {
        {0, 0, 3, 2},    {0, 1279, 3, 1}, {1, 640, 3, 255}, {2, 0, 3, 1},  {3, 35, 3, 4},
        {0, 0, 4, 1},    {0, 1279, 2, 7}, {1, 640, 15, 1},  {2, 0, 0, 3},  {3, 35, 15, 9},
        {2, 17, 3, 5},   {1, 5, 0, 1},
    };
    auto counter = [&](int sector, int entry, int id) -> uint8_t & {
        return isCache[sector] ? Cache(info, sector)->atCache[entry].abyAccessCount[id]
                               : Ring(info, sector)->atFrame[entry].abyAccessCount[id];
    };
    int expected[SHM_ATTACH_IDS] = {};
    for (const Pin &p : pins) {
        counter(p.sector, p.entry, p.attachId) = static_cast<uint8_t>(p.count);
        expected[p.attachId] += p.count;
    }
    for (int id : {3, 0, 3, 7}) {  // the second clearing of 3 finds nothing
        SCOPED_TRACE(id);
        EXPECT_EQ(expected[id], SharedMemBlock_ClearAttachId(info, id));
        expected[id] = 0;
        for (const Pin &p : pins) {
            const int left = expected[p.attachId] == 0 ? 0 : p.count;
            EXPECT_EQ(left, counter(p.sector, p.entry, p.attachId))
                << "sector " << p.sector << " entry " << p.entry << " AttachID " << p.attachId;
        }
    }
    // Every lock was given back.
    for (int i = 0; i < 4; ++i) EXPECT_EQ(1, semctl(info->iSemId, i, GETVAL)) << i;
    EXPECT_EQ(-1, SharedMemBlock_ClearAttachId(nullptr, 3));
    EXPECT_EQ(-1, SharedMemBlock_ClearAttachId(info, -1));
    EXPECT_EQ(-1, SharedMemBlock_ClearAttachId(info, SHM_ATTACH_IDS));
}

}  // namespace
