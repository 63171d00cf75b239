// The progress text of tremor-render: a bar on a terminal, plain lines for logs.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "RenderProgress.h"

namespace {

TEST(ProgressLine, BarCountsRateAndTimeLeft) {
  // 25 of 100 frames in 5 s: 5 fps, 75 frames to go take 15 s.
  EXPECT_EQ(render::Progress::Line(25, 100, 5.0, 8), "[##......] 25/100 frames, 5.0 fps, 0:15 left");
  // Minutes and zero-padded seconds.
  EXPECT_EQ(render::Progress::Line(10, 555, 10.0, 0), "10/555 frames, 1.0 fps, 9:05 left");
  // Done: a full bar and no time left.
  EXPECT_EQ(render::Progress::Line(100, 100, 4.0, 4), "[####] 100/100 frames, 25.0 fps");
  // Unknown total: no bar, no estimate.
  EXPECT_EQ(render::Progress::Line(7, -1, 2.0, 8), "7 frames, 3.5 fps");
  // No time elapsed yet: no rate to divide by.
  EXPECT_EQ(render::Progress::Line(0, 50, 0.0, 0), "0/50 frames, 0.0 fps");
}

std::string Captured(bool quiet, bool terminal) {
  char* buf = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&buf, &size);
  {
    render::Progress p(3, quiet, terminal, out);
    for (int done = 1; done <= 3; ++done) p.Update(done);
    p.Finish();
  }
  std::fclose(out);
  std::string text(buf, size);
  free(buf);
  return text;
}

// A terminal gets one line, redrawn and cleared at the end; quiet runs and
// logs get nothing here (plain lines come every two seconds).
TEST(ProgressOutput, BarOnlyOnATerminalAndClearedAtTheEnd) {
  const std::string bar = Captured(false, true);
  EXPECT_EQ(bar.find('\n'), std::string::npos) << bar;
  EXPECT_NE(bar.find("3/3 frames"), std::string::npos) << bar;  // the last frame is always drawn
  EXPECT_EQ(bar.substr(bar.size() - 4), "\r\033[K");
  EXPECT_EQ(Captured(true, true), "");
  EXPECT_EQ(Captured(false, false), "");
}

// The kernels' first-run notice: once when its step outlasts the delay, never
// when the step ends first (whose end it does not hold up: a minute here).
TEST(SlowStepNotice, OnlyWhenTheStepIsSlow) {
  char* buf = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&buf, &size);
  render::SlowStepNotice("quick", std::chrono::minutes(1), false, out);  // done at once
  auto slow = std::make_unique<render::SlowStepNotice>("slow", std::chrono::milliseconds(1), false, out);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  slow.reset();
  std::fclose(out);
  EXPECT_EQ(std::string(buf, size), "slow\n");
  free(buf);
}

}  // namespace
