// molkmod: the module services' command-line tool for people who integrate modules.
#ifndef MOLKMOD_H
#define MOLKMOD_H

struct MolkmodCommand {
    const char *name;
    const char *usage;    // arguments after the command's name
    const char *example;  // one complete command line
    int (*run)(int argc, char **argv);  // argv[0] is the command's name
};

// Prints "molkmod: " + message to stderr; returns the exit code 1.
int Fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Registration (cmd_register.cpp).
int CmdRegister(int argc, char **argv);
int CmdUnregister(int argc, char **argv);
// Package and system files, run status, time (cmd_package.cpp, cmd_time.cpp).
int CmdStatus(int argc, char **argv);
int CmdPkg(int argc, char **argv);
int CmdOrder(int argc, char **argv);
int CmdModel(int argc, char **argv);
int CmdTime(int argc, char **argv);

#endif
