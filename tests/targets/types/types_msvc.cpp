// The MSVC-ABI test program of the type tests (clang-cl, no C library headers, printf from
// msvcrt.dll): the layouts that differ from the mingw ABI, namely virtual bases reached through a
// virtual-base pointer, MSVC's bit-field packing, member-function pointers of every inheritance
// model, packed and over-aligned structures. It prints them as layout.h does.
#include "layout.h"

extern "C" int _fltused = 0;
extern "C" __declspec(dllimport) void __stdcall ExitProcess(unsigned code);

namespace ms {

struct Root {
  int root_value;
  virtual ~Root() {}
};
struct Left : virtual Root {
  int left_value;
};
struct Right : virtual Root {
  short right_value;
};
struct Diamond : Left, Right {
  char diamond_value;
  virtual void Touch() {}
};

struct Single {
  int s;
  void Method() {}
};
struct Multiple : Single, Root {
  int m;
  void Method2() {}
};
struct Virtual : virtual Single {
  int v;
};
struct Unknown;

#pragma pack(push, 1)
struct Packed {
  char tag;
  int value;
  short small;
  double wide;
};
#pragma pack(pop)

struct alignas(16) Aligned {
  char c;
  float f[3];
  long long q;
};

struct Bits {
  char a : 3;
  char b : 6;  // does not fit beside a: a new char unit
  int c : 4;   // another type: a new int unit
  int d : 30;
  unsigned long long e : 33;
  short f : 2;
};

enum class Wide : __int64 { kLow = -0x7FFFFFFFFFFFFFFFLL, kHigh = 0x7FFFFFFFFFFFFFFFLL };

struct Pointers {
  void (Single::*single)();
  void (Multiple::*multiple)();
  void (Virtual::*virtual_model)();
  void (Unknown::*unknown_model)();
  int Single::*data;
  Wide wide;
  Packed packed;
  Bits bits;
};

}  // namespace ms

using namespace ms;

// No C runtime runs static constructors here: objects with virtual tables live in main's frame.
void operator delete(void *, unsigned long long) {}
void operator delete(void *) {}

Pointers g_pointers;
Aligned g_aligned;

static void PrintLayouts() {
  LAYOUT_TYPE(ms::Root);
  LAYOUT_MEMBER(Root, root_value);
  LAYOUT_TYPE(ms::Left);
  LAYOUT_MEMBER(Left, left_value);
  LAYOUT_TYPE(ms::Diamond);
  LAYOUT_MEMBER(Diamond, left_value);
  LAYOUT_MEMBER(Diamond, right_value);
  LAYOUT_MEMBER(Diamond, diamond_value);
  LAYOUT_TYPE(ms::Multiple);
  LAYOUT_MEMBER(Multiple, s);
  LAYOUT_MEMBER(Multiple, root_value);
  LAYOUT_MEMBER(Multiple, m);
  LAYOUT_TYPE(ms::Virtual);
  LAYOUT_MEMBER(Virtual, v);
  LAYOUT_TYPE(ms::Packed);
  LAYOUT_MEMBER(Packed, tag);
  LAYOUT_MEMBER(Packed, value);
  LAYOUT_MEMBER(Packed, small);
  LAYOUT_MEMBER(Packed, wide);
  LAYOUT_TYPE(ms::Aligned);
  LAYOUT_MEMBER(Aligned, c);
  LAYOUT_MEMBER(Aligned, f);
  LAYOUT_MEMBER(Aligned, q);
  LAYOUT_TYPE(ms::Bits);
  LAYOUT_BITS(Bits, a);
  LAYOUT_BITS(Bits, b);
  LAYOUT_BITS(Bits, c);
  LAYOUT_BITS(Bits, d);
  LAYOUT_BITS(Bits, e);
  LAYOUT_BITS(Bits, f);
  LAYOUT_TYPE(ms::Wide);
  LAYOUT_TYPE(ms::Pointers);
  LAYOUT_MEMBER(Pointers, single);
  LAYOUT_MEMBER(Pointers, multiple);
  LAYOUT_MEMBER(Pointers, virtual_model);
  LAYOUT_MEMBER(Pointers, unknown_model);
  LAYOUT_MEMBER(Pointers, data);
  LAYOUT_MEMBER(Pointers, wide);
  LAYOUT_MEMBER(Pointers, packed);
  LAYOUT_MEMBER(Pointers, bits);
}

extern "C" void mainCRTStartup() {
  Diamond diamond;
  Multiple multiple;
  Virtual virtual_object;
  PrintLayouts();
  g_pointers.single = &Single::Method;
  g_pointers.multiple = &Multiple::Method2;
  g_pointers.data = &Single::s;
  g_pointers.wide = Wide::kHigh;
  diamond.Touch();
  multiple.m = virtual_object.v = 0;
  ExitProcess(g_aligned.c + multiple.m);
}
