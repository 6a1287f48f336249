// Little-endian byte images built field by field, for crafted files and records:
// LeBytes().u16(kind).u32(type).name("x") gives the bytes of those fields in order.
#pragma once
#include <string>

#include "test_files.h"

struct LeBytes {
  Bytes b;
  LeBytes &u8(uint32_t v) { b.push_back((uint8_t)v); return *this; }
  LeBytes &u16(uint32_t v) { return u8(v).u8(v >> 8); }
  LeBytes &u32(uint32_t v) { return u16(v).u16(v >> 16); }
  LeBytes &u64(uint64_t v) { return u32((uint32_t)v).u32((uint32_t)(v >> 32)); }
  LeBytes &zero32(size_t words) { b.resize(b.size() + 4 * words, 0); return *this; }
  LeBytes &raw(const std::string &s) { b.insert(b.end(), s.begin(), s.end()); return *this; }
  LeBytes &raw(const Bytes &bytes) { b.insert(b.end(), bytes.begin(), bytes.end()); return *this; }
  LeBytes &name(const std::string &s) { return raw(s).u8(0); }            // zero-terminated
  LeBytes &str(const std::string &s) { return u32((uint32_t)s.size()).raw(s); }  // length first
  LeBytes &pad4() { while (b.size() % 4) b.push_back(0); return *this; }
  operator const Bytes &() const { return b; }
};
