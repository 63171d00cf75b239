// The effect's parameter table: every fact about a control in its row. The
// hosts' registration, the controls' reading and every front end's options
// loop over it.
#include <sstream>
#include <stdexcept>

#include "Kernel_Data.h"
#include "TremorDistiller_Parameters.h"

namespace {

// Row builders: each sets only what its kind reads, the rest keeps the
// record's initial values.
ParamRecord Slider(int32_t id, const char* name, float dflt, float min, float max, int32_t precision,
                   int32_t displayFlags) {
  ParamRecord r{id, ParamKind::FloatSlider, name};
  r.value.reset();
  r.defaultValue = dflt;
  r.min = min;
  r.max = max;
  r.precision = precision;
  r.uiFlags = displayFlags;
  return r;
}

// A popup's choice, with the kernel enum value it selects.
struct PopupChoice {
  const char* name;
  int32_t value;
};

// Renders cast the 1-based choice number straight to the kernel enum
// (PopupFromAE, PopupFromPremiere), so choice i must be the enum value i.
template <size_t N>
constexpr bool ChoicesMatchTheirEnums(const PopupChoice (&choices)[N]) {
  for (size_t i = 0; i < N; ++i)
    if (choices[i].value != static_cast<int32_t>(i + 1)) return false;
  return true;
}

template <size_t N>
std::string JoinChoices(const PopupChoice (&choices)[N]) {
  std::string joined;
  for (size_t i = 0; i < N; ++i) joined += (i ? "|" : "") + std::string(choices[i].name);
  return joined;
}

// A row's choices as the host's "A|B|C", checked at compile time against their enums.
#define POPUP_CHOICES(...)                                                                                  \
  [] {                                                                                                      \
    constexpr PopupChoice kChoices[] = {__VA_ARGS__};                                                       \
    static_assert(ChoicesMatchTheirEnums(kChoices), "a popup's choice number differs from its enum value"); \
    return JoinChoices(kChoices);                                                                           \
  }()

ParamRecord Popup(int32_t id, const char* name, const std::string& choices, int32_t dflt) {
  ParamRecord r{id, ParamKind::Popup, name};
  r.value = ParamVariant(choices);
  r.defaultValue = dflt;
  return r;
}

ParamRecord Checkbox(int32_t id, const char* name, bool dflt) {
  ParamRecord r{id, ParamKind::Checkbox, name};
  r.value.reset();
  r.defaultValue = dflt;
  return r;
}

// The control as a command-line option.
ParamRecord Option(ParamRecord r, const char* flag, const char* help) {
  r.option = flag;
  r.optionHelp = help;
  return r;
}

ParamRecord InputRow() { return ParamRecord{PARAM_INPUT, ParamKind::InputLayer}; }

ParamRecord AboutRow() {
  ParamRecord r{PARAM_ABOUT, ParamKind::CustomUI, "About"};
  r.value.reset();  // a drawing area, no value
  return r;
}

ParamTableRows BuildTable() {
  return {
      InputRow(),
      AboutRow(),
      Option(Slider(PARAM_FRAMES, "Frames", 10.0f, 3.0f, 50.0f, 0, 0), "--frames", "Frames in the stack"),
      Option(Slider(PARAM_FRAMES_OFFSET, "Frames offset", 1.0f, -100.0f, 100.0f, 0, 0), "--frames-offset",
             "Frames between stacked frames; fractions allowed, negative looks ahead"),
      Option(Slider(PARAM_FRAMES_FADE, "Frames Fade", 80.0f, 0.0f, 100.0f, 2, PF_ValueDisplayFlag_PERCENT),
             "--frames-fade", "Fade of older frames, percent"),
      Option(Popup(PARAM_BLENDING_MODE, "Blending mode", POPUP_CHOICES({"Add", BLEND_ADD}, {"Screen", BLEND_SCREEN}), 1),
             "--blending-mode", "How each difference joins the accumulation"),
      Option(Popup(PARAM_DIFFERENCE_ALGORITHM, "Difference algorithm",
                   POPUP_CHOICES({"Difference", DIFF_DIFF}, {"Subtract", DIFF_SUBT}), 1),
             "--difference-algorithm", "How neighbouring frames are compared"),
      // Disk IDs out of table order: the ids were given before the rows moved.
      Option(Checkbox(PARAM_MOTION_AMPLIFICATION, "Motion Amplification", false), "--motion-amplification",
             "Push the accumulation along the motion"),
      Option(Checkbox(PARAM_CHROMATIC_ABERRATION, "Chromatic Aberration", false), "--chromatic-aberration",
             "Split the accumulation by colour"),
      Option(Checkbox(PARAM_NORMALIZE, "Normalize", false), "--normalize", "Normalize the delivered picture"),
      Option(Popup(PARAM_OUTPUT, "Output",
                   POPUP_CHOICES({"Motion", FROM_MOTION}, {"Source", FROM_SOURCE}, {"Luma", FROM_LUMA}), 1),
             "--output", "What is delivered"),
  };
}

#undef POPUP_CHOICES

// Built while the module loads, before any command; render threads then
// only read it.
[[maybe_unused]] const ParamTableRows& kTableAtLoad = ParamTable();

}  // namespace

const ParamTableRows& ParamTable() {
  static const ParamTableRows table = BuildTable();
  return table;
}

int FindParamIndex(int32_t diskId, const ParamTableRows& table) {
  for (size_t i = 0; i < table.size(); ++i)
    if (table[i].diskId == diskId) return static_cast<int>(i);
  throw std::runtime_error("Parameter with given Disk ID not found");
}

A_short CountPopupChoices(const std::string& choices) {
  std::istringstream words(choices);
  std::string word;
  A_short count = 0;
  while (std::getline(words, word, '|')) ++count;
  return count;
}
