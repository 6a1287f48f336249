// The settings handler: one table of keys drives defaults-free reading and ordered writing.
//
// [SECTION] Sections
// [SECTION] Keys
// [SECTION] Defaults
// [SECTION] Reading
// [SECTION] Writing
#include "app/settings.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "app/session.h"

// [SECTION] Sections

// Section numbers as the handler hands them around.
enum SectionNumber {
  kSecLayout = 1, kSecWindowPos = 2, kSecStyle = 3, kSecRecentFiles = 4, kSecLayoutOther = 5,
  kSecThreads = 6, kSecModules = 7, kSecWatch0 = 8, kSecBreakpoints = 9, kSecCallstack = 10,
  kSecMemory0 = 11, kSecRegisters = 12, kSecDisassembly = 13, kSecOther = 14, kSecOutput = 15,
  kSecWatch1 = 16,   // Watch-1 to Watch-7: 16 to 22
  kSecMemory1 = 23,  // Memory-1 to Memory-3: 23 to 25
  kSecLocals = 26,   // the locals window: the watch windows' keys
  kSecLast = 26,
};

static const SettingsSection kSections[] = {
    {"Layout", 1},         {"WindowPos", 2},         {"Style", 3},          {"RecentFiles", 4},
    {"LayoutOther", 5},    {"ThreadsWindow", 6},     {"ModulesWindow", 7},  {"Watch-0", 8},
    {"BreakpointsWindow", 9}, {"CallstackWindow", 10}, {"Memory-0", 11},    {"RegistersWindow", 12},
    {"DisassemblyWindow", 13}, {"Other", 14},        {"OutputWindow", 15},  {"Watch-1", 16},
    {"Watch-2", 17},       {"Watch-3", 18},          {"Watch-4", 19},       {"Watch-5", 20},
    {"Watch-6", 21},       {"Watch-7", 22},          {"Memory-1", 23},      {"Memory-2", 24},
    {"Memory-3", 25},      {"LocalsWindow", 26},
};

// The order in which the sections are written.
static const u8 kWriteOrder[] = {
    kSecWindowPos, kSecStyle, kSecRecentFiles, kSecOther, kSecLayout, kSecThreads, kSecModules,
    kSecWatch0, kSecBreakpoints, kSecCallstack, kSecMemory0, kSecRegisters, kSecDisassembly,
    kSecOutput, kSecLayoutOther, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, kSecLocals,
};
static_assert(sizeof(kWriteOrder) == kSecLast, "every section is written once");

// Watch and memory windows share one key list per kind; the others have a list of their own.
static u32 FamilyOf(u32 section) {
  if (section == kSecWatch0 || section == kSecLocals || (section >= kSecWatch1 && section < kSecMemory1))
    return kSecWatch0;
  if (section == kSecMemory0 || (section >= kSecMemory1 && section < kSecLocals)) return kSecMemory0;
  return section;
}

// The structure the family's offsets are relative to.
static u8 *SectionBase(Settings *s, u32 section) {
  if (section == kSecWatch0) return (u8 *)&s->watch[0];
  if (section >= kSecWatch1 && section < kSecMemory1) return (u8 *)&s->watch[section - kSecWatch1 + 1];
  if (section == kSecMemory0) return (u8 *)&s->memory[0];
  if (section >= kSecMemory1 && section < kSecLocals) return (u8 *)&s->memory[section - kSecMemory1 + 1];
  if (section == kSecLocals) return (u8 *)&s->locals;
  return (u8 *)s;
}

// [SECTION] Keys

enum KeyType { kBool, kInt, kVerbosity, kColor, kFontName };

typedef struct SettingsKey {
  u8 family;
  u8 type;
  const char *key;
  u32 offset;  // of the field, in Settings or in the window's own structure
  u32 extra;   // font names: offset of the file-part index
} SettingsKey;

#define S_FIELD(f) (u32) offsetof(Settings, f)
#define W_FIELD(f) (u32) offsetof(WatchWindowSettings, f)
#define M_FIELD(f) (u32) offsetof(MemoryWindowSettings, f)

