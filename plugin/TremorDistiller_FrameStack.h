// The frame-stack loop: turns a stack of frames into one output frame by
// walking it pair by pair from the oldest, one GPU pass per pair, or, where no
// pass displaces its read, a chunk of pairs per StackKernel launch. Written
// once over a few host operations, so the After Effects render, the Premiere
// render and the CPU reference device all run the same steps.
#ifndef TREMORDISTILLER_FRAMESTACK_H
#define TREMORDISTILLER_FRAMESTACK_H

#include <cstdint>
#include <functional>
#include <vector>

#include "Kernel_Data.h"

// Arguments of MainKernel after its buffers, the same for all passes of a render.
struct MainKernelArgs {
  int32_t inPrePitch;
  int32_t inCurPitch;
  int32_t inDstPitch;
  int32_t in16f;
  int32_t inWidth;
  int32_t inHeight;
};

// Arguments of ResizeKernel after its buffers, one record per frame of a pair.
struct ResizeKernelArgs {
  int32_t inSrcPitch;
  int32_t inDstPitch;
  int32_t in16f;
  int32_t inWidth;
  int32_t inHeight;
  int32_t outWidth;
  int32_t outHeight;
  int32_t inOffsetX;
  int32_t inOffsetY;
};

// A frame as the host lends it: an opaque host handle and its geometry.
// offsetX/offsetY place it on the output's canvas. A frame of integers
// (depth other than FRAME_DEPTH_PASS) can only be read by StackKernel.
struct StackFrame {
  void* frame;
  int32_t width;
  int32_t height;
  int32_t rowBytes;
  int32_t offsetX;
  int32_t offsetY;
  FrameDepth depth = FRAME_DEPTH_PASS;
};

// Device buffers of one pass. The previous accumulation is read from inIm and
// the new one written to outIm; the loop swaps the two between passes.
struct PassBuffers {
  void* inPreFrame;
  void* inCurFrame;
  void* outIm;
  void* inIm;
  void* preCanvas;
  void* curCanvas;
  void* outDst;
};

// Device buffers of one StackKernel launch. frames[j] is frame j of the
// launch, newest first; slots past the launch's frames stay null.
struct StackBuffers {
  void* frames[STACK_CHUNK_FRAMES];
  void* inIm;
  void* outIm;
  void* outDst;
};

// What the loop asks of the layer above it. Every operation returns a host
// status; a non-zero one stops the render and is what the render returns.
struct FrameStackHost {
  // A scratch buffer of the output's size and pixel form. With mustClear the
  // buffer has to read as transparent black.
  std::function<int32_t(int32_t width, int32_t height, bool mustClear, void** scratch)> createScratch;
  // The device buffer (CUDA pointer, cl_mem, host memory) of a frame, a
  // scratch buffer or the output.
  std::function<int32_t(void* frame, void** buffer)> deviceBuffer;
  std::function<int32_t(void* scratch)> disposeScratch;
  // One GPU pass (GPURender or its CPU counterpart).
  std::function<int32_t(const PassBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                        const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs)>
      runPass;
  // A chunk of the stack in one StackKernel launch (GPURenderStack or its CPU
  // counterpart). Left empty, every stack runs pass by pass.
  std::function<int32_t(const StackBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                        const StackChunk& chunk)>
      runStack;
  // Returned for a buffer that comes back empty or a stack that is too short.
  int32_t failureCode;
};

struct FrameStackJob {
  std::vector<StackFrame> frames;  // frame 0 is the current time; at least numFrames entries
  StackFrame output;               // offsets unused
  bool is16f;                      // 8-byte pixels of 16-bit components, else 16-byte float pixels
  KernelData* kernelData;          // host-filled fields set; percent is written per pass
};

int32_t RenderFrameStack(const FrameStackJob& job, const FrameStackHost& host);

// The buffers MainKernel is launched with, in its argument order.
struct MainKernelBuffers {
  void* inPre;
  void* inCur;
  void* outIm;
  void* outDst;
  void* inIm;
};

// What a device form (CUDA, OpenCL, the CPU reference) supplies to the one
// pass: its two launches. Each returns 0 or the status that ends the pass.
struct PassLaunches {
  void* form;  // the form's own state for this pass
  int32_t (*resize)(void* form, void* src, void* dst, const ResizeKernelArgs& args);
  int32_t (*main)(void* form, const MainKernelBuffers& buffers, const MainKernelArgs& args);
};

// The launches of one pass: the newer frame, then the older, onto their
// canvases where they need one, then MainKernel. Stops at the first failure.
int32_t RunPassLaunches(const PassLaunches& launches, const PassBuffers& buffers, const MainKernelArgs& mainArgs,
                        const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs);

// Whether StackKernel launches give this stack's result: no pass displaces
// its read of the accumulation.
inline bool StackRunsFused(const KernelData& kd) { return !kd.motion_amp && !kd.chromatic; }

// Values that "Motion Amplification" switches, set at the start of each pass.
void SetPassMotionValues(KernelData& kernelData);

// How much of the older accumulation a pass keeps: the newest pair counts
// fully, older ones fade. One value per pass, handed to MainKernel.
float EasedWeight(const KernelData& kernelData);

// A frame goes on its canvas when it is offset, and also when it cannot stand
// in for the output as it is: the kernels address both frames of a pair with
// the output's pitch and size, so a frame of another pitch or size used in
// place would be read wrongly or past its rows.
inline bool FrameNeedsCanvas(const ResizeKernelArgs& a) {
  return a.inOffsetX != 0 || a.inOffsetY != 0 || a.inSrcPitch != a.inDstPitch || a.inWidth != a.outWidth ||
         a.inHeight != a.outHeight;
}

#endif
