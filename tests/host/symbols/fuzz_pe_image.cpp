// libFuzzer target: the image reader over arbitrary bytes (copied to a buffer of their exact size so
// that any read past them is caught), read once from the file alone and once with the debug
// directory taken from a "mapped" copy, as the debugger reads it; then the section search over
// whatever section table came out.
#include <stdlib.h>
#include <string.h>

#include "symbols/pe_image.h"
#include "symbols/scope_lookup.h"

static void Check(bool condition) {
  if (!condition) abort();
}

// The mapped image is the same bytes indexed by rva: a hostile rva must be refused, not followed.
static int ReadMapped(void *context, u64 load_base, u32 rva, void *buffer, u32 size) {
  const ImageBytes *bytes = (const ImageBytes *)context;
  if (rva > bytes->size || size > bytes->size - rva) return 1;
  memcpy(buffer, bytes->bytes + rva, size);
  return 0;
}

static void CheckImage(const PeImage *image) {
  Check(image->section_count <= kPeMaxSections);
  Check(image->section_count <= image->file_section_count);
  Check(memchr(image->pdb_path, 0, sizeof(image->pdb_path)) != nullptr);
  const u32 rvas[] = {0, 0x1000, image->entry_rva, 0xFFFFFFFF};
  for (u32 rva : rvas) {
    u32 section = 0, offset = 0;
    if (PeSectionOffsetOfRva(image, rva, &section, &offset)) {
      Check(section >= 1 && section <= image->section_count);
      Check(offset <= image->sections[section - 1].virtual_size);
    }
  }
  PeImageExtentEnd(image, 0xFFFFFFFFFFFF0000ull);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  u8 *copy = (u8 *)malloc(size ? size : 1);
  memcpy(copy, data, size);
  ImageBytes bytes = {copy, size};
  static PeImage image;

  ImageSource file_only = ImageSourceFromBytes(&bytes);
  int result = PeReadImage(&file_only, 0x140000000ull, &image);
  Check(result == kPeOk || result == kPeUnreadable || result == kPe32Bit || result == kPeNotImage);
  if (result == kPeOk) CheckImage(&image);

  ImageSource mapped = file_only;
  mapped.read_mapped = ReadMapped;
  result = PeReadImage(&mapped, 0, &image);
  Check(result == kPeOk || result == kPeUnreadable || result == kPe32Bit || result == kPeNotImage);
  if (result == kPeOk) CheckImage(&image);
  free(copy);
  return 0;
}
