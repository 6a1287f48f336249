// The types of the evaluator's oracle program.
#pragma once

enum Color { kRed = 1, kGreen = 5, kBlue = 9 };
struct Point {
  int x;
  short y;
};
struct Inner {
  int c[4];
};
struct Mid {
  Inner b;
  double weight;
};
struct Outer {
  Mid a;
  Point *where;
};
struct Bits {
  unsigned lo : 3;
  unsigned mid : 4;
  int neg : 3;
  unsigned one : 1;
};
struct Base {
  int a;
  int b;
};
struct Derived : Base {
  int c;
};
union Number {
  int i;
  float f;
};
