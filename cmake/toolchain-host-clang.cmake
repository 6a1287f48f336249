# Host (Linux) build of the portable layers with clang 14, so that sanitizers and libFuzzer are at hand.
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
