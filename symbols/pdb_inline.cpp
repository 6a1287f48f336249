#include "symbols/pdb_inline.h"

#include <string.h>

#include "symbols/pdb_kinds.h"
#include "symbols/pdb_raw.h"
#include "symbols/pdb_type_records.h"

// [SECTION] Binary annotations

// Annotation opcodes, as the format numbers them.
enum : u32 {
  kOpEnd = 0,  // padding after the last annotation
  kOpCodeOffset = 1,
  kOpChangeCodeOffsetBase = 2,
  kOpChangeCodeOffset = 3,
  kOpChangeCodeLength = 4,
  kOpChangeFile = 5,
  kOpChangeLineOffset = 6,
  kOpChangeLineEndDelta = 7,
  kOpChangeRangeKind = 8,
  kOpChangeColumnStart = 9,
  kOpChangeColumnEndDelta = 10,
  kOpChangeCodeOffsetAndLineOffset = 11,
  kOpChangeCodeLengthAndCodeOffset = 12,
  kOpChangeColumnEnd = 13,
};

typedef struct AnnotationReader {
  const u8 *at, *end;
} AnnotationReader;

// The format's compressed unsigned number: 1, 2 or 4 bytes, told apart by the top bits.
static bool ReadCompressed(AnnotationReader *r, u32 *out) {
  if (r->at >= r->end) return false;
  u8 b = *r->at++;
  if ((b & 0x80) == 0) {
    *out = b;
  } else if ((b & 0xC0) == 0x80) {
    if (r->end - r->at < 1) return false;
    *out = (u32)(b & 0x3F) << 8 | r->at[0];
    r->at += 1;
  } else if ((b & 0xE0) == 0xC0) {
    if (r->end - r->at < 3) return false;
    *out = (u32)(b & 0x1F) << 24 | (u32)r->at[0] << 16 | (u32)r->at[1] << 8 | r->at[2];
    r->at += 3;
  } else {
    return false;
  }
  return true;
}

// Signed operands keep the sign in the lowest bit.
static s32 DecodeSigned(u32 value) { return (value & 1) ? -(s32)(value >> 1) : (s32)(value >> 1); }

static bool PeekOpcode(const AnnotationReader *r, u32 *op) {
  AnnotationReader copy = *r;
  return ReadCompressed(&copy, op);
}

static bool MovesCode(u32 op) { return op == kOpCodeOffset || op == kOpChangeCodeOffset; }

typedef struct RowState {
  u32 code, line, file;
  bool open;
  InlineRow row;
  InlineRowFn fn;
  void *user;
  bool stopped;
} RowState;

static void CloseRow(RowState *s, u32 end) {
  if (!s->open) return;
  s->open = false;
  if (end <= s->row.start || s->stopped) return;
  s->row.end = end;
  if (!s->fn(s->user, &s->row)) s->stopped = true;
}

static void OpenRow(RowState *s) {
  CloseRow(s, s->code);
  s->open = true;
  s->row.start = s->code;
  s->row.line = s->line;
  s->row.file_id = s->file;
}

// Rows start where the code offset moves. A line or file change that no code move follows on
// its own (the compiler writes "ChangeLineOffset, ChangeCodeOffset" for one row) starts a row at
// the current offset, or renames the row that starts there: the later line wins, as in the line
// tables.
static void ChangeAtCurrentOffset(RowState *s) {
  if (s->open && s->row.start == s->code) {
    s->row.line = s->line;
    s->row.file_id = s->file;
  } else {
    OpenRow(s);
  }
}

