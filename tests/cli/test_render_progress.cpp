// The progress text of tremor-render: a bar on a terminal, plain lines for logs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

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
// when the step ends first (nor does it hold that step up), nothing when quiet.
std::string Notice(std::chrono::milliseconds after, std::chrono::milliseconds step, bool quiet) {
  char* buf = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&buf, &size);
  {
    render::SlowStepNotice notice("compiling", after, quiet, out);
    std::this_thread::sleep_for(step);
  }
  std::fclose(out);
  std::string text(buf, size);
  free(buf);
  return text;
}

TEST(SlowStepNotice, OnlyWhenTheStepIsSlow) {
  using std::chrono::milliseconds;
  EXPECT_EQ(Notice(milliseconds(1), milliseconds(300), false), "compiling\n");
  EXPECT_EQ(Notice(milliseconds(1), milliseconds(300), true), "");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Notice(milliseconds(60000), milliseconds(0), false), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
