// Throughput of the GPU pass and of a 10-frame stack on OpenCL (PoCL unless a
// GPU platform is found) and on CUDA where a device exists, 32-bit frames.
// Bytes are those a pass must move: two frames and the previous accumulation
// read, the new accumulation written (plus the output in the last pass).
#define GPU_FAILURE_CODE 512
#include "TremorDistiller_AePrGPU_Functions.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "OpenCLDevice.h"
#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif

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

// Device memory and a pass for one framework; the loop is the product's own.
struct BenchDevice {
  virtual ~BenchDevice() = default;
  virtual void* Alloc(size_t bytes) = 0;
  virtual void Upload(void* buffer, const std::vector<float>& data) = 0;
  virtual void Free(void* buffer) = 0;
  virtual int32_t Pass(const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                       const ResizeKernelArgs& cur) = 0;
  virtual void Finish() = 0;
};

struct OpenCLBench : BenchDevice {
  OpenCLDevice dev;
  KernelList kernels{};
  bool ok = false;
  OpenCLBench() {
    if (!std::getenv("POCL_CACHE_DIR")) setenv("POCL_CACHE_DIR", TD_BENCH_POCL_CACHE_DIR, 0);
    std::string error;
    ok = OpenOpenCLDevice(-1, 0, dev, error) && InitializeGPU(OpenCL, &kernels, dev.device, dev.context) == 0;
  }
  ~OpenCLBench() override {
    if (ok) GPUDispose(OpenCL, &kernels);
    if (dev.context) CloseOpenCLDevice(dev);
  }
  void* Alloc(size_t bytes) override { return CreateOpenCLBuffer(dev, bytes); }
  void Upload(void* b, const std::vector<float>& d) override {
    UploadOpenCLBuffer(dev, static_cast<cl_mem>(b), d.data(), d.size() * 4);
  }
  void Free(void* b) override { clReleaseMemObject(static_cast<cl_mem>(b)); }
  int32_t Pass(const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
               const ResizeKernelArgs& cur) override {
    return GPURender(OpenCL, &kernels, dev.context, dev.queue, b, kd, m, pre, cur, 16);
  }
  void Finish() override { clFinish(dev.queue); }
};

#ifdef TD_HAVE_CUDA
struct CudaBench : BenchDevice {
  KernelList kernels{};
  bool ok = CudaDeviceCount() > 0;
  void* Alloc(size_t bytes) override { return CreateCudaBuffer(bytes); }
  void Upload(void* b, const std::vector<float>& d) override { UploadCudaBuffer(b, d.data(), d.size() * 4); }
  void Free(void* b) override { FreeCudaBuffer(b); }
  int32_t Pass(const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
               const ResizeKernelArgs& cur) override {
    return GPURender(CUDA, &kernels, nullptr, nullptr, b, kd, m, pre, cur, 16);
  }
  void Finish() override {}  // every launch is waited for
};
#endif

template <typename Device>
void RunStack(benchmark::State& state) {
  static Device device;  // one set-up (and program build) per process
  if (!device.ok) {
    state.SkipWithError("device not available");
    return;
  }
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const int numFrames = static_cast<int>(state.range(2));
  const size_t bytes = static_cast<size_t>(w) * h * kPixelBytes;
  std::vector<void*> frames;
  FrameStackJob job;
  for (int i = 0; i < numFrames; ++i) {
    frames.push_back(device.Alloc(bytes));
    device.Upload(frames.back(), NoiseFrame(w, h, 7 + i));
    job.frames.push_back({frames.back(), w, h, w * 16, 0, 0});
  }
  void* out = device.Alloc(bytes);
  job.output = {out, w, h, w * 16, 0, 0};
  job.is16f = false;
  KernelData kd = BenchKernelData(numFrames);
  job.kernelData = &kd;

  // Scratch buffers come from a pool, as a host's allocator would hand them out.
  std::vector<void*> pool;
  FrameStackHost host;
  host.failureCode = 512;
  host.createScratch = [&](int32_t, int32_t, bool, void** s) -> int32_t {
    if (pool.empty()) pool.push_back(device.Alloc(bytes));
    *s = pool.back();
    pool.pop_back();
    return 0;
  };
  host.deviceBuffer = [](void* f, void** b) -> int32_t {
    *b = f;
    return 0;
  };
  host.disposeScratch = [&](void* s) -> int32_t {
    pool.push_back(s);
    return 0;
  };
  host.runPass = [&](const PassBuffers& b, KernelData& k, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                     const ResizeKernelArgs& cur) { return device.Pass(b, k, m, pre, cur); };

  if (RenderFrameStack(job, host) != 0) state.SkipWithError("render failed");  // warm-up: first-launch compiles
  device.Finish();
  for (auto _ : state) {
    RenderFrameStack(job, host);
    device.Finish();
  }
  const int64_t passes = numFrames - 1;
  state.SetBytesProcessed(state.iterations() * (passes * 4 + 1) * static_cast<int64_t>(w) * h * kPixelBytes);
  state.counters["passes"] = static_cast<double>(passes);
  state.counters["MB_per_pass"] = 4.0 * w * h * kPixelBytes / 1e6;
  for (void* s : pool) device.Free(s);
  for (void* f : frames) device.Free(f);
  device.Free(out);
}

void BM_OpenCLStack(benchmark::State& state) { RunStack<OpenCLBench>(state); }
BENCHMARK(BM_OpenCLStack)
    ->ArgNames({"w", "h", "frames"})
    ->Args({1920, 1080, 2})
    ->Args({1920, 1080, 10})
    ->Args({3840, 2160, 2})
    ->Args({3840, 2160, 10})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

#ifdef TD_HAVE_CUDA
void BM_CudaStack(benchmark::State& state) { RunStack<CudaBench>(state); }
BENCHMARK(BM_CudaStack)
    ->ArgNames({"w", "h", "frames"})
    ->Args({1920, 1080, 2})
    ->Args({1920, 1080, 10})
    ->Args({3840, 2160, 2})
    ->Args({3840, 2160, 10})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
#endif

}  // namespace
