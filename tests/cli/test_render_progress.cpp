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

TEST(ProgressOutput, TerminalRedrawsOneLineAndClearsIt) {
  const std::string text = Captured(false, true);
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  EXPECT_NE(text.find("3/3 frames"), std::string::npos) << text;  // the last frame is always drawn
  EXPECT_EQ(text.substr(text.size() - 4), "\r\033[K");
}

TEST(ProgressOutput, QuietAndFastLogsPrintNothing) {
  EXPECT_EQ(Captured(true, true), "");
  // Plain lines come every two seconds, so a run this short prints none.
  EXPECT_EQ(Captured(false, false), "");
}

}  // namespace
