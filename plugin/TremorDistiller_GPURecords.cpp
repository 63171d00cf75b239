#include "TremorDistiller_GPURecords.h"

namespace {
const char* const kFrameworkText[3] = {"CUDA", "OpenCL", "Metal"};
}

const char* GPUFrameworkText(GPUFramework framework) {
  // A framework without a name shows as empty rather than reading past the table.
  return framework >= CUDA && framework <= Metal ? kFrameworkText[framework] : "";
}

GPUFramework FrameworkFromAeWhatGpu(int32_t whatGpu) {
  switch (whatGpu) {
    case 1: return OpenCL;
    case 2: return Metal;
    case 3: return CUDA;
    default: return GPU_FRAMEWORK_NONE;
  }
}

GPUFramework FrameworkFromPrDeviceFramework(int32_t framework) {
  switch (framework) {
    case 0: return CUDA;
    case 1: return OpenCL;
    case 2: return Metal;
    default: return GPU_FRAMEWORK_NONE;
  }
}

GPUStatus& GetGPUStatus() {
  static GPUStatus status;
  return status;
}
