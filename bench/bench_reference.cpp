// Throughput of the CPU reference device: one pass and a 10-frame stack, with
// the bytes a pass moves so an effective bandwidth can be read off.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

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

// MainKernel reads two frames and the accumulation and writes the accumulation
// (and, in the last pass, the output): 4 frames of 16-byte pixels a pass, one
// more at the end. The same count as the GPU benchmarks.
void BM_ReferenceStack(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0));
  const int h = static_cast<int>(state.range(1));
  const int frames = static_cast<int>(state.range(2));
  Stack s;
  Fill(s, w, h, frames);
  CpuLaunchConfig config;
  config.threads = static_cast<int>(state.range(3));
  for (auto _ : state) benchmark::DoNotOptimize(CpuRenderFrameStack(config, s.job));
  const int64_t passes = frames - 1;
  state.SetBytesProcessed(state.iterations() * (passes * 4 + 1) * static_cast<int64_t>(w) * h * 16);
  state.counters["passes"] = static_cast<double>(passes);
}

}  // namespace

BENCHMARK(BM_ReferenceStack)
    ->ArgNames({"w", "h", "frames", "threads"})
    ->Args({1920, 1080, 2, 2})
    ->Args({1920, 1080, 10, 2})
    ->Args({3840, 2160, 2, 2})
    ->Args({3840, 2160, 10, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
