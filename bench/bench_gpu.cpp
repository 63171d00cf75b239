// A stack of 2 or 10 frames at 1080p and 2160p on each device kind of the
// build (OpenCL: PoCL unless a GPU platform is found; CUDA where a device
// exists), 32-bit frames, by each path of the frame-stack loop, set against the
// copy bandwidth measured in the same run: a host memcpy for a CPU device, a
// device-to-device copy for a GPU.
#include <algorithm>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "BenchCopy.h"
#include "DeviceFrameStack.h"
#include "LogsController.h"

namespace {

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
  bool onGpu = false;
  double copyBytesPerSecond = 0.0;
  explicit BenchDevice(const DeviceKind& k) : kind(&k) {
    if (!std::getenv("POCL_CACHE_DIR")) setenv("POCL_CACHE_DIR", TD_BENCH_POCL_CACHE_DIR, 0);
    // The effect's log, as after a host's global set-up, under the build tree.
    std::filesystem::create_directories(TD_BENCH_TMP_DIR);
    setenv("TMPDIR", TD_BENCH_TMP_DIR, 1);
    LoggerInit(kLogFileStem, kLogFolderName);
    try {
      device = OpenDevice(k.name);
      onGpu = ResolveDeviceText(k.name).isGpu;
      kernels = std::make_unique<DeviceKernels>(device);
      if (kernels->status != 0) error = "the kernels did not build";
    } catch (const std::exception& e) {
      error = e.what();
    }
  }
};

// The device's own copy, 256 MiB buffer to buffer.
double DeviceCopyBytesPerSecond(const Device& device) {
  const size_t bytes = size_t{256} << 20;
  DeviceBuffer a = AllocateDeviceBuffer(device, bytes), b = AllocateDeviceBuffer(device, bytes);
  device.kind->fill(device, a.get(), 1, bytes);
  return MedianCopyRate([&] {
    device.kind->copy(device, b.get(), a.get(), bytes);
    device.kind->finish(device);
  });
}

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
  const StackPath path = static_cast<StackPath>(state.range(3));
  const size_t bytes = static_cast<size_t>(w) * h * kPixelBytes;
  const bool byteFrames = path == StackPath::FusedBytes;
  std::vector<DeviceBuffer> frames;
  FrameStackJob job;
  for (int i = 0; i < numFrames; ++i) {
    const std::vector<float> noise = NoiseFrame(w, h, 7 + i);
    if (byteFrames) {
      std::vector<uint8_t> quantised(noise.size());
      for (size_t j = 0; j < noise.size(); ++j)
        quantised[j] = static_cast<uint8_t>(std::clamp(noise[j], 0.0f, 1.0f) * 255.0f + 0.5f);
      frames.push_back(AllocateDeviceBuffer(device, quantised.size()));
      device.kind->upload(device, frames.back().get(), quantised.data(), quantised.size());
      job.frames.push_back({frames.back().get(), w, h, w * 4, 0, 0, FRAME_DEPTH_U8});
    } else {
      frames.push_back(AllocateDeviceBuffer(device, bytes));
      device.kind->upload(device, frames.back().get(), noise.data(), bytes);
      job.frames.push_back({frames.back().get(), w, h, w * 16, 0, 0});
    }
  }
  DeviceBuffer out = AllocateDeviceBuffer(device, bytes);
  job.output = {out.get(), w, h, w * 16, 0, 0};
  job.is16f = false;
  KernelData kd = BenchKernelData(numFrames);
  kd.motion_amp = path == StackPath::Amplified;
  job.kernelData = &kd;
  FrameStackHost host = MakeDeviceFrameStackHost(device, &bench->kernels->list, job);
  if (path != StackPath::Fused && !byteFrames) host.runStack = nullptr;

  if (bench->copyBytesPerSecond == 0.0) {
    bench->copyBytesPerSecond = bench->onGpu ? DeviceCopyBytesPerSecond(device) : HostCopyBytesPerSecond();
  }
  if (RenderFrameStack(job, host) != 0) state.SkipWithError("render failed");  // warm-up: first-launch compiles
  device.kind->finish(device);
  for (auto _ : state) {
    RenderFrameStack(job, host);
    device.kind->finish(device);
  }
  SetStackCounters(state, w, h, numFrames, path, bench->copyBytesPerSecond);
}

// BM_OpenCLStack, BM_CUDAStack, ...: one per device kind of this build.
const bool kRegistered = [] {
  for (const DeviceKind* kind : DeviceKinds())
    benchmark::RegisterBenchmark((std::string("BM_") + kind->label + "Stack").c_str(), RunStack, kind)
        ->ArgNames({"w", "h", "frames", "path"})
        ->Apply(StackArgs)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  return true;
}();

}  // namespace
