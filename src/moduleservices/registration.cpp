// Registration of analytics modules in the registry file: one whole
// read-change-write cycle under the registry's named semaphore, then a
// signal to each ONVIF daemon while the lock is still held.
//
// Locking. The semaphore's key derives from the registry file's identity,
// and every write renames a new file into place, so the key changes with
// each change of the registry. An operation therefore checks, once it holds
// a set, that the path still names that set; a stale set (an old key, or a
// set removed under it) is given up and the current one taken. At the end
// the set is removed while still held, never unlocked first: a waiter is
// never handed a set that is about to vanish, it gets -1 and its module
// tries again.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <signal.h>
#include <unistd.h>

#include "molkutil.h"
#include "moduleservices/named_semaphore.h"
#include "moduleservices/paths.h"
#include "moduleservices/registry_file.h"

struct OnvifAnalyticsHandle {
    int32_t pid;  // getpid() of the registering process
};

namespace {

constexpr char kService[] = "molkservice";

// Error word of a registration.
constexpr uint32_t kErrorRegistered = 16;
constexpr uint32_t kErrorConflict = 1;
constexpr uint32_t kErrorDescription = 2;
constexpr uint32_t kErrorResource = 8;

// Stale sets are met only while other processes rename the registry; this
// bounds the retries should the file keep changing under us.
constexpr int kLockAttempts = 64;

void SetError(uint32_t *error, uint32_t value) {
    if (error != nullptr) *error = value;
}

enum LockResult { kLocked, kInitialFailed, kLockFailed };

// Gives up a set that the registry path no longer names. If it still
// exists it is an old key's orphan: removed while held, so that its
// waiters start over too.
void GiveUpStale(MolkSemaphoreHandle **sem) {
    if (molk::SemaphoreKeyOf(*sem) != -1) {
        MolkSemaphore_Release(sem);
        return;
    }
    free(*sem);
    *sem = nullptr;
}

LockResult LockRegistry(MolkSemaphoreHandle **sem) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        if (MolkSemaphore_Initial(sem, molk::kRegistryPath) != 0) return kInitialFailed;
        if (MolkSemaphore_Lock(*sem) != 0) {
            MolkSemaphore_Release(sem);
            return kLockFailed;
        }
        if (molk::SemaphoreIsLive(*sem, molk::kRegistryPath)) return kLocked;
        GiveUpStale(sem);
    }
    return kLockFailed;
}

// Ends the hold: the removal takes the place of the unlock.
void UnlockRegistry(MolkSemaphoreHandle **sem) {
    MolkSemaphore_Release(sem);
}

// The daemon named by a PID file gets signal 31; a missing or bad PID
// file is reported and skipped.
void SignalDaemon(const char *pidPath) {
    char text[32] = {0};
    if (ReadFile(pidPath, text, sizeof text) != 0) return;
    text[31] = '\0';
    const long pid = strtol(text, nullptr, 10);
    if (pid > 0 && pid <= INT_MAX) {
        kill(static_cast<pid_t>(pid), molk::kRegistryChangedSignal);
    } else {
        puts("[MOLKUTIL] invalid pid!");
    }
}

void SignalDaemons() {
    SignalDaemon(molk::kOnvifAsdPidPath);
    SignalDaemon(molk::kOnvifdPidPath);
}

// What one operation allocates besides the lock.
struct Work {
    VideoAnalyticsConfigurationList *list;
    OnvifAnalyticsDocument *document;
};

// 0; -1 when memory could not be had, -2 when the XML handle could not be
// made. What was had stays in work for CloseWork.
int OpenWork(Work *work, int maxElements) {
    work->list = static_cast<VideoAnalyticsConfigurationList *>(calloc(1, sizeof *work->list));
    work->document = static_cast<OnvifAnalyticsDocument *>(calloc(1, sizeof *work->document));
    if (work->list == nullptr || work->document == nullptr) return -1;
    work->document->param.maxElements = maxElements;
    return MOLK_XML_Initial(&work->document->xml, &work->document->param) == 0 ? 0 : -2;
}

void CloseWork(Work *work) {
    if (work->document != nullptr && work->document->xml != nullptr) {
        MOLK_XML_Release(&work->document->xml);
    }
    free(work->document);
    free(work->list);
}

// dst = dir "/" rel, cut to what dst holds.
void JoinPath(char *dst, const char *dir, const char *rel) {
    const size_t room = molk::kPathSize - 1;
    size_t used = strnlen(dir, room);
    memcpy(dst, dir, used);
    if (used < room) dst[used++] = '/';
    const size_t rest = strnlen(rel, room - used);
    memcpy(dst + used, rel, rest);
    dst[used + rest] = '\0';
}

bool FindAnyModule(MolkXmlNavi *xml) {
    while (MOLK_XML_FindChildElem(xml, "molk")) {
        MOLK_XML_IntoElem(xml);
        if (MOLK_XML_FindChildElem(xml, "module")) {
            MOLK_XML_IntoElem(xml);
            return true;
        }
        MOLK_XML_OutOfElem(xml);
    }
    return false;
}

