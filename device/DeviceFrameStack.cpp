#include "DeviceFrameStack.h"

#include <memory>
#include <vector>

namespace {

// Scratch buffers go back to a pool, as a host's allocator would keep them,
// and are freed with the last copy of the host operations.
struct ScratchPool {
  const Device& device;
  std::vector<void*> free;
  ~ScratchPool() {
    for (void* b : free) device.kind->release(device, b);
  }
};

}  // namespace

FrameStackHost MakeDeviceFrameStackHost(const Device& device, const KernelList* kernels, const FrameStackJob& job,
                                        int32_t failureCode) {
  const size_t bytes = static_cast<size_t>(job.output.rowBytes) * job.output.height;
  const GPUFramework framework = static_cast<GPUFramework>(device.kind->framework);
  auto pool = std::make_shared<ScratchPool>(ScratchPool{device, {}});
  FrameStackHost host;
  host.failureCode = failureCode;
  host.createScratch = [&device, pool, bytes](int32_t, int32_t, bool clear, void** out) -> int32_t {
    if (pool->free.empty()) pool->free.push_back(device.kind->allocate(device, bytes));
    *out = pool->free.back();
    pool->free.pop_back();
    if (clear) device.kind->fill(device, *out, 0, bytes);
    return 0;
  };
  host.deviceBuffer = [](void* frame, void** buffer) -> int32_t {
    *buffer = frame;
    return 0;
  };
  host.disposeScratch = [pool](void* s) -> int32_t {
    pool->free.push_back(s);
    return 0;
  };
  SetGPULaunches(host, framework, kernels, device.context, device.queue, failureCode);
  return host;
}

DeviceKernels::DeviceKernels(const Device& d)
    : device(&d),
      status(
          InitializeGPU(static_cast<GPUFramework>(d.kind->framework), &list, d.device, d.context, kAeGPUFailureCode)) {}

DeviceKernels::~DeviceKernels() {
  GPUDispose(static_cast<GPUFramework>(device->kind->framework), &list, kAeGPUFailureCode);
}
