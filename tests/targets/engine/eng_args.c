/* Reports its command line as a debug string, so that tests see what the launch passed. */
#include <windows.h>

int main(void) {
  OutputDebugStringW(GetCommandLineW());
  return 0;
}