// In the order in which each section writes them.
static const SettingsKey kKeys[] = {
    {kSecWindowPos, kInt, "x", S_FIELD(window_x), 0},
    {kSecWindowPos, kInt, "y", S_FIELD(window_y), 0},
    {kSecWindowPos, kInt, "w", S_FIELD(window_w), 0},
    {kSecWindowPos, kInt, "h", S_FIELD(window_h), 0},
    {kSecWindowPos, kBool, "M", S_FIELD(window_maximized), 0},
    {kSecStyle, kFontName, "UiFontName", S_FIELD(ui_font_name), S_FIELD(ui_font_file_part)},
    {kSecStyle, kInt, "UiFontSizePx", S_FIELD(ui_font_size_px), 0},
    {kSecStyle, kInt, "UiStyle", S_FIELD(ui_style), 0},
    {kSecStyle, kInt, "ScrollbarSizePx", S_FIELD(scrollbar_size_px), 0},
    {kSecStyle, kBool, "ShowWindowFocus", S_FIELD(show_window_focus), 0},
    {kSecStyle, kBool, "ShowToolbar", S_FIELD(show_toolbar), 0},
    {kSecStyle, kFontName, "TextFontName", S_FIELD(text_font_name), S_FIELD(text_font_file_part)},
    {kSecStyle, kInt, "TextFontSizePx", S_FIELD(text_font_size_px), 0},
    {kSecStyle, kColor, "TextForegroundClr", S_FIELD(text_foreground), 0},
    {kSecStyle, kColor, "TextBackgroundClr", S_FIELD(text_background), 0},
    {kSecStyle, kInt, "TextTabSpacing", S_FIELD(text_tab_spacing), 0},
    {kSecStyle, kBool, "EvaluateOnHover", S_FIELD(evaluate_on_hover), 0},
    {kSecStyle, kInt, "TooltipDelayMs", S_FIELD(tooltip_delay_ms), 0},
    {kSecOther, kBool, "AutoSaveEnabled", S_FIELD(auto_save_enabled), 0},
    {kSecOther, kBool, "OpenLastSessionOnStartup", S_FIELD(open_last_session_on_startup), 0},
    {kSecOther, kBool, "AutoClearOutputWindow", S_FIELD(auto_clear_output_window), 0},
    {kSecOther, kBool, "ShowModuleLoad", S_FIELD(show_module_load), 0},
    {kSecOther, kBool, "ShowModuleUnload", S_FIELD(show_module_unload), 0},
    {kSecOther, kBool, "ShowThreadExit", S_FIELD(show_thread_exit), 0},
    {kSecOther, kBool, "ShowProcessExit", S_FIELD(show_process_exit), 0},
    {kSecLayout, kBool, "O", S_FIELD(output_show), 0},
    {kSecLayoutOther, kBool, "StatusTextPosTop", S_FIELD(status_text_pos_top), 0},
    {kSecLayoutOther, kBool, "StatusTextShowPID", S_FIELD(status_text_show_pid), 0},
    {kSecThreads, kBool, "ShowWnd", S_FIELD(threads_show), 0},
    {kSecThreads, kBool, "ShowName", S_FIELD(threads_show_name), 0},
    {kSecThreads, kBool, "ShowModule", S_FIELD(threads_show_module), 0},
    {kSecThreads, kBool, "ShowFunctionName", S_FIELD(threads_show_function_name), 0},
    {kSecThreads, kBool, "ShowCallingFunctionName", S_FIELD(threads_show_calling_function_name), 0},
    {kSecThreads, kBool, "ShowAddress", S_FIELD(threads_show_address), 0},
    {kSecThreads, kBool, "ShowPriority", S_FIELD(threads_show_priority), 0},
    {kSecModules, kBool, "ShowWnd", S_FIELD(modules_show), 0},
    {kSecModules, kBool, "ShowPath", S_FIELD(modules_show_path), 0},
    {kSecModules, kBool, "ShowAddress", S_FIELD(modules_show_address), 0},
    {kSecModules, kBool, "ShowSymbolFile", S_FIELD(modules_show_symbol_file), 0},
    {kSecModules, kBool, "ShowStatus", S_FIELD(modules_show_status), 0},
    {kSecBreakpoints, kBool, "ShowWnd", S_FIELD(breakpoints_show), 0},
    {kSecCallstack, kBool, "ShowWnd", S_FIELD(callstack_show), 0},
    {kSecCallstack, kBool, "ShowModuleName", S_FIELD(callstack_show_module_name), 0},
    {kSecCallstack, kBool, "ShowAddress", S_FIELD(callstack_show_address), 0},
    {kSecCallstack, kVerbosity, "Verbosity", S_FIELD(callstack_verbosity), 0},
    {kSecRegisters, kBool, "ShowWnd", S_FIELD(registers_show), 0},
    {kSecRegisters, kBool, "ShowRIP", S_FIELD(registers_show_rip), 0},
    {kSecRegisters, kBool, "ShowGeneralPurposeRegs", S_FIELD(registers_show_general_purpose), 0},
    {kSecRegisters, kBool, "ShowEFLAGS", S_FIELD(registers_show_eflags), 0},
    {kSecRegisters, kBool, "ShowSegmentRegs", S_FIELD(registers_show_segment), 0},
    {kSecRegisters, kBool, "ShowSSE", S_FIELD(registers_show_sse), 0},
    {kSecRegisters, kBool, "ShowAVX", S_FIELD(registers_show_avx), 0},
    {kSecRegisters, kBool, "ShowAVX512", S_FIELD(registers_show_avx512), 0},
    {kSecDisassembly, kBool, "ShowWnd", S_FIELD(disassembly_show), 0},
    {kSecDisassembly, kBool, "ShowCodeBytes", S_FIELD(disassembly_show_code_bytes), 0},
    {kSecDisassembly, kBool, "ShowAddress", S_FIELD(disassembly_show_address), 0},
    {kSecOutput, kBool, "ShowWnd", S_FIELD(output_show), 0},
    {kSecWatch0, kBool, "ShowWnd", W_FIELD(show), 0},
    {kSecWatch0, kBool, "ShowType", W_FIELD(show_type), 0},
    {kSecWatch0, kBool, "ShowComment", W_FIELD(show_comment), 0},
    {kSecWatch0, kBool, "Hexadecimal", W_FIELD(hexadecimal), 0},
    {kSecWatch0, kBool, "ColumnMaj", W_FIELD(column_major), 0},
    {kSecMemory0, kBool, "ShowWnd", M_FIELD(show), 0},
    {kSecMemory0, kBool, "ShowDataPreview", M_FIELD(show_data_preview), 0},
    {kSecMemory0, kBool, "ShowHexII", M_FIELD(show_hex_ii), 0},
    {kSecMemory0, kBool, "ShowAscii", M_FIELD(show_ascii), 0},
    {kSecMemory0, kBool, "GreyOutZeros", M_FIELD(grey_out_zeros), 0},
    {kSecMemory0, kBool, "UpperCaseHex", M_FIELD(upper_case_hex), 0},
    {kSecMemory0, kBool, "ReadOnly", M_FIELD(read_only), 0},
    {kSecMemory0, kInt, "NumColumns", M_FIELD(num_columns), 0},
};

