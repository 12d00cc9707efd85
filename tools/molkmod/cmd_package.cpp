// molkmod status, pkg, order, model: the package and system files and the
// run status, as a module package sees them.
#include <cstdio>
#include <cstring>

#include "molkmod.h"
#include "molkutil.h"
#include "moduleservices/paths.h"

namespace {

// A package's identity; false if a field does not fit its 40 bytes.
bool MakeId(const char *name, const char *vendor, MolkPkgId *id) {
    memset(id, 0, sizeof *id);
    if (strlen(name) >= sizeof id->name || strlen(vendor) >= sizeof id->vendor) return false;
    memcpy(id->name, name, strlen(name));
    memcpy(id->vendor, vendor, strlen(vendor));
    return true;
}

struct StatusWord {
    const char *word;
    uint32_t code;
};
const StatusWord kStatusWords[] = {{"na", 0}, {"on", 1}, {"off", 2}};

bool ParseStatus(const char *word, uint32_t *code) {
    for (const StatusWord &s : kStatusWords) {
        if (strcmp(word, s.word) == 0) {
            *code = s.code;
            return true;
        }
    }
    return false;
}

int IndexOrFail(const char *name, const char *vendor, int *index) {
    MolkPkgId id;
    if (!MakeId(name, vendor, &id)) return Fail("name and vendor have at most 39 characters each");
    *index = MolkUtil_GetPkgIndex(id);
    if (*index < 0) {
        return Fail("no package '%s' of vendor '%s' in %s", name, vendor, molk::kPackagePath);
    }
    return 0;
}

}  // namespace

int CmdStatus(int argc, char **argv) {
    if (argc != 5) return Fail("usage: molkmod status NAME VENDOR on|off|na MESSAGE");
    uint32_t status;
    if (!ParseStatus(argv[3], &status)) return Fail("status '%s' is none of on, off, na", argv[3]);
    int index;
    if (IndexOrFail(argv[1], argv[2], &index) != 0) return 1;
    MolkPkgId id;
    MakeId(argv[1], argv[2], &id);
    // The library cuts the message at its first line feed, in place.
    if (MolkSet_RunStatus(id, status, argv[4]) != 0) return Fail("run status not reported");
    // A daemon that is not there shows only as the library's message on
    // standard error: the report is sent and forgotten.
    printf("package %d (%s, %s): status %s sent to the configuration daemon\n", index, argv[1],
           argv[2], argv[3]);
    return 0;
}

int CmdPkg(int argc, char **argv) {
    if (argc != 3) return Fail("usage: molkmod pkg NAME VENDOR");
    int index;
    if (IndexOrFail(argv[1], argv[2], &index) != 0) return 1;
    printf("%d\n", index);
    return 0;
}

int CmdOrder(int argc, char **) {
    if (argc != 1) return Fail("usage: molkmod order");
    char order[40] = "";
    if (MolkUtil_ParseMolkOrder(order) != 0) return Fail("cannot read %s", molk::kPackagePath);
    puts(order);
    return 0;
}

int CmdModel(int argc, char **) {
    if (argc != 1) return Fail("usage: molkmod model");
    char model[40] = "";
    if (MolkUtil_ParseSysConf(model) != 0) {
        return Fail("no system/info in %s (missing or not readable)", molk::kSystemPath);
    }
    puts(model);
    return 0;
}
