# Zycore and Zydis, built as static libraries for both builds (the engine decodes with them; the
# host tests check the instruction classes of line stepping). They come from the pinned Debian
# source packages that scripts/setup.sh unpacks into .deps (never committed).

foreach(dir zydis zycore-c)
  if(NOT EXISTS ${KTRN_DEPS_DIR}/${dir}/.unpacked)
    message(FATAL_ERROR "${KTRN_DEPS_DIR}/${dir} is missing: run scripts/setup.sh first")
  endif()
endforeach()

# Zycore and Zydis: instruction decoding and Intel-syntax formatting.
file(GLOB ZYCORE_SOURCES ${KTRN_DEPS_DIR}/zycore-c/src/*.c ${KTRN_DEPS_DIR}/zycore-c/src/API/*.c)
add_library(zycore STATIC ${ZYCORE_SOURCES})
target_include_directories(zycore SYSTEM PUBLIC ${KTRN_DEPS_DIR}/zycore-c/include)
target_compile_definitions(zycore PUBLIC ZYCORE_STATIC_BUILD)
target_compile_options(zycore PRIVATE -w)

file(GLOB ZYDIS_SOURCES ${KTRN_DEPS_DIR}/zydis/src/*.c)
add_library(zydis STATIC ${ZYDIS_SOURCES})
target_include_directories(zydis SYSTEM PUBLIC ${KTRN_DEPS_DIR}/zydis/include)
target_include_directories(zydis PRIVATE ${KTRN_DEPS_DIR}/zydis/src)
target_compile_definitions(zydis PUBLIC ZYDIS_STATIC_BUILD)
target_link_libraries(zydis PUBLIC zycore)
target_compile_options(zydis PRIVATE -w)

