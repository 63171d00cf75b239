#include "TremorDistiller_GPUQueue.h"

const GPUQueue* FindGPUQueue(GPUFramework framework) {
  static const GPUQueue* const kQueues[] = {
      &kCudaQueue,
      &kOpenCLQueue,
      &kMetalQueue,
      &kReferenceQueue,
  };
  for (const GPUQueue* q : kQueues)
    if (q->framework == framework) return q;
  return nullptr;
}
