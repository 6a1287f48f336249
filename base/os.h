// The operating-system layer: the few services the portable code needs, declared once and
// implemented in os_win32.cpp and os_posix.cpp. Paths are UTF-8 everywhere.
#pragma once
#include "base/types.h"

// [SECTION] Files
typedef struct OsFile { intptr_t handle; } OsFile;  // handle 0 = not open
enum OsResult { kOsOk = 0, kOsFailed = 1 };

// Opens an existing file for reading, shared for reading by others.
int OsFileOpenRead(const char *path, OsFile *out);
// Creates or truncates a file for writing.
int OsFileOpenWrite(const char *path, OsFile *out);
void OsFileClose(OsFile *file);
int OsFileSeek(OsFile file, u64 offset);
// Reads up to count bytes at the current position; *read_count receives how many were read.
int OsFileRead(OsFile file, void *buffer, u64 count, u64 *read_count);
// Reads up to count bytes at offset, without regard to the current position: two threads may read
// one file this way at once. *read_count receives how many were read.
int OsFileReadAt(OsFile file, u64 offset, void *buffer, u64 count, u64 *read_count);
int OsFileWrite(OsFile file, const void *buffer, u64 count);
int OsFileSize(OsFile file, u64 *size);
bool OsFileExists(const char *path);
// Number of read calls made through OsFileRead since start-up (tests check that reads merge).
u64 OsFileReadCallCount(void);
bool OsDirectoryExists(const char *path);
// Moves a file over another one in one step, replacing it (saving through a temporary file, so a
// failed write never destroys the previous contents).
int OsFileReplace(const char *from, const char *to);

// [SECTION] Paths
// The absolute, normalised form of a path (relative to the current directory), without touching
// the file system beyond the current directory; kOsFailed when it does not fit in capacity bytes.
int OsPathMakeAbsolute(const char *path, char *out, u64 capacity);

// [SECTION] Virtual memory
// Reserves and commits size bytes of zeroed read/write memory; null when the system refuses.
void *OsMemoryAllocate(u64 size);
// The same for big blocks that are filled at once (symbol arenas): where the system offers it
// without privileges, the block is backed by large pages, which cuts the cost of first touches.
void *OsMemoryAllocateLarge(u64 size);
void OsMemoryRelease(void *base, u64 size);
// Bytes taken through the two allocators above and not yet released, over the whole process:
// what tests check to see that work on threads that ended left nothing behind.
u64 OsMemoryOutstandingBytes(void);

// [SECTION] Threads
// A worker thread for work that runs beside the caller and is joined before its results are used.
// The OsThread is the thread's start record: it must stay in place until the join.
typedef void (*OsThreadFunction)(void *context);
typedef struct OsThread {
  intptr_t handle;  // 0 = none
  OsThreadFunction function;
  void *context;
} OsThread;
int OsThreadStart(OsThreadFunction function, void *context, OsThread *out);
// Waits for the thread to end and releases it.
void OsThreadJoin(OsThread *thread);

// [SECTION] Time
u64 OsTimeMicroseconds(void);  // monotonic
