// Line tables: the C13 file-checksum and lines subsections of every module, merged into one array
// of line entries kept in two sorted orders (by section and address; by file and line), and the
// source-file table keyed by the normalised path hash.
#pragma once
#include "base/arena.h"
#include "symbols/pdb_names.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_scopes.h"

typedef struct PdbLineEntry {
  const u8 *file;  // the file's checksum record, checksum bytes included; null when the block's
                   //   file id was out of range or its record ran past the payload
  u32 line;
  u32 section;
  u32 offset;  // within the section
  u32 length;  // bytes of code the line covers
} PdbLineEntry;
static_assert(sizeof(PdbLineEntry) == 24, "line entry");

typedef struct PdbLines {
  PdbLineEntry *by_address;  // by section, then offset
  PdbLineEntry *by_file;     // by file name offset, then line
  u32 count;
  u32 padding;
} PdbLines;

// Reads every module's C13 area. Malformed subsections and blocks are skipped; 0, or
// kPdbUnreadable when memory is refused.
PdbError PdbLoadLines(SymbolArena *arena, const PdbScopes *scopes, const PdbStringTable *strings,
                 PdbSourceFileTable *files, PdbLines *out);

// The source-file name hash: FNV-1a over the lower-cased bytes with '/' read as '\'.
u32 PdbSourceFileHash(const char *path, u64 length);

// The file key (name offset in the "/names" buffer) of a user's path, or 0 when this PDB has no
// such file. Paths of equal hashes are compared by their texts (up to case and slash direction).
u32 PdbFindSourceFile(const PdbSourceFileTable *files, const char *path);

// The payload of the module's first C13 subsection of a kind (null when it has none).
const u8 *PdbModuleSubsection(const PdbModuleSymbols *module, u32 kind, u32 *size);
// The file checksum record of a file id of the module, null when it does not lie whole inside
// the module's checksum subsection.
const u8 *PdbModuleFileRecord(const PdbModuleSymbols *module, u32 file_id);

// Name offset of the entry's file, 0 when it has none.
u32 PdbLineFileOffset(const PdbLineEntry *entry);
// Name offset of a file checksum record (its first field), 0 for none.
u32 PdbFileRecordNameOffset(const u8 *file_record);

// The entry covering (section, offset), or null.
const PdbLineEntry *PdbLineAtAddress(const PdbLines *lines, u32 section, u32 offset);

// The first of lines line..line+9 of the file that has code, or null.
const PdbLineEntry *PdbAddressOfLine(const PdbLines *lines, u32 file_offset, u32 line);
