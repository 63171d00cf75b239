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

GPUStatus& GetGPUStatus() {
  static GPUStatus status;
  return status;
}

void EditGPUStatusText(const std::function<void(GPUStatusText&)>& change) {
  GPUStatus& status = GetGPUStatus();
  std::lock_guard<std::mutex> lock(status.mutex);
  change(*status.text);
}

GPUStatusText ReadGPUStatusText() {
  GPUStatus& status = GetGPUStatus();
  std::lock_guard<std::mutex> lock(status.mutex);
  return *status.text;
}

void ShowDeviceIdentity() {
  GPUStatusText identity;
  FillGPUIdentity(identity);  // outside the lock: it logs and may take a while
  GPUStatus& status = GetGPUStatus();
  std::lock_guard<std::mutex> lock(status.mutex);
  status.deviceGpuName = identity.gpuName;
  status.deviceOsVersion = identity.osVersion;
  status.text->gpuName = identity.gpuName;
  status.text->osVersion = identity.osVersion;
}

void RestoreDeviceIdentity() {
  GPUStatus& status = GetGPUStatus();
  std::lock_guard<std::mutex> lock(status.mutex);
  GPUStatusText& text = *status.text;
  if (!text.gpuName.empty()) return;
  text.gpuName = status.deviceGpuName;
  text.osVersion = status.deviceOsVersion;
  text.noticeLine1.clear();
  text.noticeLine2.clear();
}
