// Any mapping contents decode without reading outside; a decoded command survives being sent
// again; the dispatcher takes whatever comes out.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/command_buffer.h"
#include "app/command_words.h"

static void Path(void *user, const char *path) {
  if (strlen(path) >= kCommandPathCapacity) abort();
}
static void PathLine(void *user, const char *path, u32 line) { Path(user, path); }
static void Name(void *user, const char *name) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static ReceivedCommand received, again;
  if (CommandBufferDecode(data, size, &received) != kCommandBufferOk) return 0;
  if (received.argc < 1 || received.argc > kCommandBufferMaxArguments + 1) abort();
  int count = received.argc - 1;
  const char *const *args = received.argv + 1;
  u16 wire = CommandBufferSize(count, args);
  u64 needed = kCommandBufferHeaderSize;
  for (int i = 0; i < count; i++) needed += strlen(args[i]) + 1;
  if (needed == wire) {  // fits in the sender's 16-bit size: must arrive unchanged
    uint8_t *buffer = (uint8_t *)malloc(wire);
    CommandBufferEncode(buffer, wire, count, args);
    if (CommandBufferDecode(buffer, wire, &again) != kCommandBufferOk || again.argc != received.argc) abort();
    for (int i = 1; i < received.argc; i++)
      if (strcmp(again.argv[i], received.argv[i]) != 0) abort();
    free(buffer);
  }
  CommandActions actions = {};
  actions.open_session = Path;
  actions.close_file = Path;
  actions.open_file = PathLine;
  actions.add_breakpoint_at_file = PathLine;
  actions.remove_breakpoint_at_file = PathLine;
  actions.run_to_cursor = PathLine;
  actions.remove_breakpoint_at_function = Name;
  CommandDispatch(&actions, received.argc, received.argv);
  return 0;
}
