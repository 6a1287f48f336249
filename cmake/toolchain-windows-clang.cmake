# Cross-compiles 64-bit Windows programs with clang 14 and lld against Debian's mingw-w64 headers and
# runtime. Every executable gets a CodeView PDB beside it (lld chooses the name when --pdb is empty).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KTRN_WIN_TRIPLE x86_64-w64-windows-gnu)
set(KTRN_MINGW_GCC_DIR /usr/lib/gcc/x86_64-w64-mingw32/12-posix)

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_RC_COMPILER llvm-windres-14)
set(CMAKE_AR llvm-ar-14)
set(CMAKE_RANLIB llvm-ranlib-14)
set(CMAKE_C_COMPILER_TARGET ${KTRN_WIN_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${KTRN_WIN_TRIPLE})
set(CMAKE_RC_FLAGS "--target=x86_64-w64-mingw32")

set(CMAKE_C_FLAGS_INIT "-gcodeview")
set(CMAKE_CXX_FLAGS_INIT "-gcodeview -isystem ${KTRN_MINGW_GCC_DIR}/include/c++ -isystem ${KTRN_MINGW_GCC_DIR}/include/c++/x86_64-w64-mingw32")
set(KTRN_WIN_LINK_FLAGS "-Wno-unused-command-line-argument -fuse-ld=lld -Wl,--pdb= -L${KTRN_MINGW_GCC_DIR} -static -pthread")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${KTRN_WIN_LINK_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${KTRN_WIN_LINK_FLAGS}")

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
