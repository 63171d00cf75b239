// Writes what editors read about the MLT service, from the effect's parameter
// table: MLT's metadata (YAML), Kdenlive's effect description and Shotcut's
// filter panel. Usage: make_editor_files OUTPUT_DIR
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "MltControls.h"

namespace fs = std::filesystem;

namespace {

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

bool Percent(const MltProperty& p) { return p.row->uiFlags && (*p.row->uiFlags & PF_ValueDisplayFlag_PERCENT); }

std::string Join(const std::vector<std::string>& words, const char* separator, const char* quote = "") {
  std::string out;
  for (size_t i = 0; i < words.size(); ++i) out += (i ? separator : "") + std::string(quote) + words[i] + quote;
  return out;
}

std::string Yaml() {
  std::ostringstream y;
  y << "schema_version: 7.0\ntype: filter\nidentifier: tremor_distiller\ntitle: " << kMltTitle
    << "\nversion: 1\ncreator: Harbour Lantern Lab\nlanguage: en\ntags:\n  - Video\ndescription: >\n  "
    << kMltDescription
    << ".\n  Each frame is rendered by its position in the clip, from a producer of the filter's own.\n"
    << "parameters:\n";
  for (const MltProperty& p : MltProperties()) {
    y << "  - identifier: " << p.name << "\n    title: " << p.row->name << "\n    description: " << p.row->optionHelp
      << "\n    mutable: yes\n    default: " << DefaultText(p) << "\n";
    switch (p.row->kind) {
      case ParamKind::FloatSlider:
        y << "    type: " << (Decimals(p) ? "float" : "integer")
          << "\n    animation: yes\n    minimum: " << Number(*p.row->min) << "\n    maximum: " << Number(*p.row->max)
          << "\n    widget: spinner\n";
        if (Percent(p)) y << "    unit: '%'\n";
        break;
      case ParamKind::Popup:
        y << "    type: string\n    values:\n      - " << Join(p.choices, "\n      - ") << "\n";
        break;
      default: y << "    type: boolean\n    widget: checkbox\n"; break;
    }
  }
  return y.str();
}

std::string KdenliveEffect() {
  std::ostringstream x;
  x << "<?xml version=\"1.0\"?>\n<!DOCTYPE kpartgui>\n<effect tag=\"tremor_distiller\" id=\"tremor_distiller\" "
       "type=\"video\">\n    <name>"
    << kMltTitle << "</name>\n    <description>" << kMltDescription
    << "</description>\n    <author>Harbour Lantern Lab</author>\n";
  for (const MltProperty& p : MltProperties()) {
    x << "    <parameter name=\"" << p.name << "\" default=\"" << DefaultText(p) << "\"";
    switch (p.row->kind) {
      case ParamKind::FloatSlider:
        x << " type=\"animated\" min=\"" << Number(*p.row->min) << "\" max=\"" << Number(*p.row->max)
          << "\" decimals=\"" << Decimals(p) << "\"" << (Percent(p) ? " suffix=\"%\"" : "") << ">\n";
        break;
      case ParamKind::Popup:
        x << " type=\"list\" paramlist=\"" << Join(p.choices, ";") << "\">\n        <paramlistdisplay>"
          << Join(p.labels, ",") << "</paramlistdisplay>\n";
        break;
      default: x << " type=\"bool\">\n"; break;
    }
    x << "        <name>" << p.row->name << "</name>\n        <comment>" << p.row->optionHelp
      << "</comment>\n    </parameter>\n";
  }
  x << "</effect>\n";
  return x.str();
}

std::string ShotcutMeta() {
  return std::string("import QtQuick 2.0\nimport org.shotcut.qml 1.0\n\nMetadata {\n    type: Metadata.Filter\n") +
         "    name: qsTr('" + kMltTitle + "')\n" +
         "    keywords: qsTr('motion difference trails movement', 'search keywords for the Tremor Distiller video "
         "filter') + ' tremor distiller'\n    mlt_service: 'tremor_distiller'\n    qml: 'ui.qml'\n"
         // It reads the clip's own file: a track or the whole timeline has none.
         "    isClipOnly: true\n}\n";
}

// One row of the panel: label, control, undo; and how the control shows the
// filter's value when the panel opens.
void ShotcutRow(const MltProperty& p, size_t i, std::ostream& rows, std::ostream& load) {
  const std::string id = "c" + std::to_string(i), name = "'" + p.name + "'";
  const std::string label = p.row->kind == ParamKind::Checkbox ? "" : p.row->name;
  rows << "        Label {\n            text: qsTr('" << label << "')\n            Layout.alignment: Qt.AlignRight\n"
       << "        }\n";
  if (p.row->kind == ParamKind::FloatSlider) {
    rows << "        Shotcut.SliderSpinner {\n            id: " << id
         << "\n            minimumValue: " << Number(*p.row->min)
         << "\n            maximumValue: " << Number(*p.row->max) << "\n            decimals: " << Decimals(p)
         << "\n            stepSize: " << (Decimals(p) ? "0.1" : "1") << "\n            suffix: '"
         << (Percent(p) ? " %" : "") << "'\n            onValueChanged: filter.set(" << name
         << ", value)\n        }\n        Shotcut.UndoButton {\n            onClicked: " << id
         << ".value = " << DefaultText(p) << "\n        }\n";
    load << "        " << id << ".value = filter.getDouble(" << name << ");\n";
  } else if (p.row->kind == ParamKind::Popup) {
    const std::string words = "[" + Join(p.choices, ", ", "'") + "]";
    rows << "        Shotcut.ComboBox {\n            id: " << id << "\n            implicitWidth: 180\n"
         << "            model: [" << Join(p.labels, ", ", "'") << "]\n            onActivated: filter.set(" << name
         << ", " << words << "[currentIndex])\n        }\n        Shotcut.UndoButton {\n            onClicked: { " << id
         << ".currentIndex = " << DefaultValue(p) - 1 << "; filter.set(" << name << ", '" << DefaultText(p)
         << "') }\n        }\n";
    load << "        " << id << ".currentIndex = Math.max(0, " << words << ".indexOf(filter.get(" << name << ")));\n";
  } else {
    rows << "        CheckBox {\n            id: " << id << "\n            text: qsTr('" << p.row->name
         << "')\n            onClicked: filter.set(" << name << ", checked ? 1 : 0)\n        }\n"
         << "        Shotcut.UndoButton {\n            onClicked: { " << id << ".checked = " << DefaultText(p)
         << " !== 0; filter.set(" << name << ", " << DefaultText(p) << ") }\n        }\n";
    load << "        " << id << ".checked = filter.getDouble(" << name << ") !== 0;\n";
  }
}

std::string ShotcutPanel() {
  std::ostringstream rows, load, defaults;
  const auto& properties = MltProperties();
  for (size_t i = 0; i < properties.size(); ++i) {
    ShotcutRow(properties[i], i, rows, load);
    defaults << "            filter.set('" << properties[i].name << "', '" << DefaultText(properties[i]) << "');\n";
  }
  return "import QtQuick 2.12\nimport QtQuick.Controls 2.12\nimport QtQuick.Layouts 1.12\n"
         "import Shotcut.Controls 1.0 as Shotcut\n\nItem {\n    width: 350\n    height: 330\n"
         "    Component.onCompleted: {\n        if (filter.isNew) {\n" +
         defaults.str() + "        }\n" + load.str() +
         "    }\n\n    GridLayout {\n        anchors.fill: parent\n        anchors.margins: 8\n"
         "        columns: 3\n\n" +
         rows.str() + "        Item {\n            Layout.fillHeight: true\n        }\n    }\n}\n";
}

bool Write(const fs::path& path, const std::string& text) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  if (!out) std::fprintf(stderr, "make_editor_files: cannot write %s\n", path.c_str());
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_editor_files OUTPUT_DIR\n");
    return 2;
  }
  const fs::path dir = argv[1];
  const bool ok = Write(dir / "data/tremordistiller/filter_tremor_distiller.yml", Yaml()) &&
                  Write(dir / "kdenlive/tremor_distiller.xml", KdenliveEffect()) &&
                  Write(dir / "shotcut/tremor_distiller/meta.qml", ShotcutMeta()) &&
                  Write(dir / "shotcut/tremor_distiller/ui.qml", ShotcutPanel());
  return ok ? 0 : 1;
}
