#!/usr/bin/env python3
"""Writes the C++ sources of the synthetic program whose PDB the PDB benchmarks read.

    write_program.py UNITS FUNCTIONS OUT_DIR [--seed N]

OUT_DIR receives core.h (types and inline helpers every unit includes, so their records are shared
across modules and their lines show up as inline sites), unit0000.cpp ... (UNITS translation units,
each with FUNCTIONS out-of-line functions, each unit's own entry point besides) and start.cpp (the
image's entry point, which calls every unit). The program needs no headers or libraries from any
SDK: it is built freestanding and never run, only read.

A unit is a run of families of eight functions over types of their own: an enumeration, a union, a
linked node with bit fields, a function pointer and a pointer to a shared template, a class
template, and a class hierarchy of three levels with a virtual method. The eight functions are a
list walk, a switch over the enumeration, two instantiations of a function template, a member of
the class template (explicitly instantiated), and the three overrides of the virtual method. Each
function body is about a dozen statements on lines of their own, so that the optimised code keeps a
line record for most of them. Names, constants, enumerator counts, template arguments and statement
mixes are drawn from a fixed-seed generator, so the same arguments always give the same sources.
"""
import argparse
import os

ROLES_PER_FAMILY = 8

# Words that names are made of; unit namespaces and family namespaces combine two of them.
WORDS_A = ["route", "cache", "packet", "sample", "render", "audio", "script", "shader", "socket",
           "memory", "thread", "vector", "parse", "crypt", "stream", "index", "query", "layout",
           "input", "asset", "physics", "net", "disk", "timer"]
WORDS_B = ["frame", "table", "queue", "graph", "store", "batch", "chunk", "block", "buffer",
           "state", "pool", "plan", "map", "list", "tree", "heap", "span", "view", "set", "cursor"]
ENUM_NAMES = ["Tone", "Mode", "Phase", "Kind", "Level", "Status", "Flavor"]
ENUMERATORS = ["idle", "warm", "hot", "cold", "open", "shut", "early", "late", "north", "south",
               "left", "right", "fast", "slow", "dirty", "clean", "empty", "full", "first", "last"]
UNION_NAMES = ["Cell", "Word", "Payload", "Value", "Slot"]
NODE_NAMES = ["Node", "Link", "Entry", "Item", "Record"]
TALLY_NAMES = ["Tally", "Ring", "Bins", "Window", "Stack"]
HIERARCHIES = [("Shape", "Box", "Crate"), ("Device", "Disk", "Volume"), ("Stage", "Pass", "Sweep"),
               ("Filter", "Blur", "Glow"), ("Channel", "Pipe", "Tap"), ("Sensor", "Probe", "Gauge")]
METHOD_NAMES = ["measure", "weigh", "score", "cost", "rank"]
INT_TYPES = ["short", "int", "unsigned", "long long", "unsigned char"]
FOLD_TYPES = ["int", "long long", "unsigned", "short", "double", "unsigned long long"]


class Draw:
    """xorshift64*: the same numbers on every Python, unlike the random module across versions."""

    def __init__(self, seed):
        self.state = (seed * 0x9E3779B97F4A7C15 + 0x632BE59BD9B4E019) & 0xFFFFFFFFFFFFFFFF or 1

    def next(self):
        x = self.state
        x ^= x >> 12
        x ^= (x << 25) & 0xFFFFFFFFFFFFFFFF
        x ^= x >> 27
        self.state = x
        return (x * 0x2545F4914F6CDD1D) & 0xFFFFFFFFFFFFFFFF

    def below(self, n):
        return (self.next() >> 33) % n

    def between(self, lo, hi):
        return lo + self.below(hi - lo + 1)

    def pick(self, items):
        return items[self.below(len(items))]


# ---------------------------------------------------------------------------------------------
# Statements that change an integer accumulator `acc`. Each one is cheap to emit and depends on
# acc and on something the optimiser cannot know, so it stays in the code with a line of its own.

