// A stand-in CUDA driver library, loaded by the module in place of
// libcuda.so.1: the entry points it resolves, recording what they are asked.
#include "FakeCudaDriver.h"

#include <cstring>

namespace {
FakeCudaDriver state;
thread_local CUcontext current = nullptr;
const char* const kKernels[] = {"MainKernel", "ResizeKernel", "StackKernel"};
const size_t kArgCounts[] = {13, 11, 25};
}  // namespace

FakeCudaDriver* FakeCudaDriverState() { return &state; }
void FakeCudaMakeCurrent(CUcontext context) { current = context; }

CUresult cuInit(unsigned int) { return CUDA_SUCCESS; }
CUresult cuGetErrorString(CUresult e, const char** text) {
  *text = e == CUDA_ERROR_LAUNCH_FAILED ? "unspecified launch failure" : "invalid device context";
  return CUDA_SUCCESS;
}
CUresult cuCtxGetCurrent(CUcontext* context) {
  *context = current;
  return CUDA_SUCCESS;
}
CUresult cuCtxSynchronize() { return ++state.syncs, CUDA_SUCCESS; }
CUresult cuModuleLoadData(CUmodule* module, const void* image) {
  std::lock_guard<std::mutex> lock(state.mutex);  // the module loads under a lock of its own
  *module = reinterpret_cast<CUmodule>(current);
  state.image = image;
  state.loads.push_back(current);
  return CUDA_SUCCESS;
}
CUresult cuModuleUnload(CUmodule) { return CUDA_SUCCESS; }
CUresult cuModuleGetFunction(CUfunction* function, CUmodule, const char* name) {
  for (size_t i = 0; i < 3; ++i)
    if (std::strcmp(name, kKernels[i]) == 0) *function = reinterpret_cast<CUfunction>(i + 1);
  return CUDA_SUCCESS;
}
CUresult cuLaunchKernel(CUfunction function, unsigned int gx, unsigned int gy, unsigned int gz, unsigned int bx,
                        unsigned int by, unsigned int bz, unsigned int, CUstream, void** params, void**) {
  const size_t k = reinterpret_cast<size_t>(function) - 1;
  FakeLaunch launch{kKernels[k], {gx, gy, gz, bx, by, bz}};
  for (size_t i = 0; i < kArgCounts[k]; ++i) {
    const auto* b = static_cast<const unsigned char*>(params[i]);
    launch.words.push_back(b[0] | b[1] << 8 | b[2] << 16 | uint32_t(b[3]) << 24);
  }
  std::lock_guard<std::mutex> lock(state.mutex);
  state.launches.push_back(launch);
  return state.launchResult;
}
CUresult cuMemAlloc_v2(CUdeviceptr* pointer, size_t) {
  *pointer = 0x5000;
  return ++state.liveAllocations, CUDA_SUCCESS;
}
CUresult cuMemcpyHtoD_v2(CUdeviceptr, const void*, size_t) { return CUDA_SUCCESS; }
CUresult cuMemFree_v2(CUdeviceptr) { return --state.liveAllocations, CUDA_SUCCESS; }
