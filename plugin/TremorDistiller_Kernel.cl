/* The effect's kernels, written once. This unit is the OpenCL form: the build
 * preprocesses it into the program text that the module embeds. The CUDA form
 * (TremorDistiller_Kernel.cu) and the CPU reference device include it as is. */
#if !defined(__CUDA__) && !defined(__CUDACC__) && !defined(GF_DEVICE_TARGET_CPU) && !defined(GF_DEVICE_TARGET_OPENCL)
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

/* An integer component of `levels` steps as v / levels in float, exactly: the
 * product with the reciprocal, corrected once by what it leaves over. */
GF_DEVICE_FUNCTION float unitFromLevel(float v, float levels, float recip) {
  float q = v * recip;
  return fma(fma(-q, levels, v), recip, q);
}

/* Pixel `index` of a frame of the given depth, in memory order, as the pass's
 * float or 16-bit frames would hold it; `levels` and `recip` are the chunk's
 * for that depth. */
GF_DEVICE_FUNCTION float4 readDepthPixel(GF_CONST_PTR(float4) frame, int index, int depth, int in16f, float levels,
                                         float recip) {
  if (depth == FRAME_DEPTH_U8) {
    GF_CONST_PTR(unsigned char) p = (GF_CONST_PTR(unsigned char))frame + 4 * index;
    return make_float4(unitFromLevel((float)p[0], levels, recip), unitFromLevel((float)p[1], levels, recip),
                       unitFromLevel((float)p[2], levels, recip), unitFromLevel((float)p[3], levels, recip));
  }
  if (depth == FRAME_DEPTH_U16) {
    GF_CONST_PTR(unsigned short) p = (GF_CONST_PTR(unsigned short))frame + 4 * index;
    return make_float4(unitFromLevel((float)p[0], levels, recip), unitFromLevel((float)p[1], levels, recip),
                       unitFromLevel((float)p[2], levels, recip), unitFromLevel((float)p[3], levels, recip));
  }
  return readPixel(frame, index, in16f);
}

/* A frame of a StackKernel launch at (x, y) of the output's canvas, as a pass
 * reads it: in place, or from its canvas, which the value reaches through a
 * store and a load like any pixel ResizeKernel writes. */
GF_DEVICE_FUNCTION float4 readStackFrame(GF_CONST_PTR(float4) frame, StackFrameGeometry g, unsigned int x,
                                         unsigned int y, int in16f, float levels, float recip) {
  if (!g.canvas)
    return bgra(readDepthPixel(frame, (int)(y * (unsigned int)g.pitch + x), g.depth, in16f, levels, recip));
  int sx = (int)x - g.offsetX;
  int sy = (int)y - g.offsetY;
  float4 v = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
  if (sx >= 0 && sx < g.width && sy >= 0 && sy < g.height)
    v = readDepthPixel(frame, sy * g.pitch + sx, g.depth, in16f, levels, recip);
  return bgra(storedPixel(v, in16f));
}

/* How many passes back a pixel's position keeps moving as each pass reads
 * where getTexture at its own uv lands: ownCell moves a position by at most
 * one, and a position it keeps stays for good. */
GF_DEVICE_FUNCTION unsigned int cellDrift(unsigned int x, unsigned int size, unsigned int passes) {
  unsigned int drift = 0u;
  while (drift < passes && ownCell(x - drift, size) != x - drift) ++drift;
  return drift;
}

/* Pass K of a StackKernel launch, comparing frame K + 1 (FO) with frame K (FN)
 * at the position the pass after it reads. The older frame is the newer one
 * of the pass before, read again only where that pass worked elsewhere. */
#define STACK_PASS(K, FN, FO, DIFF, BLEND, F16)                                                   \
  if (K < passes) {                                                                               \
    unsigned int cx = x - (K < driftX ? K : driftX);                                              \
    unsigned int cy = y - (K < driftY ? K : driftY);                                              \
    if (K == passes - 1 || K < drift) prev = readStackFrame(FO, chunk.frame[K + 1], cx, cy, F16, levels, recip); \
    current = readStackFrame(FN, chunk.frame[K], cx, cy, F16, levels, recip);                                    \
    float4 fragColor = pairDifference(prev, current, DIFF);                                       \
    if (chunk.percent[K] != 0.0f) {                                                               \
      float4 intermediate;                                                                        \
      if (K == passes - 1)                                                                        \
        intermediate = readOwnCell(inIm, cx, cy, inWidth, inHeight, inDstPitch, F16);             \
      else                                                                                        \
        intermediate = storedPixel(acc, F16);                                                     \
      fragColor = applyBlendMode(fragColor, intermediate, chunk.weight[K], BLEND);                \
    }                                                                                             \
    acc = fragColor;                                                                              \
    prev = current;                                                                               \
  }