// [SECTION] Defaults

static SettingsColor ColorFromRgb(u32 rgb) {
  SettingsColor c = {(f32)((rgb >> 16) & 0xFF) / 255.0f, (f32)((rgb >> 8) & 0xFF) / 255.0f,
                     (f32)(rgb & 0xFF) / 255.0f};
  return c;
}

void SettingsInitDefaults(Settings *s) {
  memset(s, 0, sizeof(*s));
  s->window_x = s->window_y = s->window_w = s->window_h = kSettingsUseDefault;
  s->ui_font_size_px = kSettingsDefaultUiFontPx;
  s->ui_style = 1;
  s->scrollbar_size_px = 14;
  s->show_window_focus = 1;
  s->text_font_size_px = kSettingsDefaultTextFontPx;
  s->text_foreground = ColorFromRgb(0xDCDCDC);
  s->text_background = ColorFromRgb(0x3F3F3F);
  s->text_tab_spacing = 4;
  s->evaluate_on_hover = 1;
  s->tooltip_delay_ms = 400;
  s->show_module_load = s->show_module_unload = s->show_thread_exit = s->show_process_exit = 1;
  s->status_text_pos_top = s->status_text_show_pid = 1;
  s->threads_show = s->threads_show_name = s->threads_show_module = s->threads_show_function_name = 1;
  s->threads_show_calling_function_name = s->threads_show_address = s->threads_show_priority = 1;
  s->modules_show = s->modules_show_path = s->modules_show_address = 1;
  s->modules_show_symbol_file = s->modules_show_status = 1;
  s->breakpoints_show = 1;
  s->callstack_show = s->callstack_show_module_name = s->callstack_show_address = 1;
  s->callstack_verbosity = 2;
  s->registers_show_rip = s->registers_show_general_purpose = s->registers_show_eflags = 1;
  s->disassembly_show = 0;
  s->disassembly_show_code_bytes = s->disassembly_show_address = 1;
  s->output_show = 1;
  for (u32 i = 0; i < kSettingsWatchWindows; i++) {
    s->watch[i].show = i == 0;
    s->watch[i].show_type = 1;
  }
  s->locals.show = s->locals.show_type = 1;
  for (u32 i = 0; i < kSettingsMemoryWindows; i++) {
    s->memory[i].show_ascii = 1;
    s->memory[i].grey_out_zeros = 1;
    s->memory[i].upper_case_hex = 1;
    s->memory[i].num_columns = 16;
  }
}

