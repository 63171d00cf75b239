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

PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data) { return ParamsSetup(in_data, out_data, ParamTable()); }

namespace {

void PopupDefinition(const ParamRecord& param, PF_InData* in_data, char (&names)[256], PF_ParamDef& def) {
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
}

void FloatSliderDefinition(const ParamRecord& param, PF_ParamDef& def) {
  // Zeroed again: on a float slider uiFlags means display_flags, and must
  // not reach ui_flags.
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
}

// A row's definition for the host; false for a row that registers nothing
// (the input layer, and an unknown kind, which also sets `result`).
bool RowDefinition(const ParamRecord& param, const AboutImage* about, PF_InData* in_data, char (&names)[256],
                   PF_ParamDef& def, PF_Err& result) {
  switch (param.kind) {
    case ParamKind::GroupStart:
      def.param_type = PF_Param_GROUP_START;
      CopyName(def, param.name);
      return true;
    case ParamKind::GroupEnd: def.param_type = PF_Param_GROUP_END; return true;
    case ParamKind::InputLayer: return false;
    case ParamKind::Popup: PopupDefinition(param, in_data, names, def); return true;
    case ParamKind::CustomUI: {
      const A_long height = about ? about->height : kAboutFallbackHeight;
      def.ui_flags = PF_PUI_CONTROL | PF_PUI_DONT_ERASE_CONTROL;
      def.ui_width = static_cast<A_short>(about ? about->width : kAboutFallbackWidth);
      def.ui_height = static_cast<A_short>(static_cast<float>(height) + 20.0f);
      def.param_type = PF_Param_NO_DATA;
      CopyName(def, param.name);
      return true;
    }
    case ParamKind::Checkbox: {
      const bool on = std::get<bool>(param.defaultValue);
      def.param_type = PF_Param_CHECKBOX;
      CopyName(def, param.name);
      def.u.bd.u.nameptr = "";
      def.u.bd.value = on;
      def.u.bd.dephault = on;
      def.flags |= param.flags.value();
      return true;
    }
    case ParamKind::FloatSlider: FloatSliderDefinition(param, def); return true;
    case ParamKind::Angle: {
      // 16.16 fixed-point degrees.
      const A_long fixed = static_cast<A_long>(static_cast<double>(std::get<float>(param.defaultValue)) * 65536.0);
      def.param_type = PF_Param_ANGLE;
      CopyName(def, param.name);
      def.u.ad.value = fixed;
      def.u.ad.dephault = fixed;
      return true;
    }
    case ParamKind::Layer:
      // Our layer definition has no default slot; the int is still checked
      // so a wrong row fails as it would with one.
      (void)std::get<int32_t>(param.defaultValue);
      def.param_type = PF_Param_LAYER;
      CopyName(def, param.name);
      return true;
    default:
      LOG_ERROR_IN("ParamsSetup", "Unimplemented parameter: ", static_cast<int32_t>(param.kind), ", name: ", param.name,
                   ", id: ", param.diskId);
      result = PF_Err_INVALID_INDEX;
      return false;
  }
}

}  // namespace

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
    if (!RowDefinition(param, about, in_data, names, def, result)) continue;
    def.uu.id = param.diskId;
    if (const PF_Err err = PF_ADD_PARAM(in_data, -1, &def)) return err;
  }

  out_data->num_params = static_cast<A_long>(table.size());
  return result;
}
