// The benchmark probe of frame_probe.h: times from the system's own process accounting, so the
// start-up figure includes the loader and everything before the first line of our code.
#include "app/frame_probe.h"

#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

static u64 FileTimeUs(FILETIME time) { return (((u64)time.dwHighDateTime << 32) | time.dwLowDateTime) / 10; }

static u64 NowUs() {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  return FileTimeUs(now);
}

static void ProcessTimes(u64 *created_us, u64 *cpu_us) {
  FILETIME created, exited, kernel, user;
  GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
  *created_us = FileTimeUs(created);
  *cpu_us = FileTimeUs(kernel) + FileTimeUs(user);
}

static u32 EnvironmentNumber(const char *name) {
  char text[32];
  DWORD length = GetEnvironmentVariableA(name, text, sizeof text);
  return length && length < sizeof text ? (u32)strtoul(text, nullptr, 10) : 0;
}

bool FrameProbeInit(FrameProbe *probe) {
  *probe = FrameProbe{};
  probe->frames_wanted = EnvironmentNumber("KTRN_BENCH_FRAMES");
  DWORD length = GetEnvironmentVariableA("KTRN_BENCH_OUT", probe->out_path, sizeof probe->out_path);
  if (!length || length >= sizeof probe->out_path) probe->frames_wanted = 0;
  probe->idle_ms = EnvironmentNumber("KTRN_BENCH_IDLE_MS");
  probe->wait_for_stop = EnvironmentNumber("KTRN_BENCH_STOPPED") != 0;
  return probe->frames_wanted != 0;
}

u32 FrameProbeOutputLines() { return EnvironmentNumber("KTRN_BENCH_OUTPUT_LINES"); }

bool FrameProbeSourceFile(char *out, u32 capacity) {
  DWORD length = GetEnvironmentVariableA("KTRN_BENCH_SOURCE", out, capacity);
  return length && length < capacity;
}

void FrameProbeBuildStart(FrameProbe *probe) {
  if (probe->frames_wanted) probe->build_started_us = NowUs();
}

void FrameProbeStopSeen(FrameProbe *probe) {
  if (probe->wait_for_stop && !probe->stop_seen_us) probe->stop_seen_us = NowUs();
}

// Waiting for the stop, or letting the windows settle after it: no frame counts yet.
static bool Waiting(const FrameProbe *probe) {
  return probe->wait_for_stop && (!probe->stop_seen_us || probe->settle_frames < kProbeSettleFrames);
}

void FrameProbeBuildEnd(FrameProbe *probe) {
  if (Waiting(probe)) return;
  if (probe->frames_wanted && probe->frames_drawn >= 1 && probe->frames_drawn <= probe->frames_wanted)
    probe->build_us += NowUs() - probe->build_started_us;
}

bool FrameProbeAfterFrame(FrameProbe *probe) {
  if (!probe->frames_wanted) return false;
  u64 created = 0, cpu = 0, now = NowUs();
  ProcessTimes(&created, &cpu);
  if (Waiting(probe)) {
    if (probe->stop_seen_us && !probe->hit_to_frame_us) probe->hit_to_frame_us = now - probe->stop_seen_us;
    if (probe->stop_seen_us) probe->settle_frames++;
    return false;
  }
  probe->frames_drawn++;
  if (probe->frames_drawn == 1) {
    probe->first_frame_us = now - created;
    probe->cpu_at_first_frame_us = cpu;
  }
  if (probe->frames_drawn == probe->frames_wanted + 1) {
    probe->cpu_after_frames_us = cpu;
    probe->wall_after_frames_us = now;
  }
  if (probe->frames_drawn <= probe->frames_wanted + 1 || now - probe->wall_after_frames_us < probe->idle_ms * 1000ull)
    return false;
  double frames = probe->frames_wanted;
  double idle_wall = (double)(now - probe->wall_after_frames_us);
  FILE *out = fopen(probe->out_path, "w");
  if (out) {
    fprintf(out, "first_frame_ms %.1f cpu_per_frame_us %.1f build_per_frame_us %.1f idle_cpu_percent %.1f idle_frames_per_s %.1f",
            probe->first_frame_us / 1000.0, (probe->cpu_after_frames_us - probe->cpu_at_first_frame_us) / frames,
            probe->build_us / frames,
            100.0 * (double)(cpu - probe->cpu_after_frames_us) / idle_wall,
            (probe->frames_drawn - probe->frames_wanted - 1) * 1e6 / idle_wall);
    if (probe->wait_for_stop) fprintf(out, " hit_to_frame_ms %.2f", probe->hit_to_frame_us / 1000.0);
    fprintf(out, "\n");
    fclose(out);
  }
  probe->frames_wanted = 0;
  return true;
}
