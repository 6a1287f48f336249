// Any ini text loads without harm, and what is then written loads back to the same text.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/settings.h"

typedef struct Text {
  char *data;
  u64 size, capacity;
} Text;

static void Append(void *user, const char *text, u64 length) {
  Text *t = (Text *)user;
  if (t->size + length + 1 > t->capacity) {
    t->capacity = (t->size + length + 1) * 2;
    t->data = (char *)realloc(t->data, t->capacity);
    if (!t->data) abort();
  }
  memcpy(t->data + t->size, text, length);
  t->size += length;
}

static Text Write(const Settings *s) {
  Text t = {};
  SettingsTextSink sink = {&t, Append};
  SettingsWriteAll(s, &sink);
  return t;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Settings first, second;
  SettingsInitDefaults(&first);
  SettingsLoadIniText(&first, (const char *)data, size);
  Text once = Write(&first);
  SettingsInitDefaults(&second);
  SettingsLoadIniText(&second, once.data, once.size);
  Text twice = Write(&second);
  if (once.size != twice.size || memcmp(once.data, twice.data, once.size) != 0) {
    fprintf(stderr, "settings text changed on the second round:\n%.*s\n---\n%.*s\n", (int)once.size, once.data,
            (int)twice.size, twice.data);
    abort();
  }
  free(once.data);
  free(twice.data);
  return 0;
}