def int_steps(draw, count, inputs):
    """count statements over acc; inputs are int-valued expressions the function has at hand."""
    out = []
    for _ in range(count):
        kind = draw.below(9)
        a = draw.pick(inputs)
        c = draw.between(3, 251)
        if kind == 0:
            out.append("acc = acc * %d + %s;" % (c | 1, a))
        elif kind == 1:
            out.append("acc ^= acc >> %d;" % draw.between(1, 13))
        elif kind == 2:
            out.append("if (acc & %d) acc += %s;" % (1 << draw.between(0, 9), a))
        elif kind == 3:
            out.append("acc = core::mix(acc, %s + %d);" % (a, c))
        elif kind == 4:
            out.append("acc -= core::clamp(%s, %d, %d);" % (a, -c, c * 7))
        elif kind == 5:
            out.append("sink[acc & 15] = acc + %d;" % c)
        elif kind == 6:
            out.append("acc += sink[(%s) & 15] * %d;" % (a, c))
        elif kind == 7:
            out.append("if (acc > %d) acc /= %d; else acc += %s;" % (c * 1000, draw.between(3, 9), a))
        else:
            out.append("acc = (acc << %d) | (acc >> %d);" % (draw.between(1, 7), draw.between(17, 29)))
    return out


# ---------------------------------------------------------------------------------------------
# One family: its names are drawn once, then its declarations, its definitions and the lines of
# the unit's entry point that call it are written from them.

def draw_family(draw, index):
    hierarchy = draw.pick(HIERARCHIES)
    fold_types = [draw.pick(FOLD_TYPES)]
    fold_types.append(draw.pick([t for t in FOLD_TYPES if t != fold_types[0]]))
    return {
        "space": "%s_%s%d" % (draw.pick(WORDS_A), draw.pick(WORDS_B), index),
        "enum": draw.pick(ENUM_NAMES),
        "enum_base": draw.pick(["unsigned char", "short", "int", "unsigned"]),
        "enumerators": [ENUMERATORS[(draw.below(len(ENUMERATORS)) + k * 7) % len(ENUMERATORS)] + str(k)
                        for k in range(draw.between(3, 9))],
        "union": draw.pick(UNION_NAMES),
        "union_bytes": draw.between(2, 12),
        "node": draw.pick(NODE_NAMES),
        "tally": draw.pick(TALLY_NAMES),
        "tally_type": draw.pick(INT_TYPES),
        "tally_size": draw.between(2, 8),
        "base": hierarchy[0], "mid": hierarchy[1], "leaf": hierarchy[2],
        "method": draw.pick(METHOD_NAMES),
        "fold_types": fold_types,
        "seed": draw.between(1, 1 << 20),
    }


def family_declarations(f, roles):
    e, u, n, t = f["enum"], f["union"], f["node"], f["tally"]
    out = ["namespace %s {" % f["space"]]
    out.append("enum class %s : %s { %s };" % (e, f["enum_base"], ", ".join(f["enumerators"])))
    out.append("union %s { int whole; float ratio; unsigned char bytes[%d]; %s* alias; };"
               % (u, f["union_bytes"], u))
    out.append("struct %s {" % n)
    out.append("  %s* next;" % n)
    out.append("  const %s* owner;" % n)
    out.append("  %s cell;" % u)
    out.append("  %s tone;" % e)
    out.append("  int weight;")
    out.append("  unsigned flags : 3;")
    out.append("  unsigned depth : 5;")
    out.append("  int (*hook)(int);")
    out.append("  core::Span<%s> children;" % n)
    # Declared, never defined or called: members a real class has, which cost the compiler
    # nothing but a place in the class's records.
    out.append("  bool is_leaf() const;")
    out.append("  int depth_below(int limit) const;")
    out.append("};")
    out.append("int walk(%s* head, int limit);" % n)
    if roles > 1:
        out.append("int classify(%s tone, const %s& cell);" % (e, u))
    if roles > 2:
        out.append("template <typename T> T fold(const T* p, int n);")
    if roles > 4:
        out.append("template <typename T, int N> struct %s {" % t)
        out.append("  T bins[N];")
        out.append("  int count;")
        out.append("  core::Severity worst;")
        out.append("  int fill(T v, int k);")
        out.append("};")
    m = f["method"]
    if roles > 5:
        out.append("struct %s {" % f["base"])
        out.append("  virtual int %s(int x) const;" % m)
        out.append("  int id;")
        out.append("  %s* first;" % n)
        out.append("  core::Clock clock;")
        out.append("  static const int kLimit = %d;" % (f["seed"] % 1000))
        out.append("  int size() const;")
        out.append("  void reset(int to);")
        out.append("  bool same(const %s& other) const;" % f["base"])
        out.append("  static int live_count();")
        out.append("};")
    if roles > 6:
        out.append("struct %s : %s {" % (f["mid"], f["base"]))
        out.append("  int %s(int x) const override;" % m)
        out.append("  %s<%s, %d> marks;" % (t, f["tally_type"], f["tally_size"]))
        out.append("  core::Bits32 mask;")
        out.append("  core::Span<const %s> parents;" % n)
        out.append("  %s* twin() const;" % f["mid"])
        out.append("  void attach(%s* node, %s tone);" % (n, e))
        out.append("};")
    if roles > 7:
        out.append("struct %s final : %s {" % (f["leaf"], f["mid"]))
        out.append("  enum Grade { coarse, fine, exact };")
        out.append("  int %s(int x) const override;" % m)
        out.append("  Grade grade;")
        out.append("  %s tone;" % e)
        out.append("  core::Span<%s> nodes;" % n)
        out.append("  struct Stat { short low, high; double mean; } stat;")
        out.append("  %s<unsigned char, %d> history;" % (t, f["tally_size"] + 1))
        out.append("  unsigned long long digest() const;")
        out.append("  Grade grade_of(int x) const;")
        out.append("  volatile %s* const* table;" % u)
        out.append("};")
    out.append("}  // namespace %s" % f["space"])
    return out


