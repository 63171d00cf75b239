// Device set-up and teardown, the OpenCL program build and the GPU pass, shared
// by the After Effects and Premiere sides. The two sides differ only in the
// code they report a failure with (512 and 0x80000000), which each call takes.
#ifndef TREMORDISTILLER_AEPRGPU_FUNCTIONS_H
#define TREMORDISTILLER_AEPRGPU_FUNCTIONS_H

#include <cstdint>

#include "TremorDistiller_FrameStack.h"
#include "TremorDistiller_GPUCalls.h"
#include "TremorDistiller_GPURecords.h"

inline constexpr int32_t kAeGPUFailureCode = 512;
inline constexpr int32_t kPrGPUFailureCode = static_cast<int32_t>(0x80000000u);

// Builds the kernel text for `device` and fills the list's slots.
int32_t InitializeOpenCL(KernelList* list, cl_device_id device, cl_context context, int32_t failureCode);

// A device the host offers: the effect's kernels on it, and the status record's
// framework. The GPU's identity waits for the device's first pass, so a device
// refused here is never named. `device` and `context` are read on OpenCL only.
int32_t InitializeGPU(GPUFramework framework, KernelList* list, void* device, void* context, int32_t failureCode);

// Releases what InitializeGPU made; never throws.
int32_t GPUDispose(GPUFramework framework, KernelList* list, int32_t failureCode) noexcept;

// One pass of the frame-stack loop on the host's device. `context` and `queue`
// are read on OpenCL only; buffers are device pointers on CUDA and cl_mem on
// OpenCL.
int32_t GPURender(GPUFramework framework, const KernelList* kernels, void* context, void* queue,
                  const PassBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                  const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs, unsigned int blockSize,
                  int32_t failureCode);

// Whether StackKernel launches can run on the device: a device that could
// not make it renders every stack pass by pass.
bool StackKernelReady(GPUFramework framework, const KernelList* kernels);

// The frame-stack loop's launches on a host's device, the same for every
// host: each pass through GPURender and, where StackKernel is ready, chunks
// through GPURenderStack. The host's memory operations are its own.
void SetGPULaunches(FrameStackHost& host, GPUFramework framework, const KernelList* kernels, void* context,
                    void* queue, int32_t failureCode);

// A chunk of the stack in one StackKernel launch, where StackRunsFused allows
// it; otherwise as GPURender.
int32_t GPURenderStack(GPUFramework framework, const KernelList* kernels, void* context, void* queue,
                       const StackBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                       const StackChunk& chunk, unsigned int blockSize, int32_t failureCode);

// A buffer of the canvas's size and form (`canvas`: outWidth, outHeight,
// inDstPitch, in16f) made transparent black on the device, for a host whose
// new buffers come uncleared: ResizeKernel with an empty source.
int32_t GPUClear(GPUFramework framework, const KernelList* kernels, void* queue, void* buffer,
                 const ResizeKernelArgs& canvas, unsigned int blockSize, int32_t failureCode);

#endif
