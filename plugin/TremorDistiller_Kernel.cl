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

/* A pass's difference of the older and the newer frame; alpha is the newer's. */
GF_DEVICE_FUNCTION float4 pairDifference(float4 prev, float4 current, int diffMode) {
  float4 fragColor;
  if (diffMode == DIFF_DIFF) {
    float4 d = prev - current;
    fragColor = make_float4(fabs(d.x), fabs(d.y), fabs(d.z), fabs(d.w));
  } else if (diffMode == DIFF_SUBT) {
    fragColor = prev - current;
  } else {
    fragColor = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  }
  fragColor.w = current.w;
  return fragColor;
}

/* What the last pass delivers from the final accumulation and the current frame. */
GF_DEVICE_FUNCTION float4 deliveredPixel(float4 fragColor, float4 current, GF_CONST_PTR(KernelData) params) {
  if (params->normalize) fragColor = fragColor / (65.0f / 255.0f);
  float lum = 0.3f * fragColor.x + 0.59f * fragColor.y + 0.11f * fragColor.z;
  if (params->output == FROM_LUMA) {
    fragColor = make_float4(lum, lum, lum, fragColor.w);
  } else if (params->output == FROM_SOURCE) {
    fragColor = current * make_float4(lum, lum, lum, 1.0f);
  }
  return fragColor;
}

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

  float4 fragColor = pairDifference(prev, current, params->diffMode);

  if (params->percent != 0.0f) {
    float4 intermediate =
        displacedRead(inIm, inPre, inCur, params, uv, inWidth, inHeight, inPrePitch, inCurPitch, in16f, x, y);
    fragColor = applyBlendMode(fragColor, intermediate, weight, params->blendMode);
  }

  int dstIndex = (int)(y * (unsigned int)inDstPitch + x);
  writePixel(bgra(fragColor), outIm, dstIndex, in16f);
  if (params->percent < 1.0f) return;

  /* Last pass only: deliver the picture. */
  writePixel(bgra(deliveredPixel(fragColor, current, params)), outDst, dstIndex, in16f);
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

/* A frame of a StackKernel launch at (x, y) of the output's canvas, as a pass
 * reads it: in place, or from its canvas, which the value reaches through a
 * store and a load like any pixel ResizeKernel writes. */
GF_DEVICE_FUNCTION float4 readStackFrame(GF_CONST_PTR(float4) frame, StackFrameGeometry g, unsigned int x,
                                         unsigned int y, int in16f) {
  if (!g.canvas) return bgra(readPixel(frame, (int)(y * (unsigned int)g.pitch + x), in16f));
  int sx = (int)x - g.offsetX;
  int sy = (int)y - g.offsetY;
  float4 v = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  if (sx >= 0 && sx < g.width && sy >= 0 && sy < g.height) v = readPixel(frame, sy * g.pitch + sx, in16f);
  return bgra(storedPixel(v, in16f));
}

/* Up to STACK_CHUNK_FRAMES - 1 passes in one launch, for stacks in which no
 * pass displaces its read of the accumulation. Each work item follows its
 * pixel through the passes, oldest first, with the accumulation in registers
 * and every frame read once, and gives what MainKernel launched pass by pass
 * gives: the accumulation still goes through a store and a load between
 * passes, and a pass reads it where getTexture at the pixel's own uv lands,
 * which can be a column or row before the pixel, so each pass works at the
 * position its successor reads. The oldest pass reads the accumulation handed
 * on in inIm; a launch that does not end the stack leaves its own in outIm. */
GF_KERNEL StackKernel(GF_CONST_PTR(float4) f0, GF_CONST_PTR(float4) f1, GF_CONST_PTR(float4) f2,
                      GF_CONST_PTR(float4) f3, GF_CONST_PTR(float4) f4, GF_CONST_PTR(float4) f5,
                      GF_CONST_PTR(float4) f6, GF_CONST_PTR(float4) f7, GF_CONST_PTR(float4) f8,
                      GF_CONST_PTR(float4) f9, GF_CONST_PTR(float4) f10, GF_CONST_PTR(float4) f11,
                      GF_CONST_PTR(float4) f12, GF_CONST_PTR(float4) f13, GF_CONST_PTR(float4) f14,
                      GF_CONST_PTR(float4) f15, GF_PTR(float4) outIm, GF_PTR(float4) outDst,
                      GF_CONST_PTR(KernelData) params, int inDstPitch, int in16f, unsigned int inWidth,
                      unsigned int inHeight, GF_CONST_PTR(float4) inIm, StackChunk chunk) {
  unsigned int x = GF_GLOBAL_ID_X;
  unsigned int y = GF_GLOBAL_ID_Y;
  if (x >= inWidth || y >= inHeight) return;

  GF_CONST_PTR(float4) frames[STACK_CHUNK_FRAMES] = {f0, f1, f2,  f3,  f4,  f5,  f6,  f7,
                                                    f8, f9, f10, f11, f12, f13, f14, f15};
  /* Pass k of the launch works at (column[k], row[k]). */
  unsigned int column[STACK_CHUNK_FRAMES];
  unsigned int row[STACK_CHUNK_FRAMES];
  int passes = chunk.passes;
  column[0] = x;
  row[0] = y;
  for (int k = 1; k < passes; ++k) {
    column[k] = ownCell(column[k - 1], inWidth);
    row[k] = ownCell(row[k - 1], inHeight);
  }

  float4 acc = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  float4 prev = readStackFrame(frames[passes], chunk.frame[passes], column[passes - 1], row[passes - 1], in16f);
  float4 current = prev;
  for (int k = passes - 1; k >= 0; --k) {
    unsigned int cx = column[k];
    unsigned int cy = row[k];
    /* The older frame is the newer one of the pass before, read again only
     * where that pass worked elsewhere. */
    if (k < passes - 1 && (cx != column[k + 1] || cy != row[k + 1]))
      prev = readStackFrame(frames[k + 1], chunk.frame[k + 1], cx, cy, in16f);
    current = readStackFrame(frames[k], chunk.frame[k], cx, cy, in16f);
    float4 fragColor = pairDifference(prev, current, params->diffMode);
    if (chunk.percent[k] != 0.0f) {
      float4 intermediate;
      if (k == passes - 1) {
        /* getTexture at the own uv of (cx, cy), which never needs its clamp. */
        int at = (int)(ownCell(cy, inHeight) * (unsigned int)inDstPitch + ownCell(cx, inWidth));
        intermediate = bgra(readPixel(inIm, at, in16f));
      } else {
        intermediate = storedPixel(acc, in16f);
      }
      fragColor = applyBlendMode(fragColor, intermediate, chunk.weight[k], params->blendMode);
    }
    acc = fragColor;
    prev = current;
  }

  int dstIndex = (int)(y * (unsigned int)inDstPitch + x);
  if (chunk.percent[0] < 1.0f) {
    writePixel(bgra(acc), outIm, dstIndex, in16f);
    return;
  }
  writePixel(bgra(deliveredPixel(acc, current, params)), outDst, dstIndex, in16f);
}
