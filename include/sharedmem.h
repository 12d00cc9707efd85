/*
 * sharedmem.h - the frame store of libmolkutil.
 *
 * A block is one System V shared-memory segment and one semaphore set under
 * one IPC key, cut into sectors: rings (one writer appends frames, readers
 * follow) and cache sectors (a table of fixed-size slots). The segment is
 * mapped at a different address in every process, so everything stored in
 * it is an offset from the data base or an index.
 *
 * The records marked "in the segment" are a format shared byte for byte by
 * every process on the device, 32-bit ARM and 64-bit host alike: they hold
 * only fixed-width words and char arrays, in native byte order.
 */
#ifndef SHAREDMEM_H
#define SHAREDMEM_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <sys/ipc.h>

#include "molk_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Format constants -------------------------------------------------- */

#define SHM_HEADER_SLOT_SIZE   41088u /* bytes of every sector's header slot */
#define SHM_CACHE_HEADER_USED  1256u  /* bytes of a slot a cache header uses */
#define SHM_FRAME_ENTRIES      1280   /* ring entries, indices 0..1279 */
#define SHM_CACHE_ENTRIES      36     /* cache slots, indices 0..35 */
#define SHM_ATTACH_IDS         16     /* pin counters per entry */
#define SHM_TAG_SIZE           36     /* tag fields; at most 35 characters */
#define SHM_TAG_MAX            35

#define SHM_SECTOR_RING        1u
#define SHM_SECTOR_CACHE       2u
#define SHM_MEMORY_SYSV        1u

/* ---- Frame flag word (dwFlags) ----------------------------------------- */

#define SHM_FRAME_P            0x1u    /* predicted frame; clear = key frame */
#define SHM_FRAME_WRITING      0x2u    /* writer is about to overwrite it */
#define SHM_FRAME_ERROR        0x4u    /* cache slot given up without content */
#define SHM_FRAME_LAYER_MASK   0x38u   /* layer 0..7 of a predicted frame */
#define SHM_FRAME_UNREAD       0x1000u /* keep until somebody has read it */
#define SHM_FRAME_FORBIDDEN    0x2000u /* cache slot hidden from readers */

/* ---- Read flags (SharedMemReadRequest.dwReadFlags) --------------------- */

#define SHM_READ_IN_PLACE             0x1u
#define SHM_READ_VIA_CACHE            0x2u
#define SHM_READ_KEY_START            0x8u
#define SHM_READ_MARK_ONLY            0x10u
#define SHM_READ_CALIBRATE            0x20u
#define SHM_READ_JUMP                 0x40u
#define SHM_READ_RESTART              0x80u
#define SHM_READ_NO_OVERTAKE          0x100u
#define SHM_READ_CROSSOVER            0x200u
#define SHM_READ_RATE_LIMIT           0x400u
#define SHM_READ_ADAPTIVE_BY_ATTACH   0x800u
#define SHM_READ_ADAPTIVE_MARK_ONLY   0x1000u
#define SHM_READ_ADAPTIVE_RATE_LIMIT  0x2000u
#define SHM_READ_LAYER_MASK           0x1C000u
#define SHM_READ_NEW_ONLY             0x20000u
#define SHM_READ_SIZE_LIMIT           0x40000u
#define SHM_READ_FROM_OLDEST          0x80000u

/* ---- Reasons (SharedMemReadRequest.dwReason) --------------------------- */

#define SHM_REASON_NONE        0u
#define SHM_REASON_CALIBRATED  1u
#define SHM_REASON_JUMPED      2u
#define SHM_REASON_CROSSOVER   3u
#define SHM_REASON_FAILED      4u
#define SHM_REASON_NO_MEMORY   5u
#define SHM_REASON_MISUSE      6u
#define SHM_REASON_LATEST      8u
#define SHM_REASON_WAIT        9u
#define SHM_REASON_NOT_YET     10u
#define SHM_REASON_NOT_MARK    11u
#define SHM_REASON_LAYER       12u
#define SHM_REASON_TOO_EARLY   13u

/* ---- Searches, writer statuses, cache buffer types --------------------- */

#define SHM_SEARCH_ANY         0u
#define SHM_SEARCH_FORWARD     1u
#define SHM_SEARCH_BACKWARD    2u
#define SHM_SEARCH_UNPINNED    1u
#define SHM_SEARCH_COMPLETE    2u

#define SHM_WRITE_OCCUPIED     2u
#define SHM_WRITE_UNREAD       3u
#define SHM_WRITE_TOO_LARGE    4u

