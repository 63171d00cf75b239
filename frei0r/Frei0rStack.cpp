#include "Frei0rStack.h"

#include <climits>
#include <cmath>

#include "TremorDistiller_SmartRender.h"

int64_t FrameClock::Place(double time, bool* restarted) {
  *restarted = false;
  // Where the host has no time for a frame (FFmpeg then hands the smallest
  // 64-bit integer), frames count as they come.
  if (!std::isfinite(time) || std::fabs(time) >= 1e15) {
    *restarted = !started_;
    started_ = true;
    return started_ && !*restarted ? ++number_ : (number_ = 0);
  }
  const double tolerance = step_ > 0.0 ? step_ / 2 : 1e-9;
  const bool same = started_ && std::fabs(time - last_) <= tolerance;
  const bool next = started_ && !same && time > last_ && (step_ == 0.0 || time - last_ <= 1.5 * step_);
  // Host times are 32-bit: past that many frames the count starts again.
  const bool overflow = number_ + 1 > INT_MAX / kStackTimeStep;
  if (same) {
    // the same frame again
  } else if (next && !overflow) {
    if (step_ == 0.0) step_ = time - last_;
    ++number_;
  } else {
    *restarted = true;
    number_ = 0;
    step_ = 0.0;
  }
  started_ = true;
  last_ = time;
  return number_;
}

std::vector<int64_t> StackFrameNumbers(int64_t number, int frames, double offset) {
  std::vector<int64_t> out;
  const auto now = static_cast<A_long>(number * kStackTimeStep);
  for (int i = 0; i < frames; ++i) {
    // The host's frame at a time is the last one that starts at or before it.
    const A_long t = FrameCheckoutTime(now, kStackTimeStep, i, static_cast<float>(offset));
    const int64_t k = t >= 0 ? t / kStackTimeStep : -1;
    out.push_back(k);
  }
  return out;
}

int64_t StackReach(int frames, double offset) {
  return frames < 1 ? 1 : static_cast<int64_t>(std::ceil((frames - 1) * std::fabs(offset))) + 1;
}
