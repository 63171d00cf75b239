#include "CpuRender.h"

#include <map>
#include <memory>
#include <vector>

int32_t CpuRenderPass(const CpuLaunchConfig& config, const PassBuffers& b, KernelData& kd,
                      const MainKernelArgs& m, const ResizeKernelArgs& pre, const ResizeKernelArgs& cur) {
  SetPassMotionValues(kd);
  const bool curCanvas = FrameNeedsCanvas(cur);
  const bool preCanvas = FrameNeedsCanvas(pre);
  if (curCanvas)
    CpuResizeKernel(config, b.inCurFrame, b.curCanvas, cur.inSrcPitch, cur.inDstPitch, cur.in16f, cur.inWidth,
                    cur.inHeight, cur.outWidth, cur.outHeight, cur.inOffsetX, cur.inOffsetY);
  if (preCanvas)
    CpuResizeKernel(config, b.inPreFrame, b.preCanvas, pre.inSrcPitch, pre.inDstPitch, pre.in16f, pre.inWidth,
                    pre.inHeight, pre.outWidth, pre.outHeight, pre.inOffsetX, pre.inOffsetY);
  // The kernel reads its own copy of the record, as a device would.
  const KernelData params = kd;
  CpuMainKernel(config, preCanvas ? b.preCanvas : b.inPreFrame, curCanvas ? b.curCanvas : b.inCurFrame, b.outIm,
                b.outDst, &params, m.inPrePitch, m.inCurPitch, m.inDstPitch, m.in16f,
                static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight), b.inIm);
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
  host.runPass = [config](const PassBuffers& b, KernelData& kd, const MainKernelArgs& m,
                          const ResizeKernelArgs& pre, const ResizeKernelArgs& cur) {
    return CpuRenderPass(config, b, kd, m, pre, cur);
  };
  return host;
}

int32_t CpuRenderFrameStack(const CpuLaunchConfig& config, const FrameStackJob& job) {
  return RenderFrameStack(job, MakeCpuFrameStackHost(config, job));
}
