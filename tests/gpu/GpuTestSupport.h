// Shared by the GPU-layer tests: reading the debugger channel, swapping rows of
// the GPU call tables, and running the frame-stack loop on OpenCL buffers.
#ifndef TREMOR_GPU_TEST_SUPPORT_H
#define TREMOR_GPU_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <Windows.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "OpenCLDevice.h"
#include "TremorDistiller_FrameStack.h"
#include "TremorDistiller_GPUCalls.h"

// Every record sent while it lives, as the debugger channel receives it.
class LogCapture {
 public:
  LogCapture() { SetDebugOutputSink(&LogCapture::Sink, this); }
  ~LogCapture() { SetDebugOutputSink(nullptr, nullptr); }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  size_t Count(const std::string& needle) {
    size_t n = 0;
    for (const auto& l : Lines())
      if (l.find(needle) != std::string::npos) ++n;
    return n;
  }
  std::string All() {
    std::string s;
    for (const auto& l : Lines()) s += l;
    return s;
  }

 private:
  static void Sink(const char* text, void* user) {
    auto* self = static_cast<LogCapture*>(user);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(text);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Restores the call tables when a test is done with its fakes.
struct ScopedGPUCalls {
  OpenCLCalls savedCL = GetOpenCLCalls();
  CudaCalls savedCuda = GetCudaCalls();
  ~ScopedGPUCalls() {
    GetOpenCLCalls() = savedCL;
    GetCudaCalls() = savedCuda;
  }
};

// Opens the default OpenCL device (PoCL here) or skips the test.
inline bool OpenTestDevice(OpenCLDevice& device) {
  setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
  std::string error;
  return OpenOpenCLDevice(-1, 0, device, error);
}

// Host operations over OpenCL buffers of one device; scratch buffers take the
// output's pitch. The pass is supplied by the test's own unit.
inline FrameStackHost MakeOpenCLFrameStackHost(const OpenCLDevice& device, const FrameStackJob& job,
                                               decltype(FrameStackHost::runPass) runPass) {
  const size_t bytes = static_cast<size_t>(job.output.rowBytes) * job.output.height;
  FrameStackHost host;
  host.failureCode = 512;
  host.createScratch = [device, bytes](int32_t, int32_t, bool clear, void** out) -> int32_t {
    cl_mem m = CreateOpenCLBuffer(device, bytes);
    if (clear) ClearOpenCLBuffer(device, m, bytes);
    *out = m;
    return 0;
  };
  host.deviceBuffer = [](void* frame, void** buffer) -> int32_t {
    *buffer = frame;
    return 0;
  };
  host.disposeScratch = [](void* s) -> int32_t { return clReleaseMemObject(static_cast<cl_mem>(s)); };
  host.runPass = std::move(runPass);
  return host;
}

#endif
