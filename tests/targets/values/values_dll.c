// A DLL global, read by name from the program's frame.
__declspec(dllexport) int dll_counter = 4242;

__declspec(dllexport) int DllCounterTimes(int factor) { return dll_counter * factor; }
