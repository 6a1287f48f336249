// The program the stopped-frame benchmark debugs: 2,000 threads waiting, a million-element array,
// and a recursion 10,000 calls deep that ends in a breakpoint instruction, where kestrune.exe stops.
#include <windows.h>

enum { kThreads = 2000, kDepth = 10000, kElements = 1000000 };

int g_million[kElements];
static HANDLE g_release;

static DWORD WINAPI Waiter(void *) {
  WaitForSingleObject(g_release, INFINITE);
  return 0;
}

__declspec(noinline) static int Recurse(int depth) {
  volatile int here = depth;
  if (depth == 0) {
    __debugbreak();  // the benchmark's stop
    return here;
  }
  return Recurse(depth - 1) + here;
}

int main(void) {
  for (int i = 0; i < kElements; i++) g_million[i] = i;
  g_release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  for (int i = 0; i < kThreads; i++) {
    HANDLE t = CreateThread(nullptr, 64 * 1024, Waiter, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (t) CloseHandle(t);
  }
  int sum = Recurse(kDepth);
  SetEvent(g_release);
  return sum == kDepth * (kDepth + 1) / 2 ? 0 : 1;
}
