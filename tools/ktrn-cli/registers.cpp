// Registers of a stopped thread as ktrn-cli prints them: the general registers from the thread's
// context record, the vector registers from its extended state (AVX upper halves, AVX-512 upper
// halves, ZMM16-31, opmask registers), found through the system's feature lookup.
#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cli.h"

typedef struct RegisterRow {
  const char *name;
  u16 offset;  // in CONTEXT
  u8 size;     // 2, 4 or 8 bytes
} RegisterRow;

#define KTRN_REGISTER(name, field) {name, (u16)offsetof(CONTEXT, field), (u8)sizeof(((CONTEXT *)nullptr)->field)}
static const RegisterRow kGeneralRegisters[] = {
    KTRN_REGISTER("rax", Rax),       KTRN_REGISTER("rbx", Rbx),   KTRN_REGISTER("rcx", Rcx),
    KTRN_REGISTER("rdx", Rdx),       KTRN_REGISTER("rsi", Rsi),   KTRN_REGISTER("rdi", Rdi),
    KTRN_REGISTER("rbp", Rbp),       KTRN_REGISTER("rsp", Rsp),   KTRN_REGISTER("r8", R8),
    KTRN_REGISTER("r9", R9),         KTRN_REGISTER("r10", R10),   KTRN_REGISTER("r11", R11),
    KTRN_REGISTER("r12", R12),       KTRN_REGISTER("r13", R13),   KTRN_REGISTER("r14", R14),
    KTRN_REGISTER("r15", R15),       KTRN_REGISTER("rip", Rip),   KTRN_REGISTER("eflags", EFlags),
    KTRN_REGISTER("cs", SegCs),      KTRN_REGISTER("ds", SegDs),  KTRN_REGISTER("es", SegEs),
    KTRN_REGISTER("fs", SegFs),      KTRN_REGISTER("gs", SegGs),  KTRN_REGISTER("ss", SegSs),
};
#undef KTRN_REGISTER

static const RegisterRow *FindGeneral(const char *name) {
  for (const RegisterRow &row : kGeneralRegisters)
    if (!_stricmp(row.name, name)) return &row;
  return nullptr;
}

bool CliIsGeneralRegister(const char *name) { return FindGeneral(name) != nullptr; }

static u64 ReadField(const CONTEXT *context, const RegisterRow *row) {
  u64 value = 0;
  memcpy(&value, (const u8 *)context + row->offset, row->size);  // little-endian: the low bytes
  return value;
}

bool CliRegisterValue(Cli *cli, TargetThread *thread, const char *name, u64 *out) {
  const RegisterRow *row = FindGeneral(name);
  const CONTEXT *context = CliThreadContext(cli, thread);
  if (!row || !context) return false;
  *out = ReadField(context, row);
  return true;
}

bool CliSetRegister(Cli *cli, TargetThread *thread, const char *name, u64 value) {
  const RegisterRow *row = FindGeneral(name);
  ThreadContextSlot *registers = thread ? EngineThreadRegisters(cli->target, thread) : nullptr;
  if (!row || !registers) return false;
  memcpy((u8 *)registers->context + row->offset, &value, row->size);  // little-endian: the low bytes
  EngineResult result = EngineWriteRegisters(cli->target, thread);
  if (result != kEngineOk) CliError(cli, "%s", CliResultText(result));
  return result == kEngineOk;
}

// The feature's bytes in the thread's registers (as the engine located them at the read), or null
// when the system offers none.
static const u8 *Feature(Cli *cli, u32 feature, u32 bytes_needed) {
  const ThreadContextSlot *registers = EngineThreadRegisters(cli->target, CliStopThread(cli));
  if (!registers || !registers->features[feature]) return nullptr;
  return registers->feature_bytes[feature] >= bytes_needed ? registers->features[feature] : nullptr;
}

// Prints "name = 0x" and the bytes from the most significant one down; pieces run from the low
// bytes up, as the register is assembled from the context's areas.
typedef struct RegisterPiece {
  const u8 *bytes;
  u32 size;
} RegisterPiece;

static void PrintWide(const char *name, u32 index, const RegisterPiece *pieces, u32 piece_count) {
  printf("%s%u = 0x", name, index);
  for (u32 p = piece_count; p-- > 0;)
    for (u32 b = pieces[p].size; b-- > 0;) printf("%02x", pieces[p].bytes[b]);
  printf("\n");
}

static bool PrintAvx(Cli *cli, const CONTEXT *context) {
  const u8 *upper = Feature(cli, kFeatureAvx, 16 * 16);
  if (!upper) {
    CliError(cli, "the thread's context holds no AVX state");
    return false;
  }
  printf("mxcsr = 0x%08x\n", (unsigned)context->MxCsr);
  for (u32 i = 0; i < 16; i++) {
    RegisterPiece pieces[2] = {{(const u8 *)&context->FltSave.XmmRegisters[i], 16}, {upper + 16 * i, 16}};
    PrintWide("ymm", i, pieces, 2);
  }
  return true;
}

