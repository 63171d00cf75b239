// The effect's controls as frei0r parameters. frei0r hands every value as a
// double in 0..1 (booleans too); each maps onto its control's range or
// choices, and values outside are clamped. The rows come from the effect's
// one parameter table, in its order, without the input layer and the About
// control, under the controls' own names.
#ifndef TREMOR_FREI0R_CONTROLS_H
#define TREMOR_FREI0R_CONTROLS_H

#include <string>
#include <vector>

#include "Kernel_Data.h"

struct Frei0rControl {
  int row;                  // of the effect's parameter table
  std::string name;         // the control's
  int type;                 // F0R_PARAM_DOUBLE or F0R_PARAM_BOOL
  std::string explanation;  // the range or choices, and what 0..1 maps to
};

// Every control frei0r sees, in the parameter indices it uses.
const std::vector<Frei0rControl>& Frei0rControls();

// A control's value in its own units (a slider's value, a popup's choice
// counting from 1, a checkbox 0 or 1) from frei0r's double, clamped; NaN
// gives the control's default.
double ControlValue(const Frei0rControl& control, double frei0r);
// For a frei0r value outside 0..1, the line that names the control, the value
// and what that value in the control's own units would be in frei0r's terms
// ("Frames 20 is outside 0..1; 20 frames is 0.361702"); empty inside 0..1.
std::string OutOfRangeNote(const Frei0rControl& control, double frei0r);
// The reverse, for f0r_get_param_value.
double Frei0rValue(const Frei0rControl& control, double value);
// Defaults of every control, in control units.
std::vector<double> DefaultControlValues();

// The render's record from control values, read as the effect reads its
// controls; a negative "Frames offset" counts as the same offset forward.
void FillKernelData(const std::vector<double>& values, KernelData& kd);
// "Frames offset" as the stack is scheduled (never negative).
double StackOffset(const std::vector<double>& values);

#endif
