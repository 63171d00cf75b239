// CUDA form of the kernel unit: the same source, plus the launch functions
// the GPU pass calls. Every launch is waited for, so consecutive passes and the
// freeing of the pass's parameter block need nothing else.
#include "TremorDistiller_Kernel.cl"
#include "TremorDistiller_CudaLaunch.h"
#include "TremorDistiller_GPUCalls.h"

static dim3 GridFor(unsigned int w, unsigned int h, unsigned int blockSize) {
  return dim3((w + blockSize - 1) / blockSize, (h + blockSize - 1) / blockSize, 1);
}

void LaunchMainKernel(const void* inPre, const void* inCur, void* outIm, void* outDst, const void* params,
                      int inPrePitch, int inCurPitch, int inDstPitch, int in16f, unsigned int inWidth,
                      unsigned int inHeight, const void* inIm, float weight, unsigned int blockSize) {
  dim3 block(blockSize, blockSize, 1);
  MainKernel<<<GridFor(inWidth, inHeight, blockSize), block, 0, 0>>>(
      (const float4*)inPre, (const float4*)inCur, (float4*)outIm, (float4*)outDst, (const KernelData*)params,
      inPrePitch, inCurPitch, inDstPitch, in16f, inWidth, inHeight, (const float4*)inIm, weight);
  (void)cudaDeviceSynchronize();
}

void LaunchResizeKernel(const void* inSrc, void* outDst, int inSrcPitch, int inDstPitch, int in16f,
                        unsigned int inWidth, unsigned int inHeight, unsigned int outWidth, unsigned int outHeight,
                        int inOffsetX, int inOffsetY, unsigned int blockSize) {
  dim3 block(blockSize, blockSize, 1);
  ResizeKernel<<<GridFor(outWidth, outHeight, blockSize), block, 0, 0>>>(
      (const float4*)inSrc, (float4*)outDst, inSrcPitch, inDstPitch, in16f, inWidth, inHeight, outWidth, outHeight,
      inOffsetX, inOffsetY);
  (void)cudaDeviceSynchronize();
}

void LaunchStackKernel(const void* const* frames, void* outIm, void* outDst, const void* params, int inDstPitch,
                       int in16f, unsigned int inWidth, unsigned int inHeight, const void* inIm,
                       const StackChunk& chunk, unsigned int blockSize) {
  dim3 block(blockSize, blockSize, 1);
  const float4* const* f = (const float4* const*)frames;
  StackKernel<<<GridFor(inWidth, inHeight, blockSize), block, 0, 0>>>(
      f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10], f[11], f[12], f[13], f[14], f[15],
      (float4*)outIm, (float4*)outDst, (const KernelData*)params, inDstPitch, in16f, inWidth, inHeight,
      (const float4*)inIm, chunk);
  (void)cudaDeviceSynchronize();
}

CudaCalls CudaRuntimeCalls() {
  CudaCalls calls;
  calls.malloc = [](void** p, size_t n) { return (int)cudaMalloc(p, n); };
  calls.memcpyHostToDevice = [](void* dst, const void* src, size_t n) {
    return (int)cudaMemcpy(dst, src, n, cudaMemcpyHostToDevice);
  };
  calls.free = [](void* p) { return (int)cudaFree(p); };
  calls.peekAtLastError = []() { return (int)cudaPeekAtLastError(); };
  calls.getErrorString = [](int e) { return cudaGetErrorString((cudaError_t)e); };
  calls.launchMain = &LaunchMainKernel;
  calls.launchResize = &LaunchResizeKernel;
  calls.launchStack = &LaunchStackKernel;
  return calls;
}
