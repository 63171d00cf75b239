// The software path's pieces on their own.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "TremorDistiller_CPU.h"

namespace {

// A host world over a vector, with `pad` spare pixels a row filled with a guard.
template <typename T>
struct CpuWorld {
  std::vector<T> px;
  PF_EffectWorld world{};
  CpuWorld(A_long w, A_long h, A_long pad, T fill) : px(static_cast<size_t>(w + pad) * h * 4, fill) {
    world.data = px.data();
    world.rowbytes = static_cast<A_long>((w + pad) * 4 * sizeof(T));
    world.width = w;
    world.height = h;
  }
  T* at(A_long x, A_long y) { return &px[(static_cast<size_t>(y) * (world.rowbytes / sizeof(T) / 4) + x) * 4]; }
};

// The input is 5x9 in rows of six pixels over eleven rows, the output 7x11 in
// rows of nine, all guard-filled: reading past the input's width or rows would
// bring guards into the output, which beyond the input is transparent black.
template <typename T>
void ExpectHalfValueCopy(int depth, T a, T r, T g, T b, T ha, T hr, T hg, T hb) {
  SCOPED_TRACE(depth);
  EXPECT_EQ(PixelSizeOfDepth(depth), static_cast<int>(4 * sizeof(T)));
  const T guard = static_cast<T>(7);
  CpuWorld<T> input(5, 11, 1, guard), output(7, 11, 2, guard);
  input.world.height = 9;
  for (A_long y = 0; y < 9; ++y)
    for (A_long x = 0; x < 5; ++x) {
      T* p = input.at(x, y);
      p[0] = a, p[1] = r, p[2] = g, p[3] = b;
    }
  for (A_long y = 0; y < 11; ++y) HalfValueRow(depth, input.world, output.world, y);
  for (A_long y = 0; y < 11; ++y) {
    for (A_long x = 0; x < 7; ++x) {
      const T* p = output.at(x, y);
      const std::vector<T> want = x < 5 && y < 9 ? std::vector<T>{ha, hr, hg, hb} : std::vector<T>(4, 0);
      EXPECT_EQ(std::vector<T>(p, p + 4), want) << x << "," << y;
    }
    for (A_long x = 7; x < 9; ++x) EXPECT_EQ(output.at(x, y)[0], guard) << "padding written in row " << y;
  }
}

TEST(SoftwarePath, CopiesTheFirstComponentAndHalvesTheOthersWithinTheInputAtEachDepth) {
  ExpectHalfValueCopy<uint8_t>(8, 200, 255, 128, 1, 200, 127, 64, 0);
  ExpectHalfValueCopy<uint16_t>(16, 32768, 32767, 65535, 1, 32768, 16383, 32767, 0);
  ExpectHalfValueCopy<float>(32, 0.5f, 1.0f, -0.5f, 2.0f, 0.5f, 0.5f, -0.25f, 1.0f);
  // Over-range, negative and infinite floats pass through unclamped.
  ExpectHalfValueCopy<float>(32, -3.0f, 1e30f, INFINITY, -7.0f, -3.0f, 5e29f, INFINITY, -3.5f);
  EXPECT_EQ(PixelSizeOfDepth(10), 0);
}

}  // namespace
