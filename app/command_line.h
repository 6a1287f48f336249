// The start-up command line that is not a command word: "-g" and "-q", then a session file or a
// program to debug followed by that program's own arguments.
#pragma once
#include "app/session.h"

enum { kStartupPathCapacity = 4096 };

enum StartupFileKind {
  kStartupNothing = 0,  // no file argument, or one that cannot be opened (as given or with ".exe")
  kStartupSession = 1,  // the file begins with "KTRN"
  kStartupProgram = 2,
};

typedef struct StartupArguments {
  u8 go;            // "-g": start debugging once the window is up
  u8 quit_on_exit;  // "-q": quit when the target exits
  u32 kind;         // StartupFileKind
  // Session: the file as it was opened. Program: its full path (or as opened when that fails).
  char path[kStartupPathCapacity];
  char *arguments;  // program: the later arguments joined into one string (heap); else null
} StartupArguments;

// argv[0] is the program name. Does nothing but clear out when there are fewer than two
// arguments. Returns 0, or 1 when memory ran out while joining the arguments.
int StartupArgumentsParse(StartupArguments *out, int argc, const char *const *argv);
void StartupArgumentsFree(StartupArguments *args);

// Joins program arguments into one command-line string (heap, never null unless out of memory):
// separated by single spaces; an argument holding a space or two double quotes in a row is
// wrapped in double quotes; every double quote inside gets a backslash before it; an empty
// argument becomes "".
char *JoinProgramArguments(int count, const char *const *args);

// The folder part of a program path: everything before the last '\' or '/', keeping the
// separator of a root ("C:\", "/"). Empty when the path has no folder part.
void ProgramFolder(const char *path, char *out, u64 capacity);

// Makes the parsed program the session's current target command (created when there is none):
// command = its path, working directory = its folder, arguments = the joined arguments.
int StartupApplyProgram(const StartupArguments *args, Session *session);
