// One memory budget for a render on the engine: what --memory (or the
// default) allows beyond the process's fixed overhead, shared among the
// frames held on the device, the clip's decoded and converted frames, the
// output frames on their way to the writer, and the encoder's own buffers.
#ifndef TREMOR_TOOLS_MEMORYBUDGET_H
#define TREMOR_TOOLS_MEMORYBUDGET_H

#include <cstdint>
#include <string>

#include "Kernel_Data.h"

namespace render {

// What the process takes whatever it renders: the libraries, the device's
// runtime with its compiled kernels, the decoder's and encoder's contexts.
// Peak memory stays within the budget plus this (measured on PoCL; a
// machine's first render, which compiles the kernels, takes about 300 MB
// more while it does).
constexpr uint64_t kFixedOverhead = uint64_t{256} << 20;

// "600M", "1.5G", "4096K" or plain bytes, in binary units; 0 for anything
// else (a sign, junk, or no bytes at all).
uint64_t ParseMemorySize(const std::string& text);

// What the render holds per frame and how many at once.
struct EngineWork {
  int width = 0, height = 0;
  FrameDepth sourceDepth = FRAME_DEPTH_PASS;  // as the clip hands frames over
  uint64_t decodedBytes = 0;                  // one frame as the decoder gave it
  bool fused = true;                          // StackKernel reads the frames as they came
  int jobs = 1;
  int64_t stackFrames = 0;      // distinct input frames of `jobs` stacks side by side
  int64_t reach = 0;            // input frames any later stack may still ask for
  const char* codec = nullptr;  // the encoder's FFmpeg name; null: nothing is written
};

struct MemoryPlan {
  uint64_t budget = 0;      // the whole, beyond the fixed overhead
  uint64_t heldBytes = 0;   // for frames on the device: the engine's share
  uint64_t needed = 0;      // the least budget one stack renders in
  uint64_t everything = 0;  // the budget that holds every frame in reach
};

// Shares `memory` (0: the default, everything the work can use within what
// the process may still take) out for `work`. Throws Failure, naming what
// one stack needs, where the budget is smaller.
MemoryPlan PlanEngineMemory(const EngineWork& work, uint64_t memory);

// The budget a render may take by default: three quarters of what the
// process may still take (the system's available memory, its cgroup's and
// its address space limit).
uint64_t DefaultBudgetLimit();

std::string SizeText(uint64_t bytes);  // "600.0 MiB", "1.5 GiB"

}  // namespace render

#endif
