/*
 * Portable kernel vocabulary: the small set of macros and primitives through
 * which the one kernel source compiles as OpenCL C, as CUDA and as C++ for the
 * CPU reference device. It stands in for the hosts' kernel-support headers.
 *
 * Pick the target before including: GF_DEVICE_TARGET_OPENCL or
 * GF_DEVICE_TARGET_CPU; nvcc, or clang compiling CUDA, selects CUDA by itself
 * (clang without the toolkit's headers, -nocudainc, gets a vocabulary of its
 * own). CUDA kernels have C names, so the driver finds them by name.
 *
 *   GF_KERNEL                    kernel entry (returns void)
 *   GF_DEVICE_FUNCTION           device function
 *   GF_ALWAYS_INLINE             before one that must be inlined where the
 *                                compiler would call it (PoCL: per pixel)
 *   GF_PTR(T) / GF_CONST_PTR(T)  global memory pointers
 *   GF_GLOBAL_ID_X / _Y          the work item's global ids
 *   make_float2 / make_float4    vector construction
 *   gf_bool                      one-byte flag shared with the host
 *   GF_IF_OPENCL_16F / GF_ENDIF_OPENCL_16F
 *                                bracket the 16-bit branches. In the OpenCL
 *                                text they become "#if GF_OPENCL_SUPPORTS_16F"
 *                                and "#endif", left for the run-time compile.
 *   GF_HALF_IS_POWER_CURVE       1 where 16-bit pixels are mapped through the
 *                                power curve rather than stored as halves
 *   gfLoad16x{1,2,4}, gfStore16x{1,2,4}
 *                                16-bit storage primitives of the target
 *   gfRound16x4                  a 16-bit store and load in one, in registers
 *
 * Kernel code never redefines or wraps standard math names: float overloads of
 * pow, sqrt, fabs, fmin, fmax, fma, cos and sin exist on all three targets, and
 * literals carry an f suffix so that the CPU build stays in single precision.
 */
#ifndef GF_KERNEL_CORE_H
#define GF_KERNEL_CORE_H

#if defined(GF_DEVICE_TARGET_OPENCL)
#include "KernelCore_OpenCL.h"
#elif defined(__CUDACC__)
#define GF_DEVICE_TARGET_CUDA 1
#include "KernelCore_CUDA.h"
#elif defined(__CUDA__)
#define GF_DEVICE_TARGET_CUDA 1
#include "KernelCore_CUDAClang.h"
#elif defined(GF_DEVICE_TARGET_CPU)
#include "KernelCore_CPU.h"
#else
#error "Select a kernel target: GF_DEVICE_TARGET_OPENCL or GF_DEVICE_TARGET_CPU, or compile as CUDA"
#endif

#endif
