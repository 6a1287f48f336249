// A source file as the source view holds it: the file's bytes read with one call into one block,
// and a table of line starts built in one pass, so that a file of any line count opens at once
// and any line is found without a scan. Plain bytes: the view decodes UTF-8 as it draws.
#pragma once
#include "base/types.h"

enum [[nodiscard]] SourceTextResult : int {
  kSourceTextOk = 0,
  kSourceTextUnreadable = 1,  // the file cannot be opened or read
  kSourceTextTooLarge = 2,    // at or above kSourceTextMaxBytes
  kSourceTextNoMemory = 3,
};

enum : u32 { kSourceTextMaxBytes = 0x40000000 };  // 1 GiB: line starts are 32-bit offsets

typedef struct SourceText {
  char *bytes;        // size bytes and a terminating zero (heap)
  u32 size;
  u32 line_count;     // at least 1: an empty file is one empty line
  u32 *line_starts;   // line_count + 1 offsets; the last one is size (heap)
  u32 longest_line;   // bytes of the longest line, line end excluded
} SourceText;

// Reads the file at path. On failure text is left as it was (a reload keeps the old text).
SourceTextResult SourceTextLoad(SourceText *text, const char *path);
// The same from bytes in memory (copied).
SourceTextResult SourceTextFromBytes(SourceText *text, const char *bytes, u64 size);
void SourceTextFree(SourceText *text);

// Line index (0-based) as [*begin, *end) without its "\n" or "\r\n"; an index past the end gives an
// empty range at the end of the text.
void SourceTextLine(const SourceText *text, u32 line, const char **begin, const char **end);
// The line that holds a byte offset.
u32 SourceTextLineOfOffset(const SourceText *text, u32 offset);

// The C identifier around byte column of a line [begin, end): [*from, *to) in the line; false when
// the column is not on an identifier character.
bool SourceIdentifierAt(const char *begin, const char *end, u32 column, u32 *from, u32 *to);

// Two source paths name the same file: equal up to ASCII case and the direction of slashes, and a
// rooted path without a drive (as a program built on a Unix machine names its sources) equals the
// same path with a drive in front (as Wine shows that root).
bool SourcePathsEqual(const char *a, const char *b);
