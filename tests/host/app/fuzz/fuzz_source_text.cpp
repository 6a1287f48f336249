// Any bytes make a line table whose lines cover the text without line feeds, and any pattern
// searched in them finds only real matches, in both directions.
#include <stdlib.h>
#include <string.h>

#include "app/source_text.h"
#include "app/text_search.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  u32 pattern_length = data[0] % 8;
  if (pattern_length + 1 > size) return 0;
  static TextSearch search;
  memcpy(search.pattern, data + 1, pattern_length);
  search.pattern[pattern_length] = 0;
  TextSearchPrepare(&search);
  SourceText text = {};
  if (SourceTextFromBytes(&text, (const char *)data + 1 + pattern_length, size - 1 - pattern_length) != kSourceTextOk) abort();
  for (u32 i = 0; i < text.line_count; i++) {
    const char *b, *e;
    SourceTextLine(&text, i, &b, &e);
    if (b > e || memchr(b, '\n', (size_t)(e - b)) || SourceTextLineOfOffset(&text, (u32)(b - text.bytes)) != i) abort();
  }
  for (u32 cursor = 0; cursor <= text.size; cursor += 1 + text.size / 4) {
    u32 at;
    for (int forward = 0; forward < 2; forward++) {
      bool found = forward ? TextSearchNext(&search, text.bytes, text.size, cursor, &at)
                           : TextSearchPrevious(&search, text.bytes, text.size, cursor, &at);
      if (!found) continue;
      if (at + search.length > text.size) abort();
      for (u32 i = 0; i < search.length; i++) {
        char c = text.bytes[at + i];
        if (search.ignore_case && c >= 'A' && c <= 'Z') c = (char)(c - 'A' + 'a');
        if (c != search.pattern[i]) abort();
      }
    }
  }
  SourceTextFree(&text);
  return 0;
}
