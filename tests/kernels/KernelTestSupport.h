// Small frames in host memory for tests on the CPU reference device.
#ifndef TREMOR_KERNEL_TEST_SUPPORT_H
#define TREMOR_KERNEL_TEST_SUPPORT_H

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "CpuKernels.h"

// A 32-bit frame of B, G, R, A floats with a pitch and, around the pixels, a
// guard band of sentinel values that no kernel may touch.
struct TestFrame {
  static constexpr size_t kGuard = 64;  // floats before and after
  static constexpr float kSentinel = -12345.5f;

  int width = 0, height = 0, pitch = 0;
  std::vector<float> storage;

  TestFrame(int w, int h, int p = 0) : width(w), height(h), pitch(p ? p : w) {
    storage.assign(kGuard * 2 + static_cast<size_t>(pitch) * h * 4, kSentinel);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) Set(x, y, 0, 0, 0, 0);
  }
  float* data() { return storage.data() + kGuard; }
  const float* data() const { return storage.data() + kGuard; }

  // Colour in R, G, B, A order; stored as B, G, R, A.
  void Set(int x, int y, float r, float g, float b, float a) {
    float* p = data() + (static_cast<size_t>(y) * pitch + x) * 4;
    p[0] = b;
    p[1] = g;
    p[2] = r;
    p[3] = a;
  }
  void Fill(float r, float g, float b, float a) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) Set(x, y, r, g, b, a);
  }
  gfcpu::float4 Rgba(int x, int y) const {
    const float* p = data() + (static_cast<size_t>(y) * pitch + x) * 4;
    return {p[2], p[1], p[0], p[3]};
  }
  // True when the guard bands and the padding right of each row are untouched.
  bool GuardsIntact() const {
    for (size_t i = 0; i < kGuard; ++i)
      if (storage[i] != kSentinel || storage[storage.size() - 1 - i] != kSentinel) return false;
    for (int y = 0; y < height; ++y)
      for (int x = width; x < pitch; ++x)
        for (int c = 0; c < 4; ++c)
          if (data()[(static_cast<size_t>(y) * pitch + x) * 4 + c] != kSentinel) return false;
    return true;
  }
  bool BitEqual(const TestFrame& o) const {
    return storage.size() == o.storage.size() &&
           std::memcmp(storage.data(), o.storage.data(), storage.size() * sizeof(float)) == 0;
  }
};

inline KernelData DefaultKernelData(int numFrames = 10) {
  KernelData kd{};
  kd.numFrames = numFrames;
  kd.percentEase = 4.0f;  // "Frames Fade" 80
  kd.blendMode = BLEND_ADD;
  kd.diffMode = DIFF_DIFF;
  kd.output = FROM_MOTION;
  kd.minVel = 0.01f;
  kd.maxVel = 0.5f;
  return kd;
}

// Deterministic pseudo-random values in [lo, hi).
struct TestRandom {
  uint32_t state;
  explicit TestRandom(uint32_t seed) : state(seed) {}
  float Next(float lo, float hi) {
    state = state * 1664525u + 1013904223u;
    return lo + (hi - lo) * static_cast<float>(state >> 8) / 16777216.0f;
  }
};

#endif
