// molkshm: the frame store's command-line tool for people who run devices.
#ifndef MOLKSHM_H
#define MOLKSHM_H

#include <sys/types.h>

#include "sharedmem.h"

struct MolkshmCommand {
    const char *name;
    const char *usage;  // arguments after the command's name
    int (*run)(int argc, char **argv);  // argv[0] is the command's name
};

// Parses a key in decimal or 0x hex; false on anything else.
bool ParseKey(const char *text, key_t *key);
// Parses an unsigned number in decimal or 0x hex; false on anything else.
bool ParseUnsigned(const char *text, unsigned long *value);
// Prints "molkshm: " + message to stderr; returns the exit code 1.
int Fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Attaches the block under key, or reports why not.
SharedMemBlockInfo *AttachOrFail(key_t key);

int CmdCreate(int argc, char **argv);
int CmdInfo(int argc, char **argv);
int CmdReset(int argc, char **argv);
int CmdDelete(int argc, char **argv);
int CmdRead(int argc, char **argv);
int CmdStamp(int argc, char **argv);
int CmdWrite(int argc, char **argv);

// Per-ring detail below a ring's summary line in `info`.
void PrintRingDetail(const SharedMemSectorHeader *ring);

#endif
