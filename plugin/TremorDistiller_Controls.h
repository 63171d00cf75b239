// The effect's controls as the kernels take them. Every front end that reads
// controls by Disk ID fills KernelData here, so a control's meaning is
// written once.
#ifndef TREMORDISTILLER_CONTROLS_H
#define TREMORDISTILLER_CONTROLS_H

#include <cstdint>
#include <functional>

#include "Kernel_Data.h"

// A control's value as After Effects holds it: sliders as they stand,
// popups counting from 1, checkboxes 0 or 1.
using ControlReader = std::function<double(int32_t diskId)>;

// KernelData's control fields from `read`, everything else zero; the stack's
// step in frames ("Frames offset") goes to `offset`.
void FillKernelData(const ControlReader& read, KernelData& kd, float* offset);

#endif
