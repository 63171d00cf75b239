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

TEST(HalfConversion, EveryHalfAndEveryMidpointBetweenNeighbours) {
  for (uint32_t h = 0; h < 0x7c00; ++h) {  // positive finite halves, subnormals included
    const float lo = HalfToFloat(static_cast<uint16_t>(h));
    ASSERT_EQ(FloatToHalfRtz(lo), h) << std::hex << h;
    ASSERT_EQ(FloatToHalfRn(lo), h) << std::hex << h;
    ASSERT_EQ(FloatToHalfRtz(-lo), h | 0x8000u) << std::hex << h;
    if (h == 0x7bff) break;
    const float mid = 0.5f * (lo + HalfToFloat(static_cast<uint16_t>(h + 1)));  // exact in float
    const float above = std::nextafter(mid, INFINITY);
    ASSERT_EQ(FloatToHalfRtz(above), h) << std::hex << h;
    ASSERT_EQ(FloatToHalfRn(above), h + 1) << std::hex << h;
    ASSERT_EQ(FloatToHalfRn(mid), (h & 1u) ? h + 1 : h) << std::hex << h;  // ties to even
  }
  struct Row {
    float f;
    uint16_t rtz, rn;
  } rows[] = {// round toward zero never reaches infinity
              {70000.0f, 0x7bff, 0x7c00}, {65519.0f, 0x7bff, 0x7bff},  {65520.0f, 0x7bff, 0x7c00},
              {INFINITY, 0x7c00, 0x7c00}, {-INFINITY, 0xfc00, 0xfc00}, {1e-10f, 0, 0},
              {-0.0f, 0x8000, 0x8000}};
  for (const Row& r : rows) {
    EXPECT_EQ(FloatToHalfRtz(r.f), r.rtz) << r.f;
    EXPECT_EQ(FloatToHalfRn(r.f), r.rn) << r.f;
  }
  EXPECT_TRUE(std::isnan(HalfToFloat(FloatToHalfRtz(NAN))));
  EXPECT_TRUE(std::isnan(HalfToFloat(FloatToHalfRn(NAN))));
}

// ---- ResizeKernel ----

TEST(ResizeKernel, PlacesFrameAtOffsetsOfEverySign) {
  // Offsets of either sign, frames larger than the canvas, frames wholly off it.
  struct Case {
    int sw, sh, ox, oy;
  } cases[] = {{20, 12, 10, 20}, {20, 12, -5, -3}, {50, 60, 0, 0},
               {50, 60, -7, 4},  {20, 12, 37, 0},  {20, 12, -20, -12}};
  const int dw = 37, dh = 41;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "offset " << c.ox << "," << c.oy << " size " << c.sw << "x" << c.sh);
    TestFrame src(c.sw, c.sh), dst(dw, dh, dw + 3), expected(dw, dh, dw + 3);
    for (int y = 0; y < c.sh; ++y)
      for (int x = 0; x < c.sw; ++x) {
        src.Set(x, y, static_cast<float>(x), static_cast<float>(y), 7.0f, 1.0f);
        if (x + c.ox >= 0 && x + c.ox < dw && y + c.oy >= 0 && y + c.oy < dh)
          expected.Set(x + c.ox, y + c.oy, static_cast<float>(x), static_cast<float>(y), 7.0f, 1.0f);
      }
    dst.Fill(99.0f, 99.0f, 99.0f, 99.0f);  // every canvas pixel must be written; the rest transparent black
    CpuResizeKernel(CpuLaunchConfig{}, src.data(), dst.data(), src.pitch, dst.pitch, 0, c.sw, c.sh, dw, dh, c.ox, c.oy);
    EXPECT_TRUE(dst.BitEqual(expected));  // guard bands included
  }
}

TEST(ResizeKernel, SixteenBitCopyIsExactOnOpenCLAndCurvedOnCuda) {
  const std::vector<uint16_t> patterns = {0, 15360, 0x3555, 16000, 40000, 0x8001, 1, 65535};
  auto copy = [&](CpuHalfForm form) {
    std::vector<uint16_t> out(patterns.size(), 0xdead);
    CpuLaunchConfig config;
    config.halfForm = form;
    CpuResizeKernel(config, patterns.data(), out.data(), 2, 2, 1, 2, 1, 2, 1, 0, 0);
    return out;
  };
  EXPECT_EQ(copy(CpuHalfForm::OpenCL), patterns);
  const std::vector<uint16_t> cuda = copy(CpuHalfForm::CUDA);
  // Through the power curve: above the pattern of 1.0 and negative halves read as 0; below 1.0 the round
  // trip moves a pattern by a few steps.
  EXPECT_EQ(cuda, (std::vector<uint16_t>{0, 15360, 0x3558, 0, 0, 0, 1, 0}));
}

}  // namespace
