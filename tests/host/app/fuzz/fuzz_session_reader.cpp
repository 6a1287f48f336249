// Any bytes read as a session must give a session that writes and reads back unchanged.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/session_file.h"

static bool OpenSome(void *user, const char *path) { return (strlen(path) & 3) != 1; }
static void Ignore(void *user, const char *text) {}
static void CheckBreakpoint(void *user, const Session *s, u32 index) {
  if (index >= s->breakpoint_count || s->breakpoints[index]->kind > kBreakpointProcessor) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Session session, back;
  SessionInit(&session);
  SessionInit(&back);
  SessionReadHooks hooks = {nullptr, OpenSome, CheckBreakpoint, Ignore};
  u32 sections = 0;
  int result = SessionReadFromMemory(&session, data, size, &hooks, &sections);
  if (result == kSessionFileOk) {
    SessionBytes image;
    if (SessionWriteToMemory(&session, &image) == kSessionFileOk) {
      u32 back_sections = 0;
      if (SessionReadFromMemory(&back, image.data, image.size, nullptr, &back_sections) != kSessionFileOk ||
          back_sections != kSessionSectionCount) {
        fprintf(stderr, "written image does not read back whole\n");
        abort();
      }
      const char *difference = SessionDifference(&session, &back);
      if (difference) {
        fprintf(stderr, "round trip changed the %s\n", difference);
        abort();
      }
      SessionBytesFree(&image);
    }
  }
  SessionFree(&session);
  SessionFree(&back);
  return 0;
}
