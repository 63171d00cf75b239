// The kernel source compiled as C++ into namespace gfcpu, device functions
// included, for the CPU reference device and for tests of single functions.
#ifndef TREMOR_CPU_KERNELS_H
#define TREMOR_CPU_KERNELS_H

#define GF_DEVICE_TARGET_CPU 1
#include "PrGPU/KernelSupport/KernelCore.h"
#include "Kernel_Data.h"

namespace gfcpu {
#include "TremorDistiller_Kernel.cl"
}  // namespace gfcpu

#endif
