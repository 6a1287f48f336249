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
  // S_BPREL32
  kBpRelSymOffset = 4, kBpRelSymType = 8, kBpRelSymName = 12,
  // S_REGISTER
  kRegisterSymType = 4, kRegisterSymRegister = 8, kRegisterSymName = 10,
  // S_LOCAL; S_FILESTATIC (a file's static variable as a function sees it, which def ranges place
  // as they place a local) has the offset of its module's name in "/names" before its flags
  kLocalSymType = 4, kLocalSymFlags = 8, kLocalSymName = 10,
  kFileStaticSymType = 4, kFileStaticSymFlags = 12, kFileStaticSymName = 14,
  // S_FRAMEPROC
  kFrameProcSymFrameBytes = 4, kFrameProcSymFlags = 26, kFrameProcSymBytes = 30,
  // Def ranges. The address range is 8 bytes (offset, section, length); gaps of 4 bytes (start
  // relative to the range, length) fill the rest of the record.
  kDefRangeRangeOffset = 0, kDefRangeRangeSection = 4, kDefRangeRangeLength = 6, kDefRangeRangeBytes = 8,
  kDefRangeGapStart = 0, kDefRangeGapLength = 2, kDefRangeGapBytes = 4,
  // S_DEFRANGE_REGISTER
  kDefRangeRegisterSymRegister = 4, kDefRangeRegisterSymRange = 8,
  // S_DEFRANGE_FRAMEPOINTER_REL, S_DEFRANGE_FRAMEPOINTER_REL_FULL_SCOPE (which has no range)
  kDefRangeFrameSymOffset = 4, kDefRangeFrameSymRange = 8,
  // S_DEFRANGE_SUBFIELD_REGISTER
  kDefRangeSubfieldSymRegister = 4, kDefRangeSubfieldSymParentOffset = 8, kDefRangeSubfieldSymRange = 12,
  // S_DEFRANGE_REGISTER_REL
  kDefRangeRegRelSymRegister = 4, kDefRangeRegRelSymFlags = 6, kDefRangeRegRelSymOffset = 8,
  kDefRangeRegRelSymRange = 12,
  // S_INLINESITE; S_INLINESITE2 has a 32-bit invocation count before its annotations
  kInlineSiteSymParent = 4, kInlineSiteSymEnd = 8, kInlineSiteSymInlinee = 12, kInlineSiteSymAnnotations = 16,
  kInlineSite2SymAnnotations = 20,
};

enum : u32 {
  kLocalFlagParameter = 0x1,       // S_LOCAL flags
  kLocalFlagOptimizedOut = 0x100,
  kSubfieldParentOffsetMask = 0xFFF,     // S_DEFRANGE_SUBFIELD_REGISTER's parent offset field
  kRegRelFlagSubfield = 0x1,             // S_DEFRANGE_REGISTER_REL flags: a part of the value,
  kRegRelParentOffsetShift = 4,          //   at this offset in it
  // S_FRAMEPROC flags: the registers that locals and parameters are relative to (0 none, 1 the
  // stack pointer, 2 the frame pointer, 3 the base pointer: RSP, RBP, R13 on x64).
  kFrameProcLocalBaseShift = 14, kFrameProcParamBaseShift = 16, kFrameProcBaseMask = 3,
};

// [SECTION] C13 debug subsections (the module stream after its symbols): 32-bit kind and byte
// length, then the payload, padded to 4 bytes.
enum : u32 {
  kC13SubsectionHeaderBytes = 8,
  kC13Lines = 0xF2,
  kC13FileChecksums = 0xF4,
  kC13InlineeLines = 0xF6,
  // Lines: start offset (32), section (16), flags (16), code size (32), then blocks of file id,
  // line count, block size (32 each), the lines (offset, line and flags; 32 each) and, when the
  // flags say so, a column pair (16 each) per line.
  kC13LinesHeaderBytes = 12,
  kC13LinesFlagsOffset = 6,
  kC13LinesHaveColumns = 1,
  kC13LineBlockHeaderBytes = 12,
  kC13LineBytes = 8,
  kC13ColumnBytes = 4,
  kC13LineNumberMask = 0xFFFFFF,
  // File checksums: name offset (32), checksum size (8), checksum kind (8), the checksum bytes.
  kC13ChecksumHeaderBytes = 6,
  // Inlinee lines: a 32-bit signature, then per inlinee its id, file id and first line (32 each),
  // followed (with the extra-files signature) by a count and that many more file ids.
  kC13InlineeSignature = 0,
  kC13InlineeSignatureExtraFiles = 1,
  kC13InlineeEntryBytes = 12,
};

