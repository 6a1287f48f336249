// The PDB information stream (stream 1): version, GUID and the named-stream map.
#pragma once
#include "base/arena.h"
#include "symbols/msf.h"

// The 24 bytes of an image's CodeView record that identify its PDB: "RSDS", GUID, age.
typedef struct CodeViewIdentity {
  u8 bytes[24];
} CodeViewIdentity;
static_assert(sizeof(CodeViewIdentity) == 24, "CodeView identity");

// Checks the information stream against the image's identity (only the GUID is compared; the
// age never is) and finds the "/names" stream. *out_names_stream is -1 unless it succeeds.
// Returns a PdbError: 13 malformed, 14 version out of range, 15 other GUID, 16 no "/names".
PdbError PdbReadInfoStream(SymbolArena *arena, const CodeViewIdentity *expected, const MsfFile *msf,
                      s32 *out_names_stream, bool ignore_signature);
