// Fixed paths and well-known numbers of the module services, in one place.
//
// Other programs of the device use the same names: the ONVIF daemons read
// the registry file and write their PID files, the configuration daemon
// writes the package file and listens on its socket, another process keeps
// the time-zone record. None of these may change without them.
#ifndef MOLK_MODULESERVICES_PATHS_H
#define MOLK_MODULESERVICES_PATHS_H

#include <csignal>

namespace molk {

// Registry of the video-analytics configurations, and how its readers are
// told of a change: signal 31 to the PID in each file, onvifasd first.
constexpr char kRegistryPath[] = "/etc/conf.d/config_onvif/config_onvifasd.xml";
constexpr char kOnvifAsdPidPath[] = "/var/run/onvifasd.pid";
constexpr char kOnvifdPidPath[] = "/var/run/onvifd.pid";
constexpr int kRegistryChangedSignal = 31;

// Package file (installed packages, order of the running ones) and system
// file (the device's model).
constexpr char kPackagePath[] = "/etc/conf.d/config_molkinfo.xml";
constexpr char kSystemPath[] = "/etc/conf.d/config_systeminfo.xml";

// Named semaphore: a path names the set ftok(path, 101) of one semaphore,
// made with IPC_CREAT | 0666 (the flag word 950).
constexpr int kSemaphoreProjectId = 101;
constexpr int kSemaphoreMode = 0666;

// Configuration daemon: one request per connection on this stream socket,
// the text of the request behind a fixed prefix of 21 characters.
constexpr char kConfigerSocketPath[] = "/tmp/configer";
constexpr char kConfigerRequestPrefix[] = "set NameValue 99 1 0\n";
constexpr int kConfigerRequestSize = 512;  // prefix + command + NUL
constexpr int kConfigerConnectTries = 5;
constexpr unsigned kConfigerRetryPauseUs = 20000;

// Time-zone record: two native 32-bit signed words of seconds at bytes 0 and
// 4 of this file, changed in place by its writer; 32 bytes are mapped.
constexpr char kTimezonePath[] = "/tmp/timezonemmap_sharefile";
constexpr int kTimezoneMapSize = 32;

}  // namespace molk

#endif  // MOLK_MODULESERVICES_PATHS_H
