// Small functions that the frames program inlines from a header: their inlined lines name this file.
#pragma once

static inline int Square(int value) { return value * value; }

static inline int Twice(int value) {
  int doubled = value + value;
  return doubled > 100 ? Square(doubled) % 97 : doubled;
}
