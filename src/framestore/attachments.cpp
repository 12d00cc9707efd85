#include "framestore/attachments.h"

namespace shm {
namespace {

Attachment gTable[kAttachmentsPerProcess];
void *const kClaiming = reinterpret_cast<void *>(1);

}  // namespace

bool Remember(void *base, uint32_t size, WaitArea *wait) {
    for (Attachment &a : gTable) {
        void *empty = nullptr;
        if (__atomic_compare_exchange_n(&a.base, &empty, kClaiming, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
            a.size = size;
            a.wait = wait;
            __atomic_store_n(&a.base, base, __ATOMIC_RELEASE);
            return true;
        }
    }
    return false;
}

const Attachment *AttachmentAt(const void *base) {
    for (const Attachment &a : gTable) {
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
