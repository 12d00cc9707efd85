// Stand-in for the device's ONVIF daemons, one program for both: started as
// onvifasd or onvifd (by its file name, or --name NAME), it writes its PID
// to /var/run/NAME.pid, and on each signal 31 re-reads the registry file
// and logs on standard output whether it parsed and what it holds:
//   onvifasd: signal 2: parsed, 1 configurations: Token_1 ae=812 re=0
//   onvifasd: signal 3: registry not parsed
// SIGTERM or SIGINT removes the PID file and ends it.
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "molkxmlprocessor.h"

namespace {

constexpr char kRegistry[] = "/etc/conf.d/config_onvif/config_onvifasd.xml";
constexpr int kRegistryChanged = 31;
constexpr int kTextSize = 8192;

const char *DaemonName(int argc, char **argv) {
    if (argc >= 3 && strcmp(argv[1], "--name") == 0) return argv[2];
    const char *slash = strrchr(argv[0], '/');
    const char *base = slash != nullptr ? slash + 1 : argv[0];
    return strcmp(base, "onvifasd") == 0 ? "onvifasd" : "onvifd";
}

int ChildPid(MolkXmlNavi *xml, const char *block, const char *name) {
    int pid = 0;
    if (!MOLK_XML_FindChildElem(xml, block)) return pid;
    MOLK_XML_IntoElem(xml);
    char text[16] = {0};
    if (MOLK_XML_FindChildElem(xml, name) && MOLK_XML_GetChildData(xml, text, sizeof text) == 0) {
        pid = atoi(text);
    }
    MOLK_XML_OutOfElem(xml);
    return pid;
}

// Appends "TOKEN ae=PID re=PID" of each configuration to line.
int ListConfigurations(MolkXmlNavi *xml, char *line, size_t size) {
    int count = 0;
    while (MOLK_XML_FindChildElem(xml, "VideoAnalyticsConfiguration")) {
        char token[64] = {0};
        XML_GetChildAttrib(xml, "token", token, sizeof token);
        MOLK_XML_IntoElem(xml);
        const int ae = ChildPid(xml, "AE", "AnalyticsEnginePID");
        const int re = ChildPid(xml, "RE", "RuleEnginePID");
        MOLK_XML_OutOfElem(xml);
        const size_t used = strlen(line);
        snprintf(line + used, size - used, "%s%s ae=%d re=%d", count > 0 ? "; " : ": ", token, ae, re);
        ++count;
    }
    return count;
}

void Report(MolkXmlNavi *xml, const char *name, int signals) {
    static char text[kTextSize];
    memset(text, 0, sizeof text);
    FILE *file = fopen(kRegistry, "r");
    if (file != nullptr) {
        if (fread(text, 1, sizeof text - 1, file) == 0) text[0] = '\0';
        fclose(file);
    }
    MOLK_XML_ResetAll(xml);
    if (file == nullptr || MOLK_XML_SetBuffer(xml, text, kTextSize, kTextSize) != 0) {
        printf("%s: signal %d: registry not parsed\n", name, signals);
        return;
    }
    char line[4096] = {0};
    const int count = ListConfigurations(xml, line, sizeof line);
    printf("%s: signal %d: parsed, %d configurations%s\n", name, signals, count, line);
}

}  // namespace

int main(int argc, char **argv) {
    const char *name = DaemonName(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, kRegistryChanged);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    MolkXmlNavi *xml = nullptr;
    MolkXmlInitParam param = {0, kTextSize};
    if (MOLK_XML_Initial(&xml, &param) != 0) return 1;
    // Written under another name and renamed, so that a reader never meets
    // an empty PID file.
    char pidPath[PATH_MAX], newPath[PATH_MAX + 4];
    snprintf(pidPath, sizeof pidPath, "/var/run/%s.pid", name);
    snprintf(newPath, sizeof newPath, "%s.new", pidPath);
    FILE *pidFile = fopen(newPath, "w");
    if (pidFile == nullptr || fprintf(pidFile, "%d\n", static_cast<int>(getpid())) < 0 ||
        fclose(pidFile) != 0 || rename(newPath, pidPath) != 0) {
        fprintf(stderr, "%s: cannot write %s\n", name, pidPath);
        return 1;
    }
    printf("%s: ready, pid %d\n", name, static_cast<int>(getpid()));
    int signals = 0;
    for (;;) {
        const int sig = sigwaitinfo(&wanted, nullptr);
        if (sig == kRegistryChanged) {
            Report(xml, name, ++signals);
        } else if (sig == SIGTERM || sig == SIGINT) {
            break;
        }
    }
    unlink(pidPath);
    MOLK_XML_Release(&xml);
    printf("%s: stopped after %d signals\n", name, signals);
    return 0;
}
