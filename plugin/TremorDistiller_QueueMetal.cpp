// Metal: no device of it can be set up here, and its passes draw nothing.
#include "LogsController.h"
#include "TremorDistiller_GPUQueue.h"

namespace {

int32_t Initialize(KernelList*, void*, void*, int32_t failureCode) {
  LOG_ERROR_IN("InitializeGPU", "Metal is not available");
  return failureCode;
}

int32_t Pass(const KernelList*, void*, void*, const PassBuffers&, const KernelData&, const MainKernelArgs&,
             const ResizeKernelArgs&, const ResizeKernelArgs&, unsigned int, int32_t) {
  return 0;
}

int32_t Stack(const KernelList*, void*, void*, const StackBuffers&, const KernelData&, const MainKernelArgs&,
              const StackChunk&, unsigned int, int32_t) {
  return 0;
}

int32_t Clear(const KernelList*, void*, void*, const ResizeKernelArgs&, unsigned int, int32_t) { return 0; }

bool StackReady(const KernelList*) { return false; }

}  // namespace

extern const GPUQueue kMetalQueue = {Metal, true, Initialize, nullptr, Pass, Stack, Clear, StackReady};
