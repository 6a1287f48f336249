// The DLL of the call-stack tests' callback mode: a frame of another module between two of the
// program's.
__declspec(dllexport) int CallThrough(int (*callback)(int), int value) {
  volatile int keep = value;
  int result = callback(value + 1);
  return result + keep;
}
