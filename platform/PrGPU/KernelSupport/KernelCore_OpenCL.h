/* OpenCL C form of the kernel vocabulary: macros and one function. This file
 * is expanded at build time and nothing of it is included at run time. */
#ifndef GF_KERNEL_CORE_OPENCL_H
#define GF_KERNEL_CORE_OPENCL_H

#define GF_KERNEL __kernel void
#define GF_DEVICE_FUNCTION
#define GF_ALWAYS_INLINE __attribute__((always_inline))
#define GF_PTR(T) __global T*
#define GF_CONST_PTR(T) __global const T*
#define GF_GLOBAL_ID_X ((unsigned int)get_global_id(0))
#define GF_GLOBAL_ID_Y ((unsigned int)get_global_id(1))

#define make_float2(a, b) ((float2)((a), (b)))
#define make_float4(a, b, c, d) ((float4)((a), (b), (c), (d)))

typedef unsigned char gf_bool;

/* An object-like macro may carry '#': expanded at the start of a line it
 * leaves a directive in the preprocessed text for the run-time compiler. */
#define GF_HASH #
#define GF_IF_OPENCL_16F GF_HASH if GF_OPENCL_SUPPORTS_16F
#define GF_ENDIF_OPENCL_16F GF_HASH endif

#define GF_HALF_IS_POWER_CURVE 0

/* True IEEE halves; stores round toward zero. */
#define gfLoad16x1(p, i) vload_half((i), (__global const half*)(p))
#define gfLoad16x2(p, i) vload_half2((i), (__global const half*)(p))
#define gfLoad16x4(p, i) vload_half4((i), (__global const half*)(p))
#define gfStore16x1(v, i, p) vstore_half_rtz((v), (i), (__global half*)(p))
#define gfStore16x2(v, i, p) vstore_half2_rtz((v), (i), (__global half*)(p))
#define gfStore16x4(v, i, p) vstore_half4_rtz((v), (i), (__global half*)(p))

/* What a 16-bit store and the load after it give back, through a private
 * word; the only function here, expanded into the program text with the rest. */
float4 gfRound16x4(float4 v) {
  ushort4 bits;
  vstore_half4_rtz(v, 0, (__private half*)&bits);
  return vload_half4(0, (__private const half*)&bits);
}

#endif
