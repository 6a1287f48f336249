/* A 32-bit program: the engine refuses it. */
#include <windows.h>

int main(void) {
  OutputDebugStringA("32-bit hello\n");
  return 32;
}
