#include "TremorDistiller_AePrGPU_Functions.h"

#include <exception>

#include "LogsController.h"
#include "TremorDistiller_GPUQueue.h"

int32_t InitializeGPU(GPUFramework framework, KernelList* list, void* device, void* context, int32_t failureCode) {
  LOG_INFO("Initialized new device: ", GPUFrameworkText(framework));
  if (!list) {
    LOG_ERROR("KernelList pointer is null");
    return failureCode;
  }
  GPUStatus& status = GetGPUStatus();
  EditGPUStatusText([framework](GPUStatusText& text) { text.frameworkName = GPUFrameworkText(framework); });
  status.noDevice = false;
  status.softwareRenderSeen = false;
  const GPUQueue* q = FindGPUQueue(framework);
  if (!q) {
    LOG_ERROR("Unsupported GPU type");
    return failureCode;
  }
  return q->initialize(list, device, context, failureCode);
}

int32_t GPUDispose(GPUFramework framework, KernelList* list, int32_t failureCode) noexcept {
  int32_t result = 0;
  try {
    GetGPUStatus().noDevice = true;
    const GPUQueue* q = FindGPUQueue(framework);
    if (!list) {
      if (q && !q->needsKernelList) return 0;
      LOG_ERROR("KernelList pointer is null");
      return failureCode;
    }
    for (KernelEntry& entry : list->entries) {
      if (!entry.kernel) continue;
      // After a failed release the rest are cleared without a call.
      if (q && q->releaseKernel && result == 0) result = q->releaseKernel(entry.kernel, failureCode);
      entry.kernel = nullptr;
    }
  } catch (const std::exception& e) {
    LOG_ERROR("Could not destroy it in a graceful way. Error: ", e.what());
  } catch (...) {
    LOG_ERROR("Could not destroy it in a graceful way. Unknown Error.");
  }
  return result;
}

int32_t GPURender(GPUFramework framework, const KernelList* kernels, void* context, void* queue,
                  const PassBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                  const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs, unsigned int blockSize,
                  int32_t failureCode) {
  SetPassMotionValues(kernelData);
  ShowDeviceIdentity(kernels);
  const GPUQueue* q = FindGPUQueue(framework);
  if (q && (kernels || !q->needsKernelList))
    return q->renderPass(kernels, context, queue, buffers, kernelData, mainArgs, preArgs, curArgs, blockSize,
                         failureCode);
  if (!kernels) {
    LOG_ERROR("KernelList pointer is null");
    return failureCode;
  }
  LOG_ERROR("Uknown GPU framework. Value: ", static_cast<int32_t>(framework));
  return failureCode;
}

bool StackKernelReady(GPUFramework framework, const KernelList* kernels) {
  const GPUQueue* q = FindGPUQueue(framework);
  return q && q->stackReady(kernels);
}

void SetGPULaunches(FrameStackHost& host, GPUFramework framework, const KernelList* kernels, void* context,
                    void* queue, int32_t failureCode) {
  host.runPass = [=](const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                     const ResizeKernelArgs& cur) {
    return GPURender(framework, kernels, context, queue, b, kd, m, pre, cur, 16, failureCode);
  };
  host.runStack = nullptr;
  if (StackKernelReady(framework, kernels))
    host.runStack = [=](const StackBuffers& b, KernelData& kd, const MainKernelArgs& m, const StackChunk& chunk) {
      return GPURenderStack(framework, kernels, context, queue, b, kd, m, chunk, 16, failureCode);
    };
}

int32_t GPURenderStack(GPUFramework framework, const KernelList* kernels, void* context, void* queue,
                       const StackBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                       const StackChunk& chunk, unsigned int blockSize, int32_t failureCode) {
  SetPassMotionValues(kernelData);
  ShowDeviceIdentity(kernels);
  const GPUQueue* q = FindGPUQueue(framework);
  if (q && (kernels || !q->needsKernelList))
    return q->renderStack(kernels, context, queue, buffers, kernelData, mainArgs, chunk, blockSize, failureCode);
  if (!kernels) {
    LOG_ERROR("KernelList pointer is null");
    return failureCode;
  }
  LOG_ERROR("Uknown GPU framework. Value: ", static_cast<int32_t>(framework));
  return failureCode;
}

int32_t GPUClear(GPUFramework framework, const KernelList* kernels, void* queue, void* buffer,
                 const ResizeKernelArgs& canvas, unsigned int blockSize, int32_t failureCode) {
  ResizeKernelArgs a = canvas;
  a.inSrcPitch = a.inWidth = a.inHeight = a.inOffsetX = a.inOffsetY = 0;  // nothing is read
  const GPUQueue* q = FindGPUQueue(framework);
  if (!q) {
    LOG_ERROR_IN("GPURender", "Uknown GPU framework. Value: ", static_cast<int32_t>(framework));
    return failureCode;
  }
  return q->clear(kernels, queue, buffer, a, blockSize, failureCode);
}
