// The C++ test program of the type tests: its PDB holds the types of types_cpp.h, and it prints
// their sizes, offsets and bit-field places as the compiler laid them out (see layout.h).
#include <stdlib.h>

#include "layout.h"
#include "types_cpp.h"

#pragma clang diagnostic ignored "-Winvalid-offsetof"

namespace geo {
int Shape::s_count = 0;
}

using namespace geo;

static const Base &Larger(const Base &x, const Base &y) { return x.a > y.a ? x : y; }

Derived g_derived;
Circle g_circle(2.0);
Diamond g_diamond;
Buffer<int, 3> g_ints;
Packet g_packet;
Signal g_signal = Signal::kHigh;

typedef Buffer<short, 5> ShortBuffer;
typedef Buffer<Circle *, 2> CircleBuffer;

static void PrintLayouts() {
  LAYOUT_TYPE(geo::Base);
  LAYOUT_MEMBER(Base, a);
  LAYOUT_MEMBER(Base, b);

  LAYOUT_TYPE(geo::Derived);
  LAYOUT_MEMBER(Derived, a);
  LAYOUT_MEMBER(Derived, b);
  LAYOUT_MEMBER(Derived, c);

  LAYOUT_TYPE(geo::Shape);
  LAYOUT_MEMBER(Shape, id);

  LAYOUT_TYPE(geo::Named);
  LAYOUT_MEMBER(Named, label);
  LAYOUT_MEMBER(Named, flags);

  LAYOUT_TYPE(geo::Circle);
  LAYOUT_MEMBER(Circle, id);
  LAYOUT_MEMBER(Circle, label);
  LAYOUT_MEMBER(Circle, flags);
  LAYOUT_MEMBER(Circle, center);
  LAYOUT_MEMBER(Circle, radius);
  LAYOUT_MEMBER(Circle, style);

  LAYOUT_TYPE(geo::Circle::Center);
  LAYOUT_MEMBER(Circle::Center, x);
  LAYOUT_MEMBER(Circle::Center, y);

  LAYOUT_TYPE(geo::Circle::Style);

  LAYOUT_TYPE(geo::Left);
  LAYOUT_MEMBER(Left, left_value);
  LAYOUT_TYPE(geo::Diamond);
  LAYOUT_MEMBER(Diamond, left_value);
  LAYOUT_MEMBER(Diamond, right_value);
  LAYOUT_MEMBER(Diamond, diamond_value);

  LAYOUT_TYPE_AS("geo::Buffer<short,5>", ShortBuffer);
  LAYOUT_MEMBER(ShortBuffer, items);
  LAYOUT_MEMBER(ShortBuffer, used);
  LAYOUT_TYPE_AS("geo::Buffer<geo::Circle *,2>", CircleBuffer);
  LAYOUT_MEMBER(CircleBuffer, items);
  LAYOUT_MEMBER(CircleBuffer, used);

  LAYOUT_TYPE(geo::Signal);
  LAYOUT_TYPE(geo::Tiny);

  LAYOUT_TYPE(geo::Packet);
  LAYOUT_BITS(Packet, kind);
  LAYOUT_BITS(Packet, length);
  LAYOUT_BITS(Packet, adjust);
  LAYOUT_BITS(Packet, urgent);
  LAYOUT_BITS(Packet, stamp);
  LAYOUT_MEMBER(Packet, signal);
  LAYOUT_MEMBER(Packet, tiny);
  LAYOUT_MEMBER(Packet, shorts);
  LAYOUT_MEMBER(Packet, circles);
  LAYOUT_MEMBER(Packet, area);
  LAYOUT_MEMBER(Packet, member);
  LAYOUT_MEMBER(Packet, pick);
  LAYOUT_MEMBER(Packet, names);
  LAYOUT_MEMBER(Packet, wide);
  LAYOUT_MEMBER(Packet, utf16);
  LAYOUT_MEMBER(Packet, utf32);
}

int main(int argc, char **argv) {
  PrintLayouts();
  g_packet.pick = Larger;
  g_packet.area = &Circle::Area;
  g_packet.member = &Derived::c;
  g_ints.used = g_ints.Begin() != nullptr;
  g_derived.c = g_circle.Area() > 1 ? argc : 0;
  g_diamond.root_value = g_derived.Sum();
  (void)argv;
  return g_signal == Signal::kNone;
}
