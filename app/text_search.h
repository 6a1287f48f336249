// Find in File: one pattern shared by every source tab, searched with Boyer-Moore-Horspool skips.
// The case rule is deliberate: a pattern of nothing but lowercase letters and spaces ignores case;
// any other character (an uppercase letter, a digit, a sign) makes the search case-sensitive.
#pragma once
#include "base/types.h"

enum : u32 { kTextSearchPatternCapacity = 256 };

typedef struct TextSearch {
  char pattern[kTextSearchPatternCapacity];  // what the find field edits
  u32 length;                                // of the prepared pattern
  u8 ignore_case;
  u8 not_found;                              // the last search found nothing ("Pattern not found: %s")
  u8 forward_skip[256];                      // by byte value: how far a forward window moves
  u8 backward_skip[256];                     // the same for a backward window
} TextSearch;

// Takes the pattern as it is now: its case rule and both skip tables.
void TextSearchPrepare(TextSearch *search);

// Forward: the first match that starts after offset cursor, else (wrapping) the first that starts
// at or before it. Backward: the last match that starts before cursor, else (wrapping) the last at
// or after it. True with the match's start in *at; an empty pattern finds nothing.
bool TextSearchNext(const TextSearch *search, const char *text, u32 size, u32 cursor, u32 *at);
bool TextSearchPrevious(const TextSearch *search, const char *text, u32 size, u32 cursor, u32 *at);