#define SHM_BUFFER_PRIMARY     0u
#define SHM_BUFFER_SECONDARY   1u

/* ---- Records in the segment (byte-exact, see src/framestore/segment.h) - */

typedef struct SharedMemFrameEntry {      /* 32 bytes */
    uint32_t dwFlags;
    uint32_t dwTimeTick;                  /* ms; 0 = never written */
    uint32_t dwOffset;                    /* from the data base */
    uint32_t dwSize;                      /* rounded up to 4 bytes */
    uint8_t  abyAccessCount[16];          /* one pin counter per AttachID */
} SharedMemFrameEntry;

typedef struct SharedMemCacheEntry {      /* 32 bytes, same layout */
    uint32_t dwFlags, dwTimeTick, dwOffset, dwSize;
    uint8_t  abyAccessCount[16];
} SharedMemCacheEntry;

typedef struct SharedMemSectorHeader {    /* 41088 bytes: one header slot */
    uint32_t dwSectorType, dwMemoryType, dwTotalSize, dwPhysicalBase;
    uint32_t dwEndOffset, dwStartOffset, dwWriteOffset, dwDuration;
    int      iOldestIndex, iLatestIndex, iWriteIndex, iBoundaryIndex;
    int      iMaxIndex;
    char     szTag[36];
    char     szSecondTag[36];
    uint8_t  abyReserved[2];
    uint8_t  byTimeshift;
    uint8_t  byHasNext;
    SharedMemFrameEntry atFrame[1280];
} SharedMemSectorHeader;

typedef struct SharedMemCacheHeader {     /* 1256 bytes used of its slot */
    uint32_t dwSectorType, dwMemoryType, dwTotalSize, dwPhysicalBase;
    uint32_t dwEndOffset, dwStartOffset, dwOverwrittenFlags;
    uint32_t dwPrimarySize, dwSecondarySize, dwLeftSize;
    int      iOldestIndex, iLatestIndex, iWriteIndex;
    int      iPrimaryBoundary, iSecondaryBoundary, iSecondaryEnd;
    char     szTag[36];
    uint8_t  abyReserved[3];
    uint8_t  byHasNext;
    SharedMemCacheEntry atCache[36];
} SharedMemCacheHeader;

/* ---- Per-process records ----------------------------------------------- */

typedef struct SharedMemBlockConfig {
    uint32_t dwMemoryType;                /* must be 1 (System V) */
    uint32_t dwReserved1, dwReserved2;
    uint32_t dwPrimarySize;               /* default cache slot size */
    uint32_t dwSecondarySize;
} SharedMemBlockConfig;

/* One process's attachment; made by SharedMemBlock_Attach, freed by
 * SharedMemBlock_Detach. */
typedef struct SharedMemBlockInfo {
    void *pvDataBase;     /* base of every dwOffset */
    void *pvHeaderBase;   /* header slot 0 */
    int   iShmId;
    int   iSemId;
    int   iSectorNum;
} SharedMemBlockInfo;

/* One process's open sector; made by SharedMem_Initial[ByTag], freed by
 * SharedMem_Release. Belongs to one thread at a time. */
typedef struct SharedMemHandle {
    SharedMemCacheHeader  *ptCacheHeader;  /* companion cache of a ring */
    void                  *pvBase;
    SharedMemSectorHeader *ptHeader;       /* a cache sector's slot too, by cast */
    int       iAttachId;                   /* 0..15 pin; 16+ pins nothing */
    int       iSemId;
    int       iSectorIndex;                /* also its semaphore number */
    int       iCacheIndex;
    uint32_t *pdwAdaptiveStamp;
    uint32_t  dwLastCacheTick;
    uint32_t  dwWriteStatus;               /* 0 or SHM_WRITE_* */
} SharedMemHandle;

typedef struct SharedMemWriteInfo {
    uint8_t *pbyBuffer;
    uint32_t dwFlags, dwSize, dwTimeTick;
} SharedMemWriteInfo;

typedef struct SharedMemBufClient {
    int      iLastIndex, iDeliveredIndex, iCacheSlot;
    uint32_t dwHeld, dwLastTimeTick, dwDeliveredTimeTick;
    SharedMemHandle *ptHandle;
    uint32_t dwHoldType, dwAdaptiveActive, dwRateCarry, dwLayerWait;
} SharedMemBufClient;

typedef struct SharedMemReadRequest {
    uint32_t dwReadFlags, dwDelay, dwRefTimeTick, dwAdaptiveWindow;
    uint32_t dwReason, dwMinInterval, dwCacheClass, dwSizeLimit;
} SharedMemReadRequest;

