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
             "           [--summary] [--label TEXT]",
     CmdRead},
    {"stamp", "PATH [TICK|now|0]", CmdStamp},
    {"write", "KEY TAG [--size B] [--key-size B] [--rate FPS] [--key-every N] [--count N] [--unread-every N] [--attach ID]", CmdWrite},
};

int Usage() {
    fprintf(stderr, "usage:\n");
    for (const MolkshmCommand &c : kCommands) fprintf(stderr, "  molkshm %s %s\n", c.name, c.usage);
    fprintf(stderr, "KEY is decimal or 0x hex. TOTAL is like 64M or 2048K; DESC like\n"
                    "16M-video, 32M+video:/var/run/timeshift_adaptive.active, 4M~streaming.\n");
    return 2;
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

int main(int argc, char **argv) {
    if (argc < 2) return Usage();
    for (const MolkshmCommand &c : kCommands) {
        if (strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "molkshm: unknown command '%s'\n", argv[1]);
    return Usage();
}
