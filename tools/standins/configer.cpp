// configer: stands in for the device's configuration daemon. It listens on
// the stream socket /tmp/configer, takes one request per connection
// ("set NameValue 99 1 0\n" and key=value pairs joined by '&', no reply),
// logs it on standard output, keeps every pair in a small key-value file
// (one "key=value" line each) and brings the value of molk_module_order
// into the order element of the package file, where the run status reads
// the order back.
// Usage: configer [--store FILE]     (default /tmp/configer.values)
// Ends on SIGINT or SIGTERM and removes its socket.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "molkutil.h"
#include "../../src/moduleservices/paths.h"

namespace {

constexpr char kDefaultStore[] = "/tmp/configer.values";
constexpr char kOrderKey[] = "molk_module_order";
constexpr size_t kMaxRequest = 4096;
constexpr int kMaxPairs = 256;
constexpr size_t kKeySize = 128;
constexpr size_t kValueSize = 512;

volatile sig_atomic_t gStop = 0;

void OnStop(int) { gStop = 1; }

struct Pair {
    char key[kKeySize];
    char value[kValueSize];
};

struct Store {
    Pair pairs[kMaxPairs];
    int count = 0;
};

void CopyText(char *dst, size_t size, const char *src, size_t length) {
    if (length >= size) length = size - 1;
    memcpy(dst, src, length);
    dst[length] = '\0';
}

void SetPair(Store *store, const char *key, size_t keyLength, const char *value, size_t valueLength) {
    char name[kKeySize];
    CopyText(name, sizeof name, key, keyLength);
    for (int i = 0; i < store->count; ++i) {
        if (strcmp(store->pairs[i].key, name) == 0) {
            CopyText(store->pairs[i].value, kValueSize, value, valueLength);
            return;
        }
    }
    if (store->count == kMaxPairs) return;
    Pair *pair = &store->pairs[store->count++];
    memcpy(pair->key, name, sizeof name);
    CopyText(pair->value, kValueSize, value, valueLength);
}

void LoadStore(const char *path, Store *store) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) return;
    char line[kKeySize + kValueSize + 2];
    while (fgets(line, sizeof line, file) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        const char *equals = strchr(line, '=');
        if (equals == nullptr) continue;
        SetPair(store, line, static_cast<size_t>(equals - line), equals + 1, strlen(equals + 1));
    }
    fclose(file);
}

// Writes `text` to `path` through a temporary file and a rename, so that a
// reader meets the old file or the new one, whole.
bool ReplaceFile(const char *path, const char *text, size_t length) {
    char temporary[300];
    snprintf(temporary, sizeof temporary, "%s.configer~", path);
    FILE *file = fopen(temporary, "w");
    if (file == nullptr) return false;
    bool ok = fwrite(text, 1, length, file) == length;
    ok = fclose(file) == 0 && ok;
    if (ok && rename(temporary, path) == 0) return true;
    unlink(temporary);
    return false;
}

bool SaveStore(const char *path, const Store *store) {
    static char text[kMaxPairs * (kKeySize + kValueSize + 2)];
    size_t used = 0;
    for (int i = 0; i < store->count; ++i) {
        used += static_cast<size_t>(snprintf(text + used, sizeof text - used, "%s=%s\n",
                                             store->pairs[i].key, store->pairs[i].value));
    }
    return ReplaceFile(path, text, used);
}

// The order as element data: digits and commas as a rule; markup escaped.
void EscapeData(const char *value, char *out, size_t size) {
    size_t used = 0;
    for (; *value != '\0'; ++value) {
        const char *piece = *value == '<' ? "&lt;" : *value == '>' ? "&gt;" : *value == '&' ? "&amp;" : nullptr;
        char single[2] = {*value, '\0'};
        if (piece == nullptr) piece = single;
        size_t length = strlen(piece);
        if (used + length + 1 > size) break;
        memcpy(out + used, piece, length);
        used += length;
    }
    out[used] = '\0';
}

