# kestrune.exe: the program itself (Windows build only). Its shaders are compiled at build time by
# ktrn-shaderc under Wine and embedded, with the icon and the symbol font, as resources.
set(KTRN_GEN_DIR ${CMAKE_CURRENT_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${KTRN_GEN_DIR})

add_custom_command(
  OUTPUT ${KTRN_GEN_DIR}/ui_vs.dxbc ${KTRN_GEN_DIR}/ui_ps.dxbc
  COMMAND ktrn-shaderc ${CMAKE_CURRENT_SOURCE_DIR}/shaders/ui.hlsl VertexMain vs_4_0 ${KTRN_GEN_DIR}/ui_vs.dxbc
  COMMAND ktrn-shaderc ${CMAKE_CURRENT_SOURCE_DIR}/shaders/ui.hlsl PixelMain ps_4_0 ${KTRN_GEN_DIR}/ui_ps.dxbc
  DEPENDS ktrn-shaderc ${CMAKE_CURRENT_SOURCE_DIR}/shaders/ui.hlsl
  COMMENT "Compiling the UI shaders")
add_custom_command(
  OUTPUT ${KTRN_GEN_DIR}/kestrune.ico
  COMMAND python3 ${KTRN_ROOT}/scripts/make_icon.py ${KTRN_GEN_DIR}/kestrune.ico
  DEPENDS ${KTRN_ROOT}/scripts/make_icon.py
  COMMENT "Drawing the program icon")
add_custom_command(
  OUTPUT ${KTRN_GEN_DIR}/symbols.ttf
  COMMAND python3 ${KTRN_ROOT}/scripts/make_symbol_font.py ${KTRN_GEN_DIR}/symbols.ttf
  DEPENDS ${KTRN_ROOT}/scripts/make_symbol_font.py
  COMMENT "Drawing the symbol font")
set_source_files_properties(resources/kestrune.rc PROPERTIES
  OBJECT_DEPENDS "${KTRN_GEN_DIR}/ui_vs.dxbc;${KTRN_GEN_DIR}/ui_ps.dxbc;${KTRN_GEN_DIR}/kestrune.ico;${KTRN_GEN_DIR}/symbols.ttf")

enable_language(RC)
add_executable(kestrune WIN32 main_win32.cpp debugging.cpp fonts.cpp source_files.cpp folder_watch.cpp frame_probe.cpp shell_win32.cpp test_hook.cpp renderer_d3d11.cpp resources/kestrune.rc)
target_include_directories(kestrune PRIVATE ${KTRN_GEN_DIR})
target_compile_options(kestrune PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${KTRN_WARNINGS}>)
target_link_libraries(kestrune PRIVATE ktrn_ui ktrn_ui_text ktrn_engine ktrn_app_formats ktrn_model ktrn_base imgui d3d11 dxgi uuid dxguid ole32 shell32 comdlg32)
target_link_options(kestrune PRIVATE -municode)
set_target_properties(kestrune PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
