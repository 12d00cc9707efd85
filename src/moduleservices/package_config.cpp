// The package file (installed packages and the order of the running ones)
// and the system file (the device's model). Both are written by others and
// only read here, whole and anew on each call: nothing is cached.
//
// Package file, as elements (the top-level element may have any name):
//   top / molk / module / order          comma-separated running indices
//   top / molk / module / iN             one package, N from 0 without gap
//   top / molk / module / iN / name, vendor, version, path   in this order
// System file: top / system / info / modelname.
// Lookups go forward from the last child found, so an element out of
// order is passed over.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "molkutil.h"
#include "moduleservices/paths.h"

namespace {

constexpr int kFieldSize = 40;      // text fields of a package and the model
constexpr int kNumberTextSize = 16;  // a number read from XML: 15 characters
constexpr int kLineSize = 256;       // one read of the file reader

// One parsed configuration file: its text and a handle over it.
struct ConfigDocument {
    char *text = nullptr;
    MolkXmlNavi *xml = nullptr;

    ~ConfigDocument() {
        if (xml != nullptr) MOLK_XML_Release(&xml);
        free(text);
    }

    // Reads and parses `path`. A text that does not parse gives a document
    // without elements, in which every lookup finds nothing.
    bool Open(const char *path) {
        int size = 0;
        if (MolkUtil_ReadFile(path, &text, &size) != 0) return false;
        MolkXmlInitParam param = {0, static_cast<int>(strlen(text))};
        if (MOLK_XML_Initial(&xml, &param) != 0) {
            fputs("XML_Initial fails.\n", stderr);
            return false;
        }
        MOLK_XML_ResetAll(xml);
        MOLK_XML_SetBuffer(xml, text, size, size);
        return true;
    }

    // Finds the child `name` of the current element and steps into it.
    bool Enter(const char *name) {
        return MOLK_XML_FindChildElem(xml, name) == 1 && MOLK_XML_IntoElem(xml) == 1;
    }
};

// Reads the package at the child just found into `node`.
void ReadPackage(MolkXmlNavi *xml, MolkPkgInfo *node) {
    MOLK_XML_IntoElem(xml);
    MolkUtil_GetChildString(xml, "name", node->name, kFieldSize);
    MolkUtil_GetChildString(xml, "vendor", node->vendor, kFieldSize);
    MolkUtil_GetChildString(xml, "version", node->version, kFieldSize);
    MolkUtil_GetChildString(xml, "path", node->path, kFieldSize);
    MOLK_XML_OutOfElem(xml);
}

// The block's size for a text of `length` bytes: raised to a multiple of
// 4, plus 4, so that at least one NUL always follows the text.
long BlockSize(long length) {
    return (length + 3) / 4 * 4 + 4;
}

}  // namespace

