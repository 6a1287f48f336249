/* A DLL with its own PDB that eng_target loads and frees. */
#include <windows.h>

#include "eng_shared.h"

__declspec(dllexport) int PluginAnswer(void) {
  OutputDebugStringA("plugin says hello\n");
  return 21;
}

__declspec(dllexport) int PluginTwice(int n) {
  int twice = n * 2;  // PLUGIN_TWICE_LINE
  return twice;
}

__declspec(dllexport) int PluginScaled(int n) { return SharedScale(n); }
