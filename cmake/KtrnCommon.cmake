# Flags and the helper functions every folder uses to declare libraries, tests, fuzzers and the
# programs that the tests debug.

set(KTRN_WARNINGS -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers)
add_compile_options(-fno-exceptions -fno-rtti)
# GoogleTest needs neither; the flags above are overridden for third-party code where it must.

if(NOT KTRN_WINDOWS)
  if(KTRN_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
  endif()
  if(KTRN_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
  endif()
  find_package(GTest REQUIRED)
  find_package(Threads REQUIRED)
endif()

if(KTRN_WINDOWS)
  # Windows 7 API level and up; UNICODE so that the wide calls are the defaults.
  add_compile_definitions(_WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE)
  set(KTRN_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
  configure_file(${KTRN_ROOT}/scripts/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run.sh @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run.sh)
  set(KTRN_WINE_RUN ${CMAKE_BINARY_DIR}/wine-run.sh)
endif()

# ktrn_library(NAME SOURCES... [DEPS libs...])
function(ktrn_library name)
  cmake_parse_arguments(A "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${A_SOURCES})
  target_include_directories(${name} PUBLIC ${KTRN_ROOT})
  target_compile_options(${name} PRIVATE ${KTRN_WARNINGS})
  if(A_DEPS)
    target_link_libraries(${name} PUBLIC ${A_DEPS})
  endif()
endfunction()

# ktrn_tool(NAME SOURCES... [DEPS libs...]): a command-line program of ours (host or Windows).
function(ktrn_tool name)
  cmake_parse_arguments(A "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
  target_compile_options(${name} PRIVATE ${KTRN_WARNINGS})
  target_link_libraries(${name} PRIVATE ${A_DEPS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endfunction()

# ktrn_test(NAME SOURCES... [DEPS libs...] LABELS labels... [TIMEOUT s]): a GoogleTest program,
# registered with CTest. On the Windows build it runs under Wine through the emulator script. The
# label is required: scripts/test.sh runs tests by label, so a test without one would never run.
function(ktrn_test name)
  cmake_parse_arguments(A "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT A_LABELS)
    message(FATAL_ERROR "ktrn_test(${name}) has no LABELS: scripts/test.sh would never run it")
  endif()
  add_executable(${name} ${A_SOURCES})
  target_compile_options(${name} PRIVATE ${KTRN_WARNINGS})
  if(KTRN_WINDOWS)
    target_link_libraries(${name} PRIVATE ${A_DEPS} ktrn_gtest_main)
  else()
    target_link_libraries(${name} PRIVATE ${A_DEPS} GTest::gtest_main Threads::Threads)
  endif()
  target_compile_definitions(${name} PRIVATE KTRN_SOURCE_DIR="${KTRN_ROOT}" KTRN_DATA_DIR="${KTRN_ROOT}/tests/data")
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${A_TIMEOUT} LABELS "${A_LABELS}")
endfunction()

# ktrn_fuzzer(NAME SOURCES... [DEPS libs...] [SEEDS dir] [RUNS n]): a libFuzzer target (host fuzz
# builds only), also registered as a test that runs a bounded number of inputs from its seeds.
function(ktrn_fuzzer name)
  cmake_parse_arguments(A "" "SEEDS;RUNS" "SOURCES;DEPS" ${ARGN})
  if(KTRN_WINDOWS OR NOT KTRN_FUZZ)
    return()
  endif()
  add_executable(${name} ${A_SOURCES})
  target_compile_options(${name} PRIVATE ${KTRN_WARNINGS})
  target_link_libraries(${name} PRIVATE ${A_DEPS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  if(NOT A_RUNS)
    set(A_RUNS 20000)
  endif()
  set(work ${CMAKE_BINARY_DIR}/fuzz/${name}.corpus)
  file(MAKE_DIRECTORY ${work})
  set(seed_args ${work})
  if(A_SEEDS)
    list(APPEND seed_args ${A_SEEDS})
  endif()
  add_test(NAME ${name} COMMAND ${name} -runs=${A_RUNS} -max_total_time=120 -rss_limit_mb=4096 ${seed_args})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS fuzz)
endfunction()

# ktrn_target_program(NAME SOURCES... [DEPS libs...] [WIN32] [C]): a program that the tests debug
# (Windows build only), built with CodeView and its PDB into tests/targets.
function(ktrn_target_program name)
  cmake_parse_arguments(A "WIN32" "" "SOURCES;DEPS;OPTIONS" ${ARGN})
  if(NOT KTRN_WINDOWS)
    return()
  endif()
  if(A_WIN32)
    add_executable(${name} WIN32 ${A_SOURCES})
  else()
    add_executable(${name} ${A_SOURCES})
  endif()
  target_compile_options(${name} PRIVATE -O0 ${A_OPTIONS})
  if(A_DEPS)
    target_link_libraries(${name} PRIVATE ${A_DEPS})
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/targets
                                           LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/targets)
endfunction()

# Adds every subfolder of the current folder that has a CMakeLists.txt, so that a new tool, test
# group or benchmark is one new folder and no shared list to edit.
function(ktrn_add_subfolders)
  file(GLOB children LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(child ${children})
    if(IS_DIRECTORY ${child} AND EXISTS ${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()
