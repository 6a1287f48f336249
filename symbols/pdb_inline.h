// Inlined code: the line table of an inline site (its binary annotations, counted from the
// inlined function's first line, which the module's inlinee-lines subsection gives), which code
// the site covers, and the inlined function's name from the IPI stream.
#pragma once
#include "symbols/pdb_file.h"

// One row of a site's line table. Code offsets count from the start of the procedure the site
// lies in.
typedef struct InlineRow {
  u32 start, end;  // [start, end)
  u32 line;
  u32 file_id;     // the file's checksum record, as an offset into the module's checksum subsection
} InlineRow;
typedef bool (*InlineRowFn)(void *user, const InlineRow *row);  // false stops the walk

// Calls fn for each row whose extent the annotations give, in their order. A row still open when
// the annotations end has no known extent and is left out. False when the annotations are
// malformed (the rows before the fault were given) or fn stopped the walk.
bool PdbInlineSiteRows(const PdbFile *pdb, const PdbInlineScope *site, InlineRowFn fn, void *user);

// The smallest range of code offsets (from the procedure's start) that holds every row of the
// site whose record this is; false (and an empty range) when the annotations give no row.
bool InlineSiteRecordExtent(const u8 *record, u32 *start, u32 *end);

// Whether the site's code holds the offset (counted from the procedure's start).
bool PdbInlineSiteContains(const PdbFile *pdb, const PdbInlineScope *site, u32 offset);
// The line and the file's checksum record of the row that holds the offset; false when none does
// (*file_record is null when the file id is not a record of the module).
bool PdbInlineSiteLineAt(const PdbFile *pdb, const PdbInlineScope *site, u32 offset, u32 *line,
                         const u8 **file_record);

// The inlined function's id (an IPI index) and its first line and file id, from the module's
// inlinee lines; false when the module does not list it.
u32 PdbInlineSiteInlinee(const PdbInlineScope *site);
bool PdbInlineeStart(const PdbModuleSymbols *module, u32 inlinee, u32 *line, u32 *file_id);

// The inlined function's name, qualified as its id says ("ns::Function" through the scope string of
// an LF_FUNC_ID, "Class::Method" through the class of an LF_MFUNC_ID), written into out (always
// terminated when capacity > 0); its length. "?" when the id is not a function id.
u32 PdbInlineeName(const PdbFile *pdb, u32 inlinee, char *out, u32 capacity);
