// libFuzzer target of the registry file and the module description.
// Byte 0 picks the reader: odd, the rest is a registry text; even, a module
// description. A registry text that parses must build, when the builder
// takes it, into a text that reads back to the same text, and a filter may
// only take records away. A description is given in a buffer of exactly
// its length, as a module hands it in.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "moduleservices/registry_file.h"

namespace {

OnvifAnalyticsDocument g_doc;
VideoAnalyticsConfigurationList g_list, g_again;
char g_built[molk::kRegistryTextSize];

void Check(bool ok, const char *what) {
    if (ok) return;
    fprintf(stderr, "registry_fuzz: %s\n", what);
    abort();
}

bool Terminated(const char *field, size_t size) { return memchr(field, '\0', size) != nullptr; }

void CheckRecord(const VideoAnalyticsConfiguration &r) {
    Check(Terminated(r.token, sizeof r.token) && Terminated(r.name, sizeof r.name) &&
              Terminated(r.vendor, sizeof r.vendor) && Terminated(r.ae.config, sizeof r.ae.config) &&
              Terminated(r.ae.description, sizeof r.ae.description) &&
              Terminated(r.re.config, sizeof r.re.config) &&
              Terminated(r.re.description, sizeof r.re.description),
          "a text field is not terminated inside its record");
}

int Parse(VideoAnalyticsConfigurationList *list, const char *text) {
    memset(list, 0, sizeof *list);
    memset(g_doc.text, 0, sizeof g_doc.text);
    strncpy(g_doc.text, text, sizeof g_doc.text - 1);
    molk::RegistryVerdict verdict;
    const int result = ParseOnvifAnalyticsText(&g_doc, list, &verdict);
    Check(list->count >= 0 && list->count <= molk::kMaxConfigurations, "count out of range");
    Check((result == 0) == (verdict == molk::kRegistryParsed), "result and verdict disagree");
    for (int i = 0; i < list->count; ++i) CheckRecord(list->entries[i]);
    return result;
}

void FuzzRegistry(const char *text, int filter) {
    Parse(&g_list, text);
    int length = 0;
    if (BuildOnvifAnalyticsConfigText(&g_list, 0, g_built, &length) != 0) return;
    Check(length == static_cast<int>(strlen(g_built)), "length is not the text's length");
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    char *first = static_cast<char *>(malloc(size));
    memcpy(first, g_built, size);
    Parse(&g_again, first);
    Check(g_again.count == g_list.count, "a built record did not read back");
    Check(BuildOnvifAnalyticsConfigText(&g_again, 0, g_built, &length) == 0 && strcmp(first, g_built) == 0,
          "a built text does not read back to itself");
    if (BuildOnvifAnalyticsConfigText(&g_list, filter, g_built, &length) == 0) {
        Parse(&g_again, g_built);
        Check(g_again.count <= g_list.count, "a filter added records");
    }
    free(first);
}

void FuzzDescription(const uint8_t *data, size_t size) {
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';
    const int length = static_cast<int>(strlen(text));
    if (MOLK_XML_SetBuffer(g_doc.xml, text, length, length) == 0) {
        VideoAnalyticsConfiguration record;
        if (Parse_MolkVAModuleInfo(g_doc.xml, &record) == 0) {
            Check(record.token[0] != '\0' && record.vendor[0] != '\0' && record.name[0] != '\0',
                  "a valid description without token, vendor or name");
        }
        CheckRecord(record);
    }
    MOLK_XML_ResetAll(g_doc.xml);
    free(text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The readers report on standard output; nobody reads it here.
    if (freopen("/dev/null", "w", stdout) == nullptr) return 0;
    g_doc.param.maxElements = molk::kRegistryTextSize;
    if (MOLK_XML_Initial(&g_doc.xml, &g_doc.param) != 0) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    if (data[0] & 1) {
        char *text = static_cast<char *>(calloc(1, size));
        memcpy(text, data + 2, size - 2);
        FuzzRegistry(text, data[1]);
        free(text);
    } else {
        FuzzDescription(data + 1, size - 1);
    }
    return 0;
}
