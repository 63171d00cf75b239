// CUDA: launches through the call table's driver-API rows; nothing is kept
// in the KernelList.
#include "LogsController.h"
#include "TremorDistiller_GPUCalls.h"
#include "TremorDistiller_GPUQueue.h"

namespace {

struct CudaPass {
  const CudaCalls& cuda;
  void* params;
  float weight;
  unsigned int blockSize;
  int32_t failureCode;
};

int32_t CheckCudaLaunch(const CudaPass& pass) {
  const int err = pass.cuda.peekAtLastError();
  if (err == 0) return 0;
  LOG_ERROR_IN("GPURender", "CUDA Assert: ", pass.cuda.getErrorString(err));
  return pass.failureCode;
}

int32_t CudaResize(void* form, void* src, void* dst, const ResizeKernelArgs& a) {
  const CudaPass& pass = *static_cast<const CudaPass*>(form);
  pass.cuda.launchResize(src, dst, a.inSrcPitch, a.inDstPitch, a.in16f, a.inWidth, a.inHeight, a.outWidth, a.outHeight,
                         a.inOffsetX, a.inOffsetY, pass.blockSize);
  return CheckCudaLaunch(pass);
}

int32_t CudaMain(void* form, const MainKernelBuffers& b, const MainKernelArgs& m) {
  const CudaPass& pass = *static_cast<const CudaPass*>(form);
  pass.cuda.launchMain(b.inPre, b.inCur, b.outIm, b.outDst, pass.params, m.inPrePitch, m.inCurPitch, m.inDstPitch,
                       m.in16f, static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight), b.inIm,
                       pass.weight, pass.blockSize);
  return CheckCudaLaunch(pass);
}

int32_t RenderPassCUDA(const PassBuffers& buffers, const KernelData& kernelData, const MainKernelArgs& mainArgs,
                       const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs, unsigned int blockSize,
                       int32_t failureCode) {
  const CudaCalls& cuda = GetCudaCalls();
  if (!cuda.launchMain) {
    LOG_ERROR_IN("GPURender", "CUDA Assert: this module was built without CUDA");
    return failureCode;
  }
  CudaPass pass{cuda, nullptr, EasedWeight(kernelData), blockSize, failureCode};
  cuda.malloc(&pass.params, sizeof(KernelData));
  cuda.memcpyHostToDevice(pass.params, &kernelData, sizeof(KernelData));
  const int32_t status = RunPassLaunches({&pass, CudaResize, CudaMain}, buffers, mainArgs, preArgs, curArgs);
  cuda.free(pass.params);
  return status;
}

int32_t RenderStackCUDA(const StackBuffers& buffers, const KernelData& kernelData, const MainKernelArgs& m,
                        const StackChunk& chunk, unsigned int blockSize, int32_t failureCode) {
  const CudaCalls& cuda = GetCudaCalls();
  if (!cuda.launchStack) {
    LOG_ERROR_IN("GPURender", "CUDA Assert: this module was built without CUDA");
    return failureCode;
  }
  CudaPass pass{cuda, nullptr, 0.0f, blockSize, failureCode};
  cuda.malloc(&pass.params, sizeof(KernelData));
  cuda.memcpyHostToDevice(pass.params, &kernelData, sizeof(KernelData));
  cuda.launchStack(buffers.frames, buffers.outIm, buffers.outDst, pass.params, m.inDstPitch, m.in16f,
                   static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight), buffers.inIm, chunk,
                   blockSize);
  const int32_t status = CheckCudaLaunch(pass);
  cuda.free(pass.params);
  return status;
}

int32_t Initialize(KernelList*, void*, void*, int32_t) { return 0; }

int32_t Pass(const KernelList*, void*, void*, const PassBuffers& buffers, const KernelData& kernelData,
             const MainKernelArgs& mainArgs, const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs,
             unsigned int blockSize, int32_t failureCode) {
  return RenderPassCUDA(buffers, kernelData, mainArgs, preArgs, curArgs, blockSize, failureCode);
}

int32_t Stack(const KernelList*, void*, void*, const StackBuffers& buffers, const KernelData& kernelData,
              const MainKernelArgs& mainArgs, const StackChunk& chunk, unsigned int blockSize, int32_t failureCode) {
  return RenderStackCUDA(buffers, kernelData, mainArgs, chunk, blockSize, failureCode);
}

int32_t Clear(const KernelList*, void*, void* buffer, const ResizeKernelArgs& canvas, unsigned int blockSize,
              int32_t failureCode) {
  CudaPass pass{GetCudaCalls(), nullptr, 0.0f, blockSize, failureCode};
  if (!pass.cuda.launchResize) {
    LOG_ERROR_IN("GPURender", "CUDA Assert: this module was built without CUDA");
    return failureCode;
  }
  return CudaResize(&pass, buffer, buffer, canvas);
}

bool StackReady(const KernelList*) { return GetCudaCalls().launchStack != nullptr; }

}  // namespace

extern const GPUQueue kCudaQueue = {CUDA, false, Initialize, nullptr, Pass, Stack, Clear, StackReady};
