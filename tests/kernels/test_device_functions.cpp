// Device functions of the kernel source, called one by one on the CPU build.
#include <gtest/gtest.h>

#include <cmath>

#include "KernelTestSupport.h"

namespace {

using gfcpu::float2;
using gfcpu::float4;
using gfcpu::make_float2;
using gfcpu::make_float4;

// A frame whose pixel (x, y) holds R = x and G = y, to see which pixel a read hits.
TestFrame CoordinateFrame(int w, int h, int pitch = 0) {
  TestFrame f(w, h, pitch);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) f.Set(x, y, static_cast<float>(x), static_cast<float>(y), 0.5f, 1.0f);
  return f;
}

float4 Sample(const TestFrame& f, float u, float v) {
  return gfcpu::getTexture(reinterpret_cast<const float4*>(f.data()), make_float2(u, v), f.width, f.height,
                           f.pitch, 0);
}

TEST(GetTexture, NearestPixelWithEdgesRepeatedOutside) {
  const TestFrame f = CoordinateFrame(8, 4, 11);
  float4 p = Sample(f, 0.5f, 0.5f);
  EXPECT_EQ(p.x, 4.0f);
  EXPECT_EQ(p.y, 2.0f);
  EXPECT_EQ(p.z, 0.5f);  // bgra applied: R, G, B in order
  p = Sample(f, -0.001f, 0.5f);
  EXPECT_EQ(p.x, 0.0f);
  EXPECT_EQ(p.y, 2.0f);
  p = Sample(f, 1.0f, 0.5f);
  EXPECT_EQ(p.x, 7.0f);
  EXPECT_EQ(p.y, 2.0f);
  p = Sample(f, 3.0f, -2.0f);
  EXPECT_EQ(p.x, 7.0f);
  EXPECT_EQ(p.y, 0.0f);
  // One component out of range clamps both: v stays, u moves down to the last pixel.
  p = Sample(f, 0.999f, 1.2f);
  EXPECT_EQ(p.x, 7.0f);
  EXPECT_EQ(p.y, 3.0f);
  // A NaN position stays inside the frame.
  p = Sample(f, NAN, NAN);
  EXPECT_LT(p.x, 8.0f);
  EXPECT_LT(p.y, 4.0f);
}

TEST(GetTexture, OwnPositionCanLandOneColumnLeft) {
  const TestFrame f = CoordinateFrame(1920, 2);
  // 63 / 1920 * 1920 falls just under 63 in single precision.
  EXPECT_EQ(Sample(f, 63.0f / 1920.0f, 0.0f).x, 62.0f);
  EXPECT_EQ(Sample(f, 64.0f / 1920.0f, 0.0f).x, 64.0f);
  int off = 0;
  for (int x = 0; x < 1920; ++x)
    if (Sample(f, static_cast<float>(x) / 1920.0f, 0.0f).x != x) ++off;
  EXPECT_GT(off, 0);
  EXPECT_LT(off, 1920 / 2);
}

TEST(VelocityRamp, SmoothBetweenEdgesAndHardStepWhenEqual) {
  EXPECT_EQ(gfcpu::velocityRamp(0.01f, 0.01f, 0.5f), 0.0f);
  EXPECT_EQ(gfcpu::velocityRamp(0.5f, 0.01f, 0.5f), 1.0f);
  EXPECT_NEAR(gfcpu::velocityRamp(0.255f, 0.01f, 0.5f), 0.5f, 1e-6f);
  EXPECT_EQ(gfcpu::velocityRamp(0.255f, 0.5f, 0.01f), gfcpu::velocityRamp(0.255f, 0.01f, 0.5f));
  // Equal edges, as under motion amplification: 0 up to the edge, 1 above.
  EXPECT_EQ(gfcpu::velocityRamp(0.0f, 0.0f, 0.0f), 0.0f);
  EXPECT_EQ(gfcpu::velocityRamp(-0.3f, 0.0f, 0.0f), 0.0f);
  EXPECT_EQ(gfcpu::velocityRamp(1e-6f, 0.0f, 0.0f), 1.0f);
}

