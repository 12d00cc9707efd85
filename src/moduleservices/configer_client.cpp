// The client of the configuration daemon, and the run status of a package.
//
// A request is one connection that carries "set NameValue 99 1 0\n" and the
// command text, key=value pairs joined by '&', with no terminator; nothing
// is read back. The run status publishes a package's status and message
// under the keys of its index and keeps the device-wide order of running
// packages; the daemon writes that order into the package file, where the
// next report reads it.
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "molkutil.h"
#include "moduleservices/paths.h"

namespace {

constexpr size_t kPrefixLength = sizeof molk::kConfigerRequestPrefix - 1;
static_assert(kPrefixLength == 21, "the daemon expects a 21-character prefix");
// What fits behind the prefix with the NUL: 490 characters.
constexpr size_t kMaxCommandLength = molk::kConfigerRequestSize - kPrefixLength - 1;

constexpr int kOrderTextSize = 128;   // the new order
constexpr int kOrderReadSize = 40;    // the order as read from the package file
constexpr int kStatusCommandSize = 256;
constexpr uint32_t kStatusOn = 1;
const char *const kStatusText[] = {"N/A", "on", "off"};

// A non-blocking stream socket connected to the daemon, or -1. A daemon
// that is not accepting costs the four pauses between five tries, no more.
int ConnectToConfiger() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd == -1) return -1;
    int flags = fcntl(fd, F_GETFL);
    if (flags == -1 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
        close(fd);
        return -1;
    }
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, molk::kConfigerSocketPath, sizeof molk::kConfigerSocketPath);
    // Family and path, without the NUL: what the daemon binds.
    const socklen_t length =
        static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + strlen(address.sun_path));
    for (int attempt = 1; attempt <= molk::kConfigerConnectTries; ++attempt) {
        if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), length) == 0) return fd;
        if (attempt < molk::kConfigerConnectTries) usleep(molk::kConfigerRetryPauseUs);
    }
    fputs("Connect to configer failed...\n", stderr);
    close(fd);
    return -1;
}

// Adds `piece` (of `length` characters) to the order, behind a comma
// unless the order is still empty.
void AppendToOrder(char *order, const char *piece, size_t length) {
    size_t used = strlen(order);
    if (used != 0 && used + 1 < kOrderTextSize) order[used++] = ',';
    if (length > kOrderTextSize - 1 - used) length = kOrderTextSize - 1 - used;
    memcpy(order + used, piece, length);
    order[used + length] = '\0';
}

// The order that follows `current` when package `index` reports `status`:
// one that comes up goes to the end unless it is listed already, one that
// stops leaves the list, and the others keep their places. A piece that is
// not a number ends the walk, and what was gathered before it stands.
void NextOrder(const char *current, int index, uint32_t status, char *next) {
    next[0] = '\0';
    bool listed = false;
    for (const char *piece = current; *piece != '\0';) {
        size_t length = strcspn(piece, ",");
        if (length != 0) {
            if (!isdigit(static_cast<unsigned char>(piece[0]))) return;
            if (atoi(piece) == index) {
                listed = true;
            } else {
                AppendToOrder(next, piece, length);
            }
        }
        piece += length;
        if (*piece == ',') ++piece;
    }
    if (status != kStatusOn) return;
    snprintf(next, kOrderTextSize, "%s", current);
    if (!listed) {
        char number[16];
        snprintf(number, sizeof number, "%d", index);
        AppendToOrder(next, number, strlen(number));
    }
}

}  // namespace

extern "C" {

MOLK_API int SetToConfiger(const char *szCommand) {
    if (szCommand == nullptr) return -1;
    const size_t length = strlen(szCommand);
    if (length > kMaxCommandLength) {
        puts("[MOLKUTIL] command too long!!");
        return -1;
    }
    char request[molk::kConfigerRequestSize];
    memcpy(request, molk::kConfigerRequestPrefix, kPrefixLength);
    memcpy(request + kPrefixLength, szCommand, length + 1);
    int fd = ConnectToConfiger();
    if (fd == -1) return -1;
    // One write, not looked at. MSG_NOSIGNAL: a daemon gone between its
    // accept queue and our write must not kill the caller with SIGPIPE.
    ssize_t sent = send(fd, request, kPrefixLength + length, MSG_NOSIGNAL);
    (void)sent;
    close(fd);
    return 0;
}

MOLK_API int MolkSet_RunStatus(MolkPkgId tId, uint32_t dwStatus, char *szMessage) {
    const int index = MolkUtil_GetPkgIndex(tId);
    if (index < 0) {
        puts("Package is inexistent");
        return -1;
    }
    if (dwStatus > 2) {
        puts("Invalid running status");
        return -1;
    }
    if (szMessage == nullptr) return -1;
    char *lineFeed = strchr(szMessage, '\n');
    if (lineFeed != nullptr) *lineFeed = '\0';
    char *order = static_cast<char *>(calloc(kOrderTextSize, 1));
    if (order == nullptr) return -1;
    char current[kOrderReadSize] = {0};
    if (MolkUtil_ParseMolkOrder(current) == 0) NextOrder(current, index, dwStatus, order);
    char command[kStatusCommandSize];
    snprintf(command, sizeof command,
             "molk_module_order=%s&molk_module_i%d_status=%s&molk_module_i%d_statmsg=%s", order,
             index, kStatusText[dwStatus], index, szMessage);
    SetToConfiger(command);
    free(order);
    return 0;
}

}  // extern "C"