static bool PrintAvx512(Cli *cli, const CONTEXT *context) {
  const u8 *upper = Feature(cli, kFeatureAvx, 16 * 16);
  const u8 *opmask = Feature(cli, kFeatureOpmask, 8 * 8);
  const u8 *zmm_high = Feature(cli, kFeatureZmmHigh, 16 * 32);
  const u8 *zmm_upper = Feature(cli, kFeatureZmmUpper, 16 * 64);
  if (!upper || !opmask || !zmm_high || !zmm_upper) {
    CliError(cli, "the thread's context holds no AVX-512 state");
    return false;
  }
  for (u32 i = 0; i < 8; i++) {
    u64 k;
    memcpy(&k, opmask + 8 * i, 8);
    printf("k%u = 0x%016llx\n", i, (unsigned long long)k);
  }
  for (u32 i = 0; i < 16; i++) {
    RegisterPiece pieces[3] = {
        {(const u8 *)&context->FltSave.XmmRegisters[i], 16}, {upper + 16 * i, 16}, {zmm_high + 32 * i, 32}};
    PrintWide("zmm", i, pieces, 3);
  }
  for (u32 i = 0; i < 16; i++) {
    RegisterPiece piece = {zmm_upper + 64 * i, 64};
    PrintWide("zmm", 16 + i, &piece, 1);
  }
  return true;
}

// "ymmN" with N from 0 to 15: N; else -1.
static int YmmIndex(const char *name) {
  if (_strnicmp(name, "ymm", 3) != 0 || !isdigit((unsigned char)name[3])) return -1;
  char *end = nullptr;
  long n = strtol(name + 3, &end, 10);
  return *end || n > 15 ? -1 : (int)n;
}

bool CliIsVectorRegister(const char *name) { return YmmIndex(name) >= 0; }

bool CliSetVectorRegister(Cli *cli, TargetThread *thread, const char *name, const char *hex) {
  int index = YmmIndex(name);
  // 0x and up to 64 hexadecimal digits, the most significant first.
  if (hex[0] != '0' || (hex[1] != 'x' && hex[1] != 'X') || !hex[2] || strlen(hex + 2) > 64 ||
      strspn(hex + 2, "0123456789abcdefABCDEF") != strlen(hex + 2)) {
    CliError(cli, "'%s' is not a value of up to 256 bits (0x and 64 hexadecimal digits)", hex);
    return false;
  }
  u8 bytes[32] = {};
  const char *digit = hex + strlen(hex) - 1;
  for (u32 i = 0; digit >= hex + 2; i++, digit--) {
    u8 value = (u8)(isdigit((unsigned char)*digit) ? *digit - '0' : (tolower((unsigned char)*digit) - 'a' + 10));
    bytes[i / 2] |= (u8)(i % 2 ? value << 4 : value);
  }
  ThreadContextSlot *registers = thread ? EngineThreadRegisters(cli->target, thread) : nullptr;
  u8 *upper = registers && registers->feature_bytes[kFeatureAvx] >= 16 * 16 ? registers->features[kFeatureAvx] : nullptr;
  if (index < 0 || !upper) {
    CliError(cli, "the thread's context holds no AVX state");
    return false;
  }
  memcpy(&registers->context->FltSave.XmmRegisters[index], bytes, 16);
  memcpy(upper + 16 * index, bytes + 16, 16);
  EngineResult result = EngineWriteRegisters(cli->target, thread);
  if (result != kEngineOk) CliError(cli, "%s", CliResultText(result));
  return result == kEngineOk;
}

void CliPrintVectorRegister(Cli *cli, TargetThread *thread, const char *name) {
  int index = YmmIndex(name);
  const ThreadContextSlot *registers = thread ? EngineThreadRegisters(cli->target, thread) : nullptr;
  if (index < 0 || !registers || !registers->features[kFeatureAvx]) return;
  RegisterPiece pieces[2] = {{(const u8 *)&registers->context->FltSave.XmmRegisters[index], 16},
                             {registers->features[kFeatureAvx] + 16 * index, 16}};
  PrintWide("ymm", (u32)index, pieces, 2);
}

bool CliPrintRegisters(Cli *cli, TargetThread *thread, u32 group) {
  const CONTEXT *context = CliThreadContext(cli, thread);
  if (!context) {
    CliError(cli, "the thread's registers cannot be read");
    return false;
  }
  switch (group) {
    case kRegsGeneral:
      for (const RegisterRow &row : kGeneralRegisters) {
        u64 value = ReadField(context, &row);
        printf("%s = 0x%0*llx\n", row.name, (int)row.size * 2, (unsigned long long)value);
      }
      return true;
    case kRegsAvx: return PrintAvx(cli, context);
    case kRegsAvx512: return PrintAvx512(cli, context);
  }
  return false;
}
