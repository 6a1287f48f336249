#include "symbols/pe_image.h"

#include <string.h>

#include "symbols/pdb_raw.h"

// Offsets in the PE/COFF headers (Microsoft's published PE format: file header, PE32+ optional
// header, data directories, debug directory entry).
enum : u32 {
  kDosNewHeaderOffset = 60,
  kPeSignatureBytes = 4,
  kFileHeaderBytes = 20,
  kFileHeaderMachine = 0,
  kFileHeaderSectionCount = 2,
  kFileHeaderOptionalBytes = 16,
  kFileHeaderCharacteristics = 18,
  kOptionalMagic = 0,
  kOptionalEntryPoint = 16,
  kOptionalImageBase = 24,
  kOptionalSizeOfImage = 56,
  kOptionalDirectoryCount = 108,
  kOptionalDirectories = 112,  // 8 bytes each: rva, size
  kOptionalMaxBytes = kOptionalDirectories + 16 * 8,
  kMagicPe32 = 0x10B,
  kMagicPe32Plus = 0x20B,
  kMachineI386 = 0x14C,
  kDirectoryException = 3,
  kDirectoryDebug = 6,
  kDirectoryTls = 9,
  kDebugEntryType = 12,
  kDebugEntryDataSize = 16,
  kDebugEntryFileOffset = 24,
  kDebugTypeCodeView = 2,
  kCodeViewIdentityBytes = 24,
  // Real images carry a handful of debug entries; a directory claiming more is read no further, so
  // that a hostile size cannot turn into millions of target reads.
  kMaxDebugEntries = 64,
};

static int ReadFile(const ImageSource *source, u64 offset, void *buffer, u32 size) {
  return source->read_file(source->context, offset, buffer, size) ? kPeUnreadable : kPeOk;
}

// Bytes at an rva of the file's own layout: within the headers, or within a section's raw data.
static int ReadFileAtRva(const ImageSource *source, const PeImage *image, u32 rva, void *buffer, u32 size) {
  for (u32 i = 0; i < image->section_count; i++) {
    const PeSectionHeader *s = &image->sections[i];
    u64 start = s->virtual_address;
    if (rva < start || (u64)rva + size > start + s->raw_size) continue;
    return ReadFile(source, (u64)s->raw_offset + (rva - start), buffer, size);
  }
  return kPeUnreadable;
}

static int ReadMapped(const ImageSource *source, const PeImage *image, u64 load_base, u32 rva, void *buffer,
                      u32 size) {
  if (source->read_mapped)
    return source->read_mapped(source->context, load_base, rva, buffer, size) ? kPeUnreadable : kPeOk;
  return ReadFileAtRva(source, image, rva, buffer, size);
}

// The first CodeView entry of the "RSDS" form gives the identity and path. Every CodeView entry's
// size is checked, before anything else of it is read: 804 bytes or more refuses the image.
static PeResult ReadCodeView(const ImageSource *source, u64 load_base, u32 directory_rva, u32 directory_size,
                        PeImage *out) {
  u32 count = directory_size / kPeDebugEntryBytes;
  out->debug_entry_count = count;
  if (count > kMaxDebugEntries) count = kMaxDebugEntries;
  for (u32 i = 0; i < count; i++) {
    u8 entry[kPeDebugEntryBytes];
    if (ReadMapped(source, out, load_base, directory_rva + i * kPeDebugEntryBytes, entry, sizeof(entry)))
      return kPeUnreadable;
    if (ReadU32(entry + kDebugEntryType) != kDebugTypeCodeView) continue;
    u32 data_size = ReadU32(entry + kDebugEntryDataSize);
    if (data_size >= kPeCodeViewLimit) return kPeNotImage;
    // Shorter than its identity, or not the "RSDS" form, or after the record taken: not used.
    if (out->has_codeview || data_size < kCodeViewIdentityBytes) continue;
    u64 at = ReadU32(entry + kDebugEntryFileOffset);
    CodeViewIdentity identity;
    if (ReadFile(source, at, identity.bytes, kCodeViewIdentityBytes)) return kPeUnreadable;
    if (memcmp(identity.bytes, "RSDS", 4) != 0) continue;
    u32 path_bytes = data_size - kCodeViewIdentityBytes;  // < 780 by the limit above
    if (path_bytes && ReadFile(source, at + kCodeViewIdentityBytes, out->pdb_path, path_bytes)) return kPeUnreadable;
    out->pdb_path[path_bytes] = 0;
    out->identity = identity;
    out->has_codeview = true;
  }
  return kPeOk;
}

// The headers up to the optional header's magic, which says the word size.
typedef struct PeHeaders {
  u64 optional_at;
  u32 optional_bytes;  // as the file header says
  u32 optional_read;   // read into optional, at most kOptionalMaxBytes
  u8 file_header[kFileHeaderBytes];
  u8 optional[kOptionalMaxBytes];  // cleared past optional_read
} PeHeaders;

