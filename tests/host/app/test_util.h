// What the app format tests share: sessions released at the end of the scope, and their images
// in memory.
#pragma once
#include <string.h>

#include <string>

#include "app/session_file.h"
#include "base/os.h"
#include "byte_writer.h"

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
