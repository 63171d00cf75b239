// Throughput of the GPU pass and of a 10-frame stack on OpenCL (PoCL unless a
// GPU platform is found) and on CUDA where a device exists, 32-bit frames.
// Bytes are those a pass must move: two frames and the previous accumulation
// read, the new accumulation written (plus the output in the last pass).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "DeviceFrameStack.h"
#include "LogsController.h"

namespace {

constexpr int64_t kPixelBytes = 16;

std::vector<float> NoiseFrame(int w, int h, uint32_t seed) {
  std::vector<float> f(static_cast<size_t>(w) * h * 4);
  for (auto& v : f) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<float>(seed >> 8) / 16777216.0f;
  }
  return f;
}

KernelData BenchKernelData(int numFrames) {
  KernelData kd{};
  kd.numFrames = numFrames;
  kd.percentEase = 4.0f;
  kd.blendMode = BLEND_ADD;
  kd.diffMode = DIFF_DIFF;
  kd.output = FROM_MOTION;
  return kd;
}

// One set-up (and program build) per device kind and process.
struct BenchDevice {
  const DeviceKind* kind;
  Device device;
  std::unique_ptr<DeviceKernels> kernels;
  std::string error;
  explicit BenchDevice(const DeviceKind& k) : kind(&k) {
    if (!std::getenv("POCL_CACHE_DIR")) setenv("POCL_CACHE_DIR", TD_BENCH_POCL_CACHE_DIR, 0);
    // The effect's log, as after a host's global set-up, under the build tree.
    std::filesystem::create_directories(TD_BENCH_TMP_DIR);
    setenv("TMPDIR", TD_BENCH_TMP_DIR, 1);
    LoggerInit(kLogFileStem, kLogFolderName);
    try {
      device = OpenDevice(k.name);
      kernels = std::make_unique<DeviceKernels>(device);
      if (kernels->status != 0) error = "the kernels did not build";
    } catch (const std::exception& e) {
      error = e.what();
    }
  }
};

void RunStack(benchmark::State& state, const DeviceKind* kind) {
  static std::vector<std::unique_ptr<BenchDevice>> opened;
  BenchDevice* bench = nullptr;
  for (auto& b : opened)
    if (b->kind == kind) bench = b.get();
  if (!bench) bench = opened.emplace_back(std::make_unique<BenchDevice>(*kind)).get();
  if (!bench->error.empty()) {
    state.SkipWithError(("device not available: " + bench->error).c_str());
    return;
  }
  const Device& device = bench->device;
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const int numFrames = static_cast<int>(state.range(2));
  const size_t bytes = static_cast<size_t>(w) * h * kPixelBytes;
  std::vector<DeviceBuffer> frames;
  FrameStackJob job;
  for (int i = 0; i < numFrames; ++i) {
    frames.push_back(AllocateDeviceBuffer(device, bytes));
    const std::vector<float> noise = NoiseFrame(w, h, 7 + i);
    device.kind->upload(device, frames.back().get(), noise.data(), bytes);
    job.frames.push_back({frames.back().get(), w, h, w * 16, 0, 0});
  }
  DeviceBuffer out = AllocateDeviceBuffer(device, bytes);
  job.output = {out.get(), w, h, w * 16, 0, 0};
  job.is16f = false;
  KernelData kd = BenchKernelData(numFrames);
  job.kernelData = &kd;
  const FrameStackHost host = MakeDeviceFrameStackHost(device, &bench->kernels->list, job);

  if (RenderFrameStack(job, host) != 0) state.SkipWithError("render failed");  // warm-up: first-launch compiles
  device.kind->finish(device);
  for (auto _ : state) {
    RenderFrameStack(job, host);
    device.kind->finish(device);
  }
  const int64_t passes = numFrames - 1;
  state.SetBytesProcessed(state.iterations() * (passes * 4 + 1) * static_cast<int64_t>(w) * h * kPixelBytes);
  state.counters["passes"] = static_cast<double>(passes);
  state.counters["MB_per_pass"] = 4.0 * w * h * kPixelBytes / 1e6;
}

// BM_OpenCLStack, BM_CUDAStack, ...: one per device kind of this build.
const bool kRegistered = [] {
  for (const DeviceKind* kind : DeviceKinds())
    benchmark::RegisterBenchmark((std::string("BM_") + kind->label + "Stack").c_str(), RunStack, kind)
        ->ArgNames({"w", "h", "frames"})
        ->Args({1920, 1080, 2})
        ->Args({1920, 1080, 10})
        ->Args({3840, 2160, 2})
        ->Args({3840, 2160, 10})
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  return true;
}();

}  // namespace
