// The CPU reference device: runs the kernels over the 2-D range in groups, as a
// GPU would, on host memory. Results depend only on the inputs: every launch
// writes buffers it does not read, so the thread count changes nothing.
#ifndef TREMOR_CPU_DEVICE_H
#define TREMOR_CPU_DEVICE_H

#include <cstdint>

#include "Kernel_Data.h"

// Which 16-bit storage form to emulate.
enum class CpuHalfForm {
  OpenCL,  // IEEE halves, stores round toward zero
  CUDA,    // the power-curve pattern
};

struct CpuLaunchConfig {
  CpuHalfForm halfForm = CpuHalfForm::OpenCL;
  int threads = 1;  // rows of groups are split across this many threads
  unsigned int blockSize = 16;
};

void CpuMainKernel(const CpuLaunchConfig& config, const void* inPre, const void* inCur, void* outIm, void* outDst,
                   const KernelData* params, int inPrePitch, int inCurPitch, int inDstPitch, int in16f,
                   unsigned int inWidth, unsigned int inHeight, const void* inIm, float weight);

void CpuResizeKernel(const CpuLaunchConfig& config, const void* inSrc, void* outDst, int inSrcPitch, int inDstPitch,
                     int in16f, unsigned int inWidth, unsigned int inHeight, unsigned int outWidth,
                     unsigned int outHeight, int inOffsetX, int inOffsetY);

void CpuStackKernel(const CpuLaunchConfig& config, const void* const* frames, void* outIm, void* outDst,
                    const KernelData* params, int inDstPitch, int in16f, unsigned int inWidth, unsigned int inHeight,
                    const void* inIm, const StackChunk& chunk);

#endif
