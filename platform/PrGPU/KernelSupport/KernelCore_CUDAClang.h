// CUDA form of the kernel vocabulary for clang's device-only compile with
// -nocudainc -nocudalib: no toolkit header and no libdevice, so the builtin
// variables, vector types, half conversions and maths are declared here.
//
// The maths mirrors what nvcc makes of the kernels with --use_fast_math: the
// same approximate, flush-to-zero PTX instructions (pow is __powf: ex2 of y
// times lg2). The build adds -fgpu-flush-denormals-to-zero and
// -nvptx-prec-divf32=0, so that "/" and plain arithmetic match as well.
#ifndef GF_KERNEL_CORE_CUDA_CLANG_H
#define GF_KERNEL_CORE_CUDA_CLANG_H

#define __global__ __attribute__((global))
#define __device__ __attribute__((device))

#define GF_KERNEL extern "C" __global__ void
#define GF_DEVICE_FUNCTION __device__ inline __attribute__((always_inline))
#define GF_ALWAYS_INLINE __attribute__((always_inline))
#define GF_PTR(T) T*
#define GF_CONST_PTR(T) const T*
#define GF_GLOBAL_ID_X (__nvvm_read_ptx_sreg_ctaid_x() * __nvvm_read_ptx_sreg_ntid_x() + __nvvm_read_ptx_sreg_tid_x())
#define GF_GLOBAL_ID_Y (__nvvm_read_ptx_sreg_ctaid_y() * __nvvm_read_ptx_sreg_ntid_y() + __nvvm_read_ptx_sreg_tid_y())

typedef bool gf_bool;

#define GF_IF_OPENCL_16F
#define GF_ENDIF_OPENCL_16F
#define GF_HALF_IS_POWER_CURVE 1

// Sizes and alignments as the toolkit's vector types, so vector loads stay whole.
struct __attribute__((aligned(8))) float2 {
  float x, y;
};
struct __attribute__((aligned(16))) float4 {
  float x, y, z, w;
};
struct __attribute__((aligned(4))) ushort2 {
  unsigned short x, y;
};
struct __attribute__((aligned(8))) ushort4 {
  unsigned short x, y, z, w;
};

__device__ inline float2 make_float2(float x, float y) { return float2{x, y}; }
__device__ inline float4 make_float4(float x, float y, float z, float w) { return float4{x, y, z, w}; }
__device__ inline ushort2 make_ushort2(unsigned short x, unsigned short y) { return ushort2{x, y}; }
__device__ inline ushort4 make_ushort4(unsigned short x, unsigned short y, unsigned short z, unsigned short w) {
  return ushort4{x, y, z, w};
}

__device__ inline float fabs(float x) { return __nvvm_fabs_ftz_f(x); }
__device__ inline float fmin(float a, float b) { return __nvvm_fmin_ftz_f(a, b); }
__device__ inline float fmax(float a, float b) { return __nvvm_fmax_ftz_f(a, b); }
__device__ inline float fma(float a, float b, float c) { return __nvvm_fma_rn_ftz_f(a, b, c); }
__device__ inline float sqrt(float x) { return __nvvm_sqrt_approx_ftz_f(x); }
__device__ inline float sin(float x) { return __nvvm_sin_approx_ftz_f(x); }
__device__ inline float cos(float x) { return __nvvm_cos_approx_ftz_f(x); }
__device__ inline float pow(float x, float y) { return __nvvm_ex2_approx_ftz_f(y * __nvvm_lg2_approx_ftz_f(x)); }

// The 16-bit pattern as in KernelCore_CUDA.h, through the conversions the
// toolkit's half functions use: a pattern rounded to the nearest half on load,
// a value rounded to a half and cut to an unsigned integer on store.
__device__ inline float gfPatternValue(unsigned short u) {
  unsigned short h;
  float f;
  asm("cvt.rn.f16.u16 %0, %1;" : "=h"(h) : "h"(u));
  asm("cvt.f32.f16 %0, %1;" : "=f"(f) : "h"(h));
  return f;
}
__device__ inline unsigned short gfPatternFromValue(float e) {
  unsigned short h, u;
  asm("cvt.rn.f16.f32 %0, %1;" : "=h"(h) : "f"(e));
  asm("cvt.rzi.u16.f16 %0, %1;" : "=h"(u) : "h"(h));
  return u;
}

#include "KernelCore_CUDAShared.h"

#endif
