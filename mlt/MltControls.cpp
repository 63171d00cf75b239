#include "MltControls.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>

namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string PropertyName(const char* option) {
  std::string name = option + 2;  // past "--"
  for (char& c : name)
    if (c == '-') c = '_';
  return name;
}

}  // namespace

const std::vector<MltProperty>& MltProperties() {
  static const std::vector<MltProperty> properties = [] {
    std::vector<MltProperty> out;
    for (const ParamRecord& r : ParamTable()) {
      if (!r.option) continue;
      MltProperty p{&r, PropertyName(r.option), {}, {}};
      if (r.kind == ParamKind::Popup) {
        std::istringstream names(std::get<std::string>(r.value.value()));
        for (std::string label; std::getline(names, label, '|');) {
          p.labels.push_back(label);
          p.choices.push_back(Lower(label));
        }
      }
      out.push_back(std::move(p));
    }
    return out;
  }();
  return properties;
}

double DefaultValue(const MltProperty& p) {
  const ParamVariant& d = p.row->defaultValue;
  if (const auto* f = std::get_if<float>(&d)) return *f;
  if (const auto* b = std::get_if<bool>(&d)) return *b ? 1.0 : 0.0;
  return std::get<int32_t>(d);
}

std::string DefaultText(const MltProperty& p) {
  const double v = DefaultValue(p);
  if (p.row->kind == ParamKind::Popup) return p.choices.at(static_cast<size_t>(v) - 1);
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

int ChoiceNumber(const MltProperty& p, const std::string& word) {
  const std::string w = Lower(word);
  for (size_t i = 0; i < p.choices.size(); ++i)
    if (p.choices[i] == w) return static_cast<int>(i + 1);
  return 0;
}

int Decimals(const MltProperty& p) {
  if (p.row->diskId == PARAM_FRAMES) return 0;
  return std::max(2, p.row->precision.value_or(0));
}
