// How the frei0r filter numbers the frames it is handed and which of them a
// stack takes: the parts its hosts cannot show from outside.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Frei0rControls.h"
#include "Frei0rStack.h"

TEST(Frei0rStack, FramesCountFromTheFirstAndStartAgainAfterAJump) {
  FrameClock clock;
  bool restarted = false;
  struct Step {
    double time;
    int64_t number;
    bool restarted;
  };
  const Step steps[] = {
      {10.00, 0, true},         {10.04, 1, false},  {10.08, 2, false}, {10.08, 2, false},  // same again
      {10.04, 0, true},         {10.08, 1, false},  {11.00, 0, true},  {11.04, 1, false},  // back, on
      {std::nan(""), 2, false}, {-9.2e18, 3, false}};  // no time: counted as they come
  for (const Step& s : steps) {
    EXPECT_EQ(clock.Place(s.time, &restarted), s.number) << "at " << s.time;
    EXPECT_EQ(restarted, s.restarted) << "at " << s.time;
  }
}

TEST(Frei0rStack, StacksReachBackByTheOffsetAndNotBeforeTheFirstFrame) {
  EXPECT_EQ(StackFrameNumbers(5, 4, 1.0), (std::vector<int64_t>{5, 4, 3, 2}));
  EXPECT_EQ(StackFrameNumbers(2, 4, 1.0), (std::vector<int64_t>{2, 1, 0, -1}));
  EXPECT_EQ(StackFrameNumbers(6, 4, 1.5), (std::vector<int64_t>{6, 4, 3, 1}));
  EXPECT_EQ(StackReach(4, 1.5), 6);
}

TEST(Frei0rControls, ValuesMapOntoTheControlsAndAreClamped) {
  const auto& controls = Frei0rControls();
  ASSERT_EQ(controls.size(), 9u);
  EXPECT_EQ(controls[0].name, "Frames");
  EXPECT_EQ(ControlValue(controls[0], 0.148937), 10.0);  // rounded to whole frames
  EXPECT_EQ(ControlValue(controls[0], 7.0), 50.0);
  EXPECT_EQ(ControlValue(controls[1], 0.5075), 1.5);
  EXPECT_EQ(ControlValue(controls[1], -1.0), -100.0);
  EXPECT_EQ(ControlValue(controls[2], std::nan("")), 80.0);  // the default
  EXPECT_EQ(ControlValue(controls[3], 0.6), 2.0);            // Screen, counting from 1
  EXPECT_DOUBLE_EQ(Frei0rValue(controls[1], ControlValue(controls[1], 0.25)), 0.25);
  std::vector<double> values = DefaultControlValues();
  values[1] = -2.5;
  EXPECT_EQ(StackOffset(values), 2.5);  // a filter sees no later frames
}
