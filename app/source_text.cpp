#include "app/source_text.h"

#include <stdlib.h>
#include <string.h>

#include "base/os.h"

// Builds the line table over bytes already in place; frees the old text only on success.
static SourceTextResult Index(SourceText *text, char *bytes, u32 size) {
  u32 lines = 1;
  for (const char *p = bytes, *end = bytes + size; (p = (const char *)memchr(p, '\n', (size_t)(end - p))) != nullptr; p++)
    lines++;
  u32 *starts = (u32 *)malloc(((size_t)lines + 1) * sizeof(u32));
  if (!starts) {
    free(bytes);
    return kSourceTextNoMemory;
  }
  u32 line = 0, longest = 0;
  starts[0] = 0;
  for (u32 i = 0; i < size; i++) {
    if (bytes[i] != '\n') continue;
    u32 length = i - starts[line];
    if (length > longest) longest = length;
    starts[++line] = i + 1;
  }
  if (size - starts[line] > longest) longest = size - starts[line];
  starts[lines] = size;
  SourceTextFree(text);
  text->bytes = bytes;
  text->size = size;
  text->line_count = lines;
  text->line_starts = starts;
  text->longest_line = longest;
  return kSourceTextOk;
}

SourceTextResult SourceTextFromBytes(SourceText *text, const char *bytes, u64 size) {
  if (size >= kSourceTextMaxBytes) return kSourceTextTooLarge;
  char *copy = (char *)malloc((size_t)size + 1);
  if (!copy) return kSourceTextNoMemory;
  if (size) memcpy(copy, bytes, (size_t)size);
  copy[size] = 0;
  return Index(text, copy, (u32)size);
}

SourceTextResult SourceTextLoad(SourceText *text, const char *path) {
  OsFile file;
  if (OsFileOpenRead(path, &file) != kOsOk) return kSourceTextUnreadable;
  u64 size = 0, got = 0;
  SourceTextResult result = kSourceTextOk;
  char *bytes = nullptr;
  if (OsFileSize(file, &size) != kOsOk) result = kSourceTextUnreadable;
  else if (size >= kSourceTextMaxBytes) result = kSourceTextTooLarge;
  else if (!(bytes = (char *)malloc((size_t)size + 1))) result = kSourceTextNoMemory;
  else if (OsFileReadAt(file, 0, bytes, size, &got) != kOsOk) result = kSourceTextUnreadable;
  OsFileClose(&file);
  if (result != kSourceTextOk) {
    free(bytes);
    return result;
  }
  bytes[got] = 0;  // a file that shrank since its size was read keeps what was there
  return Index(text, bytes, (u32)got);
}

void SourceTextFree(SourceText *text) {
  free(text->bytes);
  free(text->line_starts);
  memset(text, 0, sizeof *text);
}

void SourceTextLine(const SourceText *text, u32 line, const char **begin, const char **end) {
  if (!text->bytes || line >= text->line_count) {
    *begin = *end = text->bytes ? text->bytes + text->size : "";
    return;
  }
  const char *b = text->bytes + text->line_starts[line], *e = text->bytes + text->line_starts[line + 1];
  if (e > b && e[-1] == '\n') e--;
  if (e > b && e[-1] == '\r') e--;
  *begin = b;
  *end = e;
}

u32 SourceTextLineOfOffset(const SourceText *text, u32 offset) {
  u32 lo = 0, hi = text->line_count;  // the last line whose start is at or before offset
  while (hi - lo > 1) {
    u32 mid = lo + (hi - lo) / 2;
    if (text->line_starts[mid] <= offset) lo = mid; else hi = mid;
  }
  return lo;
}

static bool IdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool SourceIdentifierAt(const char *begin, const char *end, u32 column, u32 *from, u32 *to) {
  u32 length = (u32)(end - begin);
  if (column >= length || !IdentifierChar(begin[column])) return false;
  u32 a = column, b = column;
  while (a > 0 && IdentifierChar(begin[a - 1])) a--;
  while (b < length && IdentifierChar(begin[b])) b++;
  *from = a;
  *to = b;
  return true;
}

static bool HasDrive(const char *p) {
  return ((p[0] | 0x20) >= 'a' && (p[0] | 0x20) <= 'z') && p[1] == ':' && (p[2] == '\\' || p[2] == '/');
}

static char Folded(char c) {
  if (c >= 'A' && c <= 'Z') return (char)(c - 'A' + 'a');
  return c == '/' ? '\\' : c;
}

bool SourcePathsEqual(const char *a, const char *b) {
  if (!a || !b) return false;
  if (HasDrive(a) && !HasDrive(b) && (b[0] == '/' || b[0] == '\\')) a += 2;
  if (HasDrive(b) && !HasDrive(a) && (a[0] == '/' || a[0] == '\\')) b += 2;
  for (; *a && *b; a++, b++)
    if (Folded(*a) != Folded(*b)) return false;
  return *a == *b;
}
