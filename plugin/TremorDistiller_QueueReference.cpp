// The CPU reference: the kernel source compiled as C++ (reference/), run on
// host memory, which is what its device kind allocates. Nothing is kept in
// the KernelList; every launch waits for its work.
#include <algorithm>
#include <thread>

#include "CpuRender.h"
#include "TremorDistiller_GPUQueue.h"

namespace {

const CpuLaunchConfig& Config() {
  // Threads only split rows of groups: the values do not depend on them.
  static const CpuLaunchConfig config = [] {
    CpuLaunchConfig c;
    c.threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    return c;
  }();
  return config;
}

int32_t Initialize(KernelList*, void*, void*, int32_t) { return 0; }

int32_t Pass(const KernelList*, void*, void*, const PassBuffers& buffers, const KernelData& kernelData,
             const MainKernelArgs& mainArgs, const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs,
             unsigned int, int32_t) {
  KernelData kd = kernelData;
  return CpuRenderPass(Config(), buffers, kd, mainArgs, preArgs, curArgs);
}

int32_t Stack(const KernelList*, void*, void*, const StackBuffers& buffers, const KernelData& kernelData,
              const MainKernelArgs& mainArgs, const StackChunk& chunk, unsigned int, int32_t) {
  KernelData kd = kernelData;
  return CpuRenderStack(Config(), buffers, kd, mainArgs, chunk);
}

int32_t Clear(const KernelList*, void*, void* buffer, const ResizeKernelArgs& a, unsigned int, int32_t) {
  CpuResizeKernel(Config(), buffer, buffer, a.inSrcPitch, a.inDstPitch, a.in16f, a.inWidth, a.inHeight, a.outWidth,
                  a.outHeight, a.inOffsetX, a.inOffsetY);
  return 0;
}

bool StackReady(const KernelList*) { return true; }

}  // namespace

extern const GPUQueue kReferenceQueue = {CPUReference, false, Initialize, nullptr, Pass, Stack, Clear, StackReady};