// Puts `value` as the data of top/molk/module/order of the package file,
// adding the element if module has none. Says why when it cannot.
const char *WriteOrder(const char *value) {
    char *old = nullptr;
    int oldSize = 0;
    if (MolkUtil_ReadFile(molk::kPackagePath, &old, &oldSize) != 0 || old == nullptr) {
        return "no package file";
    }
    char data[kValueSize * 5 + 1];
    EscapeData(value, data, sizeof data);
    const int length = static_cast<int>(strlen(old));
    const int capacity = length + static_cast<int>(strlen(data)) + 64;
    char *text = static_cast<char *>(calloc(static_cast<size_t>(capacity), 1));
    MolkXmlNavi *xml = nullptr;
    MolkXmlInitParam param = {0, length + 8};
    const char *failure = nullptr;
    if (text == nullptr || MOLK_XML_Initial(&xml, &param) != 0) {
        failure = "out of memory";
    } else {
        memcpy(text, old, static_cast<size_t>(length));
        if (MOLK_XML_SetBuffer(xml, text, capacity, length) != 0) {
            failure = "package file does not parse";
        } else if (MOLK_XML_FindChildElem(xml, "molk") != 1 || MOLK_XML_IntoElem(xml) != 1 ||
                   MOLK_XML_FindChildElem(xml, "module") != 1 || MOLK_XML_IntoElem(xml) != 1) {
            failure = "no molk/module in the package file";
        } else if (MOLK_XML_FindChildElem(xml, "order") != 1) {
            if (MOLK_XML_AddChildElem(xml, "order", value) != 0) failure = "cannot add order";
        } else {
            // Replace what lies between the tags; a self-closed element is
            // written out with both tags.
            const ElemPos &pos = xml->m_pElemPos[xml->m_iChildPos];
            int from = pos.iStartTagClose + 1, to = pos.iEndTagOpen;
            const char *before = "", *after = "";
            if (IsEmptyElement(&pos)) {
                from = pos.iStartTagOpen;
                to = pos.iEndTagClose + 1;
                before = "<order>";
                after = "</order>";
            }
            snprintf(text, static_cast<size_t>(capacity), "%.*s%s%s%s%s", from, old, before, data, after,
                     old + to);
        }
    }
    if (failure == nullptr && !ReplaceFile(molk::kPackagePath, text, strlen(text))) {
        failure = "cannot replace the package file";
    }
    if (xml != nullptr) MOLK_XML_Release(&xml);
    free(text);
    free(old);
    return failure;
}

void HandleRequest(unsigned number, const char *request, size_t length, Store *store,
                   const char *storePath) {
    const size_t prefix = sizeof molk::kConfigerRequestPrefix - 1;
    if (length < prefix || memcmp(request, molk::kConfigerRequestPrefix, prefix) != 0) {
        printf("configer: request %u refused: no \"set NameValue 99 1 0\" line (%zu bytes)\n",
               number, length);
        return;
    }
    const char *command = request + prefix;
    printf("configer: request %u: %s\n", number, command);
    for (const char *pair = command; *pair != '\0';) {
        size_t pairLength = strcspn(pair, "&");
        const char *equals = static_cast<const char *>(memchr(pair, '=', pairLength));
        if (equals != nullptr) {
            size_t keyLength = static_cast<size_t>(equals - pair);
            size_t valueLength = pairLength - keyLength - 1;
            SetPair(store, pair, keyLength, equals + 1, valueLength);
            if (keyLength == sizeof kOrderKey - 1 && memcmp(pair, kOrderKey, keyLength) == 0) {
                char value[kValueSize];
                CopyText(value, sizeof value, equals + 1, valueLength);
                const char *failure = WriteOrder(value);
                if (failure == nullptr) {
                    printf("configer: order '%s' written to %s\n", value, molk::kPackagePath);
                } else {
                    printf("configer: order '%s' not written: %s\n", value, failure);
                }
            }
        }
        pair += pairLength;
        if (*pair == '&') ++pair;
    }
    if (!SaveStore(storePath, store)) printf("configer: cannot write %s\n", storePath);
    printf("configer: request %u done\n", number);
}

// Reads one request: the client writes it whole and closes.
size_t ReadRequest(int fd, char *buffer, size_t size) {
    struct timeval timeout = {2, 0};  // a client that never writes does not stall us
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    size_t used = 0;
    while (used + 1 < size) {
        ssize_t got = read(fd, buffer + used, size - 1 - used);
        if (got <= 0) break;
        used += static_cast<size_t>(got);
    }
    buffer[used] = '\0';
    return used;
}

int Listen() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd == -1) return -1;
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", molk::kConfigerSocketPath);
    unlink(molk::kConfigerSocketPath);  // left by a daemon that was killed
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 16) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char **argv) {
    const char *storePath = kDefaultStore;
    if (argc == 3 && strcmp(argv[1], "--store") == 0) {
        storePath = argv[2];
    } else if (argc != 1) {
        fprintf(stderr, "usage: configer [--store FILE]\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = OnStop;  // no SA_RESTART: accept returns on a signal
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    static Store store;
    LoadStore(storePath, &store);
    int listener = Listen();
    if (listener == -1) {
        fprintf(stderr, "configer: cannot listen on %s: %s\n", molk::kConfigerSocketPath, strerror(errno));
        return 1;
    }
    printf("configer: listening on %s, values in %s\n", molk::kConfigerSocketPath, storePath);
    static char request[kMaxRequest];
    unsigned number = 0;
    while (!gStop) {
        int client = accept(listener, nullptr, nullptr);
        if (client == -1) {
            if (errno != EINTR) usleep(10000);  // out of descriptors, say: do not spin
            continue;
        }
        size_t length = ReadRequest(client, request, sizeof request);
        close(client);
        HandleRequest(++number, request, length, &store, storePath);
    }
    close(listener);
    unlink(molk::kConfigerSocketPath);
    printf("configer: stopped after %u requests\n", number);
    return 0;
}