def body(head, lines):
    return ["__declspec(noinline) " + head + " {"] + ["  " + s for s in lines] + ["}"]


def family_definitions(draw, f, roles, earlier):
    """earlier: qualified walk functions of the unit's earlier families, which these may call."""
    e, u, n, t, m = f["enum"], f["union"], f["node"], f["tally"], f["method"]
    ens = f["enumerators"]
    out = ["namespace %s {" % f["space"]]
    callee = draw.pick(earlier) if earlier else None

    # 0: walk a list
    lines = ["int acc = limit * %d;" % (f["seed"] % 97 + 3)]
    lines.append("int %s::*field = &%s::weight;" % (n, n))
    lines.append("for (%s* p = head; p && limit > 0; p = p->next, --limit) {" % n)
    lines.append("  acc += p->*field;")
    lines.append("  if (p->tone == %s::%s) acc ^= p->cell.whole;" % (e, draw.pick(ens)))
    lines.append("  else acc -= p->flags + p->depth;")
    lines.append("  if (p->hook) acc = p->hook(acc);")
    lines.append("}")
    lines += int_steps(draw, draw.between(3, 6), ["limit", "acc", "(head ? head->weight : 0)"])
    if callee:
        lines.append("acc += %s(nullptr, limit & %d);" % (callee, draw.between(1, 3)))
    lines.append("return acc;")
    out += body("int walk(%s* head, int limit)" % n, lines)

    # 1: switch over the enumeration
    if roles > 1:
        lines = ["int acc = %d;" % draw.between(1, 999), "switch (tone) {"]
        for k, name in enumerate(ens):
            form = draw.below(4)
            if form == 0:
                lines.append("  case %s::%s: acc = cell.whole * %d + %d; break;" % (e, name, k + 3, draw.between(1, 99)))
            elif form == 1:
                lines.append("  case %s::%s: acc += cell.bytes[%d] << %d; break;" % (e, name, draw.below(f["union_bytes"]), k % 8))
            elif form == 2:
                lines.append("  case %s::%s: acc = cell.alias ? cell.alias->whole : %d; break;" % (e, name, k))
            else:
                lines.append("  case %s::%s: acc ^= sink[%d]; break;" % (e, name, k % 16))
        lines.append("}")
        lines += int_steps(draw, draw.between(3, 6), ["acc", "cell.whole", "(int)tone"])
        lines.append("return acc;")
        out += body("int classify(%s tone, const %s& cell)" % (e, u), lines)

    # 2, 3: a function template, instantiated for two element types
    if roles > 2:
        lines = ["T acc = T(%d);" % draw.between(1, 50), "for (int i = 0; i < n; ++i) {",
                 "  acc += p[i] * T(i + %d);" % draw.between(1, 9),
                 "  if (p[i] > acc) acc = p[i] - acc;",
                 "  acc = acc * T(%d) + T(sink[i & 15]);" % draw.between(2, 9),
                 "}",
                 "sink[n & 15] = int(acc);",
                 "if (n > %d) acc += fold(p + 1, n - %d);" % (draw.between(4, 12), draw.between(2, 5)),
                 "acc = acc - T(n);",
                 "return acc;"]
        out.append("template <typename T>")
        out += body("T fold(const T* p, int n)", lines)
        for ty in f["fold_types"][: 1 if roles == 3 else 2]:
            out.append("template %s fold<%s>(const %s* p, int n);" % (ty, ty, ty))

    # 4: a member of the class template, explicitly instantiated
    if roles > 4:
        lines = ["if (count < N) bins[count++] = v;",
                 "int acc = k;",
                 "for (int i = 0; i < count; ++i) {",
                 "  acc += int(bins[i]) * (i + %d);" % draw.between(1, 9),
                 "  if (acc < 0) worst = core::Severity::warn;",
                 "}"]
        lines += int_steps(draw, draw.between(3, 6), ["k", "acc", "count"])
        lines.append("return acc;")
        out.append("template <typename T, int N>")
        out += body("int %s<T, N>::fill(T v, int k)" % t, lines)
        out.append("template struct %s<%s, %d>;" % (t, f["tally_type"], f["tally_size"]))

    # 5, 6, 7: the virtual method at each level
    if roles > 5:
        lines = ["int acc = id * %d + x;" % draw.between(3, 99),
                 "for (const %s* p = first; p; p = p->next) {" % n,
                 "  acc += p->weight;",
                 "  acc ^= int(p->children.size);",
                 "}",
                 "acc += int(clock.ticks >> %d);" % draw.between(1, 20)]
        lines += int_steps(draw, draw.between(3, 5), ["x", "acc", "id"])
        lines.append("return acc;")
        out += body("int %s::%s(int x) const" % (f["base"], m), lines)
    if roles > 6:
        lines = ["int acc = %s::%s(x);" % (f["base"], m),
                 "for (int i = 0; i < marks.count; ++i) acc += int(marks.bins[i]);",
                 "acc ^= int(mask.u >> %d);" % draw.between(1, 24),
                 "if (marks.worst == core::Severity::error) acc = -acc;"]
        lines += int_steps(draw, draw.between(3, 5), ["x", "acc", "marks.count"])
        lines.append("return acc;")
        out += body("int %s::%s(int x) const" % (f["mid"], m), lines)
    if roles > 7:
        lines = ["int acc = %s::%s(x + %d);" % (f["mid"], m, draw.between(1, 9)),
                 "for (%s& child : nodes) acc += walk(&child, %d);" % (n, draw.between(1, 4)),
                 "switch (grade) {",
                 "  case coarse: acc >>= 1; break;",
                 "  case fine: acc += %d; break;" % draw.between(1, 99),
                 "  case exact: acc = classify(tone, first ? first->cell : %s{}); break;" % u,
                 "}"]
        lines += int_steps(draw, draw.between(2, 4), ["x", "acc", "id"])
        lines.append("return acc;")
        out += body("int %s::%s(int x) const" % (f["leaf"], m), lines)
    out.append("}  // namespace %s" % f["space"])
    return out


