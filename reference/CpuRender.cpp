#include "CpuRender.h"

#include <map>
#include <memory>
#include <vector>

namespace {

struct CpuPass {
  const CpuLaunchConfig& config;
  const KernelData& params;
  float weight;
};

int32_t CpuResize(void* form, void* src, void* dst, const ResizeKernelArgs& a) {
  const CpuPass& pass = *static_cast<const CpuPass*>(form);
  CpuResizeKernel(pass.config, src, dst, a.inSrcPitch, a.inDstPitch, a.in16f, a.inWidth, a.inHeight, a.outWidth,
                  a.outHeight, a.inOffsetX, a.inOffsetY);
  return 0;
}

int32_t CpuMain(void* form, const MainKernelBuffers& b, const MainKernelArgs& m) {
  const CpuPass& pass = *static_cast<const CpuPass*>(form);
  CpuMainKernel(pass.config, b.inPre, b.inCur, b.outIm, b.outDst, &pass.params, m.inPrePitch, m.inCurPitch,
                m.inDstPitch, m.in16f, static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight),
                b.inIm, pass.weight);
  return 0;
}

}  // namespace

int32_t CpuRenderPass(const CpuLaunchConfig& config, const PassBuffers& b, KernelData& kd, const MainKernelArgs& m,
                      const ResizeKernelArgs& pre, const ResizeKernelArgs& cur) {
  SetPassMotionValues(kd);
  // The kernels read their own copy of the record, as a device would.
  const KernelData params = kd;
  CpuPass pass{config, params, EasedWeight(params)};
  return RunPassLaunches({&pass, CpuResize, CpuMain}, b, m, pre, cur);
}

int32_t CpuRenderStack(const CpuLaunchConfig& config, const StackBuffers& b, KernelData& kd, const MainKernelArgs& m,
                       const StackChunk& chunk) {
  SetPassMotionValues(kd);
  const KernelData params = kd;
  CpuStackKernel(config, b.frames, b.outIm, b.outDst, &params, m.inDstPitch, m.in16f,
                 static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight), b.inIm, chunk);
  return 0;
}

FrameStackHost MakeCpuFrameStackHost(const CpuLaunchConfig& config, const FrameStackJob& job) {
  // Scratch memory lives as long as any copy of the returned operations.
  auto scratch = std::make_shared<std::map<void*, std::vector<float>>>();
  const size_t rowFloats = static_cast<size_t>(job.output.rowBytes) / sizeof(float);
  FrameStackHost host;
  host.failureCode = 512;
  host.createScratch = [scratch, rowFloats](int32_t, int32_t height, bool, void** out) -> int32_t {
    // Always zero-filled, which also covers a buffer that must read as empty.
    std::vector<float> mem(rowFloats * static_cast<size_t>(height), 0.0f);
    void* key = mem.data();
    (*scratch)[key] = std::move(mem);
    *out = key;
    return 0;
  };
  host.deviceBuffer = [](void* frame, void** buffer) -> int32_t {
    *buffer = frame;
    return 0;
  };
  host.disposeScratch = [scratch](void* s) -> int32_t {
    scratch->erase(s);
    return 0;
  };
  host.runPass = [config](const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                          const ResizeKernelArgs& cur) { return CpuRenderPass(config, b, kd, m, pre, cur); };
  host.runStack = [config](const StackBuffers& b, KernelData& kd, const MainKernelArgs& m, const StackChunk& chunk) {
    return CpuRenderStack(config, b, kd, m, chunk);
  };
  return host;
}

int32_t CpuRenderFrameStack(const CpuLaunchConfig& config, const FrameStackJob& job) {
  return RenderFrameStack(job, MakeCpuFrameStackHost(config, job));
}
