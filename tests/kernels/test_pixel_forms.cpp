// Storage forms of pixels: IEEE halves as OpenCL stores them, the CUDA power
// curve, and ResizeKernel placing frames on canvases in both forms.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CpuDevice.h"
#include "KernelTestSupport.h"

namespace {

using gfcpu::FloatToHalfRn;
using gfcpu::FloatToHalfRtz;
using gfcpu::HalfToFloat;

TEST(HalfConversion, EveryFiniteHalfSurvivesBothRoundings) {
  for (uint32_t h = 0; h < 0x10000; ++h) {
    if ((h & 0x7c00u) == 0x7c00u) continue;  // infinities and NaNs below
    const float f = HalfToFloat(static_cast<uint16_t>(h));
    ASSERT_EQ(FloatToHalfRtz(f), h) << std::hex << h;
    ASSERT_EQ(FloatToHalfRn(f), h) << std::hex << h;
  }
}

TEST(HalfConversion, BetweenNeighboursRtzCutsAndRnRoundsHalfToEven) {
  // Positive finite halves h and h+1 (normals and subnormals alike).
  for (uint32_t h = 0; h < 0x7bff; ++h) {
    const float lo = HalfToFloat(static_cast<uint16_t>(h));
    const float hi = HalfToFloat(static_cast<uint16_t>(h + 1));
    const float mid = 0.5f * (lo + hi);  // exact in float
    const float above = std::nextafter(mid, hi);
    ASSERT_EQ(FloatToHalfRtz(above), h);
    ASSERT_EQ(FloatToHalfRtz(-above), h | 0x8000u);
    ASSERT_EQ(FloatToHalfRn(above), h + 1);
    ASSERT_EQ(FloatToHalfRn(mid), (h & 1u) ? h + 1 : h) << std::hex << h;
  }
}

TEST(HalfConversion, OverflowAndSpecialValues) {
  EXPECT_EQ(FloatToHalfRtz(70000.0f), 0x7bff);  // round toward zero never reaches infinity
  EXPECT_EQ(FloatToHalfRn(70000.0f), 0x7c00);
  EXPECT_EQ(FloatToHalfRn(65519.0f), 0x7bff);
  EXPECT_EQ(FloatToHalfRn(65520.0f), 0x7c00);
  EXPECT_EQ(FloatToHalfRtz(INFINITY), 0x7c00);
  EXPECT_EQ(FloatToHalfRtz(-INFINITY), 0xfc00);
  EXPECT_TRUE(std::isnan(HalfToFloat(FloatToHalfRtz(NAN))));
  EXPECT_EQ(FloatToHalfRtz(1e-10f), 0);
  EXPECT_EQ(FloatToHalfRtz(-0.0f), 0x8000);
}

// The CUDA form as the kernels see it: load, then the curve; curve, then store.
float CudaRoundTrip(float c) {
  gfcpu::tWorkItem.halfPowerCurve = true;
  uint16_t stored = 0;
  gfcpu::Store16(gfcpu::floatToHalf(c), 0, &stored);
  const float back = gfcpu::halfToFloat(gfcpu::Load16(&stored, 0));
  gfcpu::tWorkItem.halfPowerCurve = false;
  return back;
}

uint16_t CudaPattern(float c) {
  gfcpu::tWorkItem.halfPowerCurve = true;
  uint16_t stored = 0;
  gfcpu::Store16(gfcpu::floatToHalf(c), 0, &stored);
  gfcpu::tWorkItem.halfPowerCurve = false;
  return stored;
}

TEST(CudaHalfForm, ZeroAndOneSurviveNegativesAndNaNStoreZero) {
  EXPECT_EQ(CudaPattern(1.0f), 15360);
  EXPECT_EQ(CudaRoundTrip(1.0f), 1.0f);
  EXPECT_EQ(CudaPattern(0.0f), 0);
  EXPECT_EQ(CudaRoundTrip(0.0f), 0.0f);
  EXPECT_EQ(CudaPattern(-0.25f), 0);
  EXPECT_EQ(CudaPattern(NAN), 0);
  // The curve is coarse but monotonic over the visible range.
  EXPECT_NEAR(CudaRoundTrip(0.5f), 0.5f, 0.01f);
  EXPECT_LT(CudaRoundTrip(0.25f), CudaRoundTrip(0.5f));
}

TEST(CudaHalfForm, PatternsAboveOneReadAsZero) {
  gfcpu::tWorkItem.halfPowerCurve = true;
  auto read = [](uint16_t u) { return gfcpu::halfToFloat(gfcpu::Load16(&u, 0)); };
  EXPECT_EQ(read(15360), 1.0f);
  EXPECT_EQ(read(15364), 1.0f);  // rounds to the half 15360 (ties to even)
  EXPECT_EQ(read(15365), 0.0f);  // rounds to 15368, above the pattern of 1.0
  EXPECT_EQ(read(20000), 0.0f);
  EXPECT_EQ(read(0x8000), 0.0f);  // a negative half's pattern
  EXPECT_EQ(read(65535), 0.0f);
  // A value above 1.0 stores a pattern that reads back as 0.
  EXPECT_EQ(CudaRoundTrip(1.5f), 0.0f);
  gfcpu::tWorkItem.halfPowerCurve = false;
}

// ---- ResizeKernel ----

struct Canvas {
  TestFrame src, dst;
  Canvas(int sw, int sh, int dw, int dh, int dpitch = 0) : src(sw, sh), dst(dw, dh, dpitch) {
    for (int y = 0; y < sh; ++y)
      for (int x = 0; x < sw; ++x) src.Set(x, y, static_cast<float>(x), static_cast<float>(y), 7.0f, 1.0f);
    dst.Fill(99.0f, 99.0f, 99.0f, 99.0f);  // every canvas pixel must be written
  }
  void Place(int ox, int oy) {
    CpuResizeKernel(CpuLaunchConfig{}, src.data(), dst.data(), src.pitch, dst.pitch, 0, src.width, src.height,
                    dst.width, dst.height, ox, oy);
  }
  // Expected canvas pixel: the frame pixel or transparent black.
  void ExpectPlaced(int ox, int oy) const {
    for (int y = 0; y < dst.height; ++y)
      for (int x = 0; x < dst.width; ++x) {
        const int sx = x - ox, sy = y - oy;
        const bool inside = sx >= 0 && sx < src.width && sy >= 0 && sy < src.height;
        const gfcpu::float4 p = dst.Rgba(x, y);
        if (inside) {
          ASSERT_EQ(p.x, sx) << x << "," << y;
          ASSERT_EQ(p.y, sy);
          ASSERT_EQ(p.z, 7.0f);
          ASSERT_EQ(p.w, 1.0f);
        } else {
          ASSERT_EQ(p.x, 0.0f) << x << "," << y;
          ASSERT_EQ(p.w, 0.0f);
        }
      }
    EXPECT_TRUE(dst.GuardsIntact());
  }
};

TEST(ResizeKernel, PlacesFrameAtOffsetsOfEverySign) {
  struct Case { int sw, sh, dw, dh, ox, oy; } cases[] = {
      {20, 12, 37, 41, 10, 20},    // positive: (10, 20) holds (0, 0), (9, 20) is empty
      {20, 12, 37, 41, -5, -3},    // negative: first rows and columns fall off
      {50, 60, 37, 41, 0, 0},      // oversize: cut at right and bottom
      {50, 60, 37, 41, -7, 4},
      {20, 12, 37, 41, 37, 0},     // wholly off to the right
      {20, 12, 37, 41, -20, -12},  // wholly off to the top left
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "offset " << c.ox << "," << c.oy << " size " << c.sw << "x" << c.sh);
    Canvas k(c.sw, c.sh, c.dw, c.dh, c.dw + 3);
    k.Place(c.ox, c.oy);
    k.ExpectPlaced(c.ox, c.oy);
  }
}

