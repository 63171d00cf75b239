// Scenes for comparing a GPU framework with the CPU reference device, and the
// reference render and comparison themselves.
#ifndef TREMOR_RENDER_SCENES_H
#define TREMOR_RENDER_SCENES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "CpuRender.h"
#include "KernelTestSupport.h"

// OpenCL builds with fast relaxed maths and stores true halves rounding toward
// zero; the reference rounds every step. Tolerances are absolute below 1 and
// relative above.
//
// Nearest-pixel sampling makes agreement depend on where samples fall: a
// position a few ulps apart picks the neighbouring pixel (the reference's
// x / w * w can land one column left, which fast maths may fold to x), and
// motion amplification's hard step moves a read by five texels or not at all.
// The scenes keep every sample away from such boundaries, so the comparison
// can stay tight:
//  - a lone pair on random data at an odd size: its one pass reads only a
//    cleared accumulation;
//  - longer stacks on random data at a width and height that are powers of
//    two, where a pixel's own position maps back to itself exactly;
//  - with motion amplification or chromatic aberration, stripes that vary
//    along x only and move in whole pixels, so the velocity is either exactly
//    zero or clearly not and the flow saturates at exactly -1, 0 or 1. Reads
//    then land whole texels away, on pixel corners, where an approximate
//    reciprocal can tip one column over (PoCL's 1/64 is not exact, which
//    shows near the left edge, so the stripes move only from column 10 on and
//    have no canvas, whose edge would move them there): each value may match
//    the reference anywhere in its 3x3 neighbourhood.
constexpr float kOpenCLTolerance32 = 1e-4f;
constexpr float kOpenCLTolerance16 = 2e-3f;  // a half's ulp at 1.0 is 1e-3

enum class Content { Random, Stripes };

struct Scene {
  int w, h, pitch, numFrames;
  bool is16f;
  std::vector<std::vector<float>> frames;     // 32-bit B, G, R, A
  std::vector<std::vector<uint16_t>> halves;  // the same frames in the 16-bit form below
  std::vector<std::pair<int, int>> offsets;
  CpuHalfForm form;

  Scene(Content content, int width, int height, int n, bool sixteen, uint32_t seed,
        CpuHalfForm halfForm = CpuHalfForm::OpenCL)
      : w(width), h(height), pitch(width + 3), numFrames(n), is16f(sixteen), offsets(n, {0, 0}), form(halfForm) {
    TestRandom rnd(seed);
    for (int i = 0; i < n; ++i) {
      std::vector<float> f(static_cast<size_t>(pitch) * h * 4, 0.0f);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          float* p = &f[(static_cast<size_t>(y) * pitch + x) * 4];
          if (content == Content::Random) {
            p[0] = rnd.Next(-0.25f, 1.25f);
            p[1] = rnd.Next(0.0f, 1.0f);
            p[2] = rnd.Next(0.0f, 2.0f);
            p[3] = rnd.Next(0.5f, 1.0f);
            continue;
          }
          // A band moving right in whole pixels over a steep ramp.
          const float ramp = 0.1f + 0.012f * x;
          const bool band = x >= 10 + 3 * (n - i) && x < 20 + 3 * (n - i);
          const float g = ramp + (band ? 0.05f : 0.0f);
          p[2] = g;
          p[1] = g * 0.9f;
          p[0] = g * 0.8f + 0.05f;
          p[3] = 0.6f + 0.4f * x / w;
        }
      frames.push_back(f);
      std::vector<uint16_t> hf(f.size());
      for (size_t k = 0; k < f.size(); ++k)
        hf[k] = form == CpuHalfForm::OpenCL ? gfcpu::FloatToHalfRtz(f[k])
                                            : gfcpu::PatternFromValue(gfcpu::floatToHalf(f[k]));
      halves.push_back(hf);
    }
  }
  size_t PixelBytes() const { return is16f ? 8 : 16; }
  size_t Bytes() const { return static_cast<size_t>(pitch) * h * PixelBytes(); }
  const void* Frame(int i) const { return is16f ? static_cast<const void*>(halves[i].data()) : frames[i].data(); }
};

// The delivered picture as floats, whatever the storage form.
inline std::vector<float> AsFloats(const Scene& s, const std::vector<unsigned char>& bytes) {
  std::vector<float> out;
  if (s.is16f) {
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
      const uint16_t u = static_cast<uint16_t>(bytes[i] | (bytes[i + 1] << 8));
      out.push_back(s.form == CpuHalfForm::OpenCL ? gfcpu::HalfToFloat(u) : gfcpu::halfToFloat(gfcpu::PatternValue(u)));
    }
  } else {
    out.resize(bytes.size() / 4);
    std::memcpy(out.data(), bytes.data(), bytes.size());
  }
  return out;
}

// fused false runs every stack pass by pass, as displaced modes always do.
inline std::vector<unsigned char> RenderReference(const Scene& s, KernelData kd, bool fused = true) {
  FrameStackJob job;
  for (int i = 0; i < s.numFrames; ++i)
    job.frames.push_back({const_cast<void*>(s.Frame(i)), s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()),
                          s.offsets[i].first, s.offsets[i].second});
  std::vector<unsigned char> out(s.Bytes(), 0xA5);
  job.output = {out.data(), s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()), 0, 0};
  job.is16f = s.is16f;
  job.kernelData = &kd;
  CpuLaunchConfig config;
  config.halfForm = s.form;
  config.threads = 2;
  FrameStackHost host = MakeCpuFrameStackHost(config, job);
  if (!fused) host.runStack = nullptr;
  EXPECT_EQ(RenderFrameStack(job, host), 0);
  return out;
}

// Worst distance of `a` from the reference `b`, relative above 1: per value,
// from the range of the reference's values within `radius` pixels (0: the
// value itself). A NaN must stand where the reference has one. The padding
// right of each row must hold the same guard bytes in both.
inline float Compare(const Scene& s, const std::vector<unsigned char>& a, const std::vector<unsigned char>& b,
                     int radius = 0) {
  const std::vector<float> fa = AsFloats(s, a), fb = AsFloats(s, b);
  const size_t valueBytes = s.is16f ? 2 : 4;
  auto index = [&](int x, int y, int c) { return (static_cast<size_t>(y) * s.pitch + x) * 4 + c; };
  float worst = 0.0f;
  for (int y = 0; y < s.h; ++y)
    for (int x = 0; x < s.pitch; ++x)
      for (int c = 0; c < 4; ++c) {
        const size_t i = index(x, y, c);
        if (x >= s.w) {
          EXPECT_EQ(std::memcmp(&a[i * valueBytes], &b[i * valueBytes], valueBytes), 0) << "padding written";
          continue;
        }
        if (std::isnan(fa[i]) || std::isnan(fb[i])) {
          if (std::isnan(fa[i]) != std::isnan(fb[i])) worst = INFINITY;
          continue;
        }
        float lo = fb[i], hi = fb[i];
        for (int dy = -radius; dy <= radius; ++dy)
          for (int dx = -radius; dx <= radius; ++dx) {
            const float r = fb[index(std::clamp(x + dx, 0, s.w - 1), std::clamp(y + dy, 0, s.h - 1), c)];
            lo = std::min(lo, r);
            hi = std::max(hi, r);
          }
        const float off = fa[i] < lo ? lo - fa[i] : (fa[i] > hi ? fa[i] - hi : 0.0f);
        worst = std::max(worst, off / std::max(1.0f, std::fabs(fa[i])));
      }
  return worst;
}

#endif
