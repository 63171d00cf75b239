#include "TremorDistiller_FrameStack.h"

#include <cmath>
#include <utility>

#include "LogsController.h"

namespace {

// Created in this order: the accumulation, its second buffer, the newer
// frame's canvas, the older frame's; the canvases go back first.
constexpr int kScratchCount = 4;
constexpr int kDisposeOrder[kScratchCount] = {2, 3, 1, 0};

int32_t BufferOf(const FrameStackHost& host, void* frame, void** buffer) {
  *buffer = nullptr;
  return host.deviceBuffer(frame, buffer);
}

ResizeKernelArgs CanvasArgsFor(const StackFrame& f, int32_t pixelSize, const ResizeKernelArgs& common) {
  ResizeKernelArgs a = common;
  a.inSrcPitch = f.rowBytes / pixelSize;
  a.inWidth = f.width;
  a.inHeight = f.height;
  a.inOffsetX = f.offsetX;
  a.inOffsetY = f.offsetY;
  return a;
}

}  // namespace

void SetPassMotionValues(KernelData& kernelData) {
  kernelData.displaceIntensity = 0.0f;
  kernelData.minVel = 0.01f;
  kernelData.maxVel = 0.5f;
  if (kernelData.motion_amp) {
    // Displacement on, and the velocity ramp becomes a hard step.
    kernelData.displaceIntensity = 5.0f;
    kernelData.minVel = 0.0f;
    kernelData.maxVel = 0.0f;
  }
}

float EasedWeight(const KernelData& kd) {
  return std::fmin(std::fmax(1.0f - std::pow(1.0f - kd.percent, kd.percentEase), 0.0f), 1.0f);
}

int32_t RunPassLaunches(const PassLaunches& launches, const PassBuffers& b, const MainKernelArgs& mainArgs,
                        const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs) {
  const bool curCanvas = FrameNeedsCanvas(curArgs);
  const bool preCanvas = FrameNeedsCanvas(preArgs);
  int32_t status = 0;
  if (curCanvas) status = launches.resize(launches.form, b.inCurFrame, b.curCanvas, curArgs);
  if (status == 0 && preCanvas) status = launches.resize(launches.form, b.inPreFrame, b.preCanvas, preArgs);
  if (status == 0) {
    const MainKernelBuffers main{preCanvas ? b.preCanvas : b.inPreFrame, curCanvas ? b.curCanvas : b.inCurFrame,
                                 b.outIm, b.outDst, b.inIm};
    status = launches.main(launches.form, main, mainArgs);
  }
  return status;
}

int32_t RenderFrameStack(const FrameStackJob& job, const FrameStackHost& host) {
  KernelData& kd = *job.kernelData;
  const int32_t n = kd.numFrames - 2;
  if (n < 0) return 0;  // nothing to compare: the output stays as the host gave it
  if (static_cast<int32_t>(job.frames.size()) < kd.numFrames) {
    LOG_ERROR("Frame stack holds ", job.frames.size(), " frames, expected ", kd.numFrames);
    return host.failureCode;
  }

  const int32_t pixelSize = job.is16f ? 8 : 16;
  const int32_t outPitch = job.output.rowBytes / pixelSize;

  void* scratch[kScratchCount] = {};
  void* buf[kScratchCount] = {};
  int32_t status = 0;
  auto failEmpty = [&](const char* what) {
    LOG_ERROR_IN("RenderFrameStack", what);
    status = host.failureCode;
  };

  // With two frames the one pass is also the last and reads an accumulation
  // that no pass wrote: that buffer must start out empty.
  for (int k = 0; k < kScratchCount && status == 0; ++k) {
    const bool mustClear = (n == 0 && k == 1);
    status = host.createScratch(job.output.width, job.output.height, mustClear, &scratch[k]);
    if (status == 0) status = BufferOf(host, scratch[k], &buf[k]);
    if (status == 0 && buf[k] == nullptr) failEmpty("Cannot allocate GPU buffers");
  }
  void* outDst = nullptr;
  if (status == 0) status = BufferOf(host, job.output.frame, &outDst);
  if (status == 0 && outDst == nullptr) failEmpty("Destination buffer is not available.");

  if (status == 0) {
    MainKernelArgs mainArgs{outPitch, outPitch, outPitch, job.is16f ? 1 : 0, job.output.width, job.output.height};
    ResizeKernelArgs common{};
    common.inDstPitch = outPitch;
    common.in16f = mainArgs.in16f;
    common.outWidth = job.output.width;
    common.outHeight = job.output.height;

    void* outIm = buf[0];
    void* inIm = buf[1];
    for (int32_t i = n; i >= 0 && status == 0; --i) {
      // Equal steps from 0 to exactly 1; a lone pair is the last pass.
      kd.percent = n == 0 ? 1.0f : 1.0f - static_cast<float>(i) / static_cast<float>(n);
      const StackFrame& cur = job.frames[i];
      const StackFrame& pre = job.frames[i + 1];
      PassBuffers pass{nullptr, nullptr, outIm, inIm, buf[3], buf[2], outDst};
      status = BufferOf(host, cur.frame, &pass.inCurFrame);
      if (status == 0) status = BufferOf(host, pre.frame, &pass.inPreFrame);
      if (status == 0 && (pass.inCurFrame == nullptr || pass.inPreFrame == nullptr))
        failEmpty("Frame buffer is not available.");
      if (status == 0) {
        const ResizeKernelArgs curArgs = CanvasArgsFor(cur, pixelSize, common);
        const ResizeKernelArgs preArgs = CanvasArgsFor(pre, pixelSize, common);
        status = host.runPass(pass, kd, mainArgs, preArgs, curArgs);
      }
      std::swap(outIm, inIm);
    }
  }

  // Scratch buffers go back on every way out; the first error stays the result.
  for (int k : kDisposeOrder) {
    if (scratch[k] == nullptr) continue;
    const int32_t disposed = host.disposeScratch(scratch[k]);
    if (status == 0) status = disposed;
  }
  return status;
}
