#include "app/folder_watch.h"

#include <windows.h>

// [SECTION] State shared with the thread (under lock)

typedef struct FolderWatch {
  SRWLOCK lock;
  HANDLE thread;
  HANDLE changed;  // set when the set of handles changed or the thread is to stop
  void (*wake)(void *);
  void *wake_user;
  intptr_t handles[kFolderWatchCapacity];
  u8 fired[kFolderWatchCapacity];  // signalled and taken out of the wait until re-armed
  u8 taken[kFolderWatchCapacity];  // fired and already given to the caller
  u32 count;
  u32 generation;           // bumped at every change of the set
  volatile u32 seen;        // the generation the thread's current wait was built from
  volatile u32 fired_count;  // fired and not yet taken: read without the lock each frame
  u8 stopping;
} FolderWatch;

static FolderWatch g_watch = {SRWLOCK_INIT};

static void Changed(FolderWatch *w) {
  w->generation++;
  SetEvent(w->changed);
}

// [SECTION] The thread

static DWORD WINAPI WatchThread(void *) {
  FolderWatch *w = &g_watch;
  for (;;) {
    HANDLE waits[kFolderWatchCapacity + 1];
    intptr_t owners[kFolderWatchCapacity + 1];
    DWORD n = 0;
    waits[n++] = w->changed;
    AcquireSRWLockExclusive(&w->lock);
    if (w->stopping) {
      ReleaseSRWLockExclusive(&w->lock);
      return 0;
    }
    for (u32 i = 0; i < w->count; i++)
      if (!w->fired[i]) {
        owners[n] = w->handles[i];
        waits[n++] = (HANDLE)w->handles[i];
      }
    __atomic_store_n(&w->seen, w->generation, __ATOMIC_RELEASE);
    WakeByAddressAll((void *)&w->seen);
    ReleaseSRWLockExclusive(&w->lock);
    DWORD hit = WaitForMultipleObjects(n, waits, FALSE, INFINITE);
    if (hit == WAIT_OBJECT_0 || hit >= WAIT_OBJECT_0 + n) {
      if (hit >= WAIT_OBJECT_0 + n) Sleep(10);  // a handle went bad under us: look again, slowly
      continue;
    }
    AcquireSRWLockExclusive(&w->lock);
    for (u32 i = 0; i < w->count; i++)
      if (w->handles[i] == owners[hit - WAIT_OBJECT_0] && !w->fired[i]) {
        w->fired[i] = 1;
        __atomic_add_fetch(&w->fired_count, 1, __ATOMIC_RELEASE);
      }
    ReleaseSRWLockExclusive(&w->lock);
    if (w->wake) w->wake(w->wake_user);
  }
}

// [SECTION] The user interface's side

bool FolderWatchStart(void (*wake)(void *), void *user) {
  FolderWatch *w = &g_watch;
  if (w->thread) return true;
  w->changed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!w->changed) return false;
  w->wake = wake;
  w->wake_user = user;
  w->thread = CreateThread(nullptr, 0, WatchThread, nullptr, 0, nullptr);
  if (!w->thread) {
    CloseHandle(w->changed);
    w->changed = nullptr;
    return false;
  }
  return true;
}

void FolderWatchStop() {
  FolderWatch *w = &g_watch;
  if (!w->thread) return;
  AcquireSRWLockExclusive(&w->lock);
  w->stopping = 1;
  Changed(w);
  ReleaseSRWLockExclusive(&w->lock);
  WaitForSingleObject(w->thread, INFINITE);
  CloseHandle(w->thread);
  CloseHandle(w->changed);
  w->thread = w->changed = nullptr;
  w->count = 0;
  w->fired_count = 0;
  w->stopping = 0;
}

bool FolderWatchAdd(intptr_t handle) {
  FolderWatch *w = &g_watch;
  if (!w->thread || !handle) return false;
  AcquireSRWLockExclusive(&w->lock);
  bool added = w->count < kFolderWatchCapacity;
  if (added) {
    w->handles[w->count] = handle;
    w->fired[w->count] = w->taken[w->count] = 0;
    w->count++;
    Changed(w);
  }
  ReleaseSRWLockExclusive(&w->lock);
  return added;
}

void FolderWatchRemove(intptr_t handle) {
  FolderWatch *w = &g_watch;
  if (!w->thread) return;
  AcquireSRWLockExclusive(&w->lock);
  u32 i = 0;
  while (i < w->count && w->handles[i] != handle) i++;
  if (i == w->count) {
    ReleaseSRWLockExclusive(&w->lock);
    return;
  }
  if (w->fired[i] && !w->taken[i]) __atomic_sub_fetch(&w->fired_count, 1, __ATOMIC_RELEASE);
  w->count--;
  w->handles[i] = w->handles[w->count];
  w->fired[i] = w->fired[w->count];
  w->taken[i] = w->taken[w->count];
  Changed(w);
  u32 wanted = w->generation;
  ReleaseSRWLockExclusive(&w->lock);
  // The handle may be closed only once the thread waits on a set built without it.
  for (u32 seen; (seen = __atomic_load_n(&w->seen, __ATOMIC_ACQUIRE)) != wanted;)
    WaitOnAddress((void *)&w->seen, &seen, sizeof seen, 10);
}

u32 FolderWatchTakeFired(intptr_t *out, u32 capacity) {
  FolderWatch *w = &g_watch;
  if (!__atomic_load_n(&w->fired_count, __ATOMIC_ACQUIRE)) return 0;
  u32 n = 0;
  AcquireSRWLockExclusive(&w->lock);
  for (u32 i = 0; i < w->count && n < capacity; i++)
    if (w->fired[i] && !w->taken[i]) {
      w->taken[i] = 1;
      out[n++] = w->handles[i];
      __atomic_sub_fetch(&w->fired_count, 1, __ATOMIC_RELEASE);
    }
  ReleaseSRWLockExclusive(&w->lock);
  return n;
}

void FolderWatchRearm(intptr_t handle) {
  FolderWatch *w = &g_watch;
  AcquireSRWLockExclusive(&w->lock);
  for (u32 i = 0; i < w->count; i++)
    if (w->handles[i] == handle && w->fired[i]) {
      w->fired[i] = w->taken[i] = 0;
      Changed(w);
    }
  ReleaseSRWLockExclusive(&w->lock);
}
