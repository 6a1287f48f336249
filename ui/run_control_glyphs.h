// The symbol font's glyphs that prefix the run-control labels (menus and toolbar), as UTF-8. The
// font is drawn by the build and merged into both fonts at the private-use code points
// U+E005 to U+E00D, one per action, in this order.
#pragma once

#define KTRN_GLYPH_CONTINUE "\xEE\x80\x85"               // U+E005: continue, start debugging
#define KTRN_GLYPH_STOP "\xEE\x80\x86"                   // U+E006
#define KTRN_GLYPH_RESTART "\xEE\x80\x87"                // U+E007
#define KTRN_GLYPH_BREAK "\xEE\x80\x88"                  // U+E008
#define KTRN_GLYPH_STEP_INTO "\xEE\x80\x89"              // U+E009: step into (line)
#define KTRN_GLYPH_STEP_OVER "\xEE\x80\x8A"              // U+E00A: step over (line)
#define KTRN_GLYPH_STEP_OUT "\xEE\x80\x8B"               // U+E00B
#define KTRN_GLYPH_STEP_INTO_INSTRUCTION "\xEE\x80\x8C"  // U+E00C
#define KTRN_GLYPH_STEP_OVER_INSTRUCTION "\xEE\x80\x8D"  // U+E00D

enum { kRunControlGlyphFirst = 0xE005, kRunControlGlyphLast = 0xE00D };
