/* The per-render parameter block, declared once for the host and every kernel
 * target so the host's bytes can be copied to the device unchanged: natural
 * alignment, 32-bit int and float, one-byte flags. */
#ifndef KERNEL_DATA_H
#define KERNEL_DATA_H

#define KERNEL_DATA_MAX_FRAMES 50

/* The kernel enums, each list written once. OpenCL C has no enum with a fixed
 * underlying type, so there an enum is a plain int type beside anonymous
 * constants of the same values; gf_bool comes from the kernel vocabulary
 * (bool has no fixed size there). */
#if defined(GF_DEVICE_TARGET_OPENCL)
#define KERNEL_ENUM(Name) \
  typedef int Name;       \
  enum
#else
#include <stdint.h>
typedef bool gf_bool;
#define KERNEL_ENUM(Name) enum Name : int32_t
#endif

KERNEL_ENUM(BlendMode){BLEND_NONE = 0,         BLEND_ADD = 1,           BLEND_SCREEN = 2,   BLEND_LIGHTEN = 3,
                       BLEND_COLOR_DODGE = 4,  BLEND_LIGHTER_COLOR = 5, BLEND_OVERLAY = 6,  BLEND_SOFT_LIGHT = 7,
                       BLEND_LINEAR_LIGHT = 8, BLEND_PIN_LIGHT = 9,     BLEND_HARD_MIX = 10};
KERNEL_ENUM(DiffBlendMode){DIFF_NONE = 0, DIFF_DIFF = 1, DIFF_SUBT = 2};
KERNEL_ENUM(ColorFrom){FROM_NONE = 0, FROM_MOTION = 1, FROM_SOURCE = 2, FROM_LUMA = 3};
/* How a StackKernel frame holds its pixels: in the pass's own form (float,
 * or 16-bit where in16f), or as integers of 8 or 16 bits that the kernel
 * turns into v/255 and v/65535, exactly as a host converting them would. */
KERNEL_ENUM(FrameDepth){FRAME_DEPTH_PASS = 0, FRAME_DEPTH_U8 = 1, FRAME_DEPTH_U16 = 2};

#undef KERNEL_ENUM

typedef struct KernelData {
  int originH[KERNEL_DATA_MAX_FRAMES];
  int originV[KERNEL_DATA_MAX_FRAMES];
  int numFrames;
  float displaceIntensity;
  float minVel;
  float maxVel;
  gf_bool chromatic;
  float percentEase;
  float percent;
  BlendMode blendMode;
  DiffBlendMode diffMode;
  ColorFrom output;
  gf_bool normalize;
  gf_bool motion_amp;
} KernelData;

/* A launch of StackKernel covers at most this many frames, so at most one
 * pass fewer; a longer stack runs in chunks that hand the accumulation on. */
#define STACK_CHUNK_FRAMES 16

/* Where a frame of a StackKernel launch lies: used in place (canvas 0, then
 * pitch is the output's), or placed on the output's canvas at its offset.
 * The pitch counts pixels of the frame's own depth. */
typedef struct StackFrameGeometry {
  int pitch;
  int width;
  int height;
  int offsetX;
  int offsetY;
  int canvas;
  int depth; /* a FrameDepth */
} StackFrameGeometry;

/* What a StackKernel launch needs beyond KernelData, passed by value: its
 * passes' positions in the stack and eased weights, newest pass first, and
 * its frames, newest first (pass k compares frame k + 1 with frame k). */
typedef struct StackChunk {
  int passes;
  int pixelsPerItem; /* neighbouring pixels of a row per work item; 0 or 1: one */
  float percent[STACK_CHUNK_FRAMES - 1];
  float weight[STACK_CHUNK_FRAMES - 1];
  StackFrameGeometry frame[STACK_CHUNK_FRAMES];
  /* 255 and 65535 and their reciprocals, for integer frames: handed in at run
   * time so that no compiler folds the exact division's correction away. */
  float levels8;
  float levels8Recip;
  float levels16;
  float levels16Recip;
} StackChunk;

#if defined(__cplusplus) && !defined(GF_DEVICE_TARGET_OPENCL)
#include <cstddef>
static_assert(sizeof(int) == 4 && sizeof(float) == 4 && sizeof(bool) == 1,
              "KernelData needs 32-bit int/float and 1-byte bool");
static_assert(sizeof(BlendMode) == 4 && sizeof(DiffBlendMode) == 4 && sizeof(ColorFrom) == 4, "enums are 32-bit");
static_assert(offsetof(KernelData, originV) == 200, "KernelData layout");
static_assert(offsetof(KernelData, numFrames) == 400, "KernelData layout");
static_assert(offsetof(KernelData, displaceIntensity) == 404, "KernelData layout");
static_assert(offsetof(KernelData, minVel) == 408, "KernelData layout");
static_assert(offsetof(KernelData, maxVel) == 412, "KernelData layout");
static_assert(offsetof(KernelData, chromatic) == 416, "KernelData layout");
static_assert(offsetof(KernelData, percentEase) == 420, "KernelData layout");
static_assert(offsetof(KernelData, percent) == 424, "KernelData layout");
static_assert(offsetof(KernelData, blendMode) == 428, "KernelData layout");
static_assert(offsetof(KernelData, diffMode) == 432, "KernelData layout");
static_assert(offsetof(KernelData, output) == 436, "KernelData layout");
static_assert(offsetof(KernelData, normalize) == 440, "KernelData layout");
static_assert(offsetof(KernelData, motion_amp) == 441, "KernelData layout");
static_assert(sizeof(KernelData) == 444, "KernelData layout");
static_assert(sizeof(FrameDepth) == 4, "enums are 32-bit");
static_assert(sizeof(StackChunk) == 8 + 8 * (STACK_CHUNK_FRAMES - 1) + 28 * STACK_CHUNK_FRAMES + 16, "StackChunk layout");
#endif

#endif
