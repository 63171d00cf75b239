// One queue per GPU framework: what the framework does for each of the GPU
// functions the hosts call (set-up, a pass, a StackKernel launch, a clear,
// kernel release). InitializeGPU, GPURender and their siblings keep their
// order of checks and texts and look up the framework's queue for the rest.
// A new framework is its kernel vocabulary header, a queue file and one line
// in TremorDistiller_GPUQueue.cpp.
#ifndef TREMORDISTILLER_GPUQUEUE_H
#define TREMORDISTILLER_GPUQUEUE_H

#include <cstdint>

#include "TremorDistiller_FrameStack.h"
#include "TremorDistiller_GPURecords.h"

struct GPUQueue {
  GPUFramework framework;
  // The functions refuse a null KernelList before they reach the queue
  // (CUDA keeps nothing in one).
  bool needsKernelList;
  // The framework's part of device set-up; logs its own failure.
  int32_t (*initialize)(KernelList* list, void* device, void* context, int32_t failureCode);
  // Releases one kernel object of the list; null where the list holds none.
  int32_t (*releaseKernel)(void* kernel, int32_t failureCode);
  int32_t (*renderPass)(const KernelList* kernels, void* context, void* queue, const PassBuffers& buffers,
                        const KernelData& kernelData, const MainKernelArgs& mainArgs, const ResizeKernelArgs& preArgs,
                        const ResizeKernelArgs& curArgs, unsigned int blockSize, int32_t failureCode);
  int32_t (*renderStack)(const KernelList* kernels, void* context, void* queue, const StackBuffers& buffers,
                         const KernelData& kernelData, const MainKernelArgs& mainArgs, const StackChunk& chunk,
                         unsigned int blockSize, int32_t failureCode);
  // `canvas` made transparent black, its read fields already zero.
  int32_t (*clear)(const KernelList* kernels, void* queue, void* buffer, const ResizeKernelArgs& canvas,
                   unsigned int blockSize, int32_t failureCode);
  bool (*stackReady)(const KernelList* kernels);
};

// The queue of a framework the effect knows; null for any other.
const GPUQueue* FindGPUQueue(GPUFramework framework);

extern const GPUQueue kCudaQueue;
extern const GPUQueue kOpenCLQueue;
extern const GPUQueue kMetalQueue;
extern const GPUQueue kReferenceQueue;

#endif
