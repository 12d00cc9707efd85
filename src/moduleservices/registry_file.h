// The ONVIF analytics registry file: its records, reader, builder and writer,
// and the module description that a module hands in. Private to the
// registration (registration.cpp); nothing here is exported.
//
// The registry file is rewritten whole from the records, CR LF line ends,
// tab indents, no XML declaration:
//   <root>
//   	<VideoAnalyticsConfiguration token="T" vendor="V">
//   		<Name>N</Name>
//   		<UseCount>0</UseCount>
//   		<AE> Description, Configuration, PID, ConfigNumber </AE>   (each
//   		<RE> the same with RuleEngine* </RE>                          optional)
//   	</VideoAnalyticsConfiguration>
//   </root>
// Readers find children with a forward search that never wraps, so the
// order of the elements is part of the format.
#ifndef MOLK_MODULESERVICES_REGISTRY_FILE_H
#define MOLK_MODULESERVICES_REGISTRY_FILE_H

#include <stdint.h>

#include "molkxmlprocessor.h"

namespace molk {

constexpr int kMaxConfigurations = 10;
constexpr int kRegistryTextSize = 8192;  // whole text, terminator included
constexpr int kNameSize = 64;            // token, name, vendor
constexpr int kPathSize = 256;           // config, description, install path
constexpr int kNumberTextSize = 16;      // decimal numbers read from XML
constexpr int kReadLineSize = 256;       // one fgets of ReadFile

}  // namespace molk

// One side of a configuration (analytics engine or rule engine). pid above
// 0 means the side exists. In a module description config and description
// are relative to the package's install path; in the file they are whole.
struct VideoAnalyticsEngine {
    int32_t pid;
    int32_t confignumber;
    char config[molk::kPathSize];
    char description[molk::kPathSize];
};

struct VideoAnalyticsConfiguration {
    int32_t UseCount;  // carried from read to write; 0 on a touched record
    char token[molk::kNameSize];
    char name[molk::kNameSize];
    char vendor[molk::kNameSize];
    VideoAnalyticsEngine ae;
    VideoAnalyticsEngine re;
};

// Filled from index 0 with no gaps; heap-allocated, zero-filled, and alive
// for one operation only.
struct VideoAnalyticsConfigurationList {
    int32_t count;
    VideoAnalyticsConfiguration entries[molk::kMaxConfigurations];
};

// Work area of one operation: one XML handle reads the description, the
// registry file and the package file in turn, all through `text`.
struct OnvifAnalyticsDocument {
    MolkXmlNavi *xml;
    MolkXmlInitParam param;
    char text[molk::kRegistryTextSize];
};

namespace molk {

// What the reader found in the registry file; the registration goes on
// over an empty registry but never over one it could not read whole.
enum RegistryVerdict {
    kRegistryParsed = 0,   // at least one configuration
    kRegistryEmpty = 1,    // empty file, or well-formed with no configuration
    kRegistryUnusable = 2  // unreadable, longer than the text, or malformed
};

}  // namespace molk

// Reads a text file into buffer (size bytes, cleared first); a missing file
// is created empty (0644). 0 or -1. *overflow, if given, is set to 1 when
// the file did not fit (what fitted is kept, NUL-terminated), else 0.
int ReadFile(const char *path, char *buffer, int size, int *overflow = nullptr);

// Parses the text already in document->text into list; 0 when at least one
// configuration was read, else -1 with list->count 0 (or untouched if the
// text does not parse). *verdict, if given, tells the cases apart.
int ParseOnvifAnalyticsText(OnvifAnalyticsDocument *document, VideoAnalyticsConfigurationList *list,
                            molk::RegistryVerdict *verdict = nullptr);
// Reads the registry file into document->text and parses it as above.
int Parse_OnvifAnalyticsConfigFile(OnvifAnalyticsDocument *document,
                                   VideoAnalyticsConfigurationList *list,
                                   molk::RegistryVerdict *verdict = nullptr);

// Builds the file text into buffer (kRegistryTextSize bytes). pid 0 writes
// every record and drops the blocks of absent sides; a positive pid drops
// that process's blocks and the records it leaves without an owner. -1,
// buffer cleared and *length 0, when the text would not fit or a written
// field could not be read back as written; else 0.
int BuildOnvifAnalyticsConfigText(const VideoAnalyticsConfigurationList *list, int pid, char *buffer,
                                  int *length);

// Replaces the registry file through a temporary file and a rename; on any
// failure the registry file is kept and the temporary file removed. 0 or -1
// (the registration reports failures by message only).
int WriteConfigFile(const char *text, int length);

// True if a text field can be written raw into the file and read back the
// same: no markup or reference characters.
bool RegistryFieldWritable(const char *text);
bool RegistryRecordWritable(const VideoAnalyticsConfiguration *record);

// The module description.
int Parse_MolkVAModule(MolkXmlNavi *xml, VideoAnalyticsEngine *engine);
int Parse_MolkVAModuleInfo(MolkXmlNavi *xml, VideoAnalyticsConfiguration *record);

#endif  // MOLK_MODULESERVICES_REGISTRY_FILE_H
