// Shared by the GPU-layer tests: reading the debugger channel and swapping rows
// of the GPU call tables.
#ifndef TREMOR_GPU_TEST_SUPPORT_H
#define TREMOR_GPU_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <Windows.h>

#include <mutex>
#include <string>
#include <vector>

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

#endif
