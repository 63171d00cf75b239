// What a frei0r instance keeps between calls: the frames it has been handed,
// numbered as they came, and which of them make up a frame's stack.
//
// frei0r gives one frame per call with its time and nothing else: no frame
// rate and no frame number. Frames count up from the first one or from a
// jump; a jump (a time earlier than the last, or further on than one frame
// step) starts the history afresh, as a clip's first frame would.
#ifndef TREMOR_FREI0R_STACK_H
#define TREMOR_FREI0R_STACK_H

#include <cstdint>
#include <map>
#include <vector>

#include "TremorDistiller_Schedule.h"

// Frame numbers from frei0r's times.
class FrameClock {
 public:
  // The number of the frame at `time`: the last one again for the same time,
  // the next for the next step, 0 after a jump. `restarted` says a jump came.
  // Calls without a usable time count one frame each.
  int64_t Place(double time, bool* restarted);

 private:
  bool started_ = false;
  double last_ = 0.0;
  double step_ = 0.0;  // known from the second frame on
  int64_t number_ = 0;
};

// The frame numbers of frame `number`'s stack, newest first, as the effect
// schedules them on a host whose frame k sits at k * kStackTimeStep; -1
// where the frame lies before the history's first one.
std::vector<int64_t> StackFrameNumbers(int64_t number, int frames, double offset);

// How far back a stack reaches, in frames (the current one included).
int64_t StackReach(int frames, double offset);


#endif
