#include "framestore/attachments.h"

#include "framestore/segment.h"

namespace shm {
namespace {

Attachment gTable[kAttachmentsPerProcess];
void *const kClaiming = reinterpret_cast<void *>(1);

}  // namespace

bool ReadLayout(const void *base, uint32_t size, int sectors, Layout *layout) {
    if (sectors < 1 || sectors > kLayoutSectors) return false;
    Layout read;
    read.sectors = sectors;
    uint32_t expected = static_cast<uint32_t>(sectors) * kSlotSize;
    for (int i = 0; i < sectors; ++i) {
        const SharedMemSectorHeader *h = static_cast<const SharedMemSectorHeader *>(
            SlotAt(const_cast<void *>(base), i));
        read.start[i] = h->dwStartOffset;
        read.end[i] = h->dwEndOffset;
        if (read.start[i] < expected || read.end[i] < read.start[i]) return false;
        expected = read.end[i];
    }
    if (expected > size) return false;
    *layout = read;
    return true;
}

bool Remember(void *base, uint32_t size, int sectors, WaitArea *wait) {
    for (Attachment &a : gTable) {
        void *empty = nullptr;
        if (__atomic_compare_exchange_n(&a.base, &empty, kClaiming, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
            a.size = size;
            a.wait = wait;
            a.layout.sectors = 0;
            ReadLayout(base, size, sectors, &a.layout);
            __atomic_store_n(&a.base, base, __ATOMIC_RELEASE);
            return true;
        }
    }
    return false;
}

Attachment *AttachmentAt(const void *base) {
    for (Attachment &a : gTable) {
        if (__atomic_load_n(&a.base, __ATOMIC_ACQUIRE) == base) return &a;
    }
    return nullptr;
}

WaitArea *Forget(void *base) {
    for (Attachment &a : gTable) {
        if (__atomic_load_n(&a.base, __ATOMIC_ACQUIRE) != base) continue;
        WaitArea *wait = a.wait;
        a.wait = nullptr;
        __atomic_store_n(&a.base, nullptr, __ATOMIC_RELEASE);
        return wait;
    }
    return nullptr;
}

}  // namespace shm
