// The font atlas built from the settings: the UI font and the text font at their pixel sizes (times
// the window's display scale), each with the symbol font merged in for the run-control glyphs.
#pragma once
#include "app/app_state.h"

struct ImFont;

struct SymbolFont {
  const void *data;  // the executable's resource: lives as long as the program
  u64 size;
};

struct FontsBuilt {
  ImFont *ui;    // also Dear ImGui's default font
  ImFont *text;  // source and disassembly text
};

// Clears Dear ImGui's atlas and adds both fonts. An empty font name means "lucon.ttf" in the
// system fonts folder, or, where that folder has none (as under Wine), the font built into Dear
// ImGui. A named font that cannot be read or is no TrueType file is reported in the output window
// and replaced by the built-in font (at its own 13 px, times the scale: other sizes blur it). The
// caller uploads the atlas texture afterwards.
FontsBuilt FontsBuild(AppState *app, const SymbolFont *symbols, float display_scale);