def family_calls(f, roles):
    """Lines of the unit's entry point that reach the family: objects built, functions called."""
    n, e = f["node"], f["enum"]
    out = ["{", "  using namespace %s;" % f["space"],
           "  %s a{}, b{};" % n,
           "  a.next = &b;",
           "  a.weight = r;",
           "  a.tone = %s::%s;" % (e, f["enumerators"][-1]),
           "  r += walk(&a, 2);"]
    if roles > 1:
        out.append("  r += classify(b.tone, a.cell);")
    if roles > 2:
        for k, ty in enumerate(f["fold_types"][: 1 if roles == 3 else 2]):
            out.append("  %s v%d[3] = {static_cast<%s>(r), %d, static_cast<%s>(r >> 3)};" % (ty, k, ty, k + 2, ty))
            out.append("  r += int(fold(v%d, 3));" % k)
    if roles > 4:
        out.append("  %s<%s, %d> tally{};" % (f["tally"], f["tally_type"], f["tally_size"]))
        out.append("  r += tally.fill(static_cast<%s>(r), 1);" % f["tally_type"])
    classes = [f["base"], f["mid"], f["leaf"]][: max(0, roles - 5)]
    if classes:
        out.append("  %s object{};" % classes[-1])
        out.append("  object.first = &a;")
        out.append("  const %s& view = object;" % f["base"])
        out.append("  r += view.%s(r);" % f["method"])
    out.append("}")
    return out


