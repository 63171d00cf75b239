// Device functions of the kernel source, called one by one on the CPU build.
#include <gtest/gtest.h>

#include <cmath>

#include "KernelTestSupport.h"
#include "TremorDistiller_FrameStack.h"

namespace {

using gfcpu::float2;
using gfcpu::float4;
using gfcpu::make_float2;
using gfcpu::make_float4;

float4 Sample(const TestFrame& f, float u, float v) {
  return gfcpu::getTexture(reinterpret_cast<const float4*>(f.data()), make_float2(u, v), f.width, f.height, f.pitch, 0);
}

// Pixel (x, y) holds R = x and G = y, so a read tells which pixel it hit.
TestFrame CoordinateFrame(int w, int h, int pitch = 0) {
  TestFrame f(w, h, pitch);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) f.Set(x, y, static_cast<float>(x), static_cast<float>(y), 0.5f, 1.0f);
  return f;
}

TEST(GetTexture, NearestPixelWithEdgesRepeatedOutside) {
  const TestFrame f = CoordinateFrame(8, 4, 11);
  struct Row {
    float u, v, x, y;
  } rows[] = {
      {0.5f, 0.5f, 4, 2},   {-0.001f, 0.5f, 0, 2}, {1.0f, 0.5f, 7, 2}, {3.0f, -2.0f, 7, 0},  // both components clamp
      {0.999f, 1.2f, 7, 3},  // one out of range clamps both: u moves down to the last pixel
  };
  for (const Row& r : rows) {
    const float4 p = Sample(f, r.u, r.v);
    EXPECT_EQ(p.x, r.x) << r.u << "," << r.v;
    EXPECT_EQ(p.y, r.y) << r.u << "," << r.v;
    EXPECT_EQ(p.z, 0.5f);  // bgra applied
  }
  const float4 nan = Sample(f, NAN, NAN);  // stays inside the frame
  EXPECT_LT(nan.x, 8.0f);
  EXPECT_LT(nan.y, 4.0f);
  // No half-texel term: 63 / 1920 * 1920 falls just under 63 in single precision.
  const TestFrame wide = CoordinateFrame(1920, 1);
  EXPECT_EQ(Sample(wide, 63.0f / 1920.0f, 0.0f).x, 62.0f);
  EXPECT_EQ(Sample(wide, 64.0f / 1920.0f, 0.0f).x, 64.0f);
}

TEST(FlowMaths, VelocityRampAndFlowVector) {
  struct Ramp {
    float vel, lo, hi, expected;
  } ramps[] = {
      {0.01f, 0.01f, 0.5f, 0.0f},
      {0.5f, 0.01f, 0.5f, 1.0f},
      {0.255f, 0.01f, 0.5f, 0.5f},
      {0.1325f, 0.5f, 0.01f, 0.15625f},  // a quarter of the way, edges swapped: smooth, not linear
      {0.0f, 0.0f, 0.0f, 0.0f},
      {-0.3f, 0.0f, 0.0f, 0.0f},
      {1e-6f, 0.0f, 0.0f, 1.0f},  // equal edges: a hard step
  };
  for (const Ramp& r : ramps)
    EXPECT_NEAR(gfcpu::velocityRamp(r.vel, r.lo, r.hi), r.expected, 1e-6f) << r.vel << " " << r.lo << " " << r.hi;

  struct Vec {
    float fx, fy, x, y;
  } vecs[] = {{0.03f, 0.02f, 0.3f, -0.2f}, {-0.03f, -0.02f, -0.3f, 0.2f}, {0.5f, 0.0f, 5.0f, 0.0f}};
  for (const Vec& v : vecs) {
    const float2 f = gfcpu::getFlowVector(v.fx, v.fy, make_float2(10.0f, 10.0f));
    EXPECT_FLOAT_EQ(f.x, v.x) << v.fx;
    EXPECT_FLOAT_EQ(f.y, v.y) << v.fy;  // y inverted
  }
}

