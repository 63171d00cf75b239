// Frame scheduling arithmetic of pre-render and the replacement of frames the
// host could not deliver.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "TremorDistiller_SmartRender.h"

namespace {

std::vector<A_long> Times(A_long current, A_long step, float offset, int frames) {
  std::vector<A_long> t;
  t.push_back(current);  // frame 0 is checked out at the exact current time
  for (int i = 1; i < frames; ++i) t.push_back(FrameCheckoutTime(current, step, i, offset));
  return t;
}

TEST(FrameSchedule, TimesFollowTheOffsetInSinglePrecision) {
  EXPECT_EQ(Times(5005, 1001, 1.0f, 4), (std::vector<A_long>{5005, 4004, 3003, 2002}));
  EXPECT_EQ(Times(5005, 1001, -1.0f, 4), (std::vector<A_long>{5005, 6006, 7007, 8008}));
  EXPECT_EQ(Times(5005, 1001, 0.5f, 4), (std::vector<A_long>{5005, 4504, 4004, 3503}));  // halves cut
  EXPECT_EQ(Times(1001, 1001, 1.0f, 4), (std::vector<A_long>{1001, 0, -1001, -2002}));   // before the clip
  EXPECT_EQ(Times(3003, 1001, 0.0f, 3), (std::vector<A_long>{3003, 3003, 3003}));
  // Above 2^24 a float holds only even numbers: frame 1 and up are rounded.
  const A_long big = 16778218;
  const A_long frame1 = FrameCheckoutTime(big, 1, 1, 1.0f);
  EXPECT_NE(frame1, big - 1);
  EXPECT_EQ(frame1 % 2, 0);
  EXPECT_LE(std::abs(frame1 - (big - 1)), 1);
}

TEST(FrameSchedule, StackLengthIsCutAndKeptWithinTheOrigins) {
  EXPECT_EQ(StackLength(10.9), 10);
  EXPECT_EQ(StackLength(3.0), 3);
  EXPECT_EQ(StackLength(50.0), 50);
  EXPECT_EQ(StackLength(80.0), 50);
  EXPECT_EQ(StackLength(0.5), 1);
  EXPECT_EQ(StackLength(-4.0), 1);
}

TEST(FrameSchedule, UnionOfRectangles) {
  PF_LRect dst{0, 0, 0, 0};
  UnionLRect(PF_LRect{12, 8, 100, 50}, dst);  // empty destination takes the source
  EXPECT_EQ(dst.left, 12);
  EXPECT_EQ(dst.bottom, 50);
  UnionLRect(PF_LRect{0, 20, 40, 80}, dst);
  EXPECT_EQ(dst.left, 0);
  EXPECT_EQ(dst.top, 8);
  EXPECT_EQ(dst.right, 100);
  EXPECT_EQ(dst.bottom, 80);
  UnionLRect(PF_LRect{5, 5, 5, 90}, dst);  // empty source: nothing changes
  EXPECT_EQ(dst.bottom, 80);
  PF_LRect empty{3, 3, 1, 1};
  UnionLRect(PF_LRect{7, 7, 7, 7}, empty);  // empty over empty: still the source
  EXPECT_EQ(empty.left, 7);
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