extern "C" {

MOLK_API int MolkUtil_ReadFile(const char *szPath, char **ppcBuffer, int *piSize) {
    if (szPath == nullptr || ppcBuffer == nullptr || piSize == nullptr) return -1;
    FILE *file = fopen(szPath, "r");
    if (file == nullptr) return -1;
    long length = -1;
    if (fseek(file, 0, SEEK_END) == 0) length = ftell(file);
    rewind(file);
    if (length < 0 || length > INT_MAX - 8) {  // not a regular file, or too big to size
        fclose(file);
        return -1;
    }
    const int size = static_cast<int>(BlockSize(length));
    *piSize = size;
    char *buffer = static_cast<char *>(calloc(static_cast<size_t>(size), 1));
    *ppcBuffer = buffer;
    if (buffer == nullptr) {
        fclose(file);
        return -1;
    }
    // A file that grew since it was measured is cut at the block's end.
    char line[kLineSize];
    size_t used = 0;
    while (used + 1 < static_cast<size_t>(size) && fgets(line, sizeof line, file) != nullptr) {
        size_t piece = strnlen(line, sizeof line);
        if (piece > static_cast<size_t>(size) - 1 - used) piece = static_cast<size_t>(size) - 1 - used;
        memcpy(buffer + used, line, piece);
        used += piece;
    }
    fclose(file);
    return 0;
}

MOLK_API int MolkUtil_GetChildString(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize) {
    if (MOLK_XML_FindChildElem(pNavi, szName) != 1) return -1;
    MOLK_XML_GetChildData(pNavi, pcDst, nSize);
    return 0;
}

MOLK_API int MolkUtil_GetChildInt(MolkXmlNavi *pNavi, const char *szName, int *piValue) {
    if (piValue == nullptr || MOLK_XML_FindChildElem(pNavi, szName) != 1) return -1;
    char text[kNumberTextSize] = {0};
    MOLK_XML_GetChildData(pNavi, text, sizeof text);
    // Held to 32 bits as on the device, where strtol stops at the limits of
    // its 32-bit long; a 64-bit host gives the same numbers.
    long long value = strtoll(text, nullptr, 10);
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    *piValue = static_cast<int>(value);
    return 0;
}

MOLK_API int MolkUtil_ParseMolkOrder(char *szOrder) {
    ConfigDocument doc;
    if (!doc.Open(molk::kPackagePath)) return -1;
    if (szOrder != nullptr && doc.Enter("molk") && doc.Enter("module")) {
        MolkUtil_GetChildString(doc.xml, "order", szOrder, kFieldSize);
    }
    return 0;
}

MOLK_API int MolkUtil_ParseMolkConf(MolkPkgInfo **pptHead) {
    if (pptHead == nullptr) return -1;
    ConfigDocument doc;
    if (!doc.Open(molk::kPackagePath) || !doc.Enter("molk") || !doc.Enter("module")) return -1;
    // New nodes go behind whatever the head already holds (NULL as a rule).
    MolkPkgInfo *last = *pptHead;
    while (last != nullptr && last->next != nullptr) last = last->next;
    int made = 0;
    for (int index = 0; index < INT_MAX; ++index) {
        char child[32];
        snprintf(child, sizeof child, "i%d", index);
        if (MOLK_XML_FindChildElem(doc.xml, child) != 1) break;
        MolkPkgInfo *node = static_cast<MolkPkgInfo *>(calloc(1, sizeof(MolkPkgInfo)));
        if (node == nullptr) break;  // the list ends where it stands
        node->index = index;
        ReadPackage(doc.xml, node);
        if (last == nullptr) {
            *pptHead = node;
        } else {
            last->next = node;
        }
        last = node;
        ++made;
    }
    return made > 0 ? 0 : -1;
}

MOLK_API int MolkUtil_FreeMolkConf(MolkPkgInfo **pptHead) {
    if (pptHead == nullptr) return 0;
    MolkPkgInfo *node = *pptHead;
    while (node != nullptr) {
        MolkPkgInfo *next = node->next;
        free(node);
        node = next;
    }
    return 0;
}

MOLK_API int MolkUtil_ParseSysConf(char *szModelName) {
    ConfigDocument doc;
    if (!doc.Open(molk::kSystemPath) || !doc.Enter("system") || !doc.Enter("info")) return -1;
    if (szModelName != nullptr) MolkUtil_GetChildString(doc.xml, "modelname", szModelName, kFieldSize);
    return 0;
}

MOLK_API int MolkUtil_SearchPkgIdx(MolkPkgInfo *ptList, MolkPkgId tId) {
    for (const MolkPkgInfo *node = ptList; node != nullptr; node = node->next) {
        if (node->name[0] == '\0') continue;
        if (strncmp(tId.name, node->name, sizeof node->name) == 0 &&
            strncmp(tId.vendor, node->vendor, sizeof node->vendor) == 0) {
            return node->index;
        }
    }
    return -1;
}

MOLK_API int MolkUtil_GetPkgIndex(MolkPkgId tId) {
    MolkPkgInfo *list = nullptr;
    if (MolkUtil_ParseMolkConf(&list) != 0) return -1;
    int index = MolkUtil_SearchPkgIdx(list, tId);
    MolkUtil_FreeMolkConf(&list);
    return index;
}

}  // extern "C"
