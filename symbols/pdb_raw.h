// On-disk structures of the MSF container and the PDB streams, with their sizes checked at
// compile time, and the readers for little-endian fields at any alignment. Field layouts follow
// LLVM's public PDB file-format notes (MsfFile, PdbStream, DbiStream, ModiStream, GlobalStream).
#pragma once
#include <string.h>

#include "base/types.h"

static inline u16 ReadU16(const u8 *p) { u16 v; memcpy(&v, p, 2); return v; }
static inline u32 ReadU32(const u8 *p) { u32 v; memcpy(&v, p, 4); return v; }

// [SECTION] MSF superblock: the file's first 128 bytes.
enum {
  kMsfSuperblockReadBytes = 128,
  kMsfMagicBytes = 30,            // "Microsoft C/C++ MSF 7.00\r\n" 0x1A 'D' 'S' 0x00
  kMsfOffsetPageSize = 0x20,
  kMsfOffsetFreeMapPage = 0x24,
  kMsfOffsetPageCount = 0x28,     // not used: the directory is trusted
  kMsfOffsetDirectoryBytes = 0x2C,
  kMsfOffsetDirectoryMap = 0x34,  // page numbers of the pages that list the directory's pages
  kMsfMaxMapPages = (kMsfSuperblockReadBytes - kMsfOffsetDirectoryMap) / 4,  // 19
};
extern const u8 kMsfMagic[kMsfMagicBytes];

// [SECTION] PDB information stream (stream 1)
typedef struct PdbInfoHeader {
  u32 version;    // 19990605 .. 20140508
  u32 signature;  // seconds since 1970 when written
  u32 age;
  u8 guid[16];
} PdbInfoHeader;
static_assert(sizeof(PdbInfoHeader) == 28, "information stream header");
enum : u32 {
  kPdbInfoVersionMin = 19990605,
  kPdbInfoVersionMax = 20140508,
  kPdbInfoOldSignature = 19941610,  // a PDB 2.0 signature word in the version-7 layout
};

// [SECTION] "/names": the string table stream
typedef struct PdbNamesHeader {
  u32 magic;         // 0xEFFEEFFE
  u32 hash_version;  // 1 or 2
  u32 buffer_bytes;  // string buffer size; the buffer follows, then the bucket count
} PdbNamesHeader;
static_assert(sizeof(PdbNamesHeader) == 12, "string table header");
enum : u32 { kPdbNamesMagic = 0xEFFEEFFE };

// [SECTION] Debug-information stream (stream 3)
typedef struct DbiHeader {
  s32 version_signature;  // -1: the "new" format
  u32 version;            // 19990903 for current files
  u32 age;
  u16 global_stream;      // global symbol hash stream
  u16 build_number;
  u16 public_stream;
  u16 pdb_dll_version;
  u16 symbol_record_stream;
  u16 pdb_dll_rebuild;
  u32 module_info_bytes;
  u32 section_contribution_bytes;
  u32 section_map_bytes;
  u32 source_info_bytes;
  u32 type_server_map_bytes;
  u32 mfc_type_server_index;  // not a size
  u32 optional_debug_header_bytes;
  u32 ec_substream_bytes;
  u16 flags;
  u16 machine;
  u32 padding;
} DbiHeader;
static_assert(sizeof(DbiHeader) == 64, "debug-information stream header");
enum : u32 {
  kDbiNewSignature = 0xFFFFFFFF,
  kDbiMinModuleVersion = 19970606,
  kDbiMinStreamBytes = 128,
  kSectionContributionVersion1 = 0xF12EBA2D,
  kSectionContributionVersion2 = 0xF13151E4,
};

// One section contribution (28 bytes, also inside each module record).
typedef struct SectionContribution {
  u16 section;
  u16 padding1;
  s32 offset;
  s32 size;
  u32 characteristics;
  u16 module_index;
  u16 padding2;
  u32 data_crc;
  u32 relocation_crc;
} SectionContribution;
static_assert(sizeof(SectionContribution) == 28, "section contribution");

// Fixed part of a module record; the module name and the object name follow, each terminated,
// and the record is padded to a multiple of 4.
typedef struct DbiModuleInfo {
  u32 unused1;
  SectionContribution contribution;
  u16 flags;
  u16 symbol_stream;  // 0xFFFF: none
  u32 symbol_bytes;   // includes the 4-byte signature at the start of the module stream
  u32 c11_line_bytes;
  u32 c13_line_bytes;
  u16 source_file_count;
  u16 padding;
  u32 unused2;
  u32 source_file_name_index;
  u32 pdb_file_path_name_index;
} DbiModuleInfo;
static_assert(sizeof(DbiModuleInfo) == 64, "module record");
enum : u16 { kNoStream = 0xFFFF };

// [SECTION] Global symbol hash stream
typedef struct GsiHashHeader {
  u32 signature;     // 0xFFFFFFFF
  u32 version;       // 0xF12F091A
  u32 record_bytes;  // hash records, 8 bytes each
  u32 bucket_bytes;
} GsiHashHeader;
static_assert(sizeof(GsiHashHeader) == 16, "global hash header");
typedef struct GsiHashRecord {
  u32 offset_plus_one;  // byte offset of the symbol in the symbol-record stream, plus 1
  u32 reference_count;
} GsiHashRecord;
static_assert(sizeof(GsiHashRecord) == 8, "global hash record");
enum : u32 { kGsiSignature = 0xFFFFFFFF, kGsiVersion = 0xF12F091A };

// [SECTION] Symbol records: byte offsets of the fields read, from the record start (the 16-bit
// length, which does not count itself, then the 16-bit kind).
enum {
  kSymHeaderBytes = 4,
  // S_LDATA32, S_GDATA32, S_LTHREAD32, S_GTHREAD32
  kDataSymType = 4, kDataSymOffset = 8, kDataSymSection = 12, kDataSymName = 14,
  // S_UDT
  kUdtSymType = 4, kUdtSymName = 8,
  // S_CONSTANT
  kConstSymType = 4, kConstSymValue = 8,
  // S_LPROC32, S_GPROC32
  kProcSymParent = 4, kProcSymEnd = 8, kProcSymNext = 12, kProcSymLength = 16,
  kProcSymDebugStart = 20, kProcSymDebugEnd = 24, kProcSymType = 28, kProcSymOffset = 32,
  kProcSymSection = 36, kProcSymFlags = 38, kProcSymName = 39,
  // S_BLOCK32
  kBlockSymParent = 4, kBlockSymEnd = 8, kBlockSymLength = 12, kBlockSymOffset = 16,
  kBlockSymSection = 20, kBlockSymName = 22,
  // S_REGREL32
  kRegRelSymOffset = 4, kRegRelSymType = 8, kRegRelSymRegister = 12, kRegRelSymName = 14,
};
