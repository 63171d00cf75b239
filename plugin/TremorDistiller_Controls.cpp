#include "TremorDistiller_Controls.h"

#include <cstring>

#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_Schedule.h"

void ApplyControl(int32_t diskId, double value, KernelData& kd, float* offset) {
  switch (diskId) {
    case PARAM_FRAMES: kd.numFrames = StackLength(value); break;
    case PARAM_FRAMES_OFFSET:
      if (offset) *offset = static_cast<float>(value);
      break;
    case PARAM_FRAMES_FADE: kd.percentEase = PercentEaseFromFade(value); break;
    case PARAM_BLENDING_MODE: kd.blendMode = static_cast<BlendMode>(PopupFromAE(static_cast<A_long>(value))); break;
    case PARAM_DIFFERENCE_ALGORITHM:
      kd.diffMode = static_cast<DiffBlendMode>(PopupFromAE(static_cast<A_long>(value)));
      break;
    case PARAM_OUTPUT: kd.output = static_cast<ColorFrom>(PopupFromAE(static_cast<A_long>(value))); break;
    case PARAM_NORMALIZE: kd.normalize = CheckboxOn(static_cast<A_long>(value)); break;
    case PARAM_MOTION_AMPLIFICATION: kd.motion_amp = CheckboxOn(static_cast<A_long>(value)); break;
    case PARAM_CHROMATIC_ABERRATION: kd.chromatic = CheckboxOn(static_cast<A_long>(value)); break;
    default: break;
  }
}

int32_t FillKernelData(const ControlReader& read, KernelData& kd, float* offset) {
  std::memset(&kd, 0, sizeof kd);
  if (offset) *offset = 0.0f;
  constexpr int32_t kShape[] = {PARAM_FRAMES,        PARAM_FRAMES_OFFSET,        PARAM_FRAMES_FADE,
                                PARAM_BLENDING_MODE, PARAM_DIFFERENCE_ALGORITHM, PARAM_OUTPUT};
  constexpr int32_t kSwitches[] = {PARAM_NORMALIZE, PARAM_MOTION_AMPLIFICATION, PARAM_CHROMATIC_ABERRATION};
  int32_t err = 0;
  for (const int32_t id : kShape) {
    std::optional<double> v;
    err = read(id, v);
    if (v) ApplyControl(id, *v, kd, offset);
    if (err) break;
  }
  for (const int32_t id : kSwitches) {
    std::optional<double> v;
    read(id, v);
    if (v) ApplyControl(id, *v, kd, offset);
  }
  return err;
}

void FillKernelData(const std::function<double(int32_t diskId)>& value, KernelData& kd, float* offset) {
  FillKernelData(
      [&](int32_t diskId, std::optional<double>& v) -> int32_t {
        v = value(diskId);
        return 0;
      },
      kd, offset);
}
