// A short clip whose whole-frame renders agree between every device form and
// the CPU reference, and the reference render of its stacks. Shared by the
// tests that render through the host and through tremor-render.
#ifndef TREMOR_CLIP_REFERENCE_H
#define TREMOR_CLIP_REFERENCE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "CpuRender.h"

constexpr int kClipW = 64, kClipH = 32;  // powers of two: own-pixel reads agree across forms

// Frame k, R, G, B, A rows: a band moving right two pixels a frame over a
// steep ramp, varying along x only, so flow and displaced reads agree between
// OpenCL and the reference.
inline std::vector<float> ClipFrameRGBA(int k) {
  std::vector<float> px;
  for (int y = 0; y < kClipH; ++y)
    for (int x = 0; x < kClipW; ++x) {
      const bool band = x >= 10 + 2 * k && x < 20 + 2 * k;
      const float g = 0.1f + 0.012f * x + (band ? 0.05f : 0.0f);
      px.insert(px.end(), {g, 0.9f * g, 0.8f * g + 0.05f, 0.6f + 0.4f * x / kClipW});
    }
  return px;
}

// R, G, B, A to B, G, R, A and back: the same swap.
inline std::vector<float> SwapRB(std::vector<float> px) {
  for (size_t i = 0; i < px.size(); i += 4) std::swap(px[i], px[i + 2]);
  return px;
}

// The frame-stack loop on the CPU reference over `count` clip frames back from
// `newest`, R, G, B, A; before the clip's start the oldest frame repeats.
inline std::vector<float> ClipReferenceRGBA(int newest, int count, KernelData kd) {
  std::vector<std::vector<float>> frames;
  for (int i = 0; i < count; ++i) frames.push_back(SwapRB(ClipFrameRGBA(std::max(newest - i, 0))));
  std::vector<float> out(kClipW * kClipH * 4, 0.0f);
  FrameStackJob job{{}, {out.data(), kClipW, kClipH, kClipW * 16, 0, 0}, false, &kd};
  for (auto& f : frames) job.frames.push_back({f.data(), kClipW, kClipH, kClipW * 16, 0, 0});
  kd.numFrames = count;
  EXPECT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);
  return SwapRB(out);
}

#endif
