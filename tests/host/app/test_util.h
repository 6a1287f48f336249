// Helpers shared by the app format tests: byte images, a temporary folder, RAII for sessions.
#pragma once
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "app/session_file.h"
#include "base/os.h"

typedef std::vector<u8> Bytes;

// Little-endian image builder for hand-made session files.
struct Image {
  Bytes b;
  Image &u8v(u8 v) { b.push_back(v); return *this; }
  Image &u32v(u32 v) { for (int i = 0; i < 4; i++) b.push_back((u8)(v >> (8 * i))); return *this; }
  Image &u64v(u64 v) { return u32v((u32)v).u32v((u32)(v >> 32)); }
  Image &str(const std::string &s) { u32v((u32)s.size()); b.insert(b.end(), s.begin(), s.end()); return *this; }
  Image &raw(const std::string &s) { b.insert(b.end(), s.begin(), s.end()); return *this; }
  Image &zeros(int words) { for (int i = 0; i < words; i++) u32v(0); return *this; }
};

struct ScopedSession {
  Session s;
  ScopedSession() { SessionInit(&s); }
  ~ScopedSession() { SessionFree(&s); }
  Session *operator->() { return &s; }
  Session *get() { return &s; }
};

inline Bytes WriteImage(const Session *s) {
  SessionBytes out;
  if (SessionWriteToMemory(s, &out) != kSessionFileOk) return Bytes();
  Bytes bytes(out.data, out.data + out.size);
  SessionBytesFree(&out);
  return bytes;
}

inline int ReadImage(Session *s, const Bytes &image, u32 *sections = nullptr, const SessionReadHooks *hooks = nullptr) {
  return SessionReadFromMemory(s, image.data(), image.size(), hooks, sections);
}

// A fresh folder under the system's temporary folder, removed with its files at the end.
struct TempFolder {
  std::string path;
  TempFolder() {
    char templ[] = "/tmp/ktrn_app_test_XXXXXX";
    path = mkdtemp(templ) ? templ : "";
  }
  ~TempFolder() {
    if (!path.empty()) (void)!system(("rm -rf '" + path + "'").c_str());
  }
  std::string File(const std::string &name, const std::string &contents) const {
    std::string full = path + "/" + name;
    FILE *f = fopen(full.c_str(), "wb");
    if (f) {
      fwrite(contents.data(), 1, contents.size(), f);
      fclose(f);
    }
    return full;
  }
};

inline std::string ReadWholeFile(const std::string &path) {
  std::string data;
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return data;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), f)) > 0) data.append(buffer, n);
  fclose(f);
  return data;
}
