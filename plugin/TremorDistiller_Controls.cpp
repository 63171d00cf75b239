#include "TremorDistiller_Controls.h"

#include <cstring>

#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_Schedule.h"

void FillKernelData(const ControlReader& read, KernelData& kd, float* offset) {
  std::memset(&kd, 0, sizeof kd);
  kd.numFrames = StackLength(read(PARAM_FRAMES));
  kd.percentEase = PercentEaseFromFade(read(PARAM_FRAMES_FADE));
  kd.blendMode = static_cast<BlendMode>(PopupFromAE(static_cast<A_long>(read(PARAM_BLENDING_MODE))));
  kd.diffMode = static_cast<DiffBlendMode>(PopupFromAE(static_cast<A_long>(read(PARAM_DIFFERENCE_ALGORITHM))));
  kd.output = static_cast<ColorFrom>(PopupFromAE(static_cast<A_long>(read(PARAM_OUTPUT))));
  kd.normalize = CheckboxOn(static_cast<A_long>(read(PARAM_NORMALIZE)));
  kd.motion_amp = CheckboxOn(static_cast<A_long>(read(PARAM_MOTION_AMPLIFICATION)));
  kd.chromatic = CheckboxOn(static_cast<A_long>(read(PARAM_CHROMATIC_ABERRATION)));
  if (offset) *offset = static_cast<float>(read(PARAM_FRAMES_OFFSET));
}
