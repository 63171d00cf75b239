// The frame-stack loop on the CPU reference device: frames and scratch buffers
// are host memory, and a pass runs the same steps as the GPU pass.
#ifndef TREMOR_CPU_RENDER_H
#define TREMOR_CPU_RENDER_H

#include <cstdint>

#include "CpuDevice.h"
#include "TremorDistiller_FrameStack.h"

// One pass: motion values, canvases where a frame needs one, then MainKernel.
int32_t CpuRenderPass(const CpuLaunchConfig& config, const PassBuffers& buffers, KernelData& kernelData,
                      const MainKernelArgs& mainArgs, const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs);

// A chunk of the stack in one StackKernel launch.
int32_t CpuRenderStack(const CpuLaunchConfig& config, const StackBuffers& buffers, KernelData& kernelData,
                       const MainKernelArgs& mainArgs, const StackChunk& chunk);

// Host operations over host memory for a job: a frame's handle is its pixel
// pointer, and scratch buffers get the output's pitch.
FrameStackHost MakeCpuFrameStackHost(const CpuLaunchConfig& config, const FrameStackJob& job);

// The whole loop for a job whose frames and output are host memory.
int32_t CpuRenderFrameStack(const CpuLaunchConfig& config, const FrameStackJob& job);

#endif
