// What the stand-in CUDA driver (fake_libcuda.cpp) records and how a test
// steers it; the test reaches it through the library the module loaded.
#ifndef TREMOR_FAKE_CUDA_DRIVER_H
#define TREMOR_FAKE_CUDA_DRIVER_H

#include <cuda.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct FakeLaunch {
  std::string kernel;
  std::vector<uint32_t> words;  // grid, block, then the first four bytes of each argument
};

struct FakeCudaDriver {
  std::mutex mutex;
  std::vector<CUcontext> loads;  // the context of each module load
  const void* image = nullptr;
  std::vector<FakeLaunch> launches;
  std::atomic<int> liveAllocations{0}, syncs{0};
  CUresult launchResult = CUDA_SUCCESS;
};

extern "C" FakeCudaDriver* FakeCudaDriverState();
extern "C" void FakeCudaMakeCurrent(CUcontext context);  // for the calling thread

#endif
