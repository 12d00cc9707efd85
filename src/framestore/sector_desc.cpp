#include "framestore/sector_desc.h"

#include <cstdlib>
#include <cstring>

namespace shm {
namespace {

// atoi without its undefined behaviour on overflow: glibc's atoi is this.
uint32_t LeadingNumber(const char *text) {
    return static_cast<uint32_t>(static_cast<int>(strtol(text, nullptr, 10)));
}

bool HasMegaLetter(const char *text) { return strpbrk(text, "Mm") != nullptr; }

bool IsMegaLetter(char c) { return c == 'M' || c == 'm'; }

// The first of '-', '+' and '~', or nullptr.
const char *FirstSeparator(const char *text) {
    const char *sep = strpbrk(text, "-+~");
    return sep;
}

uint32_t DescUnit(const char *text, const char *sep) {
    if (sep == nullptr) return HasMegaLetter(text) ? kUnitMiB : kUnitKiB;
    return sep > text && IsMegaLetter(sep[-1]) ? kUnitMiB : kUnitKiB;
}

void ParseCacheTail(char *afterTilde, SectorDesc *desc) {
    char *second = strchr(afterTilde, '~');
    if (second == nullptr) {
        desc->tag = afterTilde;
        return;
    }
    uint32_t unit = second > afterTilde && IsMegaLetter(second[-1]) ? kUnitMiB : kUnitKiB;
    desc->hasSlotSize = true;
    desc->slotSize = LeadingNumber(afterTilde) * unit;
    desc->tag = second + 1;
}

void ParseRingTail(char *text, SectorDesc *desc) {
    char *plus = strchr(text, '+');
    char *minus = strchr(text, '-');
    char *tag = nullptr;
    if (plus != nullptr) {
        desc->timeshift = true;
        tag = plus + 1;
    } else if (minus != nullptr) {
        tag = minus + 1;
    }
    if (tag == nullptr) return;
    desc->tag = tag;
    char *colon = strchr(tag, ':');
    if (colon != nullptr) {
        *colon = '\0';
        desc->secondTag = colon + 1;
    }
}

}  // namespace

uint32_t ParseTotalSize(const char *text) {
    return LeadingNumber(text) * (HasMegaLetter(text) ? kUnitMiB : kUnitKiB);
}

SectorDesc ParseAllocationDesc(char *text) {
    SectorDesc desc = {};
    const char *sep = FirstSeparator(text);
    desc.size = LeadingNumber(text) * DescUnit(text, sep);
    char *tilde = strchr(text, '~');
    if (tilde != nullptr) {
        desc.isCache = true;
        ParseCacheTail(tilde + 1, &desc);
    } else {
        ParseRingTail(text, &desc);
    }
    return desc;
}

RepartitionDesc ParseRepartitionDesc(const char *text) {
    RepartitionDesc desc;
    desc.size = LeadingNumber(text) * (HasMegaLetter(text) ? kUnitMiB : kUnitKiB);
    if (strchr(text, '-') != nullptr) {
        desc.timeshift = 0;
    } else if (strchr(text, '+') != nullptr) {
        desc.timeshift = 1;
    } else {
        desc.timeshift = -1;
    }
    return desc;
}

uint32_t ClampToRemaining(uint64_t *used, uint32_t size, uint32_t total) {
    uint64_t left = *used >= total ? 0 : total - *used;
    if (size > left) size = static_cast<uint32_t>(left);
    *used += size;
    return size;
}

}  // namespace shm
