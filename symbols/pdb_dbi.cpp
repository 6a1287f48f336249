#include "symbols/pdb_dbi.h"

#include <string.h>

#include "symbols/pdb_alloc.h"
#include "symbols/pdb_error.h"

enum { kDbiStreamIndex = 3 };

PdbError PdbReadDbiHeader(const MsfFile *msf, DbiHeader *out) {
  memset(out, 0, sizeof(*out));
  const MsfStream *stream = MsfStreamAt(msf, kDbiStreamIndex);
  u32 size = MsfStreamSize(msf, kDbiStreamIndex);
  if (size < 4) return kPdbBadFormat;
  u32 signature = 0;
  if (MsfReadStream(msf, stream, &signature, 4, 0)) return kPdbUnreadable;
  if (signature != kDbiNewSignature) return kPdbUnsupportedVersion;
  if (size < sizeof(DbiHeader)) return kPdbBadFormat;
  if (MsfReadStream(msf, stream, out, sizeof(DbiHeader), 0)) return kPdbUnreadable;
  u64 expected = sizeof(DbiHeader) + (u64)out->module_info_bytes + out->section_contribution_bytes +
                 out->section_map_bytes + out->source_info_bytes + out->type_server_map_bytes +
                 out->optional_debug_header_bytes + out->ec_substream_bytes;
  if (expected != size) return kPdbBadFormat;
  return kPdbOk;
}

// Bytes of the module record at p, names and padding included; 0 when it runs past end.
static u32 ModuleRecordBytes(const u8 *p, const u8 *end) {
  if (end - p < (s64)sizeof(DbiModuleInfo)) return 0;
  const u8 *name = p + sizeof(DbiModuleInfo);
  const u8 *name_end = (const u8 *)memchr(name, 0, (size_t)(end - name));
  if (!name_end) return 0;
  const u8 *object = name_end + 1;
  const u8 *object_end = object < end ? (const u8 *)memchr(object, 0, (size_t)(end - object)) : nullptr;
  if (!object_end) return 0;
  u64 bytes = AlignUp((u64)(object_end + 1 - p), 4);
  return bytes <= (u64)(end - p) ? (u32)bytes : (u32)(end - p);
}

PdbError PdbLoadModules(SymbolArena *arena, const MsfFile *msf, const DbiHeader *header, PdbModuleList *out) {
  memset(out, 0, sizeof(*out));
  s32 module_bytes = (s32)header->module_info_bytes;
  if (module_bytes < 1) return kPdbOk;
  if (header->version < kDbiMinModuleVersion) return kPdbUnsupportedVersion;
  const MsfStream *stream = MsfStreamAt(msf, kDbiStreamIndex);
  if (MsfStreamSize(msf, kDbiStreamIndex) < kDbiMinStreamBytes) return kPdbBadFormat;
  // A stream larger than the file cannot be read whole: say so before allocating for it.
  if (MsfStreamSize(msf, kDbiStreamIndex) > msf->file_size) return kPdbUnreadable;

  u8 *records = (u8 *)PdbAllocate(arena, (u64)module_bytes);
  if (!records) return kPdbUnreadable;
  if (MsfReadStream(msf, stream, records, (u64)module_bytes, sizeof(DbiHeader))) return kPdbUnreadable;
  const u8 *end = records + module_bytes;
  u32 count = 0;
  for (const u8 *p = records; p < end;) {
    u32 bytes = ModuleRecordBytes(p, end);
    if (!bytes) break;
    count++;
    p += bytes;
  }
  const DbiModuleInfo **modules = (const DbiModuleInfo **)PdbAllocate(arena, (u64)count * sizeof(*modules));
  if (!modules && count) return kPdbUnreadable;
  const u8 *p = records;
  for (u32 i = 0; i < count; i++) {
    modules[i] = (const DbiModuleInfo *)p;
    p += ModuleRecordBytes(p, end);
  }
  out->modules = modules;
  out->module_count = count;

  // Section contributions follow the module records. Entries are taken as 28 bytes for both
  // version words; any other version leaves the list empty and loading goes on.
  u32 contribution_bytes = header->section_contribution_bytes;
  u64 contribution_offset = sizeof(DbiHeader) + (u64)(u32)module_bytes;
  if (contribution_bytes < 4) return kPdbOk;
  u32 version = 0;
  if (MsfReadStream(msf, stream, &version, 4, contribution_offset)) return kPdbUnreadable;
  if (version != kSectionContributionVersion1 && version != kSectionContributionVersion2) return kPdbOk;
  u32 entry_bytes = contribution_bytes - 4;
  SectionContribution *entries = (SectionContribution *)PdbAllocate(arena, entry_bytes);
  if (!entries && entry_bytes) return kPdbUnreadable;
  if (MsfReadStream(msf, stream, entries, entry_bytes, contribution_offset + 4)) return kPdbUnreadable;
  out->contributions = entries;
  out->contribution_count = entry_bytes / sizeof(SectionContribution);
  out->contribution_version = version;
  return kPdbOk;
}

const char *DbiModuleName(const DbiModuleInfo *module) { return (const char *)(module + 1); }

const char *DbiModuleObjectName(const DbiModuleInfo *module) {
  const char *name = DbiModuleName(module);
  return name + strlen(name) + 1;
}
