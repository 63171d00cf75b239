#include "TremorDistiller_Controls.h"

#include <cstring>

#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_Schedule.h"

int32_t FillKernelData(const ControlReader& read, KernelData& kd, float* offset) {
  std::memset(&kd, 0, sizeof kd);
  // Each control's meaning, in the order the controls are read.
  using Apply = void (*)(double, KernelData&, float*);
  static const struct {
    int32_t diskId;
    Apply apply;
  } kShape[] = {
      {PARAM_FRAMES, [](double v, KernelData& k, float*) { k.numFrames = StackLength(v); }},
      {PARAM_FRAMES_OFFSET, [](double v, KernelData&, float* o) { *o = static_cast<float>(v); }},
      {PARAM_FRAMES_FADE, [](double v, KernelData& k, float*) { k.percentEase = PercentEaseFromFade(v); }},
      {PARAM_BLENDING_MODE, [](double v, KernelData& k,
                               float*) { k.blendMode = static_cast<BlendMode>(PopupFromAE(static_cast<A_long>(v))); }},
      {PARAM_DIFFERENCE_ALGORITHM,
       [](double v, KernelData& k, float*) {
         k.diffMode = static_cast<DiffBlendMode>(PopupFromAE(static_cast<A_long>(v)));
       }},
      {PARAM_OUTPUT,
       [](double v, KernelData& k, float*) { k.output = static_cast<ColorFrom>(PopupFromAE(static_cast<A_long>(v))); }},
  };
  static const struct {
    int32_t diskId;
    gf_bool KernelData::*field;
  } kSwitches[] = {{PARAM_NORMALIZE, &KernelData::normalize},
                   {PARAM_MOTION_AMPLIFICATION, &KernelData::motion_amp},
                   {PARAM_CHROMATIC_ABERRATION, &KernelData::chromatic}};

  float step = 0.0f;
  int32_t err = 0;
  for (const auto& c : kShape) {
    std::optional<double> v;
    err = read(c.diskId, v);
    if (v) c.apply(*v, kd, &step);
    if (err) break;
  }
  for (const auto& c : kSwitches) {
    std::optional<double> v;
    read(c.diskId, v);
    if (v) kd.*c.field = CheckboxOn(static_cast<A_long>(*v));
  }
  if (offset) *offset = step;
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
