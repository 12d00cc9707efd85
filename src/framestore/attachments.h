// The blocks this process has attached: where each segment is mapped, how
// large the kernel says it is (values in the segment cannot be trusted for
// that), and the companion object its waiters sleep on.
//
// A small fixed table, read without a lock on every frame: a slot is
// claimed before it is filled, and found by its base, stored last with a
// release.
#ifndef MOLK_FRAMESTORE_ATTACHMENTS_H
#define MOLK_FRAMESTORE_ATTACHMENTS_H

#include <cstdint>

namespace shm {

struct WaitArea;

struct Attachment {
    void *base;
    uint32_t size;     // bytes of the segment, from IPC_STAT at attach
    WaitArea *wait;    // null when the companion could not be had
};

constexpr int kAttachmentsPerProcess = 16;

// Remembers an attached segment; false when the table is full.
bool Remember(void *base, uint32_t size, WaitArea *wait);
// The attachment whose segment is mapped at `base`, or null.
const Attachment *AttachmentAt(const void *base);
// Forgets the attachment at `base`; returns its companion for unmapping.
WaitArea *Forget(void *base);

// Bytes that may be read from the segment at `base`: what attach saw, or,
// for a mapping this process made without attaching, what the segment's
// header states.
inline uint32_t SegmentSize(const void *base, uint32_t stated) {
    const Attachment *a = AttachmentAt(base);
    return a != nullptr ? a->size : stated;
}

}  // namespace shm

#endif  // MOLK_FRAMESTORE_ATTACHMENTS_H
