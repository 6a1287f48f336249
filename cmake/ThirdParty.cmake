# Third-party libraries, built as static libraries. Windows build only.
#  - Dear ImGui's docking branch is vendored, unmodified, in third_party/imgui (see VENDORED.md there);
#  - Zydis and Zycore: cmake/Zydis.cmake (both builds).

# Dear ImGui: the core and the Win32 platform backend (the renderer is our own, in app/).
set(IMGUI_DIR ${KTRN_ROOT}/third_party/imgui)
add_library(imgui STATIC
  ${IMGUI_DIR}/imgui.cpp ${IMGUI_DIR}/imgui_draw.cpp ${IMGUI_DIR}/imgui_tables.cpp
  ${IMGUI_DIR}/imgui_widgets.cpp ${IMGUI_DIR}/imgui_demo.cpp
  ${IMGUI_DIR}/backends/imgui_impl_win32.cpp)
target_include_directories(imgui SYSTEM PUBLIC ${IMGUI_DIR} ${IMGUI_DIR}/backends)
target_compile_definitions(imgui PUBLIC IMGUI_DISABLE_OBSOLETE_FUNCTIONS)
target_link_libraries(imgui PUBLIC dwmapi imm32 gdi32)
target_compile_options(imgui PRIVATE -w)

# GoogleTest for the tests that run under Wine, built from Debian's googletest source package.
set(KTRN_GTEST_SRC /usr/src/googletest/googletest)
add_library(ktrn_gtest STATIC ${KTRN_GTEST_SRC}/src/gtest-all.cc)
target_include_directories(ktrn_gtest SYSTEM PUBLIC ${KTRN_GTEST_SRC}/include)
target_include_directories(ktrn_gtest PRIVATE ${KTRN_GTEST_SRC})
target_compile_options(ktrn_gtest PRIVATE -w)
add_library(ktrn_gtest_main STATIC ${KTRN_GTEST_SRC}/src/gtest_main.cc)
target_link_libraries(ktrn_gtest_main PUBLIC ktrn_gtest)
target_compile_options(ktrn_gtest_main PRIVATE -w)
