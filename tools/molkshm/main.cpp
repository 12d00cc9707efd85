#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "molkshm.h"

namespace {

const MolkshmCommand kCommands[] = {
    {"create", "KEY TOTAL DESC...", CmdCreate},
    {"info", "KEY", CmdInfo},
    {"reset", "KEY SECTOR", CmdReset},
    {"delete", "KEY", CmdDelete},
    {"read", "KEY TAG [--attach ID] [--flags NAME,...] [--delay MS] [--ref TICK]\n"
             "           [--interval MS] [--layer N] [--window MS] [--count N] [--seconds S]\n"
             "           [--summary] [--label TEXT] [--hold MS] [--class N] [--verify] [--poll MS]",
     CmdRead},
    {"stamp", "PATH [TICK|now|0]", CmdStamp},
    {"write", "KEY TAG [--size B] [--key-size B] [--rate FPS] [--key-every N] [--count N] [--unread-every N] [--attach ID]", CmdWrite},
    {"cache-write", "KEY TAG [--size B] [--rate N] [--class N] [--count N] [--unread-every N]",
     CmdCacheWrite},
    {"top", "KEY [--count N] [--stuck-after S]", CmdTop},
    {"unpin", "KEY ATTACHID", CmdUnpin},
};

// One example per command, in the order of the table.
const char *const kExamples[] = {
    "molkshm create 0x1000 64M 32M+video:/var/run/timeshift_adaptive.active 6144K~512K~streaming",
    "molkshm info 0x1000",
    "molkshm reset 0x1000 1",
    "molkshm delete 0x1000",
    "molkshm read 0x1000 video --attach 1 --flags via_cache --hold 300 --summary",
    "molkshm stamp /var/run/timeshift_adaptive.active now",
    "molkshm write 0x1000 video --size 20000 --key-size 60000 --rate 30 --key-every 30",
    "molkshm cache-write 0x1000 snapshots --size 8192 --rate 2 --class 3 --count 10",
    "molkshm top 0x1000 --count 1",
    "molkshm unpin 0x1000 3",
};
static_assert(sizeof kExamples / sizeof kExamples[0] == sizeof kCommands / sizeof kCommands[0],
              "every command has one example");

void PrintUsage(FILE *out) {
    fprintf(out, "usage:\n");
    for (const MolkshmCommand &c : kCommands) fprintf(out, "  molkshm %s %s\n", c.name, c.usage);
    fprintf(out, "KEY is decimal or 0x hex. TOTAL is like 64M or 2048K; DESC like\n"
                 "16M-video, 32M+video:/var/run/timeshift_adaptive.active, 4M~streaming,\n"
                 "6144K~512K~streaming (a cache sector of 512K slots).\n"
                 "--help prints this with an example per command, --version the version.\n");
}

int Usage() {
    PrintUsage(stderr);
    return 2;
}

int Help() {
    PrintUsage(stdout);
    printf("examples:\n");
    for (const char *example : kExamples) printf("  %s\n", example);
    return 0;
}

}  // namespace

bool ParseUnsigned(const char *text, unsigned long *value) {
    if (text == nullptr || *text == '\0' || *text == '-') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long v = strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0') return false;
    *value = v;
    return true;
}

bool ParseKey(const char *text, key_t *key) {
    unsigned long v;
    if (!ParseUnsigned(text, &v) || v > 0xFFFFFFFFul || v == 0) return false;
    *key = static_cast<key_t>(static_cast<uint32_t>(v));
    return true;
}

int Fail(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("molkshm: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

SharedMemBlockInfo *AttachOrFail(key_t key) {
    SharedMemBlockInfo *info = nullptr;
    if (SharedMemBlock_Attach(&info, 0, key) != 0) {
        Fail("no block under key 0x%x", static_cast<unsigned>(key));
        return nullptr;
    }
    return info;
}

const SharedMemSectorHeader *SectorAt(const SharedMemBlockInfo *info, int index) {
    // Slots are 41088 bytes apart from the page-aligned mapping: every one
    // is as aligned as its header needs.
    const void *slot = static_cast<const uint8_t *>(info->pvHeaderBase) +
                       static_cast<size_t>(index) * SHM_HEADER_SLOT_SIZE;
    return static_cast<const SharedMemSectorHeader *>(slot);
}

bool IsReadThroughCache(const SharedMemCacheHeader *cache) {
    return strncmp(cache->szTag, "streaming", SHM_TAG_MAX) == 0 ||
           strncmp(cache->szTag, "recorder", SHM_TAG_MAX) == 0;
}

SharedMemHandle *OpenSectorOrFail(key_t key, const char *tag, int attachId,
                                  SharedMemBlockInfo **info) {
    *info = AttachOrFail(key);
    if (*info == nullptr) return nullptr;
    SharedMemHandle *handle = nullptr;
    if (SharedMem_InitialByTag(*info, &handle, tag, attachId) != 0) {
        SharedMemBlock_Detach(info);
        Fail("no sector tagged '%s'", tag);
        return nullptr;
    }
    return handle;
}

void CloseSector(SharedMemHandle **handle, SharedMemBlockInfo **info) {
    SharedMem_Release(handle);
    SharedMemBlock_Detach(info);
}

int main(int argc, char **argv) {
    if (argc < 2) return Usage();
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) return Help();
    if (strcmp(argv[1], "--version") == 0) {
        printf("molkshm %s\n", MOLK_VERSION);
        return 0;
    }
    for (const MolkshmCommand &c : kCommands) {
        if (strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "molkshm: unknown command '%s'\n", argv[1]);
    return Usage();
}
