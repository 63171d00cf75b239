// What the stack benchmarks share: the paths of the frame-stack loop, the bytes
// each must move, and the copy bandwidth that the achieved rate is set against.
#ifndef TREMOR_BENCH_COPY_H
#define TREMOR_BENCH_COPY_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Kernel_Data.h"

constexpr int64_t kPixelBytes = 16;

enum class StackPath : int64_t {
  Passes = 0,     // pass by pass, default settings
  Fused = 1,      // StackKernel launches, default settings
  Amplified = 2,  // pass by pass with motion amplification, which needs it
  FusedBytes = 3, // StackKernel launches on 8-bit frames, as the engine holds them
};

// 1080p and 2160p stacks of 2 and 10 frames, by every path.
inline void StackArgs(benchmark::internal::Benchmark* b) {
  for (int64_t size : {1080, 2160})
    for (int64_t frames : {2, 10})
      for (int64_t path : {0, 1, 2, 3}) b->Args({size * 16 / 9, size, frames, path});
}

// Frame-sized buffers a path reads or writes for one stack. A pass reads its
// two frames, the accumulation unless it is the first of several, and writes
// the accumulation; the last writes the output. StackKernel reads each frame
// once and writes the output, plus the accumulation handed between chunks. A
// lone pair also clears and reads an empty accumulation on either path.
inline int64_t StackFrameBuffers(int64_t numFrames, StackPath path) {
  const int64_t passes = numFrames - 1;
  const int64_t lonePair = passes == 1 ? 2 : 0;
  if (path == StackPath::Fused || path == StackPath::FusedBytes) {
    const int64_t chunks = (passes + STACK_CHUNK_FRAMES - 2) / (STACK_CHUNK_FRAMES - 1);
    return numFrames + 1 + 2 * (chunks - 1) + lonePair;
  }
  return passes * 3 + (passes - 1) + 1 + lonePair;
}

// Median of five copies of 256 MiB, in bytes per second.
template <typename Copy>
double MedianCopyRate(Copy copy, size_t bytes = size_t{256} << 20) {
  std::vector<double> rates;
  copy();  // first touch
  for (int i = 0; i < 5; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    copy();
    const std::chrono::duration<double> s = std::chrono::steady_clock::now() - t0;
    rates.push_back(static_cast<double>(bytes) * 2.0 / s.count());  // read and written
  }
  std::sort(rates.begin(), rates.end());
  return rates[2];
}

inline double HostCopyBytesPerSecond() {
  static const double rate = [] {
    const size_t bytes = size_t{256} << 20;
    std::vector<char> a(bytes, 1), b(bytes, 2);
    return MedianCopyRate([&] {
      std::memcpy(b.data(), a.data(), bytes);
      benchmark::DoNotOptimize(b.data());
    });
  }();
  return rate;
}

// Bytes moved per stack, the rate achieved and its fraction of the copy rate.
inline void SetStackCounters(benchmark::State& state, int64_t w, int64_t h, int64_t numFrames, StackPath path,
                             double copyBytesPerSecond) {
  // Byte frames are read at 4 bytes a pixel; everything else is float.
  const int64_t frameBytes = path == StackPath::FusedBytes ? 4 : kPixelBytes;
  const double bytes = static_cast<double>(
      ((StackFrameBuffers(numFrames, path) - numFrames) * kPixelBytes + numFrames * frameBytes) * w * h);
  const double total = bytes * static_cast<double>(state.iterations());
  state.counters["MB"] = bytes / 1e6;
  state.counters["GB/s"] = benchmark::Counter(total / 1e9, benchmark::Counter::kIsRate);
  state.counters["of_copy"] = benchmark::Counter(total / copyBytesPerSecond, benchmark::Counter::kIsRate);
  state.counters["copy_GB/s"] = copyBytesPerSecond / 1e9;
}

#endif