// [SECTION] The type stream (stream 2) and the IPI stream (stream 4): a 56-byte header, then the
// records; the hash stream that the header names holds one hash value per record, the index
// offsets (not used: they are recomputed) and the hash adjusters.
typedef struct TpiStreamHeader {
  u32 version;
  u32 header_bytes;
  u32 first_index;
  u32 end_index;
  u32 record_bytes;
  u16 hash_stream;  // 0xFFFF: none
  u16 aux_hash_stream;
  u32 hash_key_bytes;
  u32 bucket_count;
  u32 hash_values_offset, hash_values_bytes;
  u32 index_offsets_offset, index_offsets_bytes;
  u32 adjusters_offset, adjusters_bytes;
} TpiStreamHeader;
static_assert(sizeof(TpiStreamHeader) == 56, "type stream header");

// Type records: byte offsets of the fields read, from the record start (16-bit length, 16-bit
// leaf). Tag records end with a numeric size leaf (enumerations have none), the name and, when
// their properties say so, the unique name.
enum {
  kTypeRecordLeaf = 2,
  // LF_MODIFIER: modified type, modifiers
  kModifierType = 4, kModifierAttributes = 8, kModifierBytes = 10,
  // LF_POINTER: referent, attributes, [class of a pointer to member]
  kPointerReferent = 4, kPointerAttributes = 8, kPointerMemberClass = 12, kPointerBytes = 12,
  // LF_PROCEDURE: return type, calling convention, attributes, parameter count, argument list
  kProcedureReturn = 4, kProcedureParameterCount = 10, kProcedureArguments = 12, kProcedureBytes = 16,
  // LF_MFUNCTION: return type, class, this type, calling convention, attributes, parameter count,
  // argument list, this adjustment
  kMemberFunctionReturn = 4, kMemberFunctionClass = 8, kMemberFunctionThis = 12,
  kMemberFunctionParameterCount = 18, kMemberFunctionArguments = 20, kMemberFunctionBytes = 28,
  // LF_ARGLIST: count, then the argument types
  kArgListCount = 4, kArgListFirst = 8,
  // LF_BITFIELD: type, length, position
  kBitFieldType = 4, kBitFieldLength = 8, kBitFieldPosition = 9, kBitFieldBytes = 10,
  // LF_ARRAY: element type, index type, size
  kArrayElement = 4, kArrayIndex = 8, kArraySize = 12,
  // LF_CLASS, LF_STRUCTURE, LF_INTERFACE: count, properties (16), field list, derived list, vtable
  // shape, size
  kClassCount = 4, kClassProperties = 6, kClassFields = 8, kClassDerived = 12, kClassShape = 16, kClassSize = 20,
  // LF_CLASS2, LF_STRUCTURE2: properties (32), field list, derived list, vtable shape, count, size
  kClass2Properties = 4, kClass2Fields = 8, kClass2Derived = 12, kClass2Shape = 16, kClass2Count = 20, kClass2Size = 22,
  // LF_UNION: count, properties, field list, size
  kUnionCount = 4, kUnionProperties = 6, kUnionFields = 8, kUnionSize = 12,
  // LF_ENUM: count, properties, underlying type, field list, name
  kEnumCount = 4, kEnumProperties = 6, kEnumUnderlying = 8, kEnumFields = 12, kEnumName = 16,
  // LF_ALIAS: type, name
  kAliasType = 4, kAliasName = 8,
  // LF_VTSHAPE: count
  kVtShapeCount = 4, kVtShapeBytes = 6,
};

// [SECTION] The IPI stream (stream 4): the same layout as the type stream, holding ids.
enum : u32 {
  kPdbIdStream = 4,
  // LF_FUNC_ID: scope (an LF_STRING_ID, or 0), function type, name; LF_MFUNC_ID: class type,
  // function type, name; LF_STRING_ID: substring list, text.
  kFuncIdScope = 4, kFuncIdName = 12, kMemberFuncIdClass = 4, kMemberFuncIdName = 12, kStringIdText = 8,
};
