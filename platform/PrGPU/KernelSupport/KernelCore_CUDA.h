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

__device__ inline float2 operator+(float2 a, float2 b) { return make_float2(a.x + b.x, a.y + b.y); }
__device__ inline float2 operator-(float2 a, float2 b) { return make_float2(a.x - b.x, a.y - b.y); }
__device__ inline float2 operator*(float2 a, float2 b) { return make_float2(a.x * b.x, a.y * b.y); }
__device__ inline float2 operator*(float2 a, float s) { return make_float2(a.x * s, a.y * s); }
__device__ inline float4 operator+(float4 a, float4 b) {
  return make_float4(a.x + b.x, a.y + b.y, a.z + b.z, a.w + b.w);
}
__device__ inline float4 operator-(float4 a, float4 b) {
  return make_float4(a.x - b.x, a.y - b.y, a.z - b.z, a.w - b.w);
}
__device__ inline float4 operator*(float4 a, float4 b) {
  return make_float4(a.x * b.x, a.y * b.y, a.z * b.z, a.w * b.w);
}
__device__ inline float4 operator*(float4 a, float s) { return make_float4(a.x * s, a.y * s, a.z * s, a.w * s); }
__device__ inline float4 operator/(float4 a, float s) { return make_float4(a.x / s, a.y / s, a.z / s, a.w / s); }

// The stored 16-bit pattern is a plain unsigned integer. Loads give its value
// rounded to the nearest half; stores take a value, round it to a half and cut
// that to an unsigned integer (NaN and negatives give 0).
__device__ inline float gfPatternValue(unsigned short u) { return __half2float(__ushort2half_rn(u)); }
__device__ inline unsigned short gfPatternFromValue(float e) { return __half2ushort_rz(__float2half_rn(e)); }

__device__ inline float gfLoad16x1(const void* p, int i) { return gfPatternValue(((const unsigned short*)p)[i]); }
__device__ inline float2 gfLoad16x2(const void* p, int i) {
  ushort2 u = ((const ushort2*)p)[i];
  return make_float2(gfPatternValue(u.x), gfPatternValue(u.y));
}
__device__ inline float4 gfLoad16x4(const void* p, int i) {
  ushort4 u = ((const ushort4*)p)[i];
  return make_float4(gfPatternValue(u.x), gfPatternValue(u.y), gfPatternValue(u.z), gfPatternValue(u.w));
}
__device__ inline float gfRound16(float v) { return gfPatternValue(gfPatternFromValue(v)); }
__device__ inline float4 gfRound16x4(float4 v) {
  return make_float4(gfRound16(v.x), gfRound16(v.y), gfRound16(v.z), gfRound16(v.w));
}
__device__ inline void gfStore16x1(float v, int i, void* p) { ((unsigned short*)p)[i] = gfPatternFromValue(v); }
__device__ inline void gfStore16x2(float2 v, int i, void* p) {
  ((ushort2*)p)[i] = make_ushort2(gfPatternFromValue(v.x), gfPatternFromValue(v.y));
}
__device__ inline void gfStore16x4(float4 v, int i, void* p) {
  ((ushort4*)p)[i] =
      make_ushort4(gfPatternFromValue(v.x), gfPatternFromValue(v.y), gfPatternFromValue(v.z), gfPatternFromValue(v.w));
}

#endif
