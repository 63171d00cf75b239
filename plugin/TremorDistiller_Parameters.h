// The effect's parameters as one table: registration, lookup and the reading
// of values all go through its rows. A row's position is the host's parameter
// index; its Disk ID is what the host stores in projects and what code looks
// parameters up by.
#ifndef TREMORDISTILLER_PARAMETERS_H
#define TREMORDISTILLER_PARAMETERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AE_Effect.h"

// Tag order matters: 0 int, 1 float, 2 bool, 3 string.
using ParamVariant = std::variant<int32_t, float, bool, std::string>;

enum class ParamKind : int32_t {
  GroupStart = 0,
  GroupEnd = 1,
  InputLayer = 2,  // the host's own input, parameter 0; nothing is registered
  Popup = 3,
  CustomUI = 4,
  Checkbox = 5,
  IntSlider = 6,  // 6, 9, 10, 11: no registration path
  FloatSlider = 7,
  Angle = 8,
  Color = 9,
  Point = 10,
  Button = 11,
  Layer = 12
};

// Disk IDs: stored in users' projects, so never renumber. The gaps are ids
// that name nothing.
enum ParamDiskId : int32_t {
  PARAM_INPUT = 0,
  PARAM_ABOUT = 1,
  PARAM_FRAMES = 5,
  PARAM_FRAMES_OFFSET = 6,
  PARAM_FRAMES_FADE = 12,
  PARAM_BLENDING_MODE = 19,
  PARAM_DIFFERENCE_ALGORITHM = 20,
  PARAM_CHROMATIC_ABERRATION = 21,
  PARAM_MOTION_AMPLIFICATION = 22,
  PARAM_OUTPUT = 23,
  PARAM_NORMALIZE = 24
};

struct ParamRecord {
  int32_t diskId;
  ParamKind kind;
  std::string name = "undefined";
  std::optional<ParamVariant> value = ParamVariant(0.0f);  // a popup's choices, "A|B|C"
  ParamVariant defaultValue = 0.0f;
  std::optional<float> min = 0.0f;  // a float slider's valid and slider range alike
  std::optional<float> max = 100.0f;
  std::optional<int32_t> precision = 1;  // low 16 bits used
  std::optional<int32_t> uiFlags = 0;    // display_flags of a float slider, else ui_flags
  std::optional<int32_t> flags = 0;      // PF_ParamFlags
  const char* option = nullptr;          // on our command lines, e.g. "--frames"; null: none
  const char* optionHelp = nullptr;      // its help line
};

using ParamTableRows = std::vector<ParamRecord>;

// The one table, eleven rows, input layer included. Constant after load.
const ParamTableRows& ParamTable();

// Index of the first row holding diskId. Throws std::runtime_error
// "Parameter with given Disk ID not found".
int FindParamIndex(int32_t diskId, const ParamTableRows& table);

// PF_Cmd_PARAMS_SETUP: registers the custom UI, then the rows of ParamTable().
PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data);

// The same over any table; the two-argument form passes ParamTable().
PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data, const ParamTableRows& table);

// Number of bar-separated choices in a popup's choice string.
A_short CountPopupChoices(const std::string& choices);

// ---- Host values to KernelData working values ----
// After Effects delivers popups counting from 1, as the kernel enums do;
// Premiere Pro counts from 0.

inline A_long PopupFromAE(A_long hostValue) { return hostValue; }
inline A_long PopupFromPremiere(A_long hostValue) { return hostValue + 1; }

// "Frames" on both hosts and "Frames offset" on Premiere: whole frames, cut
// toward zero.
inline int64_t WholeFrames(double sliderValue) { return static_cast<int64_t>(sliderValue); }

// "Frames Fade" 0..100 to the fade exponent 0..5; the division is in double
// so 80 gives exactly 4.0f.
inline float PercentEaseFromFade(double fade) { return static_cast<float>(fade / 20.0); }

// A checkbox: After Effects' value or Premiere's byte.
inline bool CheckboxOn(A_long hostValue) { return hostValue != 0; }

#endif