// [SECTION] Reading

const SettingsSection *SettingsReadOpen(Settings *settings, const char *name) {
  if (!name) return nullptr;
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kSections); i++)
    if (strcmp(kSections[i].name, name) == 0) return &kSections[i];
  return nullptr;
}

bool SettingsSectionIsLayout(const char *name) {
  const SettingsSection *section = SettingsReadOpen(nullptr, name);
  if (!section) return false;
  switch (section->number) {
    case kSecWindowPos: case kSecStyle: case kSecRecentFiles: case kSecLayoutOther: case kSecOther:
      return false;
  }
  return true;
}

// A decimal integer that starts with a digit or "-"; false leaves the old value.
static bool ParseInt(const char *v, s32 *out) {
  bool negative = *v == '-';
  if (negative) v++;
  if (*v < '0' || *v > '9') return false;
  s64 value = 0;
  for (; *v >= '0' && *v <= '9'; v++)
    if (value <= 0x80000000ll) value = value * 10 + (*v - '0');
  if (negative) value = -value;
  if (value > 0x7FFFFFFFll) value = 0x7FFFFFFFll;
  if (value < -0x80000000ll) value = -0x80000000ll;
  *out = (s32)value;
  return true;
}

static int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

static bool ParseColor(const char *v, SettingsColor *out) {
  if (v[0] != '#') return false;
  u32 rgb = 0;
  for (int i = 1; i <= 6; i++) {
    int d = HexDigit(v[i]);
    if (d < 0) return false;
    rgb = rgb << 4 | (u32)d;
  }
  *out = ColorFromRgb(rgb);
  return true;
}

void SettingsSetFontName(char *name, u32 *file_part, const char *value, u64 length) {
  u64 n = TextCopyClamped(name, kSettingsFontNameCapacity, value, length);
  u32 part = 0;
  for (u64 i = 0; i < n; i++)
    if (name[i] == '\\' || name[i] == '/') part = (u32)i + 1;
  *file_part = part;
}

void SettingsReadLine(Settings *settings, const SettingsSection *section, const char *line) {
  if (!section || !line || section->number < 1 || section->number > kSecLast) return;
  if (section->number == kSecRecentFiles) {
    RecentFilesLoadLine(&settings->recent_files, line);
    return;
  }
  u32 family = FamilyOf(section->number);
  u8 *base = SectionBase(settings, section->number);
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kKeys); i++) {
    const SettingsKey *k = &kKeys[i];
    u64 key_length = strlen(k->key);
    if (k->family != family || strncmp(line, k->key, key_length) != 0 || line[key_length] != '=') continue;
    const char *value = line + key_length + 1;
    u64 value_length = strlen(value);
    while (value_length && (value[value_length - 1] == '\r' || value[value_length - 1] == '\n')) value_length--;
    void *field = base + k->offset;
    switch (k->type) {
      case kBool: *(u8 *)field = value[0] != '0'; break;
      case kInt: ParseInt(value, (s32 *)field); break;
      case kVerbosity: *(u8 *)field = value[0] == '0' ? 0 : value[0] == '1' ? 1 : 2; break;
      case kColor: ParseColor(value, (SettingsColor *)field); break;
      case kFontName: SettingsSetFontName((char *)field, (u32 *)(base + k->extra), value, value_length); break;
    }
    return;
  }
}