/* ---- Exported data ----------------------------------------------------- */

/* Low 3 bits: log level 0..7 (default 6). Bit 4: pin trace. Bit 5: margin
 * trace. Bit 6: cache slot search trace. Bit 7: failed cache reads. */
MOLK_API extern uint32_t      gShm_DebugLevel;
MOLK_API extern uint32_t      gShm_Clktck;        /* set by SharedMemBlock_Attach */
MOLK_API extern const uint8_t g_abyNULLArray[16];
MOLK_API extern const char    shmem_rcsid[];
MOLK_API extern const char    molkutil_lib_rcsid[];

/* ---- Blocks ------------------------------------------------------------ */

MOLK_API int CheckShmMax(uint32_t dwSize);
MOLK_API int SharedMemBlock_Allocate(key_t key, char *szTotalSize, int iSectorNum,
                                     SharedMemBlockConfig *ptConfig, char **pszSectorDesc);
MOLK_API int SharedMemBlock_Delete(key_t key);
MOLK_API int SharedMemBlock_Attach(SharedMemBlockInfo **pptInfo, uint32_t dwReserved, key_t key);
MOLK_API int SharedMemBlock_Detach(SharedMemBlockInfo **pptInfo);
MOLK_API int SharedMemBlock_UpdateTagName(SharedMemBlockInfo *ptInfo, int iSectorIndex,
                                          const char *szText);
MOLK_API int SharedMemBlock_FlushAccessCountWithAttachId(SharedMemBlockInfo *ptInfo,
                                                         int iAttachId);
MOLK_API int SharedMemBlock_Repartition(SharedMemBlockInfo *ptInfo, int iDescNum,
                                        char **pszSectorDesc);

/* ---- Handles, locks, logging ------------------------------------------- */

MOLK_API int   SharedMem_SemaphoreInit(key_t key, int iSemNum);
MOLK_API int   SharedMem_SemaphoreP(int iSemId, int iSemIndex);
MOLK_API int   SharedMem_SemaphoreV(int iSemId, int iSemIndex);
MOLK_API void  SharedMem_UpdateDebugLevel(void);
MOLK_API void *SharedMem_FindTag(void *pvHeaderBase, const char *szTag, int iSectorNum,
                                 int *piIndex);
MOLK_API int   SharedMem_AddCache(SharedMemBlockInfo *ptInfo, SharedMemHandle *ptHandle,
                                  const char *szTag);
MOLK_API int   SharedMem_Initial(SharedMemBlockInfo *ptInfo, SharedMemHandle **pptHandle,
                                 int iSectorIndex, int iAttachId);
MOLK_API int   SharedMem_InitialByTag(SharedMemBlockInfo *ptInfo, SharedMemHandle **pptHandle,
                                      const char *szTag, int iAttachId);
MOLK_API int   SharedMem_Release(SharedMemHandle **pptHandle);
MOLK_API int   SharedMem_ResetHeader(void *ptHeader, int iSemId, int iSectorIndex);
MOLK_API int   SharedMem_Reset(SharedMemHandle *ptHandle);
MOLK_API int   SharedMem_CheckTimeshift(SharedMemHandle *ptHandle, uint32_t *pdwDuration);
MOLK_API int   SharedMem_QuerySetting(SharedMemHandle *ptHandle, uint32_t *pdwSectorType,
                                      uint32_t *pdwMemoryType);
MOLK_API int   SharedMem_Dump(SharedMemHandle *ptHandle, FILE *ptFile);
MOLK_API uint32_t SharedMem_GetPhyAddress(SharedMemHandle *ptHandle, void *pvAddress);

/* ---- Frame clock ------------------------------------------------------- */

/* 1 when a is later than b, -1 when earlier, 0 when equal; wrap-safe. The
 * shorter distance between the two goes to *pdwDistance when given. */
MOLK_API int SharedMem_DWComparator(uint32_t dwA, uint32_t dwB, uint32_t *pdwDistance);

/* ---- Frame ring writer ------------------------------------------------- */

/* The cycle: query a place, fill the frame's bytes there without any lock,
 * publish with SharedMem_UpdateWritedBuffer. A refused query (-1) leaves
 * its reason in dwWriteStatus: 0 (no room: rewind), SHM_WRITE_OCCUPIED,
 * SHM_WRITE_UNREAD (no place for now) or SHM_WRITE_TOO_LARGE (never). */