// Looks through i0, i1, ... up to the first gap for the package of the
// module's name and vendor; path stays empty if none matches.
void FindPackagePath(MolkXmlNavi *xml, const VideoAnalyticsConfiguration &module, char *path) {
    for (int i = 0;; ++i) {
        char child[32];
        snprintf(child, sizeof child, "i%d", i);
        if (!MOLK_XML_FindChildElem(xml, child)) return;
        MOLK_XML_IntoElem(xml);
        char name[molk::kNameSize] = {0}, vendor[molk::kNameSize] = {0};
        if (MOLK_XML_FindChildElem(xml, "name")) MOLK_XML_GetChildData(xml, name, sizeof name);
        if (MOLK_XML_FindChildElem(xml, "vendor")) MOLK_XML_GetChildData(xml, vendor, sizeof vendor);
        if (strcmp(name, module.name) == 0 && strcmp(vendor, module.vendor) == 0 &&
            MOLK_XML_FindChildElem(xml, "path")) {
            MOLK_XML_GetChildData(xml, path, molk::kPathSize);
            return;
        }
        MOLK_XML_OutOfElem(xml);
    }
}

// The package's install path, from the package file.
int FillInformationToOnvifAnalyticsConfigFile(OnvifAnalyticsDocument *document,
                                              const VideoAnalyticsConfiguration &module, char *path) {
    MolkXmlNavi *xml = document->xml;
    memset(document->text, 0, sizeof document->text);
    MOLK_XML_ResetAll(xml);
    if (ReadFile(molk::kPackagePath, document->text, sizeof document->text) != 0) return -1;
    if (MOLK_XML_SetBuffer(xml, document->text, molk::kRegistryTextSize, molk::kRegistryTextSize) != 0) {
        printf("XMLProcessor Set buffer failed! :: %s : %d\n", "FillInformationToOnvifAnalyticsConfigFile", 689);
        return -1;
    }
    memset(path, 0, molk::kPathSize);
    if (!FindAnyModule(xml)) {
        printf("Get module path from MOLK config file failed! :: %s : %d\n",
               "FillInformationToOnvifAnalyticsConfigFile", 697);
        return -1;
    }
    FindPackagePath(xml, module, path);
    printf("Get install module path on MOLK : %s\n", path);
    return 0;
}

// 0, or -1 after the conflict messages. The first entry of the token that
// holds a side the module brings decides.
int CheckToken(const VideoAnalyticsConfigurationList *list, const VideoAnalyticsConfiguration &module) {
    for (int i = 0; i < list->count; ++i) {
        const VideoAnalyticsConfiguration &entry = list->entries[i];
        if (strcmp(entry.token, module.token) != 0) continue;
        const char *side = nullptr;
        if (module.ae.pid > 0 && entry.ae.pid > 0) {
            side = "AE";
        } else if (module.re.pid > 0 && entry.re.pid > 0) {
            side = "RE";
        }
        if (side == nullptr) continue;
        printf("%s Token Conflict : %s\n", side, module.token);
        printf("[%s] Video Analytics Token is confclict. :: %s : %d\n", kService,
               "RegisterOnvifAnalyticsService", 827);
        return -1;
    }
    return 0;
}

void MergeSide(VideoAnalyticsEngine *into, const VideoAnalyticsEngine &from, const char *path) {
    if (from.pid <= 0) return;  // the side the module does not bring keeps what it had
    into->pid = from.pid;
    into->confignumber = from.confignumber;
    JoinPath(into->config, path, from.config);
    JoinPath(into->description, path, from.description);
}

void AddUserVAInfoToVAService(VideoAnalyticsConfigurationList *list,
                              const VideoAnalyticsConfiguration &module, const char *path) {
    if (list->count > molk::kMaxConfigurations - 1) {
        printf("[%s] Number of MOLK module exceed. :: %s : %d\n", kService, "AddUserVAInfoToVAService", 566);
        return;
    }
    int index = 0;
    while (index < list->count && strncmp(list->entries[index].token, module.token, molk::kNameSize) != 0) {
        ++index;
    }
    if (index == list->count) ++list->count;
    VideoAnalyticsConfiguration &entry = list->entries[index];
    entry.UseCount = 0;
    memcpy(entry.token, module.token, sizeof entry.token);
    memcpy(entry.name, module.name, sizeof entry.name);
    memcpy(entry.vendor, module.vendor, sizeof entry.vendor);
    MergeSide(&entry.ae, module.ae, path);
    MergeSide(&entry.re, module.re, path);
}

void FailRegistration() {
    printf("[%s] Fail to register the onvif analytics service. :: %s : %d\n", kService,
           "RegisterOnvifAnalyticsService", 835);
}

