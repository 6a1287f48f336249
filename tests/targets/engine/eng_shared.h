/* Code compiled into both eng_target.exe and eng_plugin.dll: one source line with code in two
   modules, where a line breakpoint binds in each. */
#pragma once

static int SharedScale(int n) {
  int scaled = n * 3;  // SHARED_SCALE_LINE
  return scaled;
}
