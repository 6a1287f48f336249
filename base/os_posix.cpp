// POSIX side of the OS layer, for host builds (tests, tools, fuzzers, benchmarks).
#include "base/os.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static u64 g_read_calls;  // counted atomically: symbol loading reads from two threads

static int OpenWith(const char *path, int flags, OsFile *out) {
  int fd = open(path, flags | O_CLOEXEC, 0644);
  if (fd < 0) {
    out->handle = 0;
    return kOsFailed;
  }
  out->handle = (intptr_t)fd + 1;  // keep 0 free to mean "not open"
  return kOsOk;
}

int OsFileOpenRead(const char *path, OsFile *out) { return OpenWith(path, O_RDONLY, out); }
int OsFileOpenWrite(const char *path, OsFile *out) { return OpenWith(path, O_WRONLY | O_CREAT | O_TRUNC, out); }

void OsFileClose(OsFile *file) {
  if (file->handle) close((int)(file->handle - 1));
  file->handle = 0;
}

int OsFileSeek(OsFile file, u64 offset) {
  return lseek((int)(file.handle - 1), (off_t)offset, SEEK_SET) == (off_t)offset ? kOsOk : kOsFailed;
}

int OsFileRead(OsFile file, void *buffer, u64 count, u64 *read_count) {
  __atomic_fetch_add(&g_read_calls, 1, __ATOMIC_RELAXED);
  u64 total = 0;
  while (total < count) {  // one logical read; the kernel may hand it out in pieces
    ssize_t got = read((int)(file.handle - 1), (char *)buffer + total, (size_t)(count - total));
    if (got < 0) {
      *read_count = total;
      return kOsFailed;
    }
    if (got == 0) break;
    total += (u64)got;
  }
  *read_count = total;
  return kOsOk;
}

int OsFileReadAt(OsFile file, u64 offset, void *buffer, u64 count, u64 *read_count) {
  __atomic_fetch_add(&g_read_calls, 1, __ATOMIC_RELAXED);
  u64 total = 0;
  while (total < count) {
    ssize_t got = pread((int)(file.handle - 1), (char *)buffer + total, (size_t)(count - total), (off_t)(offset + total));
    if (got < 0) {
      *read_count = total;
      return kOsFailed;
    }
    if (got == 0) break;
    total += (u64)got;
  }
  *read_count = total;
  return kOsOk;
}

int OsFileWrite(OsFile file, const void *buffer, u64 count) {
  u64 total = 0;
  while (total < count) {
    ssize_t put = write((int)(file.handle - 1), (const char *)buffer + total, (size_t)(count - total));
    if (put <= 0) return kOsFailed;
    total += (u64)put;
  }
  return kOsOk;
}

int OsFileSize(OsFile file, u64 *size) {
  struct stat st;
  if (fstat((int)(file.handle - 1), &st) != 0) return kOsFailed;
  *size = (u64)st.st_size;
  return kOsOk;
}

bool OsFileExists(const char *path) { return access(path, F_OK) == 0; }
u64 OsFileReadCallCount(void) { return g_read_calls; }

bool OsDirectoryExists(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

int OsFileReplace(const char *from, const char *to) { return rename(from, to) == 0 ? kOsOk : kOsFailed; }

// Joins the current directory and the path, then drops "." and empty components and lets ".."
// remove the one before it, as Windows' full-path call does, without asking the file system.
int OsPathMakeAbsolute(const char *path, char *out, u64 capacity) {
  if (!path || !out || capacity < 2) return kOsFailed;
  char joined[8192];
  u64 path_len = strlen(path);
  u64 used = 0;
  if (path[0] != '/') {
    if (!getcwd(joined, sizeof(joined))) return kOsFailed;
    used = strlen(joined);
    if (used + 1 < sizeof(joined)) joined[used++] = '/';
  }
  if (used + path_len + 1 > sizeof(joined)) return kOsFailed;
  memcpy(joined + used, path, path_len + 1);
  u64 out_len = 0;
  const char *p = joined;
  while (*p) {
    while (*p == '/') p++;
    const char *start = p;
    while (*p && *p != '/') p++;
    u64 n = (u64)(p - start);
    if (n == 0 || (n == 1 && start[0] == '.')) continue;
    if (n == 2 && start[0] == '.' && start[1] == '.') {
      while (out_len > 0 && out[out_len - 1] != '/') out_len--;
      if (out_len > 0) out_len--;  // the slash before the dropped component
      continue;
    }
    if (out_len + 1 + n + 1 > capacity) return kOsFailed;
    out[out_len++] = '/';
    memcpy(out + out_len, start, n);
    out_len += n;
  }
  if (out_len == 0) out[out_len++] = '/';
  out[out_len] = 0;
  return kOsOk;
}

static u64 g_outstanding_bytes;

void *OsMemoryAllocate(u64 size) {
  void *p = mmap(nullptr, (size_t)size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  __atomic_fetch_add(&g_outstanding_bytes, size, __ATOMIC_RELAXED);
  return p;
}

void *OsMemoryAllocateLarge(u64 size) {
  void *p = OsMemoryAllocate(size);
  if (p) madvise(p, (size_t)size, MADV_HUGEPAGE);  // advice only: a refusal changes nothing
  return p;
}

void OsMemoryRelease(void *base, u64 size) {
  if (!base) return;
  munmap(base, (size_t)size);
  __atomic_fetch_sub(&g_outstanding_bytes, size, __ATOMIC_RELAXED);
}

u64 OsMemoryOutstandingBytes(void) { return __atomic_load_n(&g_outstanding_bytes, __ATOMIC_RELAXED); }

u64 OsTimeMicroseconds(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (u64)ts.tv_sec * 1000000u + (u64)ts.tv_nsec / 1000u;
}

// [SECTION] Threads

static void *RunThread(void *argument) {
  OsThread *thread = (OsThread *)argument;
  thread->function(thread->context);
  return nullptr;
}

int OsThreadStart(OsThreadFunction function, void *context, OsThread *out) {
  *out = {0, function, context};
  pthread_t thread;
  if (pthread_create(&thread, nullptr, RunThread, out) != 0) return kOsFailed;
  out->handle = (intptr_t)thread;
  return kOsOk;
}

void OsThreadJoin(OsThread *thread) {
  if (thread->handle) pthread_join((pthread_t)thread->handle, nullptr);
  thread->handle = 0;
}