static bool WalkAnnotations(const u8 *at, const u8 *end, u32 first_line, u32 first_file, InlineRowFn fn,
                            void *user) {
  AnnotationReader r = {at, end};
  RowState s = {};
  s.line = first_line, s.file = first_file, s.fn = fn, s.user = user;
  u32 op;
  while (!s.stopped && ReadCompressed(&r, &op) && op != kOpEnd) {
    u32 a = 0, b = 0, next = 0;
    if (!ReadCompressed(&r, &a)) return false;
    switch (op) {
      case kOpCodeOffset: case kOpChangeCodeOffset:
        s.code += a;
        OpenRow(&s);
        break;
      case kOpChangeCodeOffsetBase: s.code += a; break;
      case kOpChangeCodeLength:
        CloseRow(&s, s.code + a);
        s.code += a;
        break;
      case kOpChangeFile:
        s.file = a;
        if (!PeekOpcode(&r, &next) || (next != kOpChangeLineOffset && !MovesCode(next) &&
                                      next != kOpChangeCodeOffsetAndLineOffset && next != kOpChangeCodeLengthAndCodeOffset))
          ChangeAtCurrentOffset(&s);
        break;
      case kOpChangeLineOffset:
        s.line += (u32)DecodeSigned(a);
        if (!PeekOpcode(&r, &next) || !MovesCode(next)) ChangeAtCurrentOffset(&s);
        break;
      case kOpChangeCodeOffsetAndLineOffset:
        s.line += (u32)DecodeSigned(a >> 4);
        s.code += a & 0xF;
        OpenRow(&s);
        break;
      case kOpChangeCodeLengthAndCodeOffset:  // the length comes first, then the offset
        if (!ReadCompressed(&r, &b)) return false;
        s.code += b;
        OpenRow(&s);
        CloseRow(&s, s.code + a);
        s.code += a;
        break;
      case kOpChangeLineEndDelta: case kOpChangeRangeKind: case kOpChangeColumnStart:
      case kOpChangeColumnEndDelta: case kOpChangeColumnEnd:
        break;  // columns and range kinds are not kept
      default: return false;
    }
  }
  return !s.stopped;
}

typedef struct ExtentState {
  u32 start, end;
  bool any;
} ExtentState;

static bool WidenExtent(void *user, const InlineRow *row) {
  ExtentState *e = (ExtentState *)user;
  if (!e->any || row->start < e->start) e->start = row->start;
  if (!e->any || row->end > e->end) e->end = row->end;
  e->any = true;
  return true;
}

bool InlineSiteRecordExtent(const u8 *record, u32 *start, u32 *end) {
  u32 bytes = ReadU16(record) + 2u;
  u32 at = ReadU16(record + 2) == kS_INLINESITE2 ? kInlineSite2SymAnnotations : kInlineSiteSymAnnotations;
  ExtentState e = {0, 0, false};
  if (bytes >= at) WalkAnnotations(record + at, record + bytes, 0, 0, WidenExtent, &e);
  *start = e.start, *end = e.end;
  return e.any;
}

// [SECTION] Sites

static const PdbModuleSymbols *ModuleOf(const PdbFile *pdb, const PdbInlineScope *site) {
  const PdbScopes *scopes = &pdb->scopes;
  if (site->procedure >= scopes->procedure_count) return nullptr;
  u32 m = scopes->procedures[site->procedure].module_index;
  return m < scopes->module_count ? &scopes->modules[m] : nullptr;
}

u32 PdbInlineSiteInlinee(const PdbInlineScope *site) { return ReadU32(site->record + kInlineSiteSymInlinee); }

bool PdbInlineeStart(const PdbModuleSymbols *module, u32 inlinee, u32 *line, u32 *file_id) {
  u32 size = 0;
  const u8 *p = PdbModuleSubsection(module, kC13InlineeLines, &size);
  if (!p || size < 4) return false;
  u32 signature = ReadU32(p);
  if (signature != kC13InlineeSignature && signature != kC13InlineeSignatureExtraFiles) return false;
  for (u32 at = 4; size - at >= kC13InlineeEntryBytes;) {
    u32 id = ReadU32(p + at), file = ReadU32(p + at + 4), first = ReadU32(p + at + 8);
    at += kC13InlineeEntryBytes;
    if (signature == kC13InlineeSignatureExtraFiles) {
      if (size - at < 4) return false;
      u32 extra = ReadU32(p + at);
      at += 4;
      if (extra > (size - at) / 4) return false;
      at += 4 * extra;
    }
    if (id == inlinee) {
      *line = first, *file_id = file;
      return true;
    }
  }
  return false;
}

