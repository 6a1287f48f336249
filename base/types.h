// Fixed-width integer names and small helpers used everywhere.
#pragma once
#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t s8;
typedef int16_t s16;
typedef int32_t s32;
typedef int64_t s64;
typedef float f32;
typedef double f64;

#define KTRN_ARRAY_COUNT(a) (sizeof(a) / sizeof((a)[0]))
#define KTRN_KB(n) ((u64)(n) << 10)
#define KTRN_MB(n) ((u64)(n) << 20)
#define KTRN_GB(n) ((u64)(n) << 30)

static inline u64 AlignUp(u64 value, u64 alignment) { return (value + alignment - 1) & ~(alignment - 1); }
static inline u64 MinU64(u64 a, u64 b) { return a < b ? a : b; }
static inline u64 MaxU64(u64 a, u64 b) { return a > b ? a : b; }
