// Any ini text loads without harm, and what is then written loads back to the same text.
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "app/settings.h"

static std::string Write(const Settings *s) {
  std::string text;
  SettingsTextSink sink = {&text, [](void *user, const char *part, u64 length) { ((std::string *)user)->append(part, length); }};
  SettingsWriteAll(s, &sink);
  return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Settings first, second;
  SettingsInitDefaults(&first);
  SettingsLoadIniText(&first, (const char *)data, size);
  std::string once = Write(&first);
  SettingsInitDefaults(&second);
  SettingsLoadIniText(&second, once.data(), once.size());
  std::string twice = Write(&second);
  if (once != twice) {
    fprintf(stderr, "settings text changed on the second round:\n%s\n---\n%s\n", once.c_str(), twice.c_str());
    abort();
  }
  return 0;
}
