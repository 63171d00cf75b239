// Which frames make up a frame's stack: the arithmetic the After Effects
// pre-render books frames with, and the rule for a frame that does not come.
// Every front end asks these functions, so a stack is the same everywhere.
#ifndef TREMORDISTILLER_SCHEDULE_H
#define TREMORDISTILLER_SCHEDULE_H

#include <cstdint>
#include <vector>

// Time of frame i of the stack: current_time less i steps of `offset` frames,
// in single precision and cut toward zero, as the host is asked for it.
int32_t FrameCheckoutTime(int32_t current_time, int32_t time_step, int32_t i, float offset);

// The stack length the render works with: "Frames" cut to an int, kept within
// what the frame origin arrays hold.
int32_t StackLength(double framesValue);

// A frame the host could not deliver takes the picture of its newer neighbour.
// Returns true when frames[i] was replaced.
template <typename Frame>
bool ReplaceMissingFrame(Frame** frames, int32_t i) {
  if (i < 1 || frames[i]) return false;
  frames[i] = frames[i - 1];
  return true;
}

// Time units per frame for front ends that number their frames: the stand-in
// After Effects host's, so a fractional offset picks the frames its renders pick.
constexpr int32_t kStackTimeStep = 1001;

// The input frames of output frame `frame`'s stack, newest first, for a clip
// of `clipFrames` frames (-1: not known, every frame at or after 0 exists)
// whose frame k sits at k * kStackTimeStep. Frames outside the clip take
// their newer neighbour's number, as a host's missing frames do; frame 0 of
// the stack is `frame` itself.
std::vector<int64_t> StackSourceFrames(int64_t frame, int32_t numFrames, float offset, int64_t clipFrames);

// The last output frame a front end can number: its time must fit the host's
// 32-bit time line.
constexpr int64_t kLastStackFrame = INT32_MAX / kStackTimeStep - 1;

#endif
