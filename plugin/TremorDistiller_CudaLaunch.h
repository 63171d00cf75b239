// Launch functions of the CUDA kernels, callable from plain C++. Blocks are
// blockSize x blockSize on the default stream; each call waits for the device.
// They report nothing: the caller reads the last error (peekAtLastError).
#ifndef TREMORDISTILLER_CUDALAUNCH_H
#define TREMORDISTILLER_CUDALAUNCH_H

#include "Kernel_Data.h"

void LaunchMainKernel(const void* inPre, const void* inCur, void* outIm, void* outDst, const void* params,
                      int inPrePitch, int inCurPitch, int inDstPitch, int in16f, unsigned int inWidth,
                      unsigned int inHeight, const void* inIm, float weight, unsigned int blockSize);

void LaunchResizeKernel(const void* inSrc, void* outDst, int inSrcPitch, int inDstPitch, int in16f,
                        unsigned int inWidth, unsigned int inHeight, unsigned int outWidth, unsigned int outHeight,
                        int inOffsetX, int inOffsetY, unsigned int blockSize);

// `frames` holds STACK_CHUNK_FRAMES device pointers, newest first.
void LaunchStackKernel(const void* const* frames, void* outIm, void* outDst, const void* params, int inDstPitch,
                       int in16f, unsigned int inWidth, unsigned int inHeight, const void* inIm,
                       const StackChunk& chunk, unsigned int blockSize);

#endif
