#include "engine/cxx_type_name.h"

#include <string.h>

typedef struct NameWriter {
  char *out;
  u32 capacity;
  u32 length;
} NameWriter;

static void Put(NameWriter *w, const char *text, u32 n) {
  for (u32 i = 0; i < n && w->length + 1 < w->capacity; i++) w->out[w->length++] = text[i];
  w->out[w->length] = 0;
}
static void PutZ(NameWriter *w, const char *text) { Put(w, text, (u32)strlen(text)); }

static const char *BasicTypeName(const char *code, u32 *used) {
  *used = 1;
  switch (code[0]) {
    case 'C': return "signed char";
    case 'D': return "char";
    case 'E': return "unsigned char";
    case 'F': return "short";
    case 'G': return "unsigned short";
    case 'H': return "int";
    case 'I': return "unsigned int";
    case 'J': return "long";
    case 'K': return "unsigned long";
    case 'M': return "float";
    case 'N': return "double";
    case 'O': return "long double";
    case 'X': return "void";
    case '_':
      *used = 2;
      switch (code[1]) {
        case 'J': return "__int64";
        case 'K': return "unsigned __int64";
        case 'N': return "bool";
        case 'W': return "wchar_t";
      }
      return nullptr;
  }
  return nullptr;
}

// "name@scope1@scope2@@" (innermost first) as "scope2::scope1::name". False on any other form.
static bool PutQualifiedName(NameWriter *w, const char *text) {
  const char *parts[32];
  u32 lengths[32];
  u32 count = 0;
  const char *p = text;
  while (*p && *p != '@') {
    if (*p == '?') return false;  // templates and special names: kept decorated
    const char *end = strchr(p, '@');
    if (!end || count == KTRN_ARRAY_COUNT(parts)) return false;
    parts[count] = p;
    lengths[count] = (u32)(end - p);
    count++;
    p = end + 1;
  }
  if (*p != '@' || p[1] != 0 || count == 0) return false;
  for (u32 i = count; i-- > 0;) {
    Put(w, parts[i], lengths[i]);
    if (i) PutZ(w, "::");
  }
  return true;
}

static bool Decode(NameWriter *w, const char *t) {
  if (t[0] != '.') return false;
  t++;
  if (t[0] == '?' && t[1] == 'A') {
    t += 2;
    if (*t == 'V' || *t == 'U' || *t == 'T') return PutQualifiedName(w, t + 1);
    if (t[0] == 'W' && t[1] == '4') return PutQualifiedName(w, t + 2);
    return false;
  }
  // Pointers: PEA (T *), PEB (const T *).
  u32 pointers = 0;
  bool constant = false;
  while (t[0] == 'P' && t[1] == 'E' && (t[2] == 'A' || t[2] == 'B')) {
    if (t[2] == 'B') constant = true;
    pointers++;
    t += 3;
  }
  u32 used = 0;
  const char *basic = BasicTypeName(t, &used);
  if (basic && t[used] == 0) {
    PutZ(w, basic);
  } else if ((t[0] == 'V' || t[0] == 'U') && PutQualifiedName(w, t + 1)) {
  } else {
    return false;
  }
  if (constant) PutZ(w, " const");
  for (u32 i = 0; i < pointers; i++) PutZ(w, i == 0 ? " *" : "*");
  return true;
}

void CxxTypeNameFromDecorated(const char *decorated, char *out, u32 capacity) {
  if (!out || capacity == 0) return;
  NameWriter w = {out, capacity, 0};
  out[0] = 0;
  if (!decorated) return;
  if (!Decode(&w, decorated)) {
    w.length = 0;
    out[0] = 0;
    PutZ(&w, decorated);
  }
}
