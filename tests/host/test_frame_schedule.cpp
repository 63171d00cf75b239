// Frame scheduling arithmetic of pre-render and the replacement of frames the
// host could not deliver.
#include <gtest/gtest.h>

#include <vector>

#include "TremorDistiller_SmartRender.h"

namespace {

TEST(FrameSchedule, TimesFollowTheOffsetInSinglePrecision) {
  const struct {
    A_long current;
    float offset;
    std::vector<A_long> times;  // of frames 1.. (frame 0 is the current time itself)
  } rows[] = {
      {5005, 1.0f, {4004, 3003, 2002}},   {5005, -1.0f, {6006, 7007, 8008}},
      {5005, 0.5f, {4504, 4004, 3503}},   // halves cut
      {1001, 1.0f, {0, -1001, -2002}},    // before the clip
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

TEST(FrameSchedule, StackLengthIsCutAndKeptWithinTheOrigins) {
  for (const auto& [frames, length] : std::vector<std::pair<double, int>>{
           {10.9, 10}, {3.0, 3}, {50.0, 50}, {80.0, 50}, {0.5, 1}, {-4.0, 1}})
    EXPECT_EQ(StackLength(frames), length) << frames;
}

TEST(FrameSchedule, MissingFramesTakeTheirNewerNeighbour) {
  PF_EffectWorld worlds[10];
  // The fourth frame of a clip: frames 0..3 exist, 4..9 do not.
  PF_EffectWorld* frames[10] = {};
  for (int i = 0; i < 4; ++i) frames[i] = &worlds[i];
  int replaced = 0;
  for (int i = 1; i < 10; ++i) replaced += ReplaceMissingFrame(frames, i);
  EXPECT_EQ(replaced, 6);
  for (int i = 4; i < 10; ++i) EXPECT_EQ(frames[i], &worlds[3]);
  // A hole in the middle is filled from the frame before it; later frames stay.
  PF_EffectWorld* middle[10];
  for (int i = 0; i < 10; ++i) middle[i] = &worlds[i];
  middle[5] = nullptr;
  for (int i = 1; i < 10; ++i) ReplaceMissingFrame(middle, i);
  EXPECT_EQ(middle[5], &worlds[4]);
  EXPECT_EQ(middle[6], &worlds[6]);
  PF_EffectWorld* first[3] = {nullptr, nullptr, nullptr};  // frame 0 has no newer frame
  EXPECT_FALSE(ReplaceMissingFrame(first, 0));
}

}  // namespace
