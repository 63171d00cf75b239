#include "Frei0rControls.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_SmartRender.h"
extern "C" {  // the header declares the entry points for C callers
#include "frei0r.h"
}

namespace {

const ParamRecord& Row(const Frei0rControl& c) { return ParamTable()[c.row]; }

int Choices(const ParamRecord& r) { return CountPopupChoices(std::get<std::string>(r.value.value())); }

std::string Number(double v) {
  std::string s = std::to_string(v);
  s.erase(s.find_last_not_of('0') + 1);
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s;
}

std::string Explain(const ParamRecord& r) {
  switch (r.kind) {
    case ParamKind::FloatSlider: {
      std::string text = Number(*r.min) + " to " + Number(*r.max) + " over 0..1";
      if (r.diskId == PARAM_FRAMES) text += ", rounded to whole frames";
      if (r.diskId == PARAM_FRAMES_OFFSET)
        text += "; a filter sees no later frames, so a negative offset counts as the same offset back";
      return text;
    }
    case ParamKind::Popup: {
      const std::string choices = std::get<std::string>(r.value.value());
      const int n = Choices(r);
      std::string text;
      size_t from = 0;
      for (int k = 0; k < n; ++k) {
        const size_t bar = choices.find('|', from);
        text += (k ? ", " : "") + choices.substr(from, bar - from) + " " + Number(n > 1 ? double(k) / (n - 1) : 0.0);
        from = bar + 1;
      }
      return text;
    }
    default: return "off or on";
  }
}

double Default(const ParamRecord& r) {
  if (const auto* f = std::get_if<float>(&r.defaultValue)) return *f;
  if (const auto* b = std::get_if<bool>(&r.defaultValue)) return *b ? 1.0 : 0.0;
  return std::get<int32_t>(r.defaultValue);
}

double Value(const std::vector<double>& values, int32_t diskId) {
  const auto& controls = Frei0rControls();
  for (size_t i = 0; i < controls.size(); ++i)
    if (Row(controls[i]).diskId == diskId) return values.at(i);
  throw std::logic_error("no control with disk id " + std::to_string(diskId));
}

}  // namespace

const std::vector<Frei0rControl>& Frei0rControls() {
  static const std::vector<Frei0rControl> controls = [] {
    std::vector<Frei0rControl> out;
    const ParamTableRows& table = ParamTable();
    for (size_t i = 0; i < table.size(); ++i) {
      const ParamRecord& r = table[i];
      if (r.kind != ParamKind::FloatSlider && r.kind != ParamKind::Popup && r.kind != ParamKind::Checkbox) continue;
      out.push_back(
          {static_cast<int>(i), r.name, r.kind == ParamKind::Checkbox ? F0R_PARAM_BOOL : F0R_PARAM_DOUBLE, Explain(r)});
    }
    return out;
  }();
  return controls;
}

double ControlValue(const Frei0rControl& control, double frei0r) {
  const ParamRecord& r = Row(control);
  if (std::isnan(frei0r)) return Default(r);
  const double v = std::clamp(frei0r, 0.0, 1.0);
  switch (r.kind) {
    case ParamKind::FloatSlider: {
      const double x = *r.min + v * (*r.max - *r.min);
      // Whole frames, as a user means them; other values lose only the
      // noise of the 0..1 round trip (0.5075 gives an offset of exactly 1.5).
      return r.diskId == PARAM_FRAMES ? std::round(x) : std::round(x * 1e6) / 1e6;
    }
    case ParamKind::Popup: return 1.0 + std::lround(v * (Choices(r) - 1));
    default: return v >= 0.5 ? 1.0 : 0.0;
  }
}

std::string OutOfRangeNote(const Frei0rControl& control, double frei0r) {
  if (!(frei0r < 0.0 || frei0r > 1.0)) return {};
  const ParamRecord& r = Row(control);
  char line[256];
  int n = std::snprintf(line, sizeof line, "%s %g is outside 0..1", r.name.c_str(), frei0r);
  // A user who typed the control's own value: say what it is in frei0r's terms.
  if (r.kind == ParamKind::FloatSlider && frei0r >= *r.min && frei0r <= *r.max) {
    const char* unit = r.diskId == PARAM_FRAMES_FADE ? "%" : " frames";
    std::snprintf(line + n, sizeof line - n, "; %g%s is %g", frei0r, unit, Frei0rValue(control, frei0r));
  } else if (r.kind == ParamKind::Popup && frei0r == std::floor(frei0r) && frei0r >= 1 && frei0r <= Choices(r)) {
    const std::string choices = std::get<std::string>(r.value.value());
    size_t from = 0;
    for (int k = 1; k < frei0r; ++k) from = choices.find('|', from) + 1;
    const std::string name = choices.substr(from, choices.find('|', from) - from);
    std::snprintf(line + n, sizeof line - n, "; %s is %g", name.c_str(), Frei0rValue(control, frei0r));
  } else {
    std::snprintf(line + n, sizeof line - n, "; it is clamped to %g", std::clamp(frei0r, 0.0, 1.0));
  }
  return line;
}

double Frei0rValue(const Frei0rControl& control, double value) {
  const ParamRecord& r = Row(control);
  switch (r.kind) {
    case ParamKind::FloatSlider: return (value - *r.min) / (*r.max - *r.min);
    case ParamKind::Popup: return Choices(r) > 1 ? (value - 1.0) / (Choices(r) - 1) : 0.0;
    default: return value;
  }
}

std::vector<double> DefaultControlValues() {
  std::vector<double> values;
  for (const Frei0rControl& c : Frei0rControls()) values.push_back(Default(Row(c)));
  return values;
}

double StackOffset(const std::vector<double>& values) { return std::fabs(Value(values, PARAM_FRAMES_OFFSET)); }

void FillKernelData(const std::vector<double>& values, KernelData& kd) {
  FillKernelData([&](int32_t diskId) { return Value(values, diskId); }, kd, nullptr);
}