/* Pass K as STACK_PASS gives it where no pass of the pixel moves (no drift)
 * and every frame is in place, on 32-bit or byte frames: READ(F, K) is frame
 * K's pixel where it lies. */
#define STACK_PASS_IN_PLACE(K, FN, FO, DIFF, BLEND, READ)                                        \
  if (K < passes) {                                                                              \
    if (K == passes - 1) prev = READ(FO, K + 1);                                                 \
    current = READ(FN, K);                                                                       \
    float4 fragColor = pairDifference(prev, current, DIFF);                                      \
    if (chunk.percent[K] != 0.0f) {                                                              \
      float4 intermediate = K == passes - 1 ? bgra(inIm[y * (unsigned int)inDstPitch + x]) : acc; \
      fragColor = applyBlendMode(fragColor, intermediate, chunk.weight[K], BLEND);               \
    }                                                                                            \
    acc = fragColor;                                                                             \
    prev = current;                                                                              \
  }

#define STACK_READ_FLOAT(F, K) bgra(F[y * (unsigned int)chunk.frame[K].pitch + x])
#define STACK_READ_BYTES(F, K) \
  bgra(readDepthPixel(F, (int)(y * (unsigned int)chunk.frame[K].pitch + x), FRAME_DEPTH_U8, 0, levels, recip))

