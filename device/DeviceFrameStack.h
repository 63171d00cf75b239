// The frame-stack loop's host operations over an open device, for the tests
// and benchmarks that drive the GPU pass without a host around it: scratch
// buffers come from the device with the output's pitch, a frame's handle is
// its device buffer, and each pass is GPURender on the device's framework.
#ifndef TREMOR_HOST_DEVICEFRAMESTACK_H
#define TREMOR_HOST_DEVICEFRAMESTACK_H

#include "Device.h"
#include "TremorDistiller_AePrGPU_Functions.h"

FrameStackHost MakeDeviceFrameStackHost(const Device& device, const KernelList* kernels, const FrameStackJob& job,
                                        int32_t failureCode = kAeGPUFailureCode);

// The effect's kernels on a device, as a host's device set-up makes them.
struct DeviceKernels {
  const Device* device;
  KernelList list{};
  int32_t status;
  explicit DeviceKernels(const Device& d);
  ~DeviceKernels();
  DeviceKernels(const DeviceKernels&) = delete;
  DeviceKernels& operator=(const DeviceKernels&) = delete;
};

#endif
