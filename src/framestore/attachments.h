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

constexpr int kLayoutSectors = 64;  // sectors whose data areas are remembered

// Where each sector's data area lies, as the headers said when they last
// described a whole layout: N data areas behind the N header slots, in
// sector order without overlapping, the last one ending inside the segment.
struct Layout {
    int sectors;  // 0: the headers never described a whole layout
    uint32_t start[kLayoutSectors];
    uint32_t end[kLayoutSectors];
};

struct Attachment {
    void *base;
    uint32_t size;     // bytes of the segment, from IPC_STAT at attach
    WaitArea *wait;    // null when the companion could not be had
    Layout layout;
};

constexpr int kAttachmentsPerProcess = 16;

// Reads the layout of `sectors` sectors from the headers of the segment at
// `base` of `size` bytes; false, with *layout untouched, when they do not
// describe a whole one.
bool ReadLayout(const void *base, uint32_t size, int sectors, Layout *layout);

// Remembers an attached segment with the layout its headers describe now;
// false when the table is full.
bool Remember(void *base, uint32_t size, int sectors, WaitArea *wait);
// The attachment whose segment is mapped at `base`, or null.
Attachment *AttachmentAt(const void *base);
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
