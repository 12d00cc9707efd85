#include "framestore/stamp_path.h"

#include <cstring>

namespace {

// What follows the directory dir[0..length) in `path` (without the
// slashes between), or null when `path` does not lie below it.
const char *Below(const char *path, const char *dir, size_t length) {
    while (length > 1 && dir[length - 1] == '/') --length;
    if (length == 0 || strncmp(path, dir, length) != 0) return nullptr;
    const char *rest = path + length;
    if (*rest != '/') return nullptr;
    while (*rest == '/') ++rest;
    return *rest != '\0' ? rest : nullptr;
}

const char *BelowAny(const char *path, const char *dirs) {
    for (const char *dir = dirs; *dir != '\0';) {
        const char *colon = strchr(dir, ':');
        size_t length = colon != nullptr ? static_cast<size_t>(colon - dir) : strlen(dir);
        const char *rest = Below(path, dir, length);
        if (rest != nullptr) return rest;
        if (colon == nullptr) break;
        dir = colon + 1;
    }
    return nullptr;
}

bool HasParentComponent(const char *path) {
    for (const char *p = path; (p = strstr(p, "..")) != nullptr; p += 2) {
        const bool starts = p == path || p[-1] == '/';
        const bool ends = p[2] == '\0' || p[2] == '/';
        if (starts && ends) return true;
    }
    return false;
}

}  // namespace

namespace shm {

const char *StampPathRefusal(const char *path, const char *dirs) {
    if (path == nullptr || path[0] != '/') return "not an absolute path";
    if (HasParentComponent(path)) return "a '..' component";
    const char *name = BelowAny(path, dirs);
    if (name == nullptr) return "outside the run-time directories";
    // The open refuses a link only in the last component: a directory
    // between could be a link to anywhere, so the file lies directly in a
    // run-time directory, which only root can replace.
    if (strchr(name, '/') != nullptr) return "in a subdirectory";
    return nullptr;
}

}  // namespace shm
