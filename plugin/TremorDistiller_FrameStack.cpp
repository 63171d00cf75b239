#include "TremorDistiller_FrameStack.h"

#include <algorithm>
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

// Bytes of a pixel of a frame: the pass form's, or that of its integers.
int32_t FramePixelSize(const StackFrame& f, int32_t pixelSize) {
  return f.depth == FRAME_DEPTH_U8 ? 4 : f.depth == FRAME_DEPTH_U16 ? 8 : pixelSize;
}

ResizeKernelArgs CanvasArgsFor(const StackFrame& f, int32_t pixelSize, const ResizeKernelArgs& common) {
  ResizeKernelArgs a = common;
  a.inSrcPitch = f.rowBytes / FramePixelSize(f, pixelSize);
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

namespace {

// Equal steps from 0 to exactly 1; a lone pair is the last pass.
float PassPercent(int32_t i, int32_t n) { return n == 0 ? 1.0f : 1.0f - static_cast<float>(i) / static_cast<float>(n); }

int32_t FailEmpty(const FrameStackHost& host, const char* what) {
  LOG_ERROR_IN("RenderFrameStack", what);
  return host.failureCode;
}

int32_t FrameBufferOf(const FrameStackHost& host, const StackFrame& f, void** buffer) {
  int32_t status = BufferOf(host, f.frame, buffer);
  if (status == 0 && *buffer == nullptr) status = FailEmpty(host, "Frame buffer is not available.");
  return status;
}

// What the render's launches share: the loop's scratch buffers and its arguments.
struct Render {
  const FrameStackJob& job;
  const FrameStackHost& host;
  void* const* buf;
  void* outDst;
  MainKernelArgs mainArgs;
  ResizeKernelArgs common;
  int32_t pixelSize;
};

int32_t RunPasses(const Render& r) {
  KernelData& kd = *r.job.kernelData;
  const int32_t n = kd.numFrames - 2;
  void* outIm = r.buf[0];
  void* inIm = r.buf[1];
  int32_t status = 0;
  for (int32_t i = n; i >= 0 && status == 0; --i) {
    kd.percent = PassPercent(i, n);
    const StackFrame& cur = r.job.frames[i];
    const StackFrame& pre = r.job.frames[i + 1];
    PassBuffers pass{nullptr, nullptr, outIm, inIm, r.buf[3], r.buf[2], r.outDst};
    status = FrameBufferOf(r.host, cur, &pass.inCurFrame);
    if (status == 0) status = FrameBufferOf(r.host, pre, &pass.inPreFrame);
    if (status == 0) {
      const ResizeKernelArgs curArgs = CanvasArgsFor(cur, r.pixelSize, r.common);
      const ResizeKernelArgs preArgs = CanvasArgsFor(pre, r.pixelSize, r.common);
      status = r.host.runPass(pass, kd, r.mainArgs, preArgs, curArgs);
    }
    std::swap(outIm, inIm);
  }
  return status;
}

// The passes from the oldest in chunks of up to kChunkPasses, each chunk one
// launch that hands its accumulation to the next through the scratch pair.
constexpr int32_t kChunkPasses = STACK_CHUNK_FRAMES - 1;

int32_t RunStackChunks(const Render& r) {
  KernelData& kd = *r.job.kernelData;
  const int32_t n = kd.numFrames - 2;
  void* outIm = r.buf[0];
  void* inIm = r.buf[1];
  int32_t status = 0;
  for (int32_t top = n; top >= 0 && status == 0; top -= kChunkPasses) {
    const int32_t bottom = std::max(0, top - kChunkPasses + 1);
    StackChunk chunk{};
    StackBuffers b{{}, inIm, outIm, r.outDst};
    chunk.passes = top - bottom + 1;
    for (int32_t j = 0; j <= chunk.passes && status == 0; ++j) {
      const StackFrame& f = r.job.frames[bottom + j];
      status = FrameBufferOf(r.host, f, &b.frames[j]);
      const ResizeKernelArgs a = CanvasArgsFor(f, r.pixelSize, r.common);
      chunk.frame[j] = {a.inSrcPitch, f.width, f.height, f.offsetX, f.offsetY, FrameNeedsCanvas(a) ? 1 : 0, f.depth};
    }
    chunk.levels8 = 255.0f;
    chunk.levels8Recip = 1.0f / 255.0f;
    chunk.levels16 = 65535.0f;
    chunk.levels16Recip = 1.0f / 65535.0f;
    // Oldest first, so the record ends with the launch's newest pass, as
    // after the passes it stands for.
    for (int32_t k = chunk.passes - 1; k >= 0; --k) {
      kd.percent = PassPercent(bottom + k, n);
      chunk.percent[k] = kd.percent;
      chunk.weight[k] = EasedWeight(kd);
    }
    if (status == 0) status = r.host.runStack(b, kd, r.mainArgs, chunk);
    std::swap(outIm, inIm);
  }
  return status;
}

}  // namespace

int32_t RenderFrameStack(const FrameStackJob& job, const FrameStackHost& host) {
  KernelData& kd = *job.kernelData;
  const int32_t n = kd.numFrames - 2;
  if (n < 0) return 0;  // nothing to compare: the output stays as the host gave it
  if (static_cast<int32_t>(job.frames.size()) < kd.numFrames) {
    LOG_ERROR("Frame stack holds ", job.frames.size(), " frames, expected ", kd.numFrames);
    return host.failureCode;
  }

  // The fused path keeps its accumulation in registers: it needs the scratch
  // pair only to hand it between chunks, or, as the pass-by-pass path, for a
  // lone pass to read an empty one; it never needs canvases.
  const bool fused = host.runStack && StackRunsFused(kd);
  if (!fused) {
    for (int32_t i = 0; i < kd.numFrames; ++i)
      if (job.frames[i].depth != FRAME_DEPTH_PASS) {
        LOG_ERROR_IN("RenderFrameStack", "Frames of integers need StackKernel.");
        return host.failureCode;
      }
  }
  const int32_t scratchCount = !fused ? kScratchCount : (n >= kChunkPasses || n == 0) ? 2 : 0;
  const int32_t pixelSize = job.is16f ? 8 : 16;
  const int32_t outPitch = job.output.rowBytes / pixelSize;

  void* scratch[kScratchCount] = {};
  void* buf[kScratchCount] = {};
  int32_t status = 0;
  // With two frames the one pass is also the last and reads an accumulation
  // that no pass wrote: that buffer must start out empty.
  for (int k = 0; k < scratchCount && status == 0; ++k) {
    const bool mustClear = (n == 0 && k == 1);
    status = host.createScratch(job.output.width, job.output.height, mustClear, &scratch[k]);
    if (status == 0) status = BufferOf(host, scratch[k], &buf[k]);
    if (status == 0 && buf[k] == nullptr) status = FailEmpty(host, "Cannot allocate GPU buffers");
  }
  void* outDst = nullptr;
  if (status == 0) status = BufferOf(host, job.output.frame, &outDst);
  if (status == 0 && outDst == nullptr) status = FailEmpty(host, "Destination buffer is not available.");

  if (status == 0) {
    Render r{job,
             host,
             buf,
             outDst,
             {outPitch, outPitch, outPitch, job.is16f ? 1 : 0, job.output.width, job.output.height},
             {},
             pixelSize};
    r.common.inDstPitch = outPitch;
    r.common.in16f = r.mainArgs.in16f;
    r.common.outWidth = job.output.width;
    r.common.outHeight = job.output.height;
    status = fused ? RunStackChunks(r) : RunPasses(r);
  }

  // Scratch buffers go back on every way out; the first error stays the result.
  for (int k : kDisposeOrder) {
    if (scratch[k] == nullptr) continue;
    const int32_t disposed = host.disposeScratch(scratch[k]);
    if (status == 0) status = disposed;
  }
  return status;
}
