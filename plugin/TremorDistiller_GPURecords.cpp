#include "TremorDistiller_GPURecords.h"

namespace {
const char* const kFrameworkText[4] = {"CUDA", "OpenCL", "Metal", "CPU reference"};
}

const char* GPUFrameworkText(GPUFramework framework) {
  // A framework without a name shows as empty rather than reading past the table.
  return framework >= CUDA && framework <= CPUReference ? kFrameworkText[framework] : "";
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

namespace {

// The notice goes with the name's return: a GPU frame was made after all.
void ShowName(GPUStatusText& text, const std::string& gpuName, const std::string& osVersion) {
  text.gpuName = gpuName;
  text.osVersion = osVersion;
  text.noticeLine1.clear();
  text.noticeLine2.clear();
}

}  // namespace

void ShowDeviceIdentity(const KernelList* device) {
  GPUStatus& status = GetGPUStatus();
  {
    std::lock_guard<std::mutex> lock(status.mutex);
    if (!device || device->identityShown) {
      if (status.text->gpuName.empty()) ShowName(*status.text, status.deviceGpuName, status.deviceOsVersion);
      return;
    }
    // Claimed now: the device's other renders go on meanwhile, and none of
    // them reads or logs the identity again.
    device->identityShown = true;
  }
  GPUStatusText identity;
  FillGPUIdentity(identity);  // outside the lock: it logs and may take a while
  std::lock_guard<std::mutex> lock(status.mutex);
  status.deviceGpuName = identity.gpuName;
  status.deviceOsVersion = identity.osVersion;
  ShowName(*status.text, identity.gpuName, identity.osVersion);
}