TEST(FlowVector, KeepsXSignAndInvertsY) {
  const float2 s = make_float2(10.0f, 10.0f);
  float2 f = gfcpu::getFlowVector(0.03f, 0.02f, s);
  EXPECT_FLOAT_EQ(f.x, 0.3f);
  EXPECT_FLOAT_EQ(f.y, -0.2f);
  f = gfcpu::getFlowVector(-0.03f, -0.02f, s);
  EXPECT_FLOAT_EQ(f.x, -0.3f);
  EXPECT_FLOAT_EQ(f.y, 0.2f);
  f = gfcpu::getFlowVector(0.5f, 0.0f, s);
  EXPECT_EQ(f.y, 0.0f);
}

// Two frames for getFlow: the older one brighter (by `step`) at the centre
// pixel, and a horizontal ramp of slope `slope` per tenth of the width.
struct FlowPair {
  TestFrame pre, cur;
  KernelData kd = DefaultKernelData();
  FlowPair(float step, float slope, float alpha = 1.0f) : pre(40, 40), cur(40, 40) {
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        const float g = 0.2f + slope * static_cast<float>(x) / 4.0f;  // 4 px = a tenth of 40
        pre.Set(x, y, g, g, g, alpha);
        cur.Set(x, y, g, g, g, alpha);
      }
    const float g = 0.2f + slope * 5.0f;
    pre.Set(20, 20, g + step, g + step, g + step, alpha);
  }
  float2 Flow(int x = 20, int y = 20) {
    return gfcpu::getFlow(reinterpret_cast<const float4*>(pre.data()), reinterpret_cast<const float4*>(cur.data()),
                          &kd, 40, 40, 40, 40, 0, x, y);
  }
};

TEST(GetFlow, SaturatesForSmallGradients) {
  // gradX of 4 * slope (two frames, both taps): 0.0711 is enough for a flow of 1.
  FlowPair p(0.6f, 0.0711f / 4.0f);
  EXPECT_EQ(p.Flow().x, 1.0f);
  EXPECT_EQ(p.Flow().y, 0.0f);
  FlowPair q(0.6f, 0.05f / 4.0f);
  EXPECT_GT(q.Flow().x, 0.5f);
  EXPECT_LT(q.Flow().x, 1.0f);
}

TEST(GetFlow, OnlyABrighterOlderFrameMoves) {
  FlowPair darker(-0.6f, 0.05f);
  EXPECT_EQ(darker.Flow().x, 0.0f);
  EXPECT_EQ(darker.Flow().y, 0.0f);
  // Transparent pixels have no velocity, whatever their colour.
  FlowPair clear(0.6f, 0.05f, 0.0f);
  EXPECT_EQ(clear.Flow().x, 0.0f);
  // Under motion amplification any brighter older pixel moves fully.
  FlowPair amp(0.001f, 0.0711f / 4.0f);
  amp.kd.minVel = amp.kd.maxVel = 0.0f;
  EXPECT_EQ(amp.Flow().x, 1.0f);
}

TEST(GetFlow, GradientTapsClampAtTheEdges) {
  // At column 1 the left tap (a tenth of the width away) reads column 0.
  FlowPair p(0.0f, 0.02f);
  p.pre.Set(1, 20, 1.0f, 1.0f, 1.0f, 1.0f);
  p.kd.minVel = p.kd.maxVel = 0.0f;
  const float g0 = 0.2f, g5 = 0.2f + 0.02f * 5.0f / 4.0f;
  // gradX = 2 * (gray(col 5) - gray(col 0)), times 10, positive.
  const float gx = 2.0f * (g5 - g0);
  const float expected = std::fmin(10.0f * gx / std::sqrt(gx * gx + 0.5f), 1.0f);
  EXPECT_NEAR(p.Flow(1, 20).x, expected, 1e-5f);
}

// ---- Blend modes: base is the new difference, blend the accumulation. ----

float Blend(int mode, float base, float blend) {
  return gfcpu::applyBlendMode(make_float4(base, base, base, base), make_float4(blend, blend, blend, blend), 1.0f,
                               mode)
      .x;
}

