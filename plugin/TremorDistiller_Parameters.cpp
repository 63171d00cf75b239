#include "TremorDistiller_Parameters.h"

#include <cassert>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "Kernel_Data.h"
#include "LogsController.h"
#include "TremorDistiller.h"

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
      Slider(PARAM_FRAMES, "Frames", 10.0f, 3.0f, 50.0f, 0, 0),
      Slider(PARAM_FRAMES_OFFSET, "Frames offset", 1.0f, -100.0f, 100.0f, 0, 0),
      Slider(PARAM_FRAMES_FADE, "Frames Fade", 80.0f, 0.0f, 100.0f, 2, PF_ValueDisplayFlag_PERCENT),
      Popup(PARAM_BLENDING_MODE, "Blending mode", POPUP_CHOICES({"Add", BLEND_ADD}, {"Screen", BLEND_SCREEN}), 1),
      Popup(PARAM_DIFFERENCE_ALGORITHM, "Difference algorithm",
            POPUP_CHOICES({"Difference", DIFF_DIFF}, {"Subtract", DIFF_SUBT}), 1),
      // Disk IDs out of table order: the ids were given before the rows moved.
      Checkbox(PARAM_MOTION_AMPLIFICATION, "Motion Amplification", false),
      Checkbox(PARAM_CHROMATIC_ABERRATION, "Chromatic Aberration", false),
      Checkbox(PARAM_NORMALIZE, "Normalize", false),
      Popup(PARAM_OUTPUT, "Output",
            POPUP_CHOICES({"Motion", FROM_MOTION}, {"Source", FROM_SOURCE}, {"Luma", FROM_LUMA}), 1),
  };
}

#undef POPUP_CHOICES

// Built while the module loads, before any command; render threads then
// only read it.
[[maybe_unused]] const ParamTableRows& kTableAtLoad = ParamTable();

void CopyName(PF_ParamDef& def, const std::string& name) {
  std::strncpy(def.name, name.c_str(), sizeof(def.name));
  def.name[sizeof(def.name) - 1] = '\0';
}

const AboutImage* LockedAboutImage(PF_InData* in_data) {
  SuiteAccess<PF_HandleSuite2> handles(in_data);
  if (!in_data->global_data) return nullptr;
  const auto* global = static_cast<const GlobalData*>(handles->host_lock_handle(in_data->global_data));
  const AboutImage* about = global ? global->aboutImage : nullptr;
  handles->host_unlock_handle(in_data->global_data);
  return about;  // owned by GlobalData until set-down, so valid past the unlock
}

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

PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data) { return ParamsSetup(in_data, out_data, ParamTable()); }

PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data, const ParamTableRows& table) {
  const AboutImage* about = LockedAboutImage(in_data);

  PF_CustomUIInfo ui{};
  ui.events = PF_CustomEFlag_COMP | PF_CustomEFlag_LAYER | PF_CustomEFlag_EFFECT;
  PF_Err result = in_data->inter.register_ui(in_data->effect_ref, &ui);  // a failure does not stop the rows

  for (const ParamRecord& param : table) {
    PF_ParamDef def{};
    char names[256] = {};  // must outlive PF_ADD_PARAM
    if (param.uiFlags) def.ui_flags = *param.uiFlags;
    if (param.flags) def.flags = *param.flags;

    switch (param.kind) {
      case ParamKind::GroupStart:
        def.param_type = PF_Param_GROUP_START;
        CopyName(def, param.name);
        break;
      case ParamKind::GroupEnd: def.param_type = PF_Param_GROUP_END; break;
      case ParamKind::InputLayer: continue;
      case ParamKind::Popup: {
        assert(param.value.has_value());
        assert(std::holds_alternative<std::string>(param.value.value()));
        assert(std::holds_alternative<int>(param.defaultValue));
        const std::string choices = std::get<std::string>(param.value.value());
        // The host's sprintf copies into 256 bytes; a longer list is a table error.
        if (choices.size() >= sizeof(names)) throw std::length_error("Popup choices too long: " + param.name);
        in_data->utils->ansi.sprintf(names, choices.c_str());  // no choice holds a '%'
        def.param_type = PF_Param_POPUP;
        CopyName(def, param.name);
        def.u.pd.num_choices = CountPopupChoices(choices);
        def.u.pd.value = std::get<int32_t>(param.defaultValue);
        def.u.pd.dephault = static_cast<A_short>(std::get<int32_t>(param.defaultValue));
        def.u.pd.u.namesptr = names;
        break;
      }
      case ParamKind::CustomUI: {
        const A_long height = about ? about->height : kAboutFallbackHeight;
        def.ui_flags = PF_PUI_CONTROL | PF_PUI_DONT_ERASE_CONTROL;
        def.ui_width = static_cast<A_short>(about ? about->width : kAboutFallbackWidth);
        def.ui_height = static_cast<A_short>(static_cast<float>(height) + 20.0f);
        def.param_type = PF_Param_NO_DATA;
        CopyName(def, param.name);
        break;
      }
      case ParamKind::Checkbox: {
        const bool on = std::get<bool>(param.defaultValue);
        def.param_type = PF_Param_CHECKBOX;
        CopyName(def, param.name);
        def.u.bd.u.nameptr = "";
        def.u.bd.value = on;
        def.u.bd.dephault = on;
        def.flags |= param.flags.value();
        break;
      }
      case ParamKind::FloatSlider: {
        // Zeroed again: on a float slider uiFlags means display_flags, and
        // must not reach ui_flags.
        def = PF_ParamDef{};
        def.flags = param.flags.value();
        const float dflt = std::get<float>(param.defaultValue);
        def.param_type = PF_Param_FLOAT_SLIDER;
        CopyName(def, param.name);
        def.u.fs_d.valid_min = def.u.fs_d.slider_min = param.min.value();
        def.u.fs_d.valid_max = def.u.fs_d.slider_max = param.max.value();
        def.u.fs_d.value = static_cast<double>(dflt);
        def.u.fs_d.dephault = dflt;
        def.u.fs_d.precision = static_cast<A_short>(param.precision.value() & 0xFFFF);
        def.u.fs_d.display_flags = static_cast<A_short>(param.uiFlags.value() & 0xFFFF);
        def.u.fs_d.curve_tolerance = 0.05f;
        break;
      }
      case ParamKind::Angle: {
        // 16.16 fixed-point degrees.
        const A_long fixed = static_cast<A_long>(static_cast<double>(std::get<float>(param.defaultValue)) * 65536.0);
        def.param_type = PF_Param_ANGLE;
        CopyName(def, param.name);
        def.u.ad.value = fixed;
        def.u.ad.dephault = fixed;
        break;
      }
      case ParamKind::Layer:
        // Our layer definition has no default slot; the int is still checked
        // so a wrong row fails as it would with one.
        (void)std::get<int32_t>(param.defaultValue);
        def.param_type = PF_Param_LAYER;
        CopyName(def, param.name);
        break;
      default: {
        LOG_ERROR("Unimplemented parameter: ", static_cast<int32_t>(param.kind), ", name: ", param.name,
                  ", id: ", param.diskId);
        result = PF_Err_INVALID_INDEX;
        continue;
      }
    }

    def.uu.id = param.diskId;
    if (const PF_Err err = PF_ADD_PARAM(in_data, -1, &def)) return err;
  }

  out_data->num_params = static_cast<A_long>(table.size());
  return result;
}
