#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "molkmod.h"

namespace {

const MolkmodCommand kCommands[] = {
    {"register", "FILE", "molkmod register /etc/conf.d/mymodule.xml", CmdRegister},
    {"unregister", "TOKEN", "molkmod unregister Token_1", CmdUnregister},
    {"status", "NAME VENDOR on|off|na MESSAGE", "molkmod status motion acme on \"running\"", CmdStatus},
    {"pkg", "NAME VENDOR", "molkmod pkg motion acme", CmdPkg},
    {"order", "", "molkmod order", CmdOrder},
    {"model", "", "molkmod model", CmdModel},
    {"time", "", "molkmod time", CmdTime},
};

int Usage(FILE *out, int code) {
    fprintf(out, "usage:\n");
    for (const MolkmodCommand &c : kCommands) fprintf(out, "  molkmod %s %s\n", c.name, c.usage);
    fprintf(out, "examples:\n");
    for (const MolkmodCommand &c : kCommands) fprintf(out, "  %s\n", c.example);
    fprintf(out, "--help prints this, --version the version.\n");
    return code;
}

}  // namespace

int Fail(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("molkmod: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

int main(int argc, char **argv) {
    if (argc < 2) return Usage(stderr, 2);
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) return Usage(stdout, 0);
    if (strcmp(argv[1], "--version") == 0) {
        printf("molkmod %s\n", MOLK_VERSION);
        return 0;
    }
    for (const MolkmodCommand &c : kCommands) {
        if (strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "molkmod: unknown command '%s'\n", argv[1]);
    return Usage(stderr, 2);
}
