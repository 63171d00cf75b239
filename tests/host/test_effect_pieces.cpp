// The effect's pieces on their own: the software path's half-value copy, the
// frame scheduling arithmetic of pre-render and the replacement of frames the
// host could not deliver.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "TremorDistiller_CPU.h"
#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_SmartRender.h"

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

TEST(FrameSchedule, TimesFollowTheOffsetInSinglePrecision) {
  const struct {
    A_long current;
    float offset;
    std::vector<A_long> times;  // of frames 1.. (frame 0 is the current time itself)
  } rows[] = {
      {5005, 1.0f, {4004, 3003, 2002}}, {5005, -1.0f, {6006, 7007, 8008}},
      {5005, 0.5f, {4504, 4004, 3503}},  // halves cut
      {1001, 1.0f, {0, -1001, -2002}},   // before the clip
      {3003, 0.0f, {3003, 3003, 3003}},
  };
  for (const auto& r : rows) {
    std::vector<A_long> t;
    for (int i = 1; i <= 3; ++i) t.push_back(FrameCheckoutTime(r.current, 1001, i, r.offset));
    EXPECT_EQ(t, r.times) << r.current << " offset " << r.offset;
  }
  // Above 2^24 a float holds only even numbers: one step back rounds to even, two back.
  EXPECT_EQ(FrameCheckoutTime(16778218, 1, 1, 1.0f), 16778216);
}

// Controls are read in the pre-render's order; after a failed read the
// rest of the stack's controls are not read, the switches always are, and
// the first error is the result.
TEST(ControlReading, OrderAndErrorRule) {
  std::vector<int32_t> order;
  auto reader = [&](int32_t failAt, int32_t failSwitch) {
    return [&order, failAt, failSwitch](int32_t id, std::optional<double>& v) -> int32_t {
      order.push_back(id);
      if (id == failSwitch) return 9;
      // Popups take their second choice, checkboxes are on.
      v = id == PARAM_FRAMES ? 12.7 : id == PARAM_FRAMES_OFFSET ? -1.5 : id == PARAM_FRAMES_FADE ? 80.0
        : id == PARAM_OUTPUT || id < PARAM_CHROMATIC_ABERRATION ? 2 : 1;
      return id == failAt ? 5 : 0;  // the value came, then its check-in failed
    };
  };
  const std::vector<int32_t> shape = {PARAM_FRAMES, PARAM_FRAMES_OFFSET, PARAM_FRAMES_FADE, PARAM_BLENDING_MODE},
                             switches = {PARAM_NORMALIZE, PARAM_MOTION_AMPLIFICATION, PARAM_CHROMATIC_ABERRATION};
  KernelData kd;
  float offset = 0;
  EXPECT_EQ(FillKernelData(reader(-1, -1), kd, &offset), 0);
  std::vector<int32_t> all = shape;
  all.insert(all.end(), {PARAM_DIFFERENCE_ALGORITHM, PARAM_OUTPUT});
  all.insert(all.end(), switches.begin(), switches.end());
  EXPECT_EQ(order, all);
  EXPECT_TRUE(kd.numFrames == 12 && offset == -1.5f && kd.percentEase == 4.0f);
  EXPECT_TRUE(kd.blendMode == BLEND_SCREEN && kd.diffMode == DIFF_SUBT && kd.output == FROM_SOURCE);
  EXPECT_TRUE(kd.normalize && kd.motion_amp && kd.chromatic);

  order.clear();
  EXPECT_EQ(FillKernelData(reader(PARAM_BLENDING_MODE, PARAM_MOTION_AMPLIFICATION), kd, &offset), 5);
  all = shape;
  all.insert(all.end(), switches.begin(), switches.end());
  EXPECT_EQ(order, all);
  EXPECT_TRUE(kd.blendMode == BLEND_SCREEN && kd.diffMode == DIFF_NONE);  // read before its check-in failed
  EXPECT_TRUE(kd.normalize && !kd.motion_amp && kd.chromatic);
}

TEST(FrameSchedule, StackLengthIsCutAndKeptWithinTheOrigins) {
  for (const auto& [frames, length] :
       std::vector<std::pair<double, int>>{{10.9, 10}, {3.0, 3}, {50.0, 50}, {80.0, 50}, {0.5, 1}, {-4.0, 1}})
    EXPECT_EQ(StackLength(frames), length) << frames;
}

TEST(FrameSchedule, MissingFramesTakeTheirNewerNeighbour) {
  // A hole at 3 and the start of the clip after 5: each missing frame takes
  // the one before it, itself maybe a replacement; delivered frames stay.
  PF_EffectWorld worlds[10];
  PF_EffectWorld* frames[10];
  for (int i = 0; i < 10; ++i) frames[i] = i == 3 || i > 5 ? nullptr : &worlds[i];
  int replaced = 0;
  for (int i = 1; i < 10; ++i) replaced += ReplaceMissingFrame(frames, i);
  EXPECT_EQ(replaced, 5);
  const int want[10] = {0, 1, 2, 2, 4, 5, 5, 5, 5, 5};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(frames[i], &worlds[want[i]]) << i;
  PF_EffectWorld* first[3] = {nullptr, nullptr, nullptr};  // frame 0 has no newer frame
  EXPECT_FALSE(ReplaceMissingFrame(first, 0));
}

}  // namespace
