// Types of the C++ test program: classes with single, multiple and virtual inheritance, virtual
// functions, methods and overloads, static members, nested types, templates, scoped enums.
#pragma once
#include <stdint.h>

namespace geo {

struct Base {
  int a;
  int b;
};

class Derived : public Base {
 public:
  int c;
  int Sum() const { return a + b + c; }
};

class Shape {
 public:
  virtual ~Shape() {}
  virtual double Area() const = 0;
  virtual const char *Name() const { return "shape"; }
  static int s_count;
  int id;
};

class Named {
 public:
  virtual void Rename(const char *name) { label = name; }
  const char *label;
  short flags;
};

// Two bases, each with a virtual-table pointer.
class Circle : public Shape, public Named {
 public:
  struct Center {
    double x, y;
  };
  enum Style : unsigned char { kFilled = 1, kOutlined = 2 };
  explicit Circle(double r) : radius(r) {}
  double Area() const override { return 3.0 * radius * radius; }
  double Area(double scale) const { return Area() * scale; }
  void Rename(const char *name) override { label = name; }
  Center center;
  double radius;
  Style style;
};

// A virtual base: its members lie at an offset known only at run time.
struct Root {
  int root_value;
};
struct Left : virtual Root {
  int left_value;
};
struct Right : virtual Root {
  int right_value;
};
struct Diamond : Left, Right {
  int diamond_value;
};

template <typename T, int N>
struct Buffer {
  T items[N];
  int used;
  T *Begin() { return items; }
};

enum class Signal : long long { kLow = -0x100000000LL, kNone = 0, kHigh = 0x7FFFFFFFFFFFFFFFLL };
enum class Tiny : signed char { kMinus = -128, kPlus = 127 };

struct Packet {
  uint32_t kind : 4;
  uint32_t length : 12;
  int32_t adjust : 7;
  bool urgent : 1;
  uint64_t stamp : 48;
  Signal signal;
  Tiny tiny;
  Buffer<short, 5> shorts;
  Buffer<Circle *, 2> circles;
  double (Circle::*area)() const;
  int Derived::*member;
  const Base &(*pick)(const Base &, const Base &);
  volatile const char *const *names;
  wchar_t wide;
  char16_t utf16;
  char32_t utf32;
};

}  // namespace geo
