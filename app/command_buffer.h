// The command buffer that a second process hands to the running instance through the shared
// mapping "ktrncommandbufname". Little-endian:
//    0  4  magic "10tk"
//    4  1  argument count n (the command word is the first argument)
//    5 16  eight 16-bit offsets, slot i giving where argument i starts, counted from offset 23
//   21  2  length of the string area (each argument's length plus its terminating zero)
//   23     the arguments, zero-terminated, back to back
#pragma once
#include "base/types.h"

enum {
  kCommandBufferHeaderSize = 23,
  kCommandBufferSlots = 8,
  kCommandBufferMaxArguments = 7,  // a receiver ignores a buffer with eight or more
};

extern const char kCommandBufferMagic[4];  // "10tk"

// The size the sender gives the mapping: 23 plus each argument's length and terminator, kept in
// 16 bits (so a very long list wraps). args are the arguments after the program name.
u16 CommandBufferSize(int count, const char *const *args);

// Fills out[0..capacity) as the sender does: magic, count byte, length field, then each
// argument's offset slot and bytes in order. The sender does not limit the count, so from the
// ninth argument on its slots run over the length field and the string area; nothing is ever
// written outside out. Bytes not written are zero.
void CommandBufferEncode(u8 *out, u64 capacity, int count, const char *const *args);

enum CommandBufferResult {
  kCommandBufferOk = 0,
  kCommandBufferTooShort = 1,     // fewer than 23 bytes
  kCommandBufferBadMagic = 2,
  kCommandBufferTooManyArguments = 3,
  kCommandBufferTruncated = 4,    // shorter than 23 + the length field
};

// A received command, ready for the dispatcher: argv[0] is "kestrune.exe", argv[1..argc) the
// arguments. The texts live in text (a copy of the string area plus a terminating zero).
typedef struct ReceivedCommand {
  int argc;
  const char *argv[kCommandBufferSlots];
  char text[65536 + 1];
} ReceivedCommand;

// Offsets are taken as given, but an argument is only ever read inside the string area: one that
// starts beyond it is empty, one that runs to its end stops there.
int CommandBufferDecode(const u8 *data, u64 size, ReceivedCommand *out);
