// The user's preferences, kept in the sections "[Kestrune][Name]" of the ini file that Dear
// ImGui loads and saves ("imgui180.ini" in the settings folder).
//
// The three handler functions below have the shape of a Dear ImGui settings handler (open a
// section and get an entry, read one line into it, write every section) without depending on
// Dear ImGui: the program registers a thin adapter under the type name "Kestrune" that forwards
// to them.
#pragma once
#include "app/recent_files.h"
#include "base/types.h"

enum {
  kSettingsFontNameCapacity = 260,  // up to 259 characters
  kSettingsDefaultUiFontPx = 14,
  kSettingsDefaultTextFontPx = 15,
  kSettingsWatchWindows = 8,
  kSettingsMemoryWindows = 4,
  kSettingsUseDefault = (s32)0x80000000,  // CW_USEDEFAULT: let the system place the window
};

typedef struct SettingsColor { f32 r, g, b; } SettingsColor;  // each 0..1

typedef struct WatchWindowSettings {
  u8 show, show_type, show_comment, hexadecimal, column_major;
} WatchWindowSettings;

typedef struct MemoryWindowSettings {
  u8 show, show_data_preview, show_hex_ii, show_ascii, grey_out_zeros, upper_case_hex, read_only;
  s32 num_columns;  // bytes per row
} MemoryWindowSettings;

typedef struct Settings {
  // WindowPos: the last restored placement of the main window
  s32 window_x, window_y, window_w, window_h;
  u8 window_maximized;
  // Style
  char ui_font_name[kSettingsFontNameCapacity];
  u32 ui_font_file_part;  // where the file name begins inside ui_font_name (for display)
  s32 ui_font_size_px, ui_style, scrollbar_size_px;
  u8 show_window_focus, show_toolbar;
  char text_font_name[kSettingsFontNameCapacity];
  u32 text_font_file_part;
  s32 text_font_size_px;
  SettingsColor text_foreground, text_background;
  s32 text_tab_spacing;
  u8 evaluate_on_hover;
  s32 tooltip_delay_ms;
  // RecentFiles
  RecentFiles recent_files;
  // Other
  u8 auto_save_enabled, open_last_session_on_startup, auto_clear_output_window;
  u8 show_module_load, show_module_unload, show_thread_exit, show_process_exit;
  // LayoutOther
  u8 status_text_pos_top, status_text_show_pid;
  // ThreadsWindow
  u8 threads_show, threads_show_name, threads_show_module, threads_show_function_name,
      threads_show_calling_function_name, threads_show_address, threads_show_priority;
  // ModulesWindow
  u8 modules_show, modules_show_path, modules_show_address, modules_show_symbol_file, modules_show_status;
  // BreakpointsWindow
  u8 breakpoints_show;
  // CallstackWindow
  u8 callstack_show, callstack_show_module_name, callstack_show_address;
  u8 callstack_verbosity;  // 0 minimal, 1 top frame detailed, 2 detailed
  // RegistersWindow
  u8 registers_show, registers_show_rip, registers_show_general_purpose, registers_show_eflags,
      registers_show_segment, registers_show_sse, registers_show_avx, registers_show_avx512;
  // DisassemblyWindow
  u8 disassembly_show, disassembly_show_code_bytes, disassembly_show_address;
  // OutputWindow ShowWnd, also stored as Layout O
  u8 output_show;
  WatchWindowSettings watch[kSettingsWatchWindows];
  WatchWindowSettings locals;  // LocalsWindow: the watch windows' keys (its comment column unused)
  MemoryWindowSettings memory[kSettingsMemoryWindows];
} Settings;

void SettingsInitDefaults(Settings *settings);

// [SECTION] Handler
// A section of ours: its name between the second pair of brackets and its number (1 to 26).
typedef struct SettingsSection {
  const char *name;
  u32 number;
} SettingsSection;

// Maps a section name to its entry, or null for a name that is not ours (its lines are then
// ignored). Dear ImGui's ReadOpenFn.
const SettingsSection *SettingsReadOpen(Settings *settings, const char *name);
// Whether a section of ours belongs to a saved window layout (which tool windows are shown and
// their options) rather than to the user's other preferences (placement, style, recent sessions,
// behaviours, the status text), which loading a layout leaves alone.
bool SettingsSectionIsLayout(const char *name);
// One line of an opened section, without its line end. Dear ImGui's ReadLineFn.
void SettingsReadLine(Settings *settings, const SettingsSection *section, const char *line);

// Where the writer puts its text (Dear ImGui's text buffer, a file, a test string).
typedef struct SettingsTextSink {
  void *user;
  void (*append)(void *user, const char *text, u64 length);
} SettingsTextSink;

// Every section of ours, in the file's order, each line ending in a line feed. Dear ImGui's
// WriteAllFn appends this after its own sections.
void SettingsWriteAll(const Settings *settings, const SettingsTextSink *sink);

// Loads the sections of type "Kestrune" from a whole ini text, splitting lines and section
// headers the way Dear ImGui's loader does; other types' sections are skipped. Used where Dear
// ImGui is absent (tools, tests).
void SettingsLoadIniText(Settings *settings, const char *text, u64 length);

// Sets a font name (cut to 259 bytes) and remembers where its file name part begins.
void SettingsSetFontName(char *name, u32 *file_part, const char *value, u64 length);