TEST(BlendModes, EveryModeAtFullWeight) {
  struct Row { int mode; float base, blend, expected; } rows[] = {
      {BLEND_NONE, 0.3f, 0.9f, 0.3f},
      {BLEND_ADD, 0.7f, 0.6f, 1.3f},  // no clamp
      {BLEND_SCREEN, 0.5f, 0.5f, 0.75f},
      {BLEND_SCREEN, 1.5f, 2.0f, 0.5f},  // no clamp: above 1 falls back below
      {BLEND_LIGHTEN, 0.3f, 0.6f, 0.6f},
      {BLEND_COLOR_DODGE, 0.2f, 0.5f, 0.4f},
      {BLEND_COLOR_DODGE, 0.2f, 1.0f, 1.0f},  // blend 1 returns before dividing
      {BLEND_COLOR_DODGE, 0.8f, 0.5f, 1.0f},
      {BLEND_OVERLAY, 0.25f, 0.5f, 0.25f},
      {BLEND_OVERLAY, 0.75f, 0.5f, 0.75f},
      {BLEND_SOFT_LIGHT, 0.25f, 0.25f, 0.15625f},
      {BLEND_SOFT_LIGHT, 0.25f, 0.75f, 0.375f},
      {BLEND_LINEAR_LIGHT, 0.5f, 0.25f, 0.0f},
      {BLEND_LINEAR_LIGHT, 0.5f, 0.75f, 1.0f},
      {BLEND_PIN_LIGHT, 0.8f, 0.25f, 0.5f},
      {BLEND_PIN_LIGHT, 0.2f, 0.75f, 0.5f},
      {BLEND_HARD_MIX, 0.6f, 0.6f, 1.0f},
      {BLEND_HARD_MIX, 0.2f, 0.3f, 0.0f},
      {42, 0.3f, 0.9f, 0.3f},  // unknown modes keep the base
  };
  for (const Row& r : rows)
    EXPECT_NEAR(Blend(r.mode, r.base, r.blend), r.expected, 1e-6f)
        << "mode " << r.mode << " base " << r.base << " blend " << r.blend;
}

TEST(BlendModes, MixByPercentAndEdgeFormulas) {
  const float4 base = make_float4(0.2f, 0.4f, 0.6f, 1.0f);
  const float4 blend = make_float4(0.5f, 0.5f, 0.5f, 0.5f);
  float4 r = gfcpu::applyBlendMode(base, blend, 0.0f, BLEND_ADD);
  EXPECT_EQ(r.x, base.x);
  EXPECT_EQ(r.w, base.w);
  r = gfcpu::applyBlendMode(base, blend, 0.25f, BLEND_ADD);
  EXPECT_FLOAT_EQ(r.x, 0.2f + 0.25f * 0.5f);
  EXPECT_FLOAT_EQ(r.w, 1.0f + 0.25f * 0.5f);  // alpha blends too
  r = gfcpu::applyBlendMode(base, blend, 0.7f, BLEND_NONE);
  EXPECT_EQ(r.y, base.y);

  EXPECT_EQ(gfcpu::blendColorBurn(0.3f, 0.0f), 0.0f);
  EXPECT_FLOAT_EQ(gfcpu::blendColorBurn(0.75f, 0.5f), 0.5f);
  EXPECT_EQ(gfcpu::blendColorDodge(0.3f, 1.0f), 1.0f);
  // Soft light takes the root of base from blend 0.5 on: a negative base is NaN.
  EXPECT_TRUE(std::isnan(Blend(BLEND_SOFT_LIGHT, -0.25f, 0.5f)));
  EXPECT_FALSE(std::isnan(Blend(BLEND_SOFT_LIGHT, -0.25f, 0.49f)));
}

TEST(BlendModes, LighterColorPicksTheBrighterVectorWhole) {
  const float4 base = make_float4(0.0f, 1.0f, 0.0f, 0.3f);  // brightness 0.7152
  const float4 blend = make_float4(1.0f, 0.0f, 1.0f, 0.9f);  // 0.2848
  float4 r = gfcpu::applyBlendMode(base, blend, 1.0f, BLEND_LIGHTER_COLOR);
  EXPECT_EQ(r.x, 0.0f);
  EXPECT_EQ(r.w, 0.3f);
  r = gfcpu::applyBlendMode(blend, base, 1.0f, BLEND_LIGHTER_COLOR);
  EXPECT_EQ(r.y, 1.0f);
  EXPECT_EQ(r.w, 0.3f);
  // Equal brightness keeps the base.
  r = gfcpu::applyBlendMode(make_float4(0.5f, 0.5f, 0.5f, 1.0f), make_float4(0.5f, 0.5f, 0.5f, 0.0f), 1.0f,
                            BLEND_LIGHTER_COLOR);
  EXPECT_EQ(r.w, 1.0f);
}

}  // namespace
