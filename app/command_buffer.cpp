// Encoding and decoding the command buffer.
#include "app/command_buffer.h"

#include <string.h>

const char kCommandBufferMagic[4] = {'1', '0', 't', 'k'};

static void PutBytes(u8 *out, u64 capacity, u64 at, const void *bytes, u64 count) {
  if (at >= capacity) return;
  memcpy(out + at, bytes, (size_t)MinU64(count, capacity - at));
}

static void PutU16(u8 *out, u64 capacity, u64 at, u16 value) {
  u8 b[2] = {(u8)value, (u8)(value >> 8)};
  PutBytes(out, capacity, at, b, 2);
}

u16 CommandBufferSize(int count, const char *const *args) {
  u16 total = kCommandBufferHeaderSize;
  for (int i = 0; i < count; i++) total = (u16)(total + strlen(args[i] ? args[i] : "") + 1);
  return total;
}

void CommandBufferEncode(u8 *out, u64 capacity, int count, const char *const *args) {
  if (!out) return;
  memset(out, 0, (size_t)capacity);
  if (count < 0) count = 0;
  u16 area = (u16)(CommandBufferSize(count, args) - kCommandBufferHeaderSize);
  u8 count_byte = (u8)count;
  PutBytes(out, capacity, 0, kCommandBufferMagic, 4);
  PutBytes(out, capacity, 4, &count_byte, 1);
  PutU16(out, capacity, 21, area);
  u16 offset = 0;
  for (int i = 0; i < count; i++) {
    const char *a = args[i] ? args[i] : "";
    u64 length = strlen(a) + 1;
    PutU16(out, capacity, 5 + 2 * (u64)i, offset);
    PutBytes(out, capacity, kCommandBufferHeaderSize + (u64)offset, a, length);
    offset = (u16)(offset + length);
  }
}

int CommandBufferDecode(const u8 *data, u64 size, ReceivedCommand *out) {
  out->argc = 0;
  out->text[0] = 0;
  if (!data || size < kCommandBufferHeaderSize) return kCommandBufferTooShort;
  if (memcmp(data, kCommandBufferMagic, 4) != 0) return kCommandBufferBadMagic;
  u32 count = data[4];
  if (count > kCommandBufferMaxArguments) return kCommandBufferTooManyArguments;
  u32 area = (u32)data[21] | (u32)data[22] << 8;
  if (size - kCommandBufferHeaderSize < area) return kCommandBufferTruncated;
  memcpy(out->text, data + kCommandBufferHeaderSize, area);
  out->text[area] = 0;  // every argument ends inside text, at the latest here
  out->argv[0] = "kestrune.exe";
  for (u32 i = 0; i < count; i++) {
    u32 slot = (u32)data[5 + 2 * i] | (u32)data[6 + 2 * i] << 8;
    out->argv[i + 1] = out->text + (slot < area ? slot : area);
  }
  out->argc = (int)count + 1;
  return kCommandBufferOk;
}
