// Readable names of C++ types from the decorated names in MSVC type descriptors, as a C++
// exception's throw information carries them: ".?AVruntime_error@std@@" is "std::runtime_error".
#pragma once
#include "base/types.h"

// Writes the readable name (always terminated). Forms it does not know are copied as they are.
void CxxTypeNameFromDecorated(const char *decorated, char *out, u32 capacity);
