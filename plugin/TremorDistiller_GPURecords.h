// The records through which the GPU layer, the hosts' adapters, the software
// path and the UI meet: the framework numbering, the per-device kernel list and
// the process-wide GPU status.
#ifndef TREMORDISTILLER_GPURECORDS_H
#define TREMORDISTILLER_GPURECORDS_H

#include <cstdint>
#include <memory>
#include <string>

// The system's own numbering, different from both hosts'.
enum GPUFramework : int32_t {
  GPU_FRAMEWORK_NONE = -1,  // the host gave a framework that has no name here
  CUDA = 0,
  OpenCL = 1,
  Metal = 2,
};

// Table text of a framework; the table is never read outside its three rows.
const char* GPUFrameworkText(GPUFramework framework);

// Host values to ours, applied at set-up, set-down and every render.
GPUFramework FrameworkFromAeWhatGpu(int32_t whatGpu);         // 1 OpenCL, 2 Metal, 3 CUDA
GPUFramework FrameworkFromPrDeviceFramework(int32_t framework);  // 0 CUDA, 1 OpenCL, 2 Metal

struct KernelEntry {
  char name[128];  // always NUL-terminated
  void* kernel;    // cl_kernel; null when there is none
};

// Slot 0 MainKernel, slot 1 ResizeKernel, by position.
struct KernelList {
  KernelEntry entries[2];
};

struct GPUStatusText {
  std::string gpuName;
  std::string frameworkName;
  std::string osVersion;
  std::string noticeLine1;
  std::string noticeLine2;
};

// One per process. Plain data written from whichever host thread runs a
// set-up, teardown, render or draw; whole-record consistency is not promised.
struct GPUStatus {
  std::unique_ptr<GPUStatusText> text = std::make_unique<GPUStatusText>();
  bool noDevice = true;
  bool softwareRenderSeen = false;
};

GPUStatus& GetGPUStatus();

// ---- Identification and error texts ----

// Logs the adapter and OS and sets gpuName and osVersion.
void FillGPUIdentity(GPUStatusText& text);

// "NVIDIA GeForce RTX 3080 Ti" -> "RTX 3080"; unchanged when nothing matches.
std::string ShortGPUName(const std::string& description);

// "Code: 0xFFFFFFF5 (Build program failure)".
std::string OpenCLErrorText(int32_t code);

#endif