void SettingsLoadIniText(Settings *settings, const char *text, u64 length) {
  const SettingsSection *open = nullptr;
  u64 at = 0;
  char line[4096];
  while (at < length) {
    u64 end = at;
    while (end < length && text[end] != '\n' && text[end] != '\r') end++;
    u64 n = TextCopyClamped(line, sizeof(line), text + at, end - at);
    at = end + 1;
    line[strnlen(line, n)] = 0;  // an embedded zero ends the line, as it would in a C string
    n = strlen(line);
    if (line[0] == ';') continue;
    if (line[0] == '[' && n > 0 && line[n - 1] == ']') {
      // "[Type][Name]": the type ends at the first ']'; the name runs from the next '[' to the end.
      open = nullptr;
      line[n - 1] = 0;
      char *type_end = strchr(line + 1, ']');
      char *name = type_end ? strchr(type_end + 1, '[') : nullptr;
      if (!type_end || !name) continue;
      *type_end = 0;
      if (strcmp(line + 1, "Kestrune") == 0) open = SettingsReadOpen(settings, name + 1);
      continue;
    }
    if (open) SettingsReadLine(settings, open, line);
  }
}

// [SECTION] Writing

static void Emit(const SettingsTextSink *sink, const char *text) { sink->append(sink->user, text, strlen(text)); }

static u32 ColorChannel(f32 value) {
  if (!(value >= 0.0f)) value = 0.0f;  // also catches NaN
  if (value > 1.0f) value = 1.0f;
  return (u32)(value * 255.0f + 0.5f);
}

static void WriteKey(const SettingsKey *k, const u8 *base, const SettingsTextSink *sink) {
  char line[kSettingsFontNameCapacity + 64];
  const void *field = base + k->offset;
  switch (k->type) {
    case kBool: snprintf(line, sizeof(line), "%s=%d\n", k->key, *(const u8 *)field ? 1 : 0); break;
    case kInt: snprintf(line, sizeof(line), "%s=%d\n", k->key, *(const s32 *)field); break;
    // Only 0 or 1 is written: a stored 2 comes back as 1. Kept on purpose.
    case kVerbosity: snprintf(line, sizeof(line), "%s=%d\n", k->key, *(const u8 *)field ? 1 : 0); break;
    case kColor: {
      const SettingsColor *c = (const SettingsColor *)field;
      snprintf(line, sizeof(line), "%s=#%02X%02X%02X\n", k->key, ColorChannel(c->r), ColorChannel(c->g),
               ColorChannel(c->b));
      break;
    }
    case kFontName:
      snprintf(line, sizeof(line), "%s=%.*s\n", k->key, (int)strnlen((const char *)field, kSettingsFontNameCapacity - 1),
               (const char *)field);
      break;
  }
  Emit(sink, line);
}

void SettingsWriteAll(const Settings *settings, const SettingsTextSink *sink) {
  if (!sink || !sink->append) return;
  char header[64];
  for (u32 i = 0; i < KTRN_ARRAY_COUNT(kWriteOrder); i++) {
    u32 number = kWriteOrder[i];
    snprintf(header, sizeof(header), "[Kestrune][%s]\n", kSections[number - 1].name);
    Emit(sink, header);
    if (number == kSecRecentFiles) {
      const RecentFiles *recent = &settings->recent_files;
      for (u32 r = 0; r < recent->count && r < kRecentFilesMax; r++) {
        u64 n = strnlen(recent->paths[r], kRecentPathCapacity - 1);
        if (!n) continue;
        sink->append(sink->user, recent->paths[r], n);
        Emit(sink, "\n");
      }
      continue;
    }
    u32 family = FamilyOf(number);
    const u8 *base = SectionBase((Settings *)settings, number);
    for (u32 k = 0; k < KTRN_ARRAY_COUNT(kKeys); k++)
      if (kKeys[k].family == family) WriteKey(&kKeys[k], base, sink);
  }
}