CORE_H = """\
// Shared by every unit: records that the linker merges across modules, and inline helpers whose
// lines appear in every module as inline sites.
#pragma once
namespace core {
enum class Severity : int { trace, debug, info, warn, error, fatal };
struct Clock { long long ticks; int rate; Severity level; };
union Bits32 { unsigned u; int i; float f; unsigned char b[4]; };
template <typename T> struct Span {
  T* first;
  long long size;
  T* begin() const { return first; }
  T* end() const { return first + size; }
};
inline int mix(int a, int b) {
  int h = a ^ (b << 5);
  return h + (a >> 3);
}
template <typename T> inline T clamp(T v, T lo, T hi) {
  if (v < lo) return lo;
  return v > hi ? hi : v;
}
}  // namespace core
"""


def write_unit(path, unit, functions, draw):
    space = "%s_%s_%d" % (draw.pick(WORDS_A), draw.pick(WORDS_B), unit)
    families = [draw_family(draw, k) for k in range((functions + ROLES_PER_FAMILY - 1) // ROLES_PER_FAMILY)]
    roles = [min(ROLES_PER_FAMILY, functions - k * ROLES_PER_FAMILY) for k in range(len(families))]
    out = ["// Unit %d of the synthetic program (written by write_program.py)." % unit,
           '#include "core.h"', "namespace %s {" % space, "volatile int sink[16];"]
    for f, r in zip(families, roles):
        out += family_declarations(f, r)
    walks = []
    for f, r in zip(families, roles):
        out += family_definitions(draw, f, r, walks[-6:])
        walks.append("%s::walk" % f["space"])
    out.append("int run(int seed) {")
    out.append("  int r = seed;")
    for f, r in zip(families, roles):
        out += ["  " + s for s in family_calls(f, r)]
    out.append("  return r;")
    out.append("}")
    out.append("}  // namespace %s" % space)
    with open(path, "w") as file:
        file.write("\n".join(out) + "\n")
    return space


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("units", type=int)
    parser.add_argument("functions", type=int, help="out-of-line functions per unit")
    parser.add_argument("out_dir")
    parser.add_argument("--seed", type=int, default=20240611)
    args = parser.parse_args()
    if args.units < 1 or args.functions < 1:
        parser.error("UNITS and FUNCTIONS must be at least 1")
    os.makedirs(args.out_dir, exist_ok=True)
    with open(os.path.join(args.out_dir, "core.h"), "w") as file:
        file.write(CORE_H)
    draw = Draw(args.seed)
    spaces = []
    for unit in range(args.units):
        spaces.append(write_unit(os.path.join(args.out_dir, "unit%04d.cpp" % unit), unit, args.functions, draw))
    start = ["// The image's entry point: calls each unit's run (written by write_program.py).",
             '#include "core.h"',
             # Any floating-point code makes the compiler ask for this symbol, which the C runtime
             # would define; the program links without one.
             'extern "C" int _fltused = 0;',
             # The compiler may call these for object copies and zeroing even in freestanding code.
             # The volatile stores keep it from making each loop a call of the function itself.
             'extern "C" void* memset(void* to, int value, unsigned long long size) {',
             '  volatile unsigned char* p = static_cast<unsigned char*>(to);',
             '  for (unsigned long long i = 0; i < size; ++i) p[i] = static_cast<unsigned char>(value);',
             '  return to;',
             '}',
             'extern "C" void* memcpy(void* to, const void* from, unsigned long long size) {',
             '  volatile unsigned char* p = static_cast<unsigned char*>(to);',
             '  const unsigned char* q = static_cast<const unsigned char*>(from);',
             '  for (unsigned long long i = 0; i < size; ++i) p[i] = q[i];',
             '  return to;',
             '}']
    start += ["namespace %s { int run(int seed); }" % s for s in spaces]
    start.append('extern "C" int synth_start() {')
    start.append("  int r = 0;")
    start += ["  r += %s::run(r & 7);" % s for s in spaces]
    start.append("  return r;")
    start.append("}")
    with open(os.path.join(args.out_dir, "start.cpp"), "w") as file:
        file.write("\n".join(start) + "\n")


if __name__ == "__main__":
    main()
