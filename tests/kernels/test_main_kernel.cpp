// MainKernel on the CPU reference device, one launch at a time.
#include <gtest/gtest.h>

#include <cmath>

#include "CpuDevice.h"
#include "TremorDistiller_FrameStack.h"
#include "KernelTestSupport.h"

namespace {

using gfcpu::float4;

// One launch over uniform frames unless a test paints them.
struct Launch {
  int w, h;
  TestFrame pre, cur, inIm, outIm, outDst;
  KernelData kd = DefaultKernelData();
  CpuLaunchConfig config;

  explicit Launch(int width = 21, int height = 13)
      : w(width), h(height), pre(w, h), cur(w, h), inIm(w, h), outIm(w, h), outDst(w, h) {
    outIm.Fill(-7.0f, -7.0f, -7.0f, -7.0f);
    outDst.Fill(-9.0f, -9.0f, -9.0f, -9.0f);
  }
  void Run(float percent, int in16f = 0) {
    kd.percent = percent;
    CpuMainKernel(config, pre.data(), cur.data(), outIm.data(), outDst.data(), &kd, w, w, w, in16f, w, h,
                  inIm.data());
  }
};

TEST(MainKernel, FirstPassStoresThePlainDifferenceWithNewerAlpha) {
  Launch l;
  l.pre.Fill(0.9f, 0.2f, 0.5f, 0.3f);
  l.cur.Fill(0.4f, 0.7f, 0.5f, 0.8f);
  l.inIm.Fill(NAN, NAN, NAN, NAN);  // not read in the first pass
  l.Run(0.0f);
  const float4 a = l.outIm.Rgba(5, 5);
  EXPECT_FLOAT_EQ(a.x, 0.5f);
  EXPECT_FLOAT_EQ(a.y, 0.5f);
  EXPECT_EQ(a.z, 0.0f);
  EXPECT_EQ(a.w, 0.8f);
  EXPECT_EQ(l.outDst.Rgba(5, 5).x, -9.0f);  // only the last pass delivers
  EXPECT_TRUE(l.outIm.GuardsIntact());

  l.kd.diffMode = DIFF_SUBT;  // signed, older minus newer
  l.Run(0.0f);
  EXPECT_FLOAT_EQ(l.outIm.Rgba(0, 0).x, 0.5f);
  EXPECT_FLOAT_EQ(l.outIm.Rgba(0, 0).y, -0.5f);
  l.kd.diffMode = DIFF_NONE;  // black, newer alpha
  l.Run(0.0f);
  EXPECT_EQ(l.outIm.Rgba(0, 0).x, 0.0f);
  EXPECT_EQ(l.outIm.Rgba(0, 0).w, 0.8f);
}

TEST(MainKernel, EasedWeightOfTheAccumulation) {
  Launch l;
  l.pre.Fill(0.6f, 0.6f, 0.6f, 1.0f);
  l.cur.Fill(0.5f, 0.5f, 0.5f, 1.0f);
  l.inIm.Fill(1.0f, 2.0f, 0.0f, 1.0f);
  l.Run(0.125f);  // 1 - 0.875^4
  const float e = 0.41381836f;
  float4 a = l.outIm.Rgba(3, 3);
  EXPECT_NEAR(a.x, 0.1f + e * 1.0f, 1e-6f);
  EXPECT_NEAR(a.y, 0.1f + e * 2.0f, 1e-6f);
  EXPECT_NEAR(a.w, 1.0f + e, 1e-6f);  // alpha accumulates past 1

  l.Run(1.0f);  // last pass: weight exactly 1
  a = l.outIm.Rgba(3, 3);
  EXPECT_FLOAT_EQ(a.y, 0.1f + 2.0f);
  EXPECT_EQ(l.outDst.Rgba(3, 3).y, a.y);

  l.kd.percentEase = 0.0f;  // "Frames Fade" 0: weight 0 in every pass, the last too
  l.Run(1.0f);
  EXPECT_FLOAT_EQ(l.outDst.Rgba(3, 3).y, 0.1f);
  EXPECT_EQ(l.outDst.Rgba(3, 3).w, 1.0f);
}

TEST(MainKernel, LastPassDeliversTheChosenOutput) {
  Launch l;
  l.pre.Fill(0.9f, 0.5f, 0.5f, 1.0f);
  l.cur.Fill(0.5f, 0.3f, 0.2f, 0.5f);
  l.inIm.Fill(0.0f, 0.0f, 0.0f, 0.0f);
  const float r = 0.4f, g = 0.2f, b = 0.3f;  // the difference
  const float lum = 0.3f * r + 0.59f * g + 0.11f * b;

  l.kd.output = FROM_MOTION;
  l.Run(1.0f);
  float4 o = l.outDst.Rgba(2, 2);
  EXPECT_FLOAT_EQ(o.x, r);
  EXPECT_FLOAT_EQ(o.w, 0.5f);

  l.kd.output = FROM_NONE;
  l.Run(1.0f);
  EXPECT_FLOAT_EQ(l.outDst.Rgba(2, 2).x, r);

  l.kd.output = FROM_LUMA;
  l.Run(1.0f);
  o = l.outDst.Rgba(2, 2);
  EXPECT_NEAR(o.x, lum, 1e-6f);
  EXPECT_EQ(o.x, o.y);
  EXPECT_EQ(o.y, o.z);

  l.kd.output = FROM_SOURCE;  // newer frame masked by the motion's luma, its own alpha
  l.Run(1.0f);
  o = l.outDst.Rgba(2, 2);
  EXPECT_NEAR(o.x, 0.5f * lum, 1e-6f);
  EXPECT_NEAR(o.z, 0.2f * lum, 1e-6f);
  EXPECT_EQ(o.w, 0.5f);

  l.kd.normalize = true;  // after the accumulation is stored; lum from scaled values
  l.Run(1.0f);
  const float k = 255.0f / 65.0f;
  o = l.outDst.Rgba(2, 2);
  EXPECT_NEAR(o.x, 0.5f * lum * k, 1e-5f);
  EXPECT_EQ(o.w, 0.5f);  // source alpha is not scaled
  EXPECT_FLOAT_EQ(l.outIm.Rgba(2, 2).x, r);
  l.kd.output = FROM_MOTION;
  l.Run(1.0f);
  o = l.outDst.Rgba(2, 2);
  EXPECT_NEAR(o.x, r * k, 1e-5f);
  EXPECT_NEAR(o.w, 0.5f * k, 1e-5f);  // accumulated alpha is
}

TEST(MainKernel, NegativeDifferencesSurviveIn32BitButNotInCuda16Bit) {
  Launch l;
  l.kd.diffMode = DIFF_SUBT;
  l.pre.Fill(0.2f, 0.2f, 0.2f, 1.0f);
  l.cur.Fill(0.6f, 0.6f, 0.6f, 1.0f);
  l.Run(1.0f);
  EXPECT_FLOAT_EQ(l.outDst.Rgba(0, 0).x, -0.4f);

  // The same in the CUDA 16-bit form: 8-byte pixels, patterns via the curve.
  const int n = l.w * l.h;
  std::vector<uint16_t> pre(n * 4), cur(n * 4), acc(n * 4, 0), outIm(n * 4), outDst(n * 4);
  gfcpu::tWorkItem.halfPowerCurve = true;
  for (int i = 0; i < n * 4; ++i) {
    gfcpu::Store16(gfcpu::floatToHalf((i % 4 == 3) ? 1.0f : 0.2f), i, pre.data());
    gfcpu::Store16(gfcpu::floatToHalf((i % 4 == 3) ? 1.0f : 0.6f), i, cur.data());
  }
  gfcpu::tWorkItem.halfPowerCurve = false;
  l.config.halfForm = CpuHalfForm::CUDA;
  l.kd.percent = 1.0f;
  CpuMainKernel(l.config, pre.data(), cur.data(), outIm.data(), outDst.data(), &l.kd, l.w, l.w, l.w, 1, l.w, l.h,
                acc.data());
  EXPECT_EQ(outDst[0], 0);
  EXPECT_EQ(outDst[2], 0);
  EXPECT_EQ(outDst[3], 15360);  // alpha 1 + 0 survives exactly
}

TEST(MainKernel, ChromaticAberrationSplitsRedAndBlueWhereNothingMoves) {
  Launch l(1600, 3);  // the shift of 0.0025 is four columns here
  l.pre.Fill(0.5f, 0.5f, 0.5f, 1.0f);
  l.cur.Fill(0.5f, 0.5f, 0.5f, 1.0f);
  for (int y = 0; y < l.h; ++y)
    for (int x = 0; x < l.w; ++x) l.inIm.Set(x, y, static_cast<float>(x), static_cast<float>(x), static_cast<float>(x), 0.0f);
  l.kd.chromatic = true;
  SetPassMotionValues(l.kd);
  l.Run(1.0f);
  int exact = 0;
  for (int x = 10; x < l.w - 10; ++x) {
    const float4 a = l.outIm.Rgba(x, 1);
    ASSERT_GE(a.y, x - 1);  // green from the pixel itself (or its left neighbour)
    ASSERT_LE(a.y, x);
    ASSERT_GE(a.x, x + 3);  // red from the right
    ASSERT_LE(a.x, x + 4);
    ASSERT_GE(a.z, x - 5);  // blue from the left
    ASSERT_LE(a.z, x - 4);
    if (a.x == x + 4 && a.z == x - 4) ++exact;
  }
  EXPECT_GT(exact, (l.w - 20) / 2);
}

TEST(MainKernel, MotionAmplificationDisplacesTheReadAlongTheFlow) {
  Launch l(40, 40);
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      const float g = 0.2f + 0.02f * static_cast<float>(x) / 4.0f;
      l.pre.Set(x, y, g, g, g, 1.0f);
      l.cur.Set(x, y, g, g, g, 1.0f);
      l.inIm.Set(x, y, static_cast<float>(x), static_cast<float>(y), 0.0f, 0.0f);
    }
  l.pre.Set(20, 20, 0.9f, 0.9f, 0.9f, 1.0f);  // older frame brighter: flow (1, 0) here
  l.kd.motion_amp = true;
  SetPassMotionValues(l.kd);
  EXPECT_EQ(l.kd.displaceIntensity, 5.0f);
  l.Run(1.0f);
  const float d = 0.9f - (0.2f + 0.02f * 5.0f);
  EXPECT_FLOAT_EQ(l.outIm.Rgba(20, 20).x, d + 25.0f);  // five texels to the right
  EXPECT_FLOAT_EQ(l.outIm.Rgba(20, 20).y, d + 20.0f);
  // Elsewhere nothing is brighter in the older frame: no displacement.
  EXPECT_FLOAT_EQ(l.outIm.Rgba(10, 10).x, 10.0f);

  l.kd.motion_amp = false;  // same frames, displacement off
  SetPassMotionValues(l.kd);
  l.Run(1.0f);
  EXPECT_FLOAT_EQ(l.outIm.Rgba(20, 20).x, d + 20.0f);
}

}  // namespace
