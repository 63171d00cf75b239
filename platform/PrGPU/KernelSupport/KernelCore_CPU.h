// C++ form of the kernel vocabulary, for the CPU reference device.
//
// The kernel source is included inside namespace gfcpu. A launch sets the
// calling thread's work item before each call of a kernel, and chooses per run
// which 16-bit form is emulated: true halves with round-toward-zero stores (as
// on OpenCL) or the power-curve pattern (as on CUDA).
#ifndef GF_KERNEL_CORE_CPU_H
#define GF_KERNEL_CORE_CPU_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <cmath>

namespace gfcpu {

struct float2 {
  float x, y;
};
struct float4 {
  float x, y, z, w;
};

inline float2 make_float2(float a, float b) { return float2{a, b}; }
inline float4 make_float4(float a, float b, float c, float d) { return float4{a, b, c, d}; }

inline float2 operator+(float2 a, float2 b) { return {a.x + b.x, a.y + b.y}; }
inline float2 operator-(float2 a, float2 b) { return {a.x - b.x, a.y - b.y}; }
inline float2 operator*(float2 a, float2 b) { return {a.x * b.x, a.y * b.y}; }
inline float2 operator*(float2 a, float s) { return {a.x * s, a.y * s}; }
inline float4 operator+(float4 a, float4 b) { return {a.x + b.x, a.y + b.y, a.z + b.z, a.w + b.w}; }
inline float4 operator-(float4 a, float4 b) { return {a.x - b.x, a.y - b.y, a.z - b.z, a.w - b.w}; }
inline float4 operator*(float4 a, float4 b) { return {a.x * b.x, a.y * b.y, a.z * b.z, a.w * b.w}; }
inline float4 operator*(float4 a, float s) { return {a.x * s, a.y * s, a.z * s, a.w * s}; }
inline float4 operator/(float4 a, float s) { return {a.x / s, a.y / s, a.z / s, a.w / s}; }

// --- IEEE half conversions, bit-exact with the GPU instructions they stand for.

inline uint32_t FloatBits(float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  return u;
}

// vstore_half_rtz: round toward zero; finite overflow saturates at 65504.
inline uint16_t FloatToHalfRtz(float f) {
  const uint32_t u = FloatBits(f);
  const uint16_t sign = (uint16_t)((u >> 16) & 0x8000u);
  const int exp = (int)((u >> 23) & 0xffu);
  uint32_t mant = u & 0x7fffffu;
  if (exp == 0xff) return (uint16_t)(sign | 0x7c00u | (mant ? (0x200u | (mant >> 13)) : 0u));
  const int e = exp - 112;  // rebias 127 -> 15
  if (e >= 31) return (uint16_t)(sign | 0x7bffu);
  if (e <= 0) {
    if (e < -10) return sign;
    mant |= 0x800000u;
    return (uint16_t)(sign | (mant >> (14 - e)));
  }
  return (uint16_t)(sign | ((uint32_t)e << 10) | (mant >> 13));
}

// __float2half_rn: round to nearest, ties to even; overflow gives infinity.
inline uint16_t FloatToHalfRn(float f) {
  const uint32_t u = FloatBits(f);
  const uint16_t sign = (uint16_t)((u >> 16) & 0x8000u);
  const int exp = (int)((u >> 23) & 0xffu);
  uint32_t mant = u & 0x7fffffu;
  if (exp == 0xff) return (uint16_t)(sign | 0x7c00u | (mant ? (0x200u | (mant >> 13)) : 0u));
  const int e = exp - 112;
  if (e >= 31) return (uint16_t)(sign | 0x7c00u);
  uint32_t q, r, halfway;
  if (e <= 0) {
    const int shift = 14 - e;
    if (shift > 24) return sign;
    mant |= 0x800000u;
    q = mant >> shift;
    r = mant & ((1u << shift) - 1u);
    halfway = 1u << (shift - 1);
  } else {
    q = ((uint32_t)e << 10) | (mant >> 13);
    r = mant & 0x1fffu;
    halfway = 0x1000u;
  }
  if (r > halfway || (r == halfway && (q & 1u))) ++q;  // a carry may reach infinity
  return (uint16_t)(sign | q);
}

inline float HalfToFloat(uint16_t h) {
  const uint32_t sign = (uint32_t)(h & 0x8000u) << 16;
  const uint32_t exp = (h >> 10) & 0x1fu;
  const uint32_t mant = h & 0x3ffu;
  uint32_t bits;
  if (exp == 0) {
    const float v = ldexpf((float)mant, -24);
    return sign ? -v : v;
  } else if (exp == 31) {
    bits = sign | 0x7f800000u | (mant << 13);
  } else {
    bits = sign | ((exp + 112u) << 23) | (mant << 13);
  }
  float f;
  memcpy(&f, &bits, 4);
  return f;
}

// __half2ushort_rz: NaN and negatives give 0, too large saturates.
inline uint16_t HalfValueToUShortRz(float v) {
  if (!(v > 0.0f)) return 0;
  if (v >= 65535.0f) return 65535;
  return (uint16_t)v;
}

// --- The calling thread's work item and 16-bit form.

struct WorkItem {
  unsigned int x = 0, y = 0;
  bool halfPowerCurve = false;
};
inline thread_local WorkItem tWorkItem;

inline float PatternValue(uint16_t u) { return HalfToFloat(FloatToHalfRn((float)u)); }
inline uint16_t PatternFromValue(float e) { return HalfValueToUShortRz(HalfToFloat(FloatToHalfRn(e))); }

inline float Load16(const void* p, int i) {
  uint16_t u;
  memcpy(&u, (const uint16_t*)p + i, 2);
  return tWorkItem.halfPowerCurve ? PatternValue(u) : HalfToFloat(u);
}
inline void Store16(float v, int i, void* p) {
  const uint16_t u = tWorkItem.halfPowerCurve ? PatternFromValue(v) : FloatToHalfRtz(v);
  memcpy((uint16_t*)p + i, &u, 2);
}

inline float gfLoad16x1(const void* p, int i) { return Load16(p, i); }
inline float2 gfLoad16x2(const void* p, int i) { return {Load16(p, 2 * i), Load16(p, 2 * i + 1)}; }
inline float4 gfLoad16x4(const void* p, int i) {
  return {Load16(p, 4 * i), Load16(p, 4 * i + 1), Load16(p, 4 * i + 2), Load16(p, 4 * i + 3)};
}
// What a 16-bit store and the load after it give back.
inline float Round16(float v) {
  return tWorkItem.halfPowerCurve ? PatternValue(PatternFromValue(v)) : HalfToFloat(FloatToHalfRtz(v));
}
inline float4 gfRound16x4(float4 v) { return {Round16(v.x), Round16(v.y), Round16(v.z), Round16(v.w)}; }

inline void gfStore16x1(float v, int i, void* p) { Store16(v, i, p); }
inline void gfStore16x2(float2 v, int i, void* p) {
  Store16(v.x, 2 * i, p);
  Store16(v.y, 2 * i + 1, p);
}
inline void gfStore16x4(float4 v, int i, void* p) {
  Store16(v.x, 4 * i, p);
  Store16(v.y, 4 * i + 1, p);
  Store16(v.z, 4 * i + 2, p);
  Store16(v.w, 4 * i + 3, p);
}

}  // namespace gfcpu

#define GF_KERNEL inline void
#define GF_DEVICE_FUNCTION inline
#define GF_ALWAYS_INLINE
#define GF_PTR(T) T*
#define GF_CONST_PTR(T) const T*
#define GF_GLOBAL_ID_X (::gfcpu::tWorkItem.x)
#define GF_GLOBAL_ID_Y (::gfcpu::tWorkItem.y)
#define GF_IF_OPENCL_16F
#define GF_ENDIF_OPENCL_16F
#define GF_HALF_IS_POWER_CURVE (::gfcpu::tWorkItem.halfPowerCurve)

typedef bool gf_bool;

#endif
