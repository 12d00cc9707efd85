/*
 * molkutil.h - the module services of libmolkutil.
 *
 * What the device's module packages share: registration of analytics
 * modules with the ONVIF analytics service, a cross-process lock named by a
 * file path, the package and system configuration files, run status reports
 * to the configuration daemon, and UTC and time-zone figures from a shared
 * file. Results are 0 for success and -1 for failure unless a function says
 * otherwise.
 */
#ifndef MOLKUTIL_H
#define MOLKUTIL_H

#include <stdint.h>
#include <sys/time.h>

#include "molk_export.h"
#include "molkxmlprocessor.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A package's identity, passed by value. */
typedef struct MolkPkgId {
    char name[40];
    char vendor[40];
} MolkPkgId;

/* One node of the package list read from the package file. */
typedef struct MolkPkgInfo {
    struct MolkPkgInfo *next;
    int  index;
    char name[40], vendor[40], version[40], path[40];
} MolkPkgInfo;

typedef struct OnvifAnalyticsHandle OnvifAnalyticsHandle;   /* opaque */
typedef struct MolkSemaphoreHandle  MolkSemaphoreHandle;    /* opaque */
typedef struct MolkTimeHandle       MolkTimeHandle;         /* opaque */

/* ONVIF analytics registration. */
MOLK_API int RegisterOnvifAnalyticsService(OnvifAnalyticsHandle **pptHandle, char *szDescription,
                                           uint32_t *pdwError);
MOLK_API int UnRegisterOnvifAnalyticsService(OnvifAnalyticsHandle **pptHandle);

/* Named semaphore. */
MOLK_API int MolkSemaphore_Initial(MolkSemaphoreHandle **pptHandle, const char *szPath);
MOLK_API int MolkSemaphore_Lock(MolkSemaphoreHandle *ptHandle);
MOLK_API int MolkSemaphore_Unlock(MolkSemaphoreHandle *ptHandle);
MOLK_API int MolkSemaphore_Release(MolkSemaphoreHandle **pptHandle);
MOLK_API int set_semavalue(int iSemId);
MOLK_API int semaphore_p(int iSemId);
MOLK_API int semaphore_v(int iSemId);

/* Package and system configuration. */
MOLK_API int MolkUtil_ReadFile(const char *szPath, char **ppcBuffer, int *piSize);
MOLK_API int MolkUtil_GetChildString(MolkXmlNavi *pNavi, const char *szName, char *pcDst, int nSize);
MOLK_API int MolkUtil_GetChildInt(MolkXmlNavi *pNavi, const char *szName, int *piValue);
MOLK_API int MolkUtil_ParseMolkOrder(char *szOrder);
MOLK_API int MolkUtil_ParseMolkConf(MolkPkgInfo **pptHead);
MOLK_API int MolkUtil_FreeMolkConf(MolkPkgInfo **pptHead);
MOLK_API int MolkUtil_ParseSysConf(char *szModelName);
MOLK_API int MolkUtil_SearchPkgIdx(MolkPkgInfo *ptList, MolkPkgId tId);
MOLK_API int MolkUtil_GetPkgIndex(MolkPkgId tId);

/* Configuration daemon client and run status. */
MOLK_API int SetToConfiger(const char *szCommand);
MOLK_API int MolkSet_RunStatus(MolkPkgId tId, uint32_t dwStatus, char *szMessage);

/* Time services. */
MOLK_API int MolkTime_Initial(MolkTimeHandle **pptHandle);
MOLK_API int MolkTime_Release(MolkTimeHandle **pptHandle);
MOLK_API int MolkTime_GetUtcTime(MolkTimeHandle *ptHandle, struct timeval *ptTime);
MOLK_API int MolkTime_GetLocalTime(MolkTimeHandle *ptHandle, struct timeval *ptTime);
MOLK_API int MolkTime_GetTimezone(MolkTimeHandle *ptHandle, int *piOffset1, int *piOffset0);

#ifdef __cplusplus
}
#endif

#endif /* MOLKUTIL_H */
