// The effect's controls as the kernels take them. Every front end that reads
// controls by Disk ID fills KernelData here, so a control's meaning is
// written once.
#ifndef TREMORDISTILLER_CONTROLS_H
#define TREMORDISTILLER_CONTROLS_H

#include <cstdint>
#include <functional>
#include <optional>

#include "Kernel_Data.h"

// What one control means for the kernels: its value as After Effects holds
// it (below) into its KernelData field, or, for "Frames offset", `offset`.
// Every reader of controls goes through here.
void ApplyControl(int32_t diskId, double value, KernelData& kd, float* offset);

// Reads one control's value as After Effects holds it (sliders as they
// stand, popups counting from 1, checkboxes 0 or 1) into `value`; returns 0
// or the host's error. A reader may fail after it has read the value.
using ControlReader = std::function<int32_t(int32_t diskId, std::optional<double>& value)>;

// KernelData's control fields from `read`, everything else zero, and the
// stack's step in frames ("Frames offset") into `offset`. The controls are
// read in the pre-render's order: the six that shape the stack until one
// fails, then the three switches whatever happened, a switch that cannot be
// read being off and its error ignored. Returns the first error.
int32_t FillKernelData(const ControlReader& read, KernelData& kd, float* offset);

// The same from a reader that cannot fail.
void FillKernelData(const std::function<double(int32_t diskId)>& value, KernelData& kd, float* offset);

#endif
