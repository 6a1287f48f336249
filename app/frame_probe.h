// Start-up and per-frame cost, measured inside the program for the benchmarks (bench/ui). Off
// unless KTRN_BENCH_FRAMES is set; then the program draws that many frames, measures the CPU time
// they took, lets the loop run untouched for KTRN_BENCH_IDLE_MS more (CPU while idle), writes one
// line of results to the file KTRN_BENCH_OUT and asks to quit. The bare window of bench/ui uses the
// same probe, so both sides are measured alike.
#pragma once
#include "base/types.h"

struct FrameProbe {
  u32 frames_wanted;  // 0: the probe is off
  u32 frames_drawn;
  u32 idle_ms;
  u64 first_frame_us;  // from the process's creation to the end of the first presented frame
  u64 cpu_at_first_frame_us;
  u64 cpu_after_frames_us;
  u64 wall_after_frames_us;
  u64 build_started_us;   // FrameProbeBuildStart of the frame being built
  u64 build_us;           // the measured frames' time from NewFrame to Render, summed
  // KTRN_BENCH_STOPPED: the frames are counted only at a stop of the debugged program, after
  // kProbeSettleFrames; the time from the stop's event to its first presented frame is reported.
  u8 wait_for_stop;
  u8 padding[3];
  u32 settle_frames;
  u64 stop_seen_us;
  u64 hit_to_frame_us;
  char out_path[260];
};

enum : u32 { kProbeSettleFrames = 60 };

// Reads the environment; false when the probe is off.
bool FrameProbeInit(FrameProbe *probe);
// The number of output lines to fill in before measuring (KTRN_BENCH_OUTPUT_LINES), 0 when unset.
u32 FrameProbeOutputLines();
// A source file to open in a tab and scroll through, a page a frame (KTRN_BENCH_SOURCE); false when
// unset.
bool FrameProbeSourceFile(char *out, u32 capacity);
// Around the building of a frame (Dear ImGui's NewFrame to Render, the program's own work without
// the renderer's): reported as build_per_frame_us.
void FrameProbeBuildStart(FrameProbe *probe);
void FrameProbeBuildEnd(FrameProbe *probe);
// The stop the benchmark waits for was seen (its event handled): the clock of hit-to-frame starts.
void FrameProbeStopSeen(FrameProbe *probe);
// After every presented frame; true once the results are written and the program should quit.
bool FrameProbeAfterFrame(FrameProbe *probe);
