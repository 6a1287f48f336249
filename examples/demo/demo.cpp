// demo.exe: a little particle simulation with a worker thread, to try the debugger on. It runs
// for about a minute, printing to the console and to the debugger's output window.
#include <windows.h>

#include <stdio.h>
#include <thread>

#include "particles.h"

static ParticleSystem g_system;
static volatile long g_frames;

static void Simulate(int frames) {
  for (int frame = 0; frame < frames; frame++) {
    if (frame % 10 == 0) SpawnParticles(&g_system, 20);
    StepParticles(&g_system, 1.0f / 60.0f);
    InterlockedIncrement(&g_frames);
    Sleep(16);
  }
}

int main(int argc, char **argv) {
  g_system.seed = 12345;
  int seconds = argc > 1 ? atoi(argv[1]) : 60;
  std::thread worker(Simulate, seconds * 60);
  for (int s = 0; s < seconds; s++) {
    Sleep(1000);
    char line[128];
    snprintf(line, sizeof line, "second %d: %d particles, energy %.1f\n", s + 1, g_system.count,
             TotalEnergy(&g_system));
    OutputDebugStringA(line);
    fputs(line, stdout);
    fflush(stdout);
  }
  worker.join();
  return 0;
}
