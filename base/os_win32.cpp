// Win32 side of the OS layer.
#include "base/os.h"

#include <windows.h>

static u64 g_read_calls;  // counted atomically: symbol loading reads from two threads

// Converts a UTF-8 path to UTF-16 into a caller's buffer; false when it does not fit.
static bool WidenPath(const char *path, wchar_t *out, int capacity) {
  int n = MultiByteToWideChar(CP_UTF8, 0, path, -1, out, capacity);
  return n > 0;
}

// Files are opened on the debugger thread while it handles module loads, where the heap is not
// used: usual paths convert on the stack, the rare long one in pages of its own.
static int OpenWith(const char *path, DWORD access, DWORD share, DWORD disposition, OsFile *out) {
  static const int kCapacity = 32768;  // the longest path Windows accepts
  wchar_t small[1024];
  out->handle = 0;
  int needed = MultiByteToWideChar(CP_UTF8, 0, path, -1, nullptr, 0);
  if (needed <= 0 || needed > kCapacity) return kOsFailed;
  wchar_t *wide = needed <= (int)KTRN_ARRAY_COUNT(small) ? small : (wchar_t *)OsMemoryAllocate(kCapacity * sizeof(wchar_t));
  if (!wide) return kOsFailed;
  HANDLE h = INVALID_HANDLE_VALUE;
  if (WidenPath(path, wide, wide == small ? (int)KTRN_ARRAY_COUNT(small) : kCapacity))
    h = CreateFileW(wide, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (wide != small) OsMemoryRelease(wide, kCapacity * sizeof(wchar_t));
  if (h == INVALID_HANDLE_VALUE) return kOsFailed;
  out->handle = (intptr_t)h;
  return kOsOk;
}

int OsFileOpenRead(const char *path, OsFile *out) {
  return OpenWith(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, out);
}

int OsFileOpenWrite(const char *path, OsFile *out) {
  return OpenWith(path, GENERIC_WRITE, 0, CREATE_ALWAYS, out);
}

void OsFileClose(OsFile *file) {
  if (file->handle) CloseHandle((HANDLE)file->handle);
  file->handle = 0;
}

int OsFileSeek(OsFile file, u64 offset) {
  LARGE_INTEGER to;
  to.QuadPart = (LONGLONG)offset;
  return SetFilePointerEx((HANDLE)file.handle, to, nullptr, FILE_BEGIN) ? kOsOk : kOsFailed;
}

int OsFileRead(OsFile file, void *buffer, u64 count, u64 *read_count) {
  __atomic_fetch_add(&g_read_calls, 1, __ATOMIC_RELAXED);
  u64 total = 0;
  while (total < count) {  // ReadFile takes at most 4 GiB - 1 at a time
    DWORD want = (DWORD)MinU64(count - total, 0x40000000u);
    DWORD got = 0;
    if (!ReadFile((HANDLE)file.handle, (char *)buffer + total, want, &got, nullptr)) {
      *read_count = total;
      return kOsFailed;
    }
    total += got;
    if (got < want) break;
  }
  *read_count = total;
  return kOsOk;
}

int OsFileReadAt(OsFile file, u64 offset, void *buffer, u64 count, u64 *read_count) {
  __atomic_fetch_add(&g_read_calls, 1, __ATOMIC_RELAXED);
  u64 total = 0;
  while (total < count) {
    DWORD want = (DWORD)MinU64(count - total, 0x40000000u);
    DWORD got = 0;
    OVERLAPPED at = {};
    at.Offset = (DWORD)(offset + total);
    at.OffsetHigh = (DWORD)((offset + total) >> 32);
    if (!ReadFile((HANDLE)file.handle, (char *)buffer + total, want, &got, &at)) {
      *read_count = total;
      return GetLastError() == ERROR_HANDLE_EOF ? kOsOk : kOsFailed;
    }
    total += got;
    if (got < want) break;
  }
  *read_count = total;
  return kOsOk;
}

int OsFileWrite(OsFile file, const void *buffer, u64 count) {
  u64 total = 0;
  while (total < count) {
    DWORD want = (DWORD)MinU64(count - total, 0x40000000u);
    DWORD put = 0;
    if (!WriteFile((HANDLE)file.handle, (const char *)buffer + total, want, &put, nullptr) || put == 0)
      return kOsFailed;
    total += put;
  }
  return kOsOk;
}

int OsFileSize(OsFile file, u64 *size) {
  LARGE_INTEGER s;
  if (!GetFileSizeEx((HANDLE)file.handle, &s)) return kOsFailed;
  *size = (u64)s.QuadPart;
  return kOsOk;
}

// By its attributes, not by opening it: a file that another program holds open for writing, or
// that this user may not read, still exists.
bool OsFileExists(const char *path) {
  wchar_t wide[32768 / 4];
  if (!WidenPath(path, wide, (int)KTRN_ARRAY_COUNT(wide))) return false;
  return GetFileAttributesW(wide) != INVALID_FILE_ATTRIBUTES;
}

u64 OsFileReadCallCount(void) { return g_read_calls; }

bool OsDirectoryExists(const char *path) {
  wchar_t wide[32768 / 4];
  if (!WidenPath(path, wide, (int)KTRN_ARRAY_COUNT(wide))) return false;
  DWORD attributes = GetFileAttributesW(wide);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

int OsFileReplace(const char *from, const char *to) {
  wchar_t wide_from[1024], wide_to[1024];
  if (!WidenPath(from, wide_from, 1024) || !WidenPath(to, wide_to, 1024)) return kOsFailed;
  return MoveFileExW(wide_from, wide_to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ? kOsOk : kOsFailed;
}

int OsPathMakeAbsolute(const char *path, char *out, u64 capacity) {
  if (!path || !out || capacity < 2) return kOsFailed;
  wchar_t wide[1024], full[1024];
  if (!WidenPath(path, wide, 1024)) return kOsFailed;
  DWORD n = GetFullPathNameW(wide, 1024, full, nullptr);
  if (n == 0 || n >= 1024) return kOsFailed;
  int bytes = WideCharToMultiByte(CP_UTF8, 0, full, -1, out, (int)MinU64(capacity, 0x7fffffff), nullptr, nullptr);
  return bytes > 0 ? kOsOk : kOsFailed;
}

static u64 g_outstanding_bytes;

void *OsMemoryAllocate(u64 size) {
  void *p = VirtualAlloc(nullptr, (SIZE_T)size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (p) __atomic_fetch_add(&g_outstanding_bytes, size, __ATOMIC_RELAXED);
  return p;
}

// Large pages on Windows need a privilege that a debugger should not ask for.
void *OsMemoryAllocateLarge(u64 size) { return OsMemoryAllocate(size); }

void OsMemoryRelease(void *base, u64 size) {
  if (!base) return;
  VirtualFree(base, 0, MEM_RELEASE);
  __atomic_fetch_sub(&g_outstanding_bytes, size, __ATOMIC_RELAXED);
}

u64 OsMemoryOutstandingBytes(void) { return __atomic_load_n(&g_outstanding_bytes, __ATOMIC_RELAXED); }

u64 OsTimeMicroseconds(void) {
  static LARGE_INTEGER frequency;
  if (!frequency.QuadPart) QueryPerformanceFrequency(&frequency);
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return (u64)((double)now.QuadPart * 1e6 / (double)frequency.QuadPart);
}

// [SECTION] Threads

static DWORD WINAPI RunThread(void *argument) {
  OsThread *thread = (OsThread *)argument;
  thread->function(thread->context);
  return 0;
}

int OsThreadStart(OsThreadFunction function, void *context, OsThread *out) {
  *out = {0, function, context};
  HANDLE thread = CreateThread(nullptr, 0, RunThread, out, 0, nullptr);
  out->handle = (intptr_t)thread;
  return thread ? kOsOk : kOsFailed;
}

void OsThreadJoin(OsThread *thread) {
  if (!thread->handle) return;
  WaitForSingleObject((HANDLE)thread->handle, INFINITE);
  CloseHandle((HANDLE)thread->handle);
  thread->handle = 0;
}
