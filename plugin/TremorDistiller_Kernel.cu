// CUDA form of the kernel unit: the same source, compiled to PTX by clang and
// to SASS by nvcc, joined into the fat binary the module embeds. The kernels
// have C names; TremorDistiller_CudaDriver.cpp looks them up and launches them.
#include "TremorDistiller_Kernel.cl"
