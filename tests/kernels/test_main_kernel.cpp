// MainKernel on the CPU reference device, one launch at a time.
#include <gtest/gtest.h>

#include <cmath>

#include "CpuDevice.h"
#include "TremorDistiller_FrameStack.h"
#include "KernelTestSupport.h"

namespace {

using gfcpu::float4;

// One launch over uniform frames unless a test paints them; the outputs start
// as values no pass writes.
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
  void Run(float percent) {
    kd.percent = percent;
    CpuMainKernel(config, pre.data(), cur.data(), outIm.data(), outDst.data(), &kd, w, w, w, 0, w, h, inIm.data(),
                  EasedWeight(kd));
  }
};

void ExpectRgba(const float4& p, const float4& e) {
  EXPECT_NEAR(p.x, e.x, 1e-5f);
  EXPECT_NEAR(p.y, e.y, 1e-5f);
  EXPECT_NEAR(p.z, e.z, 1e-5f);
  EXPECT_NEAR(p.w, e.w, 1e-5f);
}

TEST(MainKernel, OnePassOverUniformFrames) {
  const float4 d = {0.4f, 0.5f, 0.3f, 0.5f};  // |older - newer|, newer alpha
  const float lum = 0.3f * d.x + 0.59f * d.y + 0.11f * d.z;
  const float k = 255.0f / 65.0f;                         // normalize, after the accumulation is stored
  const float4 untouched = {-9.0f, -9.0f, -9.0f, -9.0f};  // only the last pass delivers
  struct Row {
    float percent;
    DiffBlendMode diff;
    ColorFrom output;
    bool normalize;
    float4 im, dst;
  } rows[] = {
      {0.0f, DIFF_DIFF, FROM_MOTION, false, d, untouched},
      {1.0f, DIFF_DIFF, FROM_MOTION, false, d, d},
      {1.0f, DIFF_SUBT, FROM_MOTION, false, {0.4f, -0.5f, 0.3f, 0.5f}, {0.4f, -0.5f, 0.3f, 0.5f}},  // signed, unclamped
      {1.0f, DIFF_NONE, FROM_MOTION, false, {0.0f, 0.0f, 0.0f, 0.5f}, {0.0f, 0.0f, 0.0f, 0.5f}},
      {1.0f, DIFF_DIFF, FROM_NONE, false, d, d},
      {1.0f, DIFF_DIFF, FROM_LUMA, false, d, {lum, lum, lum, 0.5f}},
      {1.0f, DIFF_DIFF, FROM_SOURCE, false, d, {0.5f * lum, 0.7f * lum, 0.2f * lum, 0.5f}},  // newer frame by luma
      {1.0f, DIFF_DIFF, FROM_SOURCE, true, d, {0.5f * lum * k, 0.7f * lum * k, 0.2f * lum * k, 0.5f}},
      {1.0f, DIFF_DIFF, FROM_MOTION, true, d, {d.x * k, d.y * k, d.z * k, d.w * k}},  // accumulated alpha scales
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "percent " << row.percent << " diff " << row.diff << " output " << row.output
                                    << " normalize " << row.normalize);
    Launch l;
    l.pre.Fill(0.9f, 0.2f, 0.5f, 1.0f);
    l.cur.Fill(0.5f, 0.7f, 0.2f, 0.5f);
    // The first pass must not read the accumulation; the last reads an empty one here.
    l.inIm.Fill(row.percent == 0.0f ? NAN : 0.0f, 0.0f, 0.0f, 0.0f);
    l.kd.diffMode = row.diff;
    l.kd.output = row.output;
    l.kd.normalize = row.normalize;
    l.Run(row.percent);
    ExpectRgba(l.outIm.Rgba(5, 5), row.im);
    ExpectRgba(l.outDst.Rgba(5, 5), row.dst);
    EXPECT_TRUE(l.outIm.GuardsIntact() && l.outDst.GuardsIntact());
  }
}

// Signed differences survive in 32 bits (above), but not in the CUDA 16-bit
// form: 8-byte pixels, patterns via the power curve.
TEST(MainKernel, NegativeDifferencesStoreZeroInCuda16Bit) {
  Launch l;
  l.kd.diffMode = DIFF_SUBT;
  const int n = l.w * l.h * 4;
  std::vector<uint16_t> pre(n), cur(n), acc(n, 0), outIm(n), outDst(n);
  gfcpu::tWorkItem.halfPowerCurve = true;
  for (int i = 0; i < n; ++i) {
    gfcpu::Store16(gfcpu::floatToHalf(i % 4 == 3 ? 1.0f : 0.2f), i, pre.data());
    gfcpu::Store16(gfcpu::floatToHalf(i % 4 == 3 ? 1.0f : 0.6f), i, cur.data());
  }
  gfcpu::tWorkItem.halfPowerCurve = false;
  l.config.halfForm = CpuHalfForm::CUDA;
  l.kd.percent = 1.0f;
  CpuMainKernel(l.config, pre.data(), cur.data(), outIm.data(), outDst.data(), &l.kd, l.w, l.w, l.w, 1, l.w, l.h,
                acc.data(), EasedWeight(l.kd));
  EXPECT_EQ(outDst[0], 0);
  EXPECT_EQ(outDst[2], 0);
  EXPECT_EQ(outDst[3], 15360);  // alpha 1 + 0 survives exactly
}

TEST(MainKernel, ChromaticAberrationSplitsRedAndBlueWhereNothingMoves) {
  Launch l(1600, 3);  // the shift of 0.0025 is four columns here
  l.pre.Fill(0.5f, 0.5f, 0.5f, 1.0f);
  l.cur.Fill(0.5f, 0.5f, 0.5f, 1.0f);
  for (int y = 0; y < l.h; ++y)
    for (int x = 0; x < l.w; ++x) l.inIm.Set(x, y, x, x, x, 0.0f);
  l.kd.chromatic = true;
  SetPassMotionValues(l.kd);
  l.Run(1.0f);
  int exact = 0;
  for (int x = 10; x < l.w - 10; ++x) {
    const float4 a = l.outIm.Rgba(x, 1);
    ASSERT_TRUE(a.y >= x - 1 && a.y <= x) << x;      // green from the pixel itself (or its left neighbour)
    ASSERT_TRUE(a.x >= x + 3 && a.x <= x + 4) << x;  // red from the right
    ASSERT_TRUE(a.z >= x - 5 && a.z <= x - 4) << x;  // blue from the left
    if (a.x == x + 4 && a.z == x - 4) ++exact;
  }
  EXPECT_GT(exact, (l.w - 20) / 2);
}

}  // namespace
