#include "app/text_search.h"

#include <string.h>

static u8 Lower(u8 c) { return c >= 'A' && c <= 'Z' ? (u8)(c - 'A' + 'a') : c; }

void TextSearchPrepare(TextSearch *s) {
  s->pattern[kTextSearchPatternCapacity - 1] = 0;
  u32 n = (u32)strlen(s->pattern);
  s->length = n;
  s->ignore_case = n != 0;
  for (u32 i = 0; i < n; i++) {
    char c = s->pattern[i];
    if (!((c >= 'a' && c <= 'z') || c == ' ')) s->ignore_case = 0;
  }
  memset(s->forward_skip, (int)n, sizeof s->forward_skip);
  memset(s->backward_skip, (int)n, sizeof s->backward_skip);
  const u8 *p = (const u8 *)s->pattern;
  // Forward: the rightmost occurrence (before the last character) wins; backward: the leftmost
  // (after the first). A case-ignoring pattern is all lowercase, so its text bytes are looked up
  // lowered.
  for (u32 i = 0; i + 1 < n; i++) s->forward_skip[p[i]] = (u8)(n - 1 - i);
  for (u32 i = n - 1; i >= 1 && i < n; i--) s->backward_skip[p[i]] = (u8)i;
}

static bool MatchesAt(const TextSearch *s, const u8 *text, u32 at) {
  const u8 *p = (const u8 *)s->pattern;
  if (!s->ignore_case) return memcmp(text + at, p, s->length) == 0;
  for (u32 i = 0; i < s->length; i++)
    if (Lower(text[at + i]) != p[i]) return false;
  return true;
}

// First match whose start lies in [from, to); to is clamped so the match fits in size.
static bool Forward(const TextSearch *s, const u8 *text, u32 size, u32 from, u32 to, u32 *at) {
  u32 n = s->length;
  if (n == 0 || n > size) return false;
  if (to > size - n + 1) to = size - n + 1;
  for (u32 p = from; p < to;) {
    if (MatchesAt(s, text, p)) {
      *at = p;
      return true;
    }
    if (n == 1) {
      p++;
      continue;
    }
    u8 last = text[p + n - 1];
    p += s->forward_skip[s->ignore_case ? Lower(last) : last];
  }
  return false;
}

// Last match whose start lies in [from, to).
static bool Backward(const TextSearch *s, const u8 *text, u32 size, u32 from, u32 to, u32 *at) {
  u32 n = s->length;
  if (n == 0 || n > size) return false;
  if (to > size - n + 1) to = size - n + 1;
  for (u32 p = to; p > from;) {
    u32 q = p - 1;
    if (MatchesAt(s, text, q)) {
      *at = q;
      return true;
    }
    if (n == 1) {
      p--;
      continue;
    }
    u8 first = text[q];
    u32 skip = s->backward_skip[s->ignore_case ? Lower(first) : first];
    p = p - from > skip ? p - skip : from;
  }
  return false;
}

bool TextSearchNext(const TextSearch *s, const char *text, u32 size, u32 cursor, u32 *at) {
  const u8 *t = (const u8 *)text;
  if (cursor > size) cursor = size;
  return Forward(s, t, size, cursor + 1, size, at) || Forward(s, t, size, 0, cursor + 1, at);
}

bool TextSearchPrevious(const TextSearch *s, const char *text, u32 size, u32 cursor, u32 *at) {
  const u8 *t = (const u8 *)text;
  if (cursor > size) cursor = size;
  return Backward(s, t, size, 0, cursor, at) || Backward(s, t, size, cursor, size, at);
}
