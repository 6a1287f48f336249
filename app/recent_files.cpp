// The recent-sessions list.
#include "app/recent_files.h"

#include <string.h>

#include "app/session.h"
#include "base/os.h"

int RecentFilesAdd(RecentFiles *recent, const char *path) {
  if (!path || !*path) return 1;
  char full[1024];
  if (OsPathMakeAbsolute(path, full, sizeof(full)) != kOsOk) return 1;
  u64 length = strlen(full);
  if (length >= kRecentPathCapacity) return 1;
  u32 found = recent->count;
  for (u32 i = 0; i < recent->count; i++)
    if (TextEqualNoCase(recent->paths[i], full)) found = i;
  u32 shift = found < recent->count ? found : (recent->count < kRecentFilesMax ? recent->count : kRecentFilesMax - 1);
  if (found == recent->count && recent->count < kRecentFilesMax) recent->count++;
  memmove(recent->paths[1], recent->paths[0], (size_t)shift * kRecentPathCapacity);
  memcpy(recent->paths[0], full, (size_t)length + 1);
  return 0;
}

u32 RecentFilesRemove(RecentFiles *recent, const char *path) {
  u32 kept = 0;
  for (u32 i = 0; i < recent->count; i++) {
    if (TextEqualNoCase(recent->paths[i], path)) continue;
    if (kept != i) memcpy(recent->paths[kept], recent->paths[i], kRecentPathCapacity);
    kept++;
  }
  u32 removed = recent->count - kept;
  recent->count = kept;
  return removed;
}

void RecentFilesLoadLine(RecentFiles *recent, const char *line) {
  u64 length = strlen(line);
  while (length && (line[length - 1] == '\r' || line[length - 1] == '\n')) length--;
  if (length == 0 || length >= kRecentPathCapacity || recent->count >= kRecentFilesMax) return;
  char path[kRecentPathCapacity];
  memcpy(path, line, (size_t)length);
  path[length] = 0;
  if (recent->count && TextEqualNoCase(recent->paths[recent->count - 1], path)) return;
  memcpy(recent->paths[recent->count++], path, (size_t)length + 1);
}
