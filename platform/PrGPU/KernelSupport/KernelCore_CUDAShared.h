// What both CUDA forms of the kernel vocabulary share once their types and
// the 16-bit pattern conversions (gfPatternValue, gfPatternFromValue) exist.
#ifndef GF_KERNEL_CORE_CUDA_SHARED_H
#define GF_KERNEL_CORE_CUDA_SHARED_H

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
