// molkmod time: the clock (local time on the device), UTC and both offsets
// of the time-zone file.
#include <cstdio>
#include <ctime>

#include "molkmod.h"
#include "molkutil.h"
#include "moduleservices/paths.h"

namespace {

// The calendar of a clock reading as it stands, no time zone applied: the
// device's clock already holds local time.
void PrintTime(const char *label, const struct timeval &tv) {
    time_t seconds = tv.tv_sec;
    struct tm parts;
    char text[32] = "?";
    if (gmtime_r(&seconds, &parts) != nullptr) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    printf("%-8s %s.%06ld (%lld)\n", label, text, static_cast<long>(tv.tv_usec),
           static_cast<long long>(tv.tv_sec));
}

}  // namespace

int CmdTime(int argc, char **) {
    if (argc != 1) return Fail("usage: molkmod time");
    MolkTimeHandle *handle = nullptr;
    if (MolkTime_Initial(&handle) != 0) return Fail("cannot map %s", molk::kTimezonePath);
    struct timeval local, utc;
    int offset1 = 0, offset0 = 0;
    const bool ok = MolkTime_GetLocalTime(handle, &local) == 0 && MolkTime_GetUtcTime(handle, &utc) == 0 &&
                    MolkTime_GetTimezone(handle, &offset1, &offset0) == 0;
    MolkTime_Release(&handle);
    if (!ok) return Fail("cannot read the time-zone record of %s", molk::kTimezonePath);
    PrintTime("local", local);
    PrintTime("utc", utc);
    printf("offset0  %d\noffset1  %d\n", offset0, offset1);
    return 0;
}
