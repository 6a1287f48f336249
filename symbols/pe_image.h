// PE32+ image headers: file header, optional header, section table, exception directory and the
// CodeView record that names the image's PDB.
//
// The bytes come through an ImageSource so that one reader serves the debugger (headers from the
// image file, debug directory entries from the target's memory, where the loader put them) and the
// host tools and tests (everything from the file, or from a buffer).
#pragma once
#include "base/os.h"
#include "base/types.h"
#include "symbols/pdb_info.h"

enum : u32 {
  kPeMaxSections = 96,         // section headers kept; later ones are counted, not kept
  kPeSectionHeaderBytes = 40,
  kPeDebugEntryBytes = 28,
  kPeCodeViewLimit = 804,      // a CodeView record this long or longer is refused
  kPePdbPathCapacity = 780,    // the path after the 24-byte identity, terminator included
  kPeExceptionEntryBytes = 12,
  kPeSectionMemWrite = 0x80000000u,  // section characteristics: the pages are writable
  // The TLS directory (PE32+): virtual addresses, relocated in the loaded image.
  kPeTlsStartOfData = 0,  // the template of each thread's block
  kPeTlsIndexAddress = 16,  // where the loader writes the module's slot in the threads' TLS arrays
  kPeTlsDirectoryBytes = 40,
};

// Result codes of image reading (shared with module loading).
enum [[nodiscard]] PeResult : int {
  kPeOk = 0,
  kPeUnreadable = 2,  // a seek or read of the image failed
  kPe32Bit = 10,      // machine i386, or optional-header magic 0x10B
  kPeNotImage = 11,   // no "PE\0\0", a magic other than 0x20B, or an oversized CodeView record
};

// The standard section header layout.
typedef struct PeSectionHeader {
  char name[8];
  u32 virtual_size;
  u32 virtual_address;
  u32 raw_size;
  u32 raw_offset;
  u32 relocations_offset;
  u32 line_numbers_offset;
  u16 relocation_count;
  u16 line_number_count;
  u32 characteristics;
} PeSectionHeader;
static_assert(sizeof(PeSectionHeader) == kPeSectionHeaderBytes, "section header");

typedef struct ImageSource {
  void *context;
  // Reads size bytes at a file offset; 0 only when every byte was read.
  int (*read_file)(void *context, u64 offset, void *buffer, u32 size);
  // Reads size bytes of the mapped image at load base + rva; 0 only when every byte was read.
  // Null: such bytes are taken from the file, through the section table.
  int (*read_mapped)(void *context, u64 load_base, u32 rva, void *buffer, u32 size);
} ImageSource;

typedef struct PeImage {
  u16 machine;
  u16 characteristics;
  u32 entry_rva;
  u64 preferred_base;
  u32 size_of_image;
  u32 section_count;        // kept, at most kPeMaxSections
  u32 file_section_count;   // as the file header says
  u32 exception_rva;        // exception directory (data directory 3), 0 when absent
  u32 exception_entry_count;
  u32 tls_rva;              // TLS directory (data directory 9), 0 when absent
  u32 debug_entry_count;
  bool has_codeview;
  CodeViewIdentity identity;  // "RSDS", GUID, age; valid when has_codeview
  char pdb_path[kPePdbPathCapacity];  // from the CodeView record, always terminated
  PeSectionHeader sections[kPeMaxSections];
} PeImage;

// Reads the headers, the section table and the CodeView record. load_base is passed to
// read_mapped. Returns a PeResult.
PeResult PeReadImage(const ImageSource *source, u64 load_base, PeImage *out);

// Reads no further than the optional header's magic: kPe32Bit for a 32-bit image, kPeOk for a
// PE32+ one, else why the headers could not be taken. A launch refuses a 32-bit program with this
// before the system is asked, since whether the system could start one depends on the machine.
[[nodiscard]] PeResult PeReadWordSize(const ImageSource *source);

// The end of the image's extent: load base + the last kept section's end, rounded up to 4096.
u64 PeImageExtentEnd(const PeImage *image, u64 load_base);

// Sources over an open file and over bytes in memory (read_mapped null for both).
typedef struct ImageBytes {
  const u8 *bytes;
  u64 size;
} ImageBytes;
ImageSource ImageSourceFromFile(OsFile *file);
ImageSource ImageSourceFromBytes(ImageBytes *bytes);