MOLK_API int  SharedMem_QueryWriteBuffer(SharedMemHandle *ptHandle, uint8_t **ppbyBuffer,
                                         uint32_t *pdwSize);
MOLK_API int  SharedMem_QueryAutoRewindWriteBuffer(SharedMemHandle *ptHandle,
                                                   uint8_t **ppbyBuffer, uint32_t dwSize);
MOLK_API int  SharedMem_UpdateWritedBuffer(SharedMemHandle *ptHandle, SharedMemWriteInfo *ptInfo);
MOLK_API int  SharedMem_PrepareRewindWriteBuffer(SharedMemSectorHeader *ptHeader,
                                                 uint32_t *pdwStatus);
MOLK_API int  SharedMem_RewindWriteBuffer(SharedMemHandle *ptHandle);
MOLK_API int  SharedMem_QueryWriteStatus(SharedMemHandle *ptHandle, uint32_t *pdwStatus);
/* Called with the sector's lock held. */
MOLK_API int  SharedMem_CheckFrameOccupied(SharedMemSectorHeader *ptHeader, uint32_t dwEndOffset,
                                           uint32_t *pdwStatus);
MOLK_API void SharedMem_ClearFrameOccupied(SharedMemSectorHeader *ptHeader, int iIndex);
MOLK_API void SharedMem_DumpFrameOccupied(SharedMemFrameEntry *ptEntry, uint32_t *pdwSum);

/* ---- Reader clients and frame pinning ----------------------------------- */

/* A client is made by the first read query (calloc) and ended by
 * SharedMem_FreeBufClient; its handle must outlive it. */
MOLK_API int SharedMem_CheckIndexValid(SharedMemSectorHeader *ptHeader, int iIndex,
                                       uint32_t dwTimeTick, uint32_t *pdwNextIndex);
/* szPurpose "query" or "release": a release may give back the pin of a
 * frame that is no longer live while its entry still carries it. */
MOLK_API int SharedMem_CheckClientValid(SharedMemSectorHeader *ptHeader,
                                        SharedMemBufClient *ptClient, const char *szPurpose);
MOLK_API int SharedMem_ReleaseReadBuffer(SharedMemBufClient *ptClient);
MOLK_API int SharedMem_QueryLastBufClient(SharedMemBufClient *ptClient); /* -2 for null */
MOLK_API int SharedMem_FreeBufClient(SharedMemBufClient **pptClient);
MOLK_API int SharedMem_CheckClientValidByTimeTick(SharedMemCacheHeader *ptHeader,
                                                  SharedMemBufClient *ptClient);

/* ---- Tick search -------------------------------------------------------- */

/* Lock-free walks for the entry nearest to dwRefTimeTick - dwDelay; -1 when
 * the ring moved too far under the walk. *pdwKey gets the last key frame
 * passed. */