// The cycle under the lock; gives the error word. The registry file is
// written only on the way to 16.
uint32_t RegisterLocked(Work *work, char *description) {
    MolkXmlNavi *xml = work->document->xml;
    const int length = static_cast<int>(strlen(description));
    MOLK_XML_ResetAll(xml);
    if (MOLK_XML_SetBuffer(xml, description, length, length) != 0) {
        puts("XMLProcessor Set buffer failed!");
        return kErrorDescription;
    }
    VideoAnalyticsConfiguration module;
    if (Parse_MolkVAModuleInfo(xml, &module) != 0 || !RegistryRecordWritable(&module)) {
        printf("[%s] Fail to parse xml contents. :: %s : %d\n", kService, "RegisterOnvifAnalyticsService", 814);
        return kErrorDescription;
    }
    VideoAnalyticsConfigurationList *list = work->list;
    molk::RegistryVerdict verdict;
    Parse_OnvifAnalyticsConfigFile(work->document, list, &verdict);
    if (verdict == molk::kRegistryUnusable) {
        // Writing now would throw away whatever the file holds.
        FailRegistration();
        return kErrorResource;
    }
    if (verdict == molk::kRegistryEmpty) list->count = 0;
    if (CheckToken(list, module) != 0) return kErrorConflict;
    char path[molk::kPathSize];
    if (FillInformationToOnvifAnalyticsConfigFile(work->document, module, path) != 0) {
        FailRegistration();
        return kErrorResource;
    }
    AddUserVAInfoToVAService(list, module, path);
    int textLength = 0;
    if (BuildOnvifAnalyticsConfigText(list, 0, work->document->text, &textLength) != 0) {
        FailRegistration();
        return kErrorResource;
    }
    WriteConfigFile(work->document->text, textLength);
    MOLK_XML_Release(&work->document->xml);
    SignalDaemons();
    return kErrorRegistered;
}

// The cycle of an unregistration under the lock: 0 written and told, -1
// nothing written and nobody told.
int UnregisterLocked(Work *work, int pid) {
    MOLK_XML_ResetAll(work->document->xml);
    if (Parse_OnvifAnalyticsConfigFile(work->document, work->list) != 0) return -1;
    int length = 0;
    if (BuildOnvifAnalyticsConfigText(work->list, pid, work->document->text, &length) != 0) return -1;
    WriteConfigFile(work->document->text, length);
    MOLK_XML_Release(&work->document->xml);
    SignalDaemons();
    return 0;
}

void DropHandle(OnvifAnalyticsHandle **handle) {
    free(*handle);
    *handle = nullptr;
}

}  // namespace

int RegisterOnvifAnalyticsService(OnvifAnalyticsHandle **pptHandle, char *szDescription, uint32_t *pdwError) {
    if (pptHandle == nullptr) {
        printf("[%s] Input data is NULL!\n", kService);
        return -1;
    }
    OnvifAnalyticsHandle *handle = static_cast<OnvifAnalyticsHandle *>(calloc(1, sizeof *handle));
    if (handle == nullptr) {
        printf("[%s] Memory alloc fail!\n", kService);
        SetError(pdwError, kErrorResource);
        return -1;
    }
    handle->pid = getpid();
    *pptHandle = handle;
    printf("RegisterOnvifAnalyticsService PID : %d\n", handle->pid);
    if (szDescription == nullptr) {
        printf("[%s] Input data is NULL!\n", kService);
        DropHandle(pptHandle);
        return -1;
    }
    MolkSemaphoreHandle *sem = nullptr;
    const LockResult locked = LockRegistry(&sem);
    if (locked != kLocked) {
        printf(locked == kInitialFailed ? "[%s] semaphore initial failed!\n" : "[%s] semaphore lock failed!\n",
               kService);
        DropHandle(pptHandle);
        return -1;
    }
    const int length = static_cast<int>(strlen(szDescription));
    Work work = {nullptr, nullptr};
    uint32_t error = kErrorResource;
    const int opened = OpenWork(&work, length > molk::kRegistryTextSize ? length : molk::kRegistryTextSize);
    if (opened == -1) {
        printf("[%s] Memory alloc fail!\n", kService);
    } else if (opened != 0) {
        puts("XMLProcessor initial failed!");
        error = kErrorDescription;
    } else {
        error = RegisterLocked(&work, szDescription);
    }
    UnlockRegistry(&sem);
    CloseWork(&work);
    SetError(pdwError, error);
    if (error == kErrorRegistered) return 0;
    DropHandle(pptHandle);
    return -1;
}

int UnRegisterOnvifAnalyticsService(OnvifAnalyticsHandle **pptHandle) {
    if (pptHandle == nullptr || *pptHandle == nullptr) return -1;
    MolkSemaphoreHandle *sem = nullptr;
    if (LockRegistry(&sem) != kLocked) return -1;
    Work work = {nullptr, nullptr};
    int result = -1;
    if (OpenWork(&work, molk::kRegistryTextSize) == 0) result = UnregisterLocked(&work, (*pptHandle)->pid);
    UnlockRegistry(&sem);
    CloseWork(&work);
    // The caller's pointer keeps its old value and must not be used again.
    free(*pptHandle);
    return result;
}
