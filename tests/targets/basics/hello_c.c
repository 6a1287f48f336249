/* The smallest debuggee: one debug string, a known exit code. */
#include <windows.h>

int main(int argc, char **argv) {
  OutputDebugStringA("hello from hello_c\n");
  return argc > 1 ? 0 : 42;
}