MOLK_API int SharedMem_ForwardSearch(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                     uint32_t *pdwKey, SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_BackwardSearch(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                      uint32_t *pdwKey, SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_BackwardSearchPreSize(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                             uint32_t *pdwKey, SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_QueryDeltaTimeBuffer(SharedMemSectorHeader *ptHeader, uint32_t dwStart,
                                            uint32_t dwDirection, SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_GetRequestTimeTick(uint32_t dwReserved, SharedMemFrameEntry *ptEntry,
                                          uint32_t dwFilter, uint32_t *pdwBestTick,
                                          uint32_t *pdwFound, uint32_t dwDirection);

/* ---- Frame reader ------------------------------------------------------ */

/* One call per frame: decides which frame comes next for this client,
 * filters it, pins it against the writer and hands over a pointer into the
 * segment, good until SharedMem_ReleaseReadBuffer. 0: a frame is delivered
 * and held. -1: no frame now; ptRequest->dwReason says why (most reasons
 * are ordinary flow, not errors).
 *
 * pptClient: the address of the caller's client pointer, null before the
 * first query; the library allocates the client and the caller ends it
 * with SharedMem_FreeBufClient. A null pptClient reads with a temporary
 * client for this one call: nobody could give its pin back, so the pin is
 * dropped before the call returns and the frame is delivered unprotected,
 * as to an AttachID of 16 or more: copy it at once.
 *
 * ptRequest may be null (SHM_READ_IN_PLACE alone). The query rewrites its
 * dwDelay, dwRefTimeTick (when 0) and dwReason. */
MOLK_API int SharedMem_QueryReadBuffer(SharedMemHandle *ptHandle, SharedMemBufClient **pptClient,
                                       uint8_t **ppbyData, uint32_t *pdwSize,
                                       SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_QueryReadBuffer_Internal(SharedMemHandle *ptHandle,
                                                SharedMemBufClient *ptClient,
                                                SharedMemReadRequest *ptRequest,
                                                uint32_t *pdwDistance);
/* 1 when the index is one of the ring's three oldest entries. */
MOLK_API int SharedMem_IsFrameTooOld(SharedMemSectorHeader *ptHeader, uint32_t dwIndex);
/* 1 when the writer is closer to that frame's bytes than its margin. */
MOLK_API int SharedMem_IsInsideMargin(SharedMemSectorHeader *ptHeader, uint32_t dwIndex);

/* ---- Waiting for the next frame (this library's extension) ------------ */

/* Sleeps until the ring holds a frame after the client's cursor, and then
 * returns 0 at once; the reader then calls SharedMem_QueryReadBuffer as
 * before. A null client (no query made yet) waits for any frame. Returns
 * 1 when timeoutMs passed first, -1 for a handle that is not on a ring or
 * a client of another handle.
 *
 * The sleep ends when a writer publishes on the ring through
 * SharedMem_UpdateWritedBuffer of this library version, which wakes its
 * sleepers; a writer that nobody waits for makes no system call for it.
 * The waiting state lives beside the block, in the POSIX shared-memory
 * object "/molkutil.wait.<key in hex>" that the allocator or the first
 * attach makes and SharedMemBlock_Delete removes; the segment's layout is
 * untouched; rings with a sector index above 255 are not woken. A process
 * keeps the companions of at most 16 attached blocks. A writer process
 * that does not wake (an older build, or a
 * process that writes without this library) costs a waiter no more than
 * its timeout: the frame is seen when the timeout ends. A waiter killed in
 * its sleep is dropped from the count by the next writer or waiter that
 * finds it dead. A reader that has just released a frame may wait at
 * once instead of querying again: the wait returns at once when another
 * frame is there, and a query that finds nothing new is saved. A reader
 * that keeps its distance behind the writer
 * (SHM_REASON_WAIT) is woken by every frame and should sleep by time. */
MOLK_API int SharedMem_WaitReadBuffer(SharedMemHandle *ptHandle, SharedMemBufClient *ptClient,
                                      uint32_t timeoutMs);

/* ---- Clearing a dead reader's pins (this library's extension) --------- */

/* A reader process that dies holding frames leaves its pins behind: the
 * kernel gives its sector locks back, but the counters stay, and the
 * writer refuses those places at every lap. A supervisor that knows which
 * AttachID the dead process used calls this before anybody reuses it: it
 * takes that AttachID's counter off every entry of every ring and every
 * slot of every cache sector, each sector under its own lock. Returns the
 * number of pins taken off, or -1 for a null info or an AttachID outside
 * 0..15. Only an AttachID that no living process uses may be cleared:
 * the pins of a living reader would be lost under it. */
MOLK_API int SharedMemBlock_ClearAttachId(SharedMemBlockInfo *ptInfo, int attachId);

/* ---- Cache writer ------------------------------------------------------ */

/* A cache sector is a table of at most 36 equal slots. A direct writer
 * queries a slot (good for dwPrimarySize bytes), fills it without any lock
 * and publishes it with SharedMem_UpdateWritedCache; SHM_FRAME_ERROR in the
 * flag word gives the slot up instead. Tick 0 has the library stamp it.
 * The writer reuses the oldest slot nobody holds; no slot may stay taken. */
MOLK_API int SharedMem_QueryWriteCache(SharedMemHandle *ptHandle, uint8_t **ppbyBuffer,
                                       uint32_t dwSize);
MOLK_API int SharedMem_QueryWriteCache_Internal(SharedMemCacheHeader *ptHeader, uint32_t dwSize);
MOLK_API int SharedMem_UpdateWritedCache(SharedMemHandle *ptHandle, SharedMemWriteInfo *ptInfo);
MOLK_API int SharedMem_AssignNewBuffer(SharedMemCacheHeader *ptHeader, uint32_t dwBufferType);
MOLK_API int SharedMem_AssignAvailableWriteBuffer(SharedMemCacheHeader *ptHeader,
                                                  uint32_t dwBufferType);
/* dwMask: 1 pass over pinned slots, 2 over slots being written, 4 stop at a
 * slot newer than the latest, 8 pass over one unread slot once. */
MOLK_API int SharedMem_SearchOldestBufferIndex(SharedMemCacheHeader *ptHeader, int iSkipIndex,
                                               uint32_t dwMask);

/* ---- Direct cache reader ------------------------------------------------ */

/* Reads a cache sector directly, next by tick after the client's last one
 * (ptRequest->dwCacheClass 0 for every class, else the high 16 bits of the
 * slot's flag word). No lock is taken. The client is allocated on the first
 * call and ended with SharedMem_FreeBufClient; give each pin back with
 * SharedMem_ReleaseReadCache before the next query. */
MOLK_API int SharedMem_QueryReadCache(SharedMemHandle *ptHandle, SharedMemBufClient **pptClient,
                                      uint8_t **ppbyData, uint32_t *pdwSize,
                                      SharedMemReadRequest *ptRequest);
MOLK_API int SharedMem_QueryReadCache_Internal(SharedMemHandle *ptHandle,
                                               SharedMemBufClient *ptClient,
                                               SharedMemReadRequest *ptRequest);
/* Pins the slot whose data starts at pbyData, hidden (SHM_FRAME_FORBIDDEN)
 * or not. */
MOLK_API int SharedMem_QueryReadCacheByPointer(SharedMemHandle *ptHandle,
                                               SharedMemBufClient **pptClient, uint8_t *pbyData);
/* Shows a hidden slot to the searching readers, as unread. */
MOLK_API int SharedMem_ClearFobiddenReadCacheByPointer(SharedMemHandle *ptHandle,
                                                       uint8_t *pbyData);
MOLK_API int SharedMem_ReleaseReadCache(SharedMemHandle *ptHandle, SharedMemBufClient *ptClient);
MOLK_API int SharedMem_ReleaseReadCacheIndex(SharedMemHandle *ptHandle, int iSlot);
/* Next slot after dwRefTimeTick, wrap-safe; of equal ticks the lower slot. */
MOLK_API int SharedMem_SearchNextCacheIndex(SharedMemCacheHeader *ptHeader,
                                            uint32_t dwRefTimeTick,
                                            SharedMemReadRequest *ptRequest);
/* Next slot after dwRefTimeTick by plain comparison, the wrapped tick range
 * handled as a case of its own; of equal ticks the higher slot. Reports on
 * standard output. */
MOLK_API int SharedMem_SearchNextBufferIndex(SharedMemCacheHeader *ptHeader,
                                             uint32_t dwRefTimeTick, uint32_t dwBufferType,
                                             uint32_t dwFilter);

/* ---- Read-through cache ------------------------------------------------- */

/* The cache way of SharedMem_QueryReadBuffer (SHM_READ_VIA_CACHE on a ring
 * handle with a companion cache sector): the ring frame is copied once into
 * a cache slot for every reader of that sector, and the ring entry is free
 * as soon as the query returns. The cache sector's lock is held only for
 * finding or assigning the slot. */
MOLK_API int SharedMem_QueryCacheforReadBuffer(SharedMemHandle *ptHandle,
                                               SharedMemBufClient *ptClient, uint32_t *pdwFound,
                                               uint32_t *pdwOffset, uint32_t dwKey);
MOLK_API int SharedMem_UpdateCacheforReadBuffer(SharedMemCacheHeader *ptHeader,
                                                SharedMemBufClient *ptClient, uint32_t dwKey,
                                                uint32_t dwTimeTick, uint32_t dwSize);
MOLK_API int SharedMem_SearchCaching(SharedMemCacheHeader *ptHeader, uint32_t dwKey,
                                     SharedMemFrameEntry *ptEntry);
MOLK_API int SharedMem_MatchFrame(SharedMemCacheEntry *ptCacheEntry, uint32_t dwKey,
                                  SharedMemFrameEntry *ptFrameEntry);

/* ---- Statistics and inspection ------------------------------------------ */

/* Fills dwSize / 4 words of pdwInfo: sector type, memory type, data size;
 * for a ring also its form, duration (ms), frame intervals, bytes stored,
 * and in element 7 the recent bit rate in kbit/s. Element 7 is read first
 * as a request: 0xABCD0000 | window in frames (10..1024), else 30 frames.
 * No lock is taken: the figures may mix two moments. */
MOLK_API int SharedMem_QueryInfo(SharedMemHandle *ptHandle, uint32_t *pdwInfo, uint32_t dwSize);
/* Prints a ring's state on one line, or a cache sector's slot table. */
MOLK_API int SharedMem_ShowInfo(SharedMemHandle *ptHandle);

#ifdef __cplusplus
}
#endif

#endif /* SHAREDMEM_H */
