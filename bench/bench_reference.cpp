// The CPU reference device's frame-stack loop: 2 and 10 frames at 1080p and
// 2160p, by each path, on two threads.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "BenchCopy.h"
#include "CpuRender.h"

namespace {

struct Stack {
  int w, h;
  std::vector<std::vector<float>> frames;
  std::vector<float> out;
  FrameStackJob job;
  KernelData kd{};
};

void Fill(Stack& s, int w, int h, int count) {
  s.w = w;
  s.h = h;
  s.frames.assign(count, std::vector<float>(static_cast<size_t>(w) * h * 4));
  uint32_t seed = 12345;
  for (auto& f : s.frames)
    for (auto& v : f) {
      seed = seed * 1664525u + 1013904223u;
      v = static_cast<float>(seed >> 8) / 16777216.0f;
    }
  s.out.assign(static_cast<size_t>(w) * h * 4, 0.0f);
  s.kd.numFrames = count;
  s.kd.percentEase = 4.0f;
  s.kd.blendMode = BLEND_ADD;
  s.kd.diffMode = DIFF_DIFF;
  s.kd.output = FROM_MOTION;
  s.job.frames.clear();
  for (auto& f : s.frames) s.job.frames.push_back({f.data(), w, h, w * 16, 0, 0});
  s.job.output = {s.out.data(), w, h, w * 16, 0, 0};
  s.job.is16f = false;
  s.job.kernelData = &s.kd;
}

// The CPU reference by each path, set against a host memcpy.
void BM_ReferenceStack(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0));
  const int h = static_cast<int>(state.range(1));
  const int frames = static_cast<int>(state.range(2));
  const StackPath path = static_cast<StackPath>(state.range(3));
  Stack s;
  Fill(s, w, h, frames);
  s.kd.motion_amp = path == StackPath::Amplified;
  CpuLaunchConfig config;
  config.threads = 2;
  FrameStackHost host = MakeCpuFrameStackHost(config, s.job);
  if (path != StackPath::Fused) host.runStack = nullptr;
  const double copyRate = HostCopyBytesPerSecond();
  for (auto _ : state) benchmark::DoNotOptimize(RenderFrameStack(s.job, host));
  SetStackCounters(state, w, h, frames, path, copyRate);
}

}  // namespace

BENCHMARK(BM_ReferenceStack)
    ->ArgNames({"w", "h", "frames", "path"})
    ->Apply(StackArgs)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
