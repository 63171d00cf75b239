// CUDA form of the kernel vocabulary.
#ifndef GF_KERNEL_CORE_CUDA_H
#define GF_KERNEL_CORE_CUDA_H

#include <cuda_fp16.h>
#include <cuda_runtime.h>

#define GF_KERNEL extern "C" __global__ void
#define GF_DEVICE_FUNCTION __device__ inline
#define GF_ALWAYS_INLINE __attribute__((always_inline))
#define GF_PTR(T) T*
#define GF_CONST_PTR(T) const T*
#define GF_GLOBAL_ID_X (blockIdx.x * blockDim.x + threadIdx.x)
#define GF_GLOBAL_ID_Y (blockIdx.y * blockDim.y + threadIdx.y)

typedef bool gf_bool;

#define GF_IF_OPENCL_16F
#define GF_ENDIF_OPENCL_16F
#define GF_HALF_IS_POWER_CURVE 1

// The stored 16-bit pattern is a plain unsigned integer. Loads give its value
// rounded to the nearest half; stores take a value, round it to a half and cut
// that to an unsigned integer (NaN and negatives give 0).
__device__ inline float gfPatternValue(unsigned short u) { return __half2float(__ushort2half_rn(u)); }
__device__ inline unsigned short gfPatternFromValue(float e) { return __half2ushort_rz(__float2half_rn(e)); }

#include "KernelCore_CUDAShared.h"

#endif
