// The effect's controls as the MLT service's properties: one per row of the
// effect's parameter table that has a command-line option, named after it
// ("--frames-offset" is frames_offset), in the control's own units: sliders as
// they read, choices as the command line's lowercase words, checkboxes 0 or 1.
// The module, its metadata and the editors' descriptions are built from here.
#ifndef TREMOR_MLT_MLTCONTROLS_H
#define TREMOR_MLT_MLTCONTROLS_H

#include <string>
#include <vector>

#include "TremorDistiller_Parameters.h"

struct MltProperty {
  const ParamRecord* row;
  std::string name;                  // frames_offset
  std::vector<std::string> choices;  // a popup's words, in its order: add, screen
  std::vector<std::string> labels;   // a popup's choices as the effect names them: Add, Screen
};

// Every property, in the parameter table's order.
const std::vector<MltProperty>& MltProperties();

// A property's default in the units the controls read (a slider's value, a
// popup's choice counting from 1, a checkbox 0 or 1).
double DefaultValue(const MltProperty& p);
// The same for the default as the property's text: "10", "add", "0".
std::string DefaultText(const MltProperty& p);
// A choice word's number counting from 1; 0 when it names no choice.
int ChoiceNumber(const MltProperty& p, const std::string& word);
// Decimals an editor shows: none for Frames, a count; two at least for the
// others ("Frames offset" takes fractions, which pick frames in between).
int Decimals(const MltProperty& p);

constexpr char kMltTitle[] = "Tremor Distiller";
constexpr char kMltDescription[] =
    "Makes movement visible: the differences of a stack of earlier frames, accumulated under a fade";

#endif
