/* The effect's kernels, written once. This unit is the OpenCL form: the build
 * preprocesses it into the program text that the module embeds. The CUDA form
 * (TremorDistiller_Kernel.cu) and the CPU reference device include it as is. */
#if !defined(__CUDACC__) && !defined(GF_DEVICE_TARGET_CPU) && !defined(GF_DEVICE_TARGET_OPENCL)
#define GF_DEVICE_TARGET_OPENCL 1
#endif

#include "PrGPU/KernelSupport/KernelCore.h"
#include "Kernel_Data.h"
#include "Kernel_Helpers.h"
#include "Kernel_BlendModes.h"
#include "Kernel_Functions.h"

/* One pass over a pair of frames. The previous pass's accumulation is read
 * from inIm and the new one written to outIm, two buffers swapped by the
 * frame-stack loop, so no launch reads what it writes: displaced reads reach
 * neighbouring pixels, and work-groups run in parallel. The pass's eased
 * weight (EasedWeight on the host) is the same for every pixel, so it comes
 * as an argument rather than being worked out per work-item. */
GF_KERNEL MainKernel(GF_CONST_PTR(float4) inPre, GF_CONST_PTR(float4) inCur, GF_PTR(float4) outIm,
                     GF_PTR(float4) outDst, GF_CONST_PTR(KernelData) params, int inPrePitch, int inCurPitch,
                     int inDstPitch, int in16f, unsigned int inWidth, unsigned int inHeight,
                     GF_CONST_PTR(float4) inIm, float weight) {
  unsigned int x = GF_GLOBAL_ID_X;
  unsigned int y = GF_GLOBAL_ID_Y;
  if (x >= inWidth || y >= inHeight) return;

  float2 uv = make_float2((float)x / (float)inWidth, (float)y / (float)inHeight);
  float4 prev = bgra(readPixel(inPre, (int)(y * (unsigned int)inPrePitch + x), in16f));
  float4 current = bgra(readPixel(inCur, (int)(y * (unsigned int)inCurPitch + x), in16f));

  float4 fragColor;
  if (params->diffMode == DIFF_DIFF) {
    float4 d = prev - current;
    fragColor = make_float4(fabs(d.x), fabs(d.y), fabs(d.z), fabs(d.w));
  } else if (params->diffMode == DIFF_SUBT) {
    fragColor = prev - current;
  } else {
    fragColor = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  }
  fragColor.w = current.w;

  if (params->percent != 0.0f) {
    float4 intermediate =
        displacedRead(inIm, inPre, inCur, params, uv, inWidth, inHeight, inPrePitch, inCurPitch, in16f, x, y);
    fragColor = applyBlendMode(fragColor, intermediate, weight, params->blendMode);
  }

  int dstIndex = (int)(y * (unsigned int)inDstPitch + x);
  writePixel(bgra(fragColor), outIm, dstIndex, in16f);
  if (params->percent < 1.0f) return;

  /* Last pass only: deliver the picture. */
  if (params->normalize) fragColor = fragColor / (65.0f / 255.0f);
  float lum = 0.3f * fragColor.x + 0.59f * fragColor.y + 0.11f * fragColor.z;
  if (params->output == FROM_LUMA) {
    fragColor = make_float4(lum, lum, lum, fragColor.w);
  } else if (params->output == FROM_SOURCE) {
    fragColor = current * make_float4(lum, lum, lum, 1.0f);
  }
  writePixel(bgra(fragColor), outDst, dstIndex, in16f);
}

/* Places a frame on a canvas of the output's size at an offset; the rest of the
 * canvas becomes transparent black. Pixels are copied in memory order. */
GF_KERNEL ResizeKernel(GF_CONST_PTR(float4) inSrc, GF_PTR(float4) outDst, int inSrcPitch, int inDstPitch, int in16f,
                       unsigned int inWidth, unsigned int inHeight, unsigned int outWidth, unsigned int outHeight,
                       int inOffsetX, int inOffsetY) {
  unsigned int x = GF_GLOBAL_ID_X;
  unsigned int y = GF_GLOBAL_ID_Y;
  if (x >= outWidth || y >= outHeight) return;

  int sx = (int)x - inOffsetX;
  int sy = (int)y - inOffsetY;
  float4 fragColor = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  if (sx >= 0 && sx < (int)inWidth && sy >= 0 && sy < (int)inHeight)
    fragColor = readPixel(inSrc, sy * inSrcPitch + sx, in16f);
  writePixel(fragColor, outDst, (int)(y * (unsigned int)inDstPitch + x), in16f);
}
