/* A DLL with its own PDB that eng_target loads and frees. */
#include <windows.h>

__declspec(dllexport) int PluginAnswer(void) {
  OutputDebugStringA("plugin says hello\n");
  return 21;
}
