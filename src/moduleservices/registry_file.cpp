#include "moduleservices/registry_file.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "moduleservices/paths.h"

namespace {

constexpr char kService[] = "molkservice";

// Element names of one side's block, in the only order the reader accepts.
struct SideNames {
    const char *block, *description, *config, *pid, *confignumber;
};
constexpr SideNames kAeNames = {"AE", "AnalyticsEngineDescription", "AnalyticsEngineConfiguration",
                                "AnalyticsEnginePID", "AnalyticsEngineConfigNumber"};
constexpr SideNames kReNames = {"RE", "RuleEngineDescription", "RuleEngineConfiguration",
                                "RuleEnginePID", "RuleEngineConfigNumber"};

// strtol's value as a 32-bit int, saturated the way a 32-bit long is, so
// that a file reads the same on the device and on a 64-bit host.
int32_t ToInt32(const char *text) {
    long value = strtol(text, nullptr, 10);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Reads the data of the current child as a number of at most 15 characters.
int32_t ChildNumber(MolkXmlNavi *xml) {
    char text[molk::kNumberTextSize] = {0};
    MOLK_XML_GetChildData(xml, text, sizeof text);
    return ToInt32(text);
}

bool ReadChildText(MolkXmlNavi *xml, const char *name, char *dst, int size) {
    if (!MOLK_XML_FindChildElem(xml, name)) return false;
    MOLK_XML_GetChildData(xml, dst, size);
    return true;
}

bool ReadChildNumber(MolkXmlNavi *xml, const char *name, int32_t *value) {
    if (!MOLK_XML_FindChildElem(xml, name)) return false;
    *value = ChildNumber(xml);
    return true;
}

void ReadSide(MolkXmlNavi *xml, const SideNames &names, VideoAnalyticsEngine *side) {
    if (!MOLK_XML_FindChildElem(xml, names.block)) return;
    MOLK_XML_IntoElem(xml);
    ReadChildText(xml, names.description, side->description, sizeof side->description);
    ReadChildText(xml, names.config, side->config, sizeof side->config);
    ReadChildNumber(xml, names.pid, &side->pid);
    ReadChildNumber(xml, names.confignumber, &side->confignumber);
    MOLK_XML_OutOfElem(xml);
}

// The current child is a VideoAnalyticsConfiguration; the cursor comes
// back to it, so that the next search goes on behind it.
void ReadConfiguration(MolkXmlNavi *xml, VideoAnalyticsConfiguration *entry) {
    XML_GetChildAttrib(xml, "token", entry->token, sizeof entry->token);
    XML_GetChildAttrib(xml, "vendor", entry->vendor, sizeof entry->vendor);
    MOLK_XML_IntoElem(xml);
    ReadChildText(xml, "Name", entry->name, sizeof entry->name);
    ReadChildNumber(xml, "UseCount", &entry->UseCount);
    ReadSide(xml, kAeNames, &entry->ae);
    ReadSide(xml, kReNames, &entry->re);
    MOLK_XML_OutOfElem(xml);
}

bool OnlySpace(const char *text) {
    for (; *text != '\0'; ++text) {
        if (*text != ' ' && *text != '\t' && *text != '\r' && *text != '\n') return false;
    }
    return true;
}

// Appends to a fixed buffer and remembers if anything did not fit.
struct TextOut {
    char *buffer;
    int used;
    bool full;
};

__attribute__((format(printf, 2, 3))) void Put(TextOut *out, const char *fmt, ...) {
    if (out->full) return;
    const int room = molk::kRegistryTextSize - out->used;
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(out->buffer + out->used, static_cast<size_t>(room), fmt, ap);
    va_end(ap);
    if (n < 0 || n >= room) {
        out->full = true;
        return;
    }
    out->used += n;
}

bool SideWritable(const VideoAnalyticsEngine &side) {
    return RegistryFieldWritable(side.config) && RegistryFieldWritable(side.description);
}

void PutSide(TextOut *out, const SideNames &n, const VideoAnalyticsEngine &side) {
    Put(out, "\t\t<%s>\r\n", n.block);
    Put(out, "\t\t\t<%s>%s</%s>\r\n", n.description, side.description, n.description);
    Put(out, "\t\t\t<%s>%s</%s>\r\n", n.config, side.config, n.config);
    Put(out, "\t\t\t<%s>%d</%s>\r\n", n.pid, side.pid, n.pid);
    Put(out, "\t\t\t<%s>%d</%s>\r\n", n.confignumber, side.confignumber, n.confignumber);
    Put(out, "\t\t</%s>\r\n", n.block);
}

// A record is written unless the filter process owned every side it had.
bool RecordDropped(const VideoAnalyticsConfiguration &r, int pid) {
    return pid > 0 && (r.ae.pid == pid || r.ae.pid == 0) && (r.re.pid == pid || r.re.pid == 0);
}

bool FieldsWritable(const VideoAnalyticsConfiguration &r, bool withAe, bool withRe) {
    return RegistryFieldWritable(r.token) && RegistryFieldWritable(r.vendor) &&
           RegistryFieldWritable(r.name) && (!withAe || SideWritable(r.ae)) &&
           (!withRe || SideWritable(r.re));
}

bool PutRecord(TextOut *out, const VideoAnalyticsConfiguration &r, int pid) {
    const bool withAe = r.ae.pid != pid, withRe = r.re.pid != pid;
    if (!FieldsWritable(r, withAe, withRe)) return false;
    Put(out, "\t<VideoAnalyticsConfiguration token=\"%s\" vendor=\"%s\">\r\n", r.token, r.vendor);
    Put(out, "\t\t<Name>%s</Name>\r\n", r.name);
    Put(out, "\t\t<UseCount>%d</UseCount>\r\n", r.UseCount);
    if (withAe) PutSide(out, kAeNames, r.ae);
    if (withRe) PutSide(out, kReNames, r.re);
    Put(out, "\t</VideoAnalyticsConfiguration>\r\n");
    return true;
}

// After a rename the new name lives in the directory: without this a
// power cut could bring back the old file or none.
void SyncDirectory(const char *path) {
    char dir[molk::kPathSize];
    snprintf(dir, sizeof dir, "%s", path);
    char *slash = strrchr(dir, '/');
    if (slash == nullptr) return;
    *slash = '\0';
    const int fd = open(dir[0] != '\0' ? dir : "/", O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

// Writes the whole text, makes it durable and closes the file; any failure
// counts, since a short or unflushed text must never replace the registry.
bool WriteWhole(FILE *file, const char *text, int length) {
    const size_t size = static_cast<size_t>(length);
    bool ok = fwrite(text, 1, size, file) == size;
    ok = ok && fflush(file) == 0;
    ok = ok && fsync(fileno(file)) == 0;
    return fclose(file) == 0 && ok;
}

// Copies what fits of piece to the running end of buffer.
bool Append(char *buffer, int size, int *used, const char *piece) {
    const int length = static_cast<int>(strlen(piece));
    const int room = size - 1 - *used;
    const int n = length < room ? length : room;
    memcpy(buffer + *used, piece, static_cast<size_t>(n));
    *used += n;
    return n == length;
}

}  // namespace

int ReadFile(const char *path, char *buffer, int size, int *overflow) {
    if (overflow != nullptr) *overflow = 0;
    FILE *probe = fopen(path, "r");
    int created = -1;
    if (probe == nullptr) {
        created = open(path, O_RDWR | O_CREAT, 0644);
        if (created < 0) {
            printf("%s %d : ReadFile : Create file fail!\n", "ReadFile", 105);
            return -1;
        }
    }
    FILE *file = fopen(path, "r");
    int result = 0;
    if (file == nullptr) {
        printf("%s, %d : file open fail : %s****\n", "ReadFile", 114, path);
        result = -1;
    } else if (size > 0) {
        memset(buffer, 0, static_cast<size_t>(size));
        char line[molk::kReadLineSize];
        int used = 0;
        while (fgets(line, sizeof line, file) != nullptr) {
            if (!Append(buffer, size, &used, line)) {
                if (overflow != nullptr) *overflow = 1;
                break;
            }
        }
    }
    if (probe != nullptr) fclose(probe);
    if (created >= 0) close(created);
    if (file != nullptr) fclose(file);
    return result;
}

int ParseOnvifAnalyticsText(OnvifAnalyticsDocument *document, VideoAnalyticsConfigurationList *list,
                            molk::RegistryVerdict *verdict) {
    molk::RegistryVerdict found = molk::kRegistryUnusable;
    MolkXmlNavi *xml = document->xml;
    int result = -1;
    if (MOLK_XML_SetBuffer(xml, document->text, molk::kRegistryTextSize, molk::kRegistryTextSize) != 0) {
        printf("XMLProcessor Set buffer failed! :: %s : %d\n", "Parse_OnvifAnalyticsConfigFile", 454);
        if (OnlySpace(document->text)) found = molk::kRegistryEmpty;
    } else {
        list->count = 0;
        while (list->count < molk::kMaxConfigurations &&
               MOLK_XML_FindChildElem(xml, "VideoAnalyticsConfiguration")) {
            ReadConfiguration(xml, &list->entries[list->count]);
            ++list->count;
        }
        result = list->count > 0 ? 0 : -1;
        found = list->count > 0 ? molk::kRegistryParsed : molk::kRegistryEmpty;
    }
    if (verdict != nullptr) *verdict = found;
    return result;
}

int Parse_OnvifAnalyticsConfigFile(OnvifAnalyticsDocument *document,
                                   VideoAnalyticsConfigurationList *list,
                                   molk::RegistryVerdict *verdict) {
    if (verdict != nullptr) *verdict = molk::kRegistryUnusable;
    memset(document->text, 0, sizeof document->text);
    MOLK_XML_ResetAll(document->xml);
    int overflow = 0;
    if (ReadFile(molk::kRegistryPath, document->text, sizeof document->text, &overflow) != 0) return -1;
    // A cut text could still parse and would then drop the configurations
    // behind the cut at the next write.
    if (overflow) return -1;
    return ParseOnvifAnalyticsText(document, list, verdict);
}

bool RegistryFieldWritable(const char *text) {
    return strpbrk(text, "<>&\"") == nullptr;
}

bool RegistryRecordWritable(const VideoAnalyticsConfiguration *record) {
    return FieldsWritable(*record, true, true);
}

int BuildOnvifAnalyticsConfigText(const VideoAnalyticsConfigurationList *list, int pid, char *buffer,
                                  int *length) {
    memset(buffer, 0, molk::kRegistryTextSize);
    *length = 0;
    TextOut out = {buffer, 0, false};
    Put(&out, "<root>\r\n");
    bool ok = true;
    for (int i = 0; ok && i < list->count && i < molk::kMaxConfigurations; ++i) {
        if (!RecordDropped(list->entries[i], pid)) ok = PutRecord(&out, list->entries[i], pid);
    }
    Put(&out, "</root>\r\n");
    if (!ok || out.full) {
        memset(buffer, 0, molk::kRegistryTextSize);
        return -1;
    }
    *length = out.used;
    return 0;
}

int WriteConfigFile(const char *text, int length) {
    char temporary[molk::kPathSize + 1];
    snprintf(temporary, sizeof temporary, "%s~", molk::kRegistryPath);
    FILE *file = fopen(temporary, "w");
    if (file == nullptr) {
        printf("%s %d : %s File open error\n", "WriteConfigFile", 71, molk::kRegistryPath);
        return -1;
    }
    if (!WriteWhole(file, text, length)) {
        printf("%s %d : %s File write error\n", "WriteConfigFile", 76, temporary);
        unlink(temporary);
        return -1;
    }
    if (rename(temporary, molk::kRegistryPath) != 0) {
        printf("%s %d :Rename %s failed\n", "WriteConfigFile", 80, temporary);
        unlink(temporary);
        return -1;
    }
    SyncDirectory(molk::kRegistryPath);
    return 0;
}

int Parse_MolkVAModule(MolkXmlNavi *xml, VideoAnalyticsEngine *engine) {
    MOLK_XML_IntoElem(xml);
    int counter = 0;
    bool sawMax = false;
    // Each hit starts the tries over, behind the child just found.
    for (;;) {
        if (ReadChildNumber(xml, "pid", &engine->pid)) {
            if (engine->pid > 0) ++counter;
        } else if (ReadChildText(xml, "config", engine->config, sizeof engine->config)) {
            if (engine->config[0] != '\0') ++counter;
        } else if (ReadChildText(xml, "description", engine->description, sizeof engine->description)) {
            if (engine->description[0] != '\0') ++counter;
        } else if (ReadChildNumber(xml, "maxconfignumber", &engine->confignumber)) {
            sawMax = true;
        } else {
            break;
        }
    }
    MOLK_XML_OutOfElem(xml);
    if (!sawMax) engine->confignumber = 1;
    if (counter == 3) return 0;
    printf("[%s] Invalid parameters of <ae>/<re>. %s : %d", kService, "Parse_MolkVAModule", 299);
    return -1;
}

int Parse_MolkVAModuleInfo(MolkXmlNavi *xml, VideoAnalyticsConfiguration *record) {
    memset(record, 0, sizeof *record);
    if (!MOLK_XML_FindElem(xml, "molk")) return -1;
    int counter = 0;
    bool aeValid = false, reValid = false;
    for (;;) {
        if (ReadChildText(xml, "token", record->token, sizeof record->token)) {
            if (record->token[0] != '\0') ++counter;
        } else if (ReadChildText(xml, "vendor", record->vendor, sizeof record->vendor)) {
            if (record->vendor[0] != '\0') ++counter;
        } else if (ReadChildText(xml, "name", record->name, sizeof record->name)) {
            if (record->name[0] != '\0') ++counter;
        } else if (MOLK_XML_FindChildElem(xml, "ae")) {
            if (Parse_MolkVAModule(xml, &record->ae) == 0) aeValid = true;
        } else if (MOLK_XML_FindChildElem(xml, "re")) {
            if (Parse_MolkVAModule(xml, &record->re) == 0) reValid = true;
        } else {
            break;
        }
    }
    if (counter == 3 && (aeValid || reValid)) return 0;
    printf("[%s] Invalid parameters of <molk>. %s : %d\n", kService, "Parse_MolkVAModuleInfo", 347);
    return -1;
}
