#include "framestore/stamp_path.h"

#include <cstring>

namespace {

// True when `path` lies below the directory dirs[0..length): the directory
// (without trailing slashes) followed by '/' and at least one more byte
// that is not a slash.
bool Below(const char *path, const char *dir, size_t length) {
    while (length > 1 && dir[length - 1] == '/') --length;
    if (length == 0 || strncmp(path, dir, length) != 0) return false;
    const char *rest = path + length;
    if (*rest != '/') return false;
    while (*rest == '/') ++rest;
    return *rest != '\0';
}

bool BelowAny(const char *path, const char *dirs) {
    for (const char *dir = dirs; *dir != '\0';) {
        const char *colon = strchr(dir, ':');
        size_t length = colon != nullptr ? static_cast<size_t>(colon - dir) : strlen(dir);
        if (Below(path, dir, length)) return true;
        if (colon == nullptr) break;
        dir = colon + 1;
    }
    return false;
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
    if (!BelowAny(path, dirs)) return "outside the run-time directories";
    return nullptr;
}

}  // namespace shm
