// libFuzzer target: the type-record interpretation over arbitrary record bytes. Input: a 16-bit
// bucket count, a 16-bit adjuster-table length, the adjuster table, then the record bytes (as
// after the type stream's header). The records are indexed, hashed and bucketed as the loader
// does, the adjusters applied (with the record bytes as "/names"), and then every question is
// asked of every index: decoding, names, sizes, pointers, definitions, field walks, flattened
// members, members by name, enumerator values and look-up of each record's name. The records sit in a buffer of
// their exact size plus the loader's 8 zero bytes, so a read past them is caught.
#include <stdlib.h>
#include <string.h>

#include "symbols/pdb_type_fields.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

enum { kMaxTypesAsked = 3000 };

static bool CountMember(void *user, const DataMember *m) {
  ++*(u32 *)user;
  return m->field != nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4 || size > (1u << 20)) return 0;
  u32 bucket_count = (u32)(data[0] | data[1] << 8) % 4096 + 1;
  u32 adjust_bytes = (u32)(data[2] | data[3] << 8);
  data += 4, size -= 4;
  if (adjust_bytes > size) adjust_bytes = (u32)size;
  u8 *adjusters = (u8 *)malloc(adjust_bytes ? adjust_bytes : 1);
  memcpy(adjusters, data, adjust_bytes);
  data += adjust_bytes, size -= adjust_bytes;
  u8 *records = (u8 *)malloc(size + 8);
  memcpy(records, data, size);
  memset(records + size, 0, 8);
  char *names = (char *)malloc(size + 1);
  memcpy(names, data, size);
  names[size] = 0;

  SymbolArena arena = {};
  PdbTypes types = {};
  if (PdbIndexTypeRecords(&arena, records, (u32)size, 0x1000, 0x1000 + 0x100000, &types) == 0) {
    u32 *values = (u32 *)malloc((types.count ? types.count : 1) * 4);
    for (u32 i = 0; i < types.count; i++) values[i] = PdbTypeRecordHash(&types, 0x1000 + i) % bucket_count;
    PdbStringTable strings = {names, (u32)size};
    if (PdbBuildTypeBuckets(&arena, values, bucket_count, &types))
      PdbApplyHashAdjusters(adjusters, adjust_bytes, &strings, &types);
    free(values);

    char text[512];
    u32 asked = types.count < kMaxTypesAsked ? types.count : kMaxTypesAsked;
    for (u32 i = 0; i < asked + 2; i++) {
      u32 index = i < asked ? 0x1000 + i : (i == asked ? 0x674 : 0x2000000);
      TypeRecord t;
      PdbDecodeType(&types, index, &t);
      TypeNameFormat(&types, index, text, sizeof(text));
      PdbTypeSize(&types, index);
      PdbTypeIsPointer(&types, index, nullptr);
      PdbTypeDefinition(&types, index);
      FieldWalk walk;
      FieldWalkBegin(&walk, &types, index);
      TypeField f;
      bool negative;
      while (FieldWalkNext(&walk, &f)) EnumeratorValue(&f, t.type, &negative);
      u32 members = 0;
      PdbForEachDataMember(&types, index, CountMember, &members);
      if (t.name.length) PdbLookupType(&types, nullptr, t.name.text, t.name.length);
      FoundMember found;
      PdbFindMember(&types, index, "x", 1, &found);
      PdbTypeIsArray(&types, index, nullptr, nullptr);
    }
    PdbTypePointerTo(&types, 0x1000);
  }
  SymbolArenaRelease(&arena);
  free(names);
  free(records);
  free(adjusters);
  return 0;
}