bool PdbInlineSiteRows(const PdbFile *pdb, const PdbInlineScope *site, InlineRowFn fn, void *user) {
  const PdbModuleSymbols *module = ModuleOf(pdb, site);
  u32 bytes = ReadU16(site->record) + 2u;
  u32 at = ReadU16(site->record + 2) == kS_INLINESITE2 ? kInlineSite2SymAnnotations : kInlineSiteSymAnnotations;
  if (!module || bytes < at) return false;
  u32 first_line = 0, first_file = 0;
  PdbInlineeStart(module, PdbInlineSiteInlinee(site), &first_line, &first_file);
  return WalkAnnotations(site->record + at, site->record + bytes, first_line, first_file, fn, user);
}

typedef struct RowSearch {
  u32 offset;
  bool found;
  InlineRow row;
} RowSearch;

static bool StopAtOffset(void *user, const InlineRow *row) {
  RowSearch *search = (RowSearch *)user;
  if (row->start > search->offset || search->offset >= row->end) return true;
  search->found = true;
  search->row = *row;
  return false;
}

bool PdbInlineSiteContains(const PdbFile *pdb, const PdbInlineScope *site, u32 offset) {
  if (offset < site->code_start || offset >= site->code_end) return false;
  RowSearch search = {offset, false, {}};
  PdbInlineSiteRows(pdb, site, StopAtOffset, &search);
  return search.found;
}

bool PdbInlineSiteLineAt(const PdbFile *pdb, const PdbInlineScope *site, u32 offset, u32 *line,
                         const u8 **file_record) {
  RowSearch search = {offset, false, {}};
  PdbInlineSiteRows(pdb, site, StopAtOffset, &search);
  *line = 0, *file_record = nullptr;
  if (!search.found) return false;
  *line = search.row.line;
  const PdbModuleSymbols *module = ModuleOf(pdb, site);
  *file_record = module ? PdbModuleFileRecord(module, search.row.file_id) : nullptr;
  return true;
}

// [SECTION] Names

static void Append(char *out, u32 capacity, u32 *length, const char *text, u32 count) {
  if (capacity == 0) return;
  u32 room = capacity - 1 - *length;
  if (count > room) count = room;
  memcpy(out + *length, text, count);
  *length += count;
  out[*length] = 0;
}

// The terminated text at `at` of an id record, or null when the record holds none.
static const char *RecordText(const u8 *record, u32 at) {
  u32 bytes = ReadU16(record) + 2u;
  if (at >= bytes || !memchr(record + at, 0, bytes - at)) return nullptr;
  return (const char *)record + at;
}

u32 PdbInlineeName(const PdbFile *pdb, u32 inlinee, char *out, u32 capacity) {
  u32 length = 0;
  if (capacity) out[0] = 0;
  const u8 *record = PdbTypeRecord(&pdb->ids, inlinee);
  const char *name = nullptr;
  if (record && ReadU16(record + 2) == kLF_FUNC_ID && (name = RecordText(record, kFuncIdName))) {
    const u8 *scope = PdbTypeRecord(&pdb->ids, ReadU32(record + kFuncIdScope));
    const char *scope_name = scope && ReadU16(scope + 2) == kLF_STRING_ID ? RecordText(scope, kStringIdText) : nullptr;
    if (scope_name && *scope_name) {
      Append(out, capacity, &length, scope_name, (u32)strlen(scope_name));
      Append(out, capacity, &length, "::", 2);
    }
  } else if (record && ReadU16(record + 2) == kLF_MFUNC_ID && (name = RecordText(record, kMemberFuncIdName))) {
    TypeRecord owner;
    if (PdbDecodeType(&pdb->types, ReadU32(record + kMemberFuncIdClass), &owner) && owner.name.length) {
      Append(out, capacity, &length, owner.name.text, owner.name.length);
      Append(out, capacity, &length, "::", 2);
    }
  }
  if (!name) name = "?";
  Append(out, capacity, &length, name, (u32)strlen(name));
  return length;
}
