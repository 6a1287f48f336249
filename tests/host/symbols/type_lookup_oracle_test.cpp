// Types as the evaluator and the watch tree ask for them, against llvm-pdbutil's type listing of
// the test programs. Every named class, structure, union and enumeration (forward references
// included) is found by name, and so are pointers to it up to three deep, whether or not the PDB
// holds such pointer records: same target, 8 bytes, the name with " *" added. A type that the
// program only declares (frames' Lonely) is found through its forward reference. Every bit field
// prints as its type and its bits.
#include <gtest/gtest.h>
#include <string.h>

#include <set>

#include "oracle.h"
#include "symbols/pdb_type_lookup.h"
#include "symbols/type_names.h"

namespace {

// "  0x1004 | LF_STRUCTURE [size = 40] `frames::Pair`" and the other tag kinds.
std::set<std::string> TagNames(const std::string &pdb) {
  std::set<std::string> names;
  CommandResult run = RunCommand("llvm-pdbutil-14 dump -types " + Quote(pdb));
  for (const std::string &line : SplitLines(run.output)) {
    bool tag = false;
    for (const char *kind : {"| LF_STRUCTURE ", "| LF_CLASS ", "| LF_UNION ", "| LF_ENUM ", "| LF_INTERFACE "})
      tag = tag || line.find(kind) != std::string::npos;
    size_t open = line.find('`'), close = line.rfind('`');
    if (!tag || open == std::string::npos || close <= open + 1) continue;
    std::string name = line.substr(open + 1, close - open - 1);
    if (name.find("<unnamed") == std::string::npos && name.find("__unnamed") == std::string::npos &&
        name.find("<lambda") == std::string::npos)
      names.insert(name);
  }
  return names;
}

std::string Name(const PdbTypes *types, u32 index) {
  char text[4096];
  TypeNameFormat(types, index, text, sizeof(text));
  return text;
}

}  // namespace

TEST(TypePointers, EveryNamedTypeAndPointersToItAreFound) {
  ASSERT_FALSE(TargetsDir().empty());
  int named = 0;
  for (const std::string &pdb : FilesIn(TargetsDir(), ".pdb")) {
    SCOPED_TRACE(pdb);
    OpenedPdb opened(pdb);
    ASSERT_EQ(opened.status, kPdbOk);
    PdbFile &file = opened.pdb;
    const PdbTypes *types = &file.types;
    for (const std::string &name : TagNames(pdb)) {
      named++;
      u32 type = PdbLookupType(types, &file.globals, name.c_str(), (u32)name.size());
      ASSERT_NE(type, 0u) << name;
      std::string type_name = Name(types, type);
      u32 pointer_to = type;
      for (std::string stars = " *"; stars.size() <= 3; stars += "*") {
        std::string text = name + stars;
        u32 pointer = PdbLookupType(types, &file.globals, text.c_str(), (u32)text.size()), pointee = 0;
        ASSERT_TRUE(PdbTypeIsPointer(types, pointer, &pointee)) << text;
        EXPECT_EQ(pointee, pointer_to) << text;
        EXPECT_EQ(PdbTypeSize(types, pointer), 8u) << text;
        EXPECT_EQ(Name(types, pointer), type_name + stars) << text;
        pointer_to = pointer;
      }
    }
  }
  EXPECT_GT(named, 100);
}

TEST(TypePointers, DeclaredOnlyTypeIsFoundThroughItsForwardReference) {
  ASSERT_FALSE(TargetsDir().empty());
  for (const char *program : {"frames_o0", "frames_msvc_o2"}) {
    std::string pdb = TargetFile(std::string(program) + ".pdb");
    CommandResult type = PdbTool({"type", pdb, "Lonely"}), pointer = PdbTool({"type", pdb, "Lonely *"});
    ASSERT_EQ(type.exit_status, 0) << program;
    ASSERT_EQ(pointer.exit_status, 0) << program;
    EXPECT_NE(type.output.find("\tstruct\t0\tLonely\n"), std::string::npos) << type.output;
    EXPECT_NE(pointer.output.find("\tpointer\t8\tLonely *\n"), std::string::npos) << pointer.output;
  }
}

TEST(TypeTexts, BitFieldsShowTheirBits) {
  ASSERT_FALSE(TargetsDir().empty());
  int fields = 0;
  for (const std::string &pdb : FilesIn(TargetsDir(), ".pdb")) {
    SCOPED_TRACE(pdb);
    OpenedPdb opened(pdb);
    ASSERT_EQ(opened.status, kPdbOk);
    PdbFile &file = opened.pdb;
    CommandResult run = RunCommand("llvm-pdbutil-14 dump -types " + Quote(pdb));
    std::vector<std::string> lines = SplitLines(run.output);
    for (size_t i = 0; i + 1 < lines.size(); i++) {
      unsigned index, base, offset, bits;
      if (lines[i].find("| LF_BITFIELD ") == std::string::npos || sscanf(lines[i].c_str(), " 0x%x", &index) != 1 ||
          sscanf(lines[i + 1].c_str(), " type = 0x%x (%*[^)]), bit offset = %u, # bits = %u", &base, &offset, &bits) != 3)
        continue;
      fields++;
      std::string expected = Name(&file.types, base) + (bits == 1 ? " (Bit " + std::to_string(offset) + ")"
                                                                  : " (Bits " + std::to_string(offset) + ".." +
                                                                        std::to_string(offset + bits - 1) + ")");
      EXPECT_EQ(Name(&file.types, index), expected) << std::hex << index;
    }
  }
  EXPECT_GT(fields, 10);
}