// Two 40x40 frames for getFlow: a horizontal ramp of `slope` per tenth of the
// width, the older frame brighter by `step` at the centre pixel; and an
// accumulation that tells where a displaced read landed.
struct FlowPair {
  TestFrame pre{40, 40}, cur{40, 40}, im = CoordinateFrame(40, 40);
  KernelData kd = DefaultKernelData();
  FlowPair(float step, float slope, float alpha = 1.0f) {
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) {
        const float g = 0.2f + slope * static_cast<float>(x) / 4.0f;
        pre.Set(x, y, g, g, g, alpha);
        cur.Set(x, y, g, g, g, alpha);
      }
    const float g = 0.2f + slope * 5.0f + step;
    pre.Set(20, 20, g, g, g, alpha);
  }
  const float4* Ptr(const TestFrame& f) { return reinterpret_cast<const float4*>(f.data()); }
  float2 Flow() { return gfcpu::getFlow(Ptr(pre), Ptr(cur), &kd, 40, 40, 40, 40, 0, 20, 20); }
  float4 Read(int x, int y) {
    return gfcpu::displacedRead(Ptr(im), Ptr(pre), Ptr(cur), &kd, make_float2(x / 40.0f, y / 40.0f), 40, 40, 40, 40, 0,
                                x, y);
  }
};

TEST(GetFlow, MovesOnlyWhereTheOlderFrameIsBrighter) {
  struct Row {
    const char* what;
    float step, slope, alpha;
    bool hardStep;
    float lo, hi;
  } rows[] = {
      // gradX of 4 * slope over both frames and taps: 0.0711 is enough for a flow of 1.
      {"saturates", 0.6f, 0.0711f / 4.0f, 1.0f, false, 1.0f, 1.0f},
      {"below saturation", 0.6f, 0.05f / 4.0f, 1.0f, false, 0.5f, 0.99f},
      {"older darker", -0.6f, 0.05f, 1.0f, false, 0.0f, 0.0f},
      {"transparent", 0.6f, 0.05f, 0.0f, false, 0.0f, 0.0f},
      {"motion amplification", 0.001f, 0.0711f / 4.0f, 1.0f, true, 1.0f, 1.0f},
  };
  for (const Row& r : rows) {
    FlowPair p(r.step, r.slope, r.alpha);
    if (r.hardStep) p.kd.minVel = p.kd.maxVel = 0.0f;
    const float2 f = p.Flow();
    EXPECT_GE(f.x, r.lo) << r.what;
    EXPECT_LE(f.x, r.hi) << r.what;
    EXPECT_EQ(f.y, 0.0f) << r.what;
  }
}

TEST(DisplacedRead, MovesFiveTexelsAlongTheFlowWithMotionAmplification) {
  for (bool amplify : {true, false}) {
    SCOPED_TRACE(amplify);
    FlowPair p(0.6f, 0.02f);  // flow (1, 0) at the centre
    p.kd.motion_amp = amplify;
    SetPassMotionValues(p.kd);
    EXPECT_EQ(p.Read(20, 20).x, amplify ? 25.0f : 20.0f);
    EXPECT_EQ(p.Read(20, 20).y, 20.0f);
    EXPECT_EQ(p.Read(10, 10).x, 10.0f);  // nothing brighter in the older frame: no move
  }
}

// ---- Blend modes: base is the new difference, blend the accumulation. ----

float Blend(int mode, float base, float blend) {
  return gfcpu::applyBlendMode(make_float4(base, base, base, base), make_float4(blend, blend, blend, blend), 1.0f, mode)
      .x;
}

TEST(BlendModes, EveryModeAtFullWeight) {
  // Unclamped where the formula has no clamp; unknown modes keep the base.
  struct Row {
    int mode;
    float base, blend, expected;
  } rows[] = {
      {BLEND_NONE, 0.3f, 0.9f, 0.3f},
      {BLEND_ADD, 0.7f, 0.6f, 1.3f},
      {BLEND_SCREEN, 0.5f, 0.5f, 0.75f},
      {BLEND_SCREEN, 1.5f, 2.0f, 0.5f},
      {BLEND_LIGHTEN, 0.3f, 0.6f, 0.6f},
      {BLEND_COLOR_DODGE, 0.2f, 0.5f, 0.4f},
      {BLEND_OVERLAY, 0.25f, 0.75f, 0.375f},
      {BLEND_SOFT_LIGHT, 0.25f, 0.75f, 0.375f},
      {BLEND_LINEAR_LIGHT, 0.5f, 0.75f, 1.0f},
      {BLEND_PIN_LIGHT, 0.8f, 0.25f, 0.5f},
      {BLEND_HARD_MIX, 0.75f, 0.25f, 1.0f},
      {BLEND_LIGHTER_COLOR, 0.3f, 0.6f, 0.6f},
      {42, 0.3f, 0.9f, 0.3f},
  };
  for (const Row& r : rows)
    EXPECT_NEAR(Blend(r.mode, r.base, r.blend), r.expected, 1e-6f)
        << "mode " << r.mode << " base " << r.base << " blend " << r.blend;
}

}  // namespace