// kPe32Bit for machine i386 or a PE32 optional header, whatever the rest says.
static PeResult ReadHeaders(const ImageSource *source, PeHeaders *out) {
  memset(out, 0, sizeof(*out));
  u8 word[4];
  if (ReadFile(source, kDosNewHeaderOffset, word, 4)) return kPeUnreadable;
  u64 header_at = ReadU32(word);
  u8 signature[kPeSignatureBytes];
  if (ReadFile(source, header_at, signature, sizeof(signature))) return kPeUnreadable;
  if (memcmp(signature, "PE\0\0", 4) != 0) return kPeNotImage;

  if (ReadFile(source, header_at + kPeSignatureBytes, out->file_header, kFileHeaderBytes)) return kPeUnreadable;
  if (ReadU16(out->file_header + kFileHeaderMachine) == kMachineI386) return kPe32Bit;
  out->optional_bytes = ReadU16(out->file_header + kFileHeaderOptionalBytes);
  out->optional_at = header_at + kPeSignatureBytes + kFileHeaderBytes;
  out->optional_read = out->optional_bytes < kOptionalMaxBytes ? out->optional_bytes : kOptionalMaxBytes;
  if (out->optional_read < 2) return kPeNotImage;
  if (ReadFile(source, out->optional_at, out->optional, out->optional_read)) return kPeUnreadable;
  u16 magic = ReadU16(out->optional + kOptionalMagic);
  if (magic == kMagicPe32) return kPe32Bit;
  if (magic != kMagicPe32Plus) return kPeNotImage;
  return kPeOk;
}

PeResult PeReadWordSize(const ImageSource *source) {
  PeHeaders headers;
  return ReadHeaders(source, &headers);
}

PeResult PeReadImage(const ImageSource *source, u64 load_base, PeImage *out) {
  memset(out, 0, sizeof(*out));
  PeHeaders headers;
  PeResult result = ReadHeaders(source, &headers);
  if (result != kPeOk) return result;
  const u8 *file_header = headers.file_header;
  const u8 *optional = headers.optional;
  u64 optional_at = headers.optional_at;
  u32 optional_bytes = headers.optional_bytes;
  u32 optional_read = headers.optional_read;

  out->machine = ReadU16(file_header + kFileHeaderMachine);
  out->characteristics = ReadU16(file_header + kFileHeaderCharacteristics);
  out->entry_rva = ReadU32(optional + kOptionalEntryPoint);
  memcpy(&out->preferred_base, optional + kOptionalImageBase, 8);
  out->size_of_image = ReadU32(optional + kOptionalSizeOfImage);
  // Directories beyond the bytes the optional header really has do not exist.
  // A header too short for some fields reads them as zero (the buffer is cleared): an image whose
  // header ends before its data directories simply has none.
  u32 directory_count = ReadU32(optional + kOptionalDirectoryCount);
  u32 present = optional_read > kOptionalDirectories ? (optional_read - kOptionalDirectories) / 8 : 0;
  if (directory_count > present) directory_count = present;

  // Sections first: on the host the debug directory is found through them.
  u32 file_sections = ReadU16(file_header + kFileHeaderSectionCount);
  out->file_section_count = file_sections;
  out->section_count = file_sections < kPeMaxSections ? file_sections : kPeMaxSections;
  if (out->section_count &&
      ReadFile(source, optional_at + optional_bytes, out->sections, out->section_count * kPeSectionHeaderBytes)) {
    return kPeUnreadable;
  }

  const u8 *directories = optional + kOptionalDirectories;
  if (directory_count > kDirectoryException) {
    out->exception_rva = ReadU32(directories + kDirectoryException * 8);
    out->exception_entry_count = ReadU32(directories + kDirectoryException * 8 + 4) / kPeExceptionEntryBytes;
  }
  if (directory_count > kDirectoryTls) out->tls_rva = ReadU32(directories + kDirectoryTls * 8);
  if (directory_count > kDirectoryDebug) {
    u32 rva = ReadU32(directories + kDirectoryDebug * 8);
    u32 size = ReadU32(directories + kDirectoryDebug * 8 + 4);
    if (rva && size) {
      PeResult result = ReadCodeView(source, load_base, rva, size, out);
      if (result) return result;
    }
  }
  return kPeOk;
}

u64 PeImageExtentEnd(const PeImage *image, u64 load_base) {
  u64 end = 0;
  if (image->section_count) {
    const PeSectionHeader *last = &image->sections[image->section_count - 1];
    end = (u64)last->virtual_address + last->virtual_size;
  }
  return load_base + ((end + 4095) & ~(u64)4095);
}

// [SECTION] Sources

static int FileRead(void *context, u64 offset, void *buffer, u32 size) {
  OsFile *file = (OsFile *)context;
  if (OsFileSeek(*file, offset) != kOsOk) return 1;
  u64 got = 0;
  if (OsFileRead(*file, buffer, size, &got) != kOsOk || got != size) return 1;
  return 0;
}

static int BytesRead(void *context, u64 offset, void *buffer, u32 size) {
  const ImageBytes *bytes = (const ImageBytes *)context;
  if (offset > bytes->size || size > bytes->size - offset) return 1;
  memcpy(buffer, bytes->bytes + offset, size);
  return 0;
}

ImageSource ImageSourceFromFile(OsFile *file) { return ImageSource{file, FileRead, nullptr}; }
ImageSource ImageSourceFromBytes(ImageBytes *bytes) { return ImageSource{bytes, BytesRead, nullptr}; }
