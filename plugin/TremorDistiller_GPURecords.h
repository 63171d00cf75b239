// The records through which the GPU layer, the hosts' adapters, the software
// path and the UI meet: the framework numbering, the per-device kernel list and
// the process-wide GPU status.
#ifndef TREMORDISTILLER_GPURECORDS_H
#define TREMORDISTILLER_GPURECORDS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

// The system's own numbering, different from both hosts'.
enum GPUFramework : int32_t {
  GPU_FRAMEWORK_NONE = -1,  // the host gave a framework that has no name here
  CUDA = 0,
  OpenCL = 1,
  Metal = 2,
  CPUReference = 3,  // ours alone: the kernels compiled as C++; no host hands it
};

// Table text of a framework; the table is never read outside its rows.
const char* GPUFrameworkText(GPUFramework framework);

// The host's value to ours, applied at set-up, set-down and every render.
GPUFramework FrameworkFromAeWhatGpu(int32_t whatGpu);  // 1 OpenCL, 2 Metal, 3 CUDA

struct KernelEntry {
  char name[128];  // always NUL-terminated
  void* kernel;    // cl_kernel; null when there is none
};

// Slot 0 MainKernel, slot 1 ResizeKernel, slot 2 StackKernel, by position.
// cpuDevice: the OpenCL device runs on the CPU (StackKernel's launch shape).
// identityShown: the device's first pass has read the GPU identity. Passes get
// the list as const and set it under GPUStatus::mutex; the hosts hand it over
// zeroed, so a device set up anew reads it anew.
struct KernelList {
  KernelEntry entries[3];
  bool cpuDevice;
  mutable bool identityShown;
};

struct GPUStatusText {
  std::string gpuName;
  std::string frameworkName;
  std::string osVersion;
  std::string noticeLine1;
  std::string noticeLine2;
};

// One per process, reached from whichever host thread runs a set-up, teardown,
// render or draw: the texts change under `mutex` only (EditGPUStatusText).
struct GPUStatus {
  std::unique_ptr<GPUStatusText> text = std::make_unique<GPUStatusText>();
  std::atomic<bool> noDevice{true};
  std::atomic<bool> softwareRenderSeen{false};
  std::mutex mutex;
  // What the latest device's first pass read of the adapter and OS, so a
  // render can bring the name back after a notice without reading it again.
  std::string deviceGpuName;
  std::string deviceOsVersion;
};

GPUStatus& GetGPUStatus();

// Changes the texts under the record's lock.
void EditGPUStatusText(const std::function<void(GPUStatusText&)>& change);
// A consistent copy of the texts.
GPUStatusText ReadGPUStatusText();

// ---- Identification and error texts ----

// Logs the adapter and OS and sets gpuName and osVersion.
void FillGPUIdentity(GPUStatusText& text);

// At each pass. A device's first pass reads the identity and shows it, once
// however many of its renders run at once; a device refused at set-up never
// gets here, so the UI never names one. Every other pass reads and logs
// nothing: after a notice took the name down, the name comes back and the
// notice goes. `device` null (CUDA needs no list): nothing to read once for.
void ShowDeviceIdentity(const KernelList* device);

// "NVIDIA GeForce RTX 3080 Ti" -> "RTX 3080"; unchanged when nothing matches.
std::string ShortGPUName(const std::string& description);

// "Code: 0xFFFFFFF5 (Build program failure)".
std::string OpenCLErrorText(int32_t code);

#endif
