#include "TremorDistiller_Schedule.h"

#include <cmath>

#include "Kernel_Data.h"

int32_t FrameCheckoutTime(int32_t current_time, int32_t time_step, int32_t i, float offset) {
  const float back = static_cast<float>(time_step * i) * offset;
  return static_cast<int32_t>(static_cast<float>(current_time) - back);
}

int32_t StackLength(double framesValue) {
  // The slider keeps "Frames" within 3 to 50; a host that sends more must not
  // overrun the 50 frame origins, and frame 0 is always rendered.
  const double cut = std::trunc(framesValue);
  if (!(cut >= 1.0)) return 1;
  if (cut > KERNEL_DATA_MAX_FRAMES) return KERNEL_DATA_MAX_FRAMES;
  return static_cast<int32_t>(cut);
}

std::vector<int64_t> StackSourceFrames(int64_t frame, int32_t numFrames, float offset, int64_t clipFrames) {
  std::vector<int64_t> out;
  const auto now = static_cast<int32_t>(frame * kStackTimeStep);
  for (int32_t i = 0; i < numFrames; ++i) {
    // The host's frame at a time is the last one that starts at or before it.
    const int32_t t = i == 0 ? now : FrameCheckoutTime(now, kStackTimeStep, i, offset);
    int64_t k = t >= 0 ? t / kStackTimeStep : -1;
    if (k < 0 || (clipFrames >= 0 && k >= clipFrames)) k = out.empty() ? frame : out.back();
    out.push_back(k);
  }
  return out;
}