TEST(ResizeKernel, SixteenBitCopyIsExactOnOpenCLAndCurvedOnCuda) {
  const std::vector<uint16_t> patterns = {0, 15360, 0x3555, 16000, 40000, 0x8001, 1, 65535};
  const int w = static_cast<int>(patterns.size()) / 4;
  auto copy = [&](CpuHalfForm form) {
    std::vector<uint16_t> out(patterns.size(), 0xdead);
    CpuLaunchConfig config;
    config.halfForm = form;
    CpuResizeKernel(config, patterns.data(), out.data(), w, w, 1, w, 1, w, 1, 0, 0);
    return out;
  };
  EXPECT_EQ(copy(CpuHalfForm::OpenCL), patterns);
  const std::vector<uint16_t> cuda = copy(CpuHalfForm::CUDA);
  EXPECT_EQ(cuda[0], 0);
  EXPECT_EQ(cuda[1], 15360);
  EXPECT_EQ(cuda[3], 0);  // above the pattern of 1.0
  EXPECT_EQ(cuda[4], 0);
  EXPECT_EQ(cuda[5], 0);  // a negative half
  EXPECT_EQ(cuda[7], 0);
  EXPECT_NE(cuda[2], 0);
  EXPECT_NEAR(cuda[2], 0x3555, 64);  // below 1.0: not exact, but close
}

}  // namespace