#define STACK_PASSES_IN_PLACE(DIFF, BLEND, READ)        \
  STACK_PASS_IN_PLACE(14u, f14, f15, DIFF, BLEND, READ) \
  STACK_PASS_IN_PLACE(13u, f13, f14, DIFF, BLEND, READ) \
  STACK_PASS_IN_PLACE(12u, f12, f13, DIFF, BLEND, READ) \
  STACK_PASS_IN_PLACE(11u, f11, f12, DIFF, BLEND, READ) \
  STACK_PASS_IN_PLACE(10u, f10, f11, DIFF, BLEND, READ) \
  STACK_PASS_IN_PLACE(9u, f9, f10, DIFF, BLEND, READ)   \
  STACK_PASS_IN_PLACE(8u, f8, f9, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(7u, f7, f8, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(6u, f6, f7, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(5u, f5, f6, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(4u, f4, f5, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(3u, f3, f4, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(2u, f2, f3, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(1u, f1, f2, DIFF, BLEND, READ)    \
  STACK_PASS_IN_PLACE(0u, f0, f1, DIFF, BLEND, READ)

/* All passes of a launch, oldest first, for one difference algorithm, blend
 * mode and pixel form. */
#define STACK_PASSES(DIFF, BLEND, F16)        \
  STACK_PASS(14u, f14, f15, DIFF, BLEND, F16) \
  STACK_PASS(13u, f13, f14, DIFF, BLEND, F16) \
  STACK_PASS(12u, f12, f13, DIFF, BLEND, F16) \
  STACK_PASS(11u, f11, f12, DIFF, BLEND, F16) \
  STACK_PASS(10u, f10, f11, DIFF, BLEND, F16) \
  STACK_PASS(9u, f9, f10, DIFF, BLEND, F16)   \
  STACK_PASS(8u, f8, f9, DIFF, BLEND, F16)    \
  STACK_PASS(7u, f7, f8, DIFF, BLEND, F16)    \
  STACK_PASS(6u, f6, f7, DIFF, BLEND, F16)    \
  STACK_PASS(5u, f5, f6, DIFF, BLEND, F16)    \
  STACK_PASS(4u, f4, f5, DIFF, BLEND, F16)    \
  STACK_PASS(3u, f3, f4, DIFF, BLEND, F16)    \
  STACK_PASS(2u, f2, f3, DIFF, BLEND, F16)    \
  STACK_PASS(1u, f1, f2, DIFF, BLEND, F16)    \
  STACK_PASS(0u, f0, f1, DIFF, BLEND, F16)

#if STACK_CHUNK_FRAMES != 16
#error "StackKernel takes sixteen frames"
#endif

/* An item's pixels, each through PASSES, then what the launch leaves. */
#define STACK_RUN(PASSES, F16)                                                       \
  for (unsigned int x = x0; x < x1; ++x) {                                           \
    float4 acc = make_float4(0.0f, 0.0f, 0.0f, 0.0f);                                \
    float4 prev = acc;                                                               \
    float4 current = acc;                                                            \
    PASSES                                                                           \
    int dstIndex = (int)(y * (unsigned int)inDstPitch + x);                          \
    if (handsOn)                                                                     \
      writePixel(bgra(acc), outIm, dstIndex, F16);                                   \
    else                                                                             \
      writePixel(bgra(deliveredPixel(acc, current, params)), outDst, dstIndex, F16); \
  }

#define STACK_PIXELS(DIFF, BLEND, F16)                                                                 \
  STACK_RUN(unsigned int driftX = cellDrift(x, inWidth, passes);                                       \
            unsigned int drift = driftX > driftY ? driftX : driftY; STACK_PASSES(DIFF, BLEND, F16), F16)

/* STACK_PIXELS for a run in which no pixel drifts and every frame lies in
 * place, on 32-bit frames: no position to work out and no canvas to test,
 * which took a 1080p 10-frame stack on PoCL from 15.5 to 12 ms. */
#define STACK_PIXELS_IN_PLACE(DIFF, BLEND, READ) STACK_RUN(STACK_PASSES_IN_PLACE(DIFF, BLEND, READ), 0)

/* Up to fifteen passes in one launch, for stacks in which no pass displaces
 * its read of the accumulation. Each work item follows its pixels through the
 * passes, oldest first, with the accumulation in registers and every frame
 * read once, and gives what MainKernel launched pass by pass gives: the
 * accumulation still goes through a store and a load between passes, and each
 * pass works where its successor reads (getTexture at a pixel's own uv can
 * land a column or row before it). The oldest pass reads the accumulation
 * handed on in inIm; a launch that does not end the stack leaves its own in
 * outIm. The passes are written out, so that nothing is indexed at run time.
 * An item takes chunk.pixelsPerItem neighbouring pixels of its row (one on a
 * GPU): on a CPU device the tests of the modes, the row's drift and the
 * launch's values are then made once for the run instead of per pixel. */
GF_KERNEL StackKernel(GF_CONST_PTR(float4) f0, GF_CONST_PTR(float4) f1, GF_CONST_PTR(float4) f2,
                      GF_CONST_PTR(float4) f3, GF_CONST_PTR(float4) f4, GF_CONST_PTR(float4) f5,
                      GF_CONST_PTR(float4) f6, GF_CONST_PTR(float4) f7, GF_CONST_PTR(float4) f8,
                      GF_CONST_PTR(float4) f9, GF_CONST_PTR(float4) f10, GF_CONST_PTR(float4) f11,
                      GF_CONST_PTR(float4) f12, GF_CONST_PTR(float4) f13, GF_CONST_PTR(float4) f14,
                      GF_CONST_PTR(float4) f15, GF_PTR(float4) outIm, GF_PTR(float4) outDst,
                      GF_CONST_PTR(KernelData) params, int inDstPitch, int in16f, unsigned int inWidth,
                      unsigned int inHeight, GF_CONST_PTR(float4) inIm, StackChunk chunk) {
  unsigned int run = chunk.pixelsPerItem > 1 ? (unsigned int)chunk.pixelsPerItem : 1u;
  unsigned int x0 = GF_GLOBAL_ID_X * run;
  unsigned int y = GF_GLOBAL_ID_Y;
  if (x0 >= inWidth || y >= inHeight) return;
  unsigned int x1 = inWidth - x0 > run ? x0 + run : inWidth;

  unsigned int passes = (unsigned int)chunk.passes;
  unsigned int driftY = cellDrift(y, inHeight, passes);
  const bool handsOn = chunk.percent[0] < 1.0f;
  const int depth = chunk.frame[0].depth;
  bool inPlace = !in16f && driftY == 0u && (depth == FRAME_DEPTH_PASS || depth == FRAME_DEPTH_U8);
  for (int k = 0; k <= chunk.passes; ++k) inPlace = inPlace && !chunk.frame[k].canvas && chunk.frame[k].depth == depth;
  for (unsigned int x = x0; x < x1; ++x) inPlace = inPlace && ownCell(x, inWidth) == x;
  /* The modes the controls offer on 32-bit frames get a copy of the passes
   * each, with the modes as constants: a CPU device runs those without a
   * branch in any pass (a fifth less time on PoCL), and a second copy for
   * runs in place. Anything else takes the general copy. */
  const int diffMode = params->diffMode;
  const int blendMode = params->blendMode;
  /* A launch's integer frames share one depth: the newest frame's. */
  const float levels = chunk.frame[0].depth == FRAME_DEPTH_U16 ? chunk.levels16 : chunk.levels8;
  const float recip = chunk.frame[0].depth == FRAME_DEPTH_U16 ? chunk.levels16Recip : chunk.levels8Recip;
  const bool bytes = depth == FRAME_DEPTH_U8;
  if (inPlace && !bytes && diffMode == DIFF_DIFF && blendMode == BLEND_ADD) {
    STACK_PIXELS_IN_PLACE(DIFF_DIFF, BLEND_ADD, STACK_READ_FLOAT)
  } else if (inPlace && !bytes && diffMode == DIFF_DIFF && blendMode == BLEND_SCREEN) {
    STACK_PIXELS_IN_PLACE(DIFF_DIFF, BLEND_SCREEN, STACK_READ_FLOAT)
  } else if (inPlace && !bytes && diffMode == DIFF_SUBT && blendMode == BLEND_ADD) {
    STACK_PIXELS_IN_PLACE(DIFF_SUBT, BLEND_ADD, STACK_READ_FLOAT)
  } else if (inPlace && !bytes && diffMode == DIFF_SUBT && blendMode == BLEND_SCREEN) {
    STACK_PIXELS_IN_PLACE(DIFF_SUBT, BLEND_SCREEN, STACK_READ_FLOAT)
  } else if (inPlace && diffMode == DIFF_DIFF && blendMode == BLEND_ADD) {
    STACK_PIXELS_IN_PLACE(DIFF_DIFF, BLEND_ADD, STACK_READ_BYTES)
  } else if (inPlace && diffMode == DIFF_DIFF && blendMode == BLEND_SCREEN) {
    STACK_PIXELS_IN_PLACE(DIFF_DIFF, BLEND_SCREEN, STACK_READ_BYTES)
  } else if (inPlace && diffMode == DIFF_SUBT && blendMode == BLEND_ADD) {
    STACK_PIXELS_IN_PLACE(DIFF_SUBT, BLEND_ADD, STACK_READ_BYTES)
  } else if (inPlace && diffMode == DIFF_SUBT && blendMode == BLEND_SCREEN) {
    STACK_PIXELS_IN_PLACE(DIFF_SUBT, BLEND_SCREEN, STACK_READ_BYTES)
  } else if (!in16f && diffMode == DIFF_DIFF && blendMode == BLEND_ADD) {
    STACK_PIXELS(DIFF_DIFF, BLEND_ADD, 0)
  } else if (!in16f && diffMode == DIFF_DIFF && blendMode == BLEND_SCREEN) {
    STACK_PIXELS(DIFF_DIFF, BLEND_SCREEN, 0)
  } else if (!in16f && diffMode == DIFF_SUBT && blendMode == BLEND_ADD) {
    STACK_PIXELS(DIFF_SUBT, BLEND_ADD, 0)
  } else if (!in16f && diffMode == DIFF_SUBT && blendMode == BLEND_SCREEN) {
    STACK_PIXELS(DIFF_SUBT, BLEND_SCREEN, 0)
  } else {
    STACK_PIXELS(diffMode, blendMode, in16f)
  }
}

#undef STACK_PIXELS
#undef STACK_PIXELS_IN_PLACE
#undef STACK_RUN
#undef STACK_PASSES_IN_PLACE
#undef STACK_READ_FLOAT
#undef STACK_READ_BYTES
#undef STACK_PASS_IN_PLACE
#undef STACK_PASSES
#undef STACK_PASS
