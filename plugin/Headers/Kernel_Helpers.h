/* Pixel access and sampling shared by all kernels. Frames are arrays of B, G,
 * R, A pixels with the pitch in pixels; 16-bit frames hold 8-byte pixels at the
 * same indices. Arithmetic runs in R, G, B, A: bgra() is applied at every read
 * and write of MainKernel. */
#ifndef KERNEL_HELPERS_H
#define KERNEL_HELPERS_H

/* ---- Power curve of the CUDA 16-bit form: 15360 is the pattern of 1.0. ---- */

GF_DEVICE_FUNCTION float halfToFloat(float v) {
  float d = pow(v / 15360.0f, 9.2f);
  return d > 1.0f ? 0.0f : d;
}

GF_DEVICE_FUNCTION float floatToHalf(float c) { return pow(c, 1.0f / 9.2f) * 15360.0f; }

GF_DEVICE_FUNCTION float4 half4ToFloat4(float4 v, int is16Bit) {
  if (GF_HALF_IS_POWER_CURVE) {
    if (is16Bit) return make_float4(halfToFloat(v.x), halfToFloat(v.y), halfToFloat(v.z), halfToFloat(v.w));
  }
  return v;
}

GF_DEVICE_FUNCTION float4 float4ToHalf4(float4 v, int is16Bit) {
  if (GF_HALF_IS_POWER_CURVE) {
    if (is16Bit) return make_float4(floatToHalf(v.x), floatToHalf(v.y), floatToHalf(v.z), floatToHalf(v.w));
  }
  return v;
}

/* ---- Loads and stores. In the OpenCL text the 16-bit branches sit under
 * "#if GF_OPENCL_SUPPORTS_16F", which the program prefix switches on. ---- */

GF_DEVICE_FUNCTION float4 ReadFloat4(GF_CONST_PTR(float4) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) return gfLoad16x4(p, index);
  GF_ENDIF_OPENCL_16F
  return p[index];
}

GF_DEVICE_FUNCTION void WriteFloat4(float4 v, GF_PTR(float4) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) {
    gfStore16x4(v, index, p);
    return;
  }
  GF_ENDIF_OPENCL_16F
  p[index] = v;
}

GF_DEVICE_FUNCTION float2 ReadFloat2(GF_CONST_PTR(float2) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) return gfLoad16x2(p, index);
  GF_ENDIF_OPENCL_16F
  return p[index];
}

GF_DEVICE_FUNCTION void WriteFloat2(float2 v, GF_PTR(float2) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) {
    gfStore16x2(v, index, p);
    return;
  }
  GF_ENDIF_OPENCL_16F
  p[index] = v;
}

GF_DEVICE_FUNCTION float ReadFloat(GF_CONST_PTR(float) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) return gfLoad16x1(p, index);
  GF_ENDIF_OPENCL_16F
  return p[index];
}

GF_DEVICE_FUNCTION void WriteFloat(float v, GF_PTR(float) p, int index, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) {
    gfStore16x1(v, index, p);
    return;
  }
  GF_ENDIF_OPENCL_16F
  p[index] = v;
}

/* A pixel as the kernels' arithmetic sees it, and back. */
GF_DEVICE_FUNCTION float4 readPixel(GF_CONST_PTR(float4) p, int index, int is16Bit) {
  return half4ToFloat4(ReadFloat4(p, index, is16Bit), is16Bit);
}

GF_DEVICE_FUNCTION void writePixel(float4 v, GF_PTR(float4) p, int index, int is16Bit) {
  WriteFloat4(float4ToHalf4(v, is16Bit), p, index, is16Bit);
}

GF_DEVICE_FUNCTION float4 bgra(float4 v) { return make_float4(v.z, v.y, v.x, v.w); }

/* A pixel as writePixel and a later readPixel hand it on. */
GF_DEVICE_FUNCTION float4 storedPixel(float4 v, int is16Bit) {
  GF_IF_OPENCL_16F
  if (is16Bit) return half4ToFloat4(gfRound16x4(float4ToHalf4(v, is16Bit)), is16Bit);
  GF_ENDIF_OPENCL_16F
  return v;
}

/* Nearest-pixel sampling at a normalised position. Outside the frame both
 * components are clamped, so edges repeat. No half-texel term: a pixel's own
 * uv can land one column left after the single-precision round trip. */
GF_DEVICE_FUNCTION float4 getTexture(GF_CONST_PTR(float4) frame, float2 uv, unsigned int inWidth, unsigned int inHeight,
                                     int inPitch, int is16Bit) {
  if (uv.x < 0.0f || uv.x >= 1.0f || uv.y < 0.0f || uv.y >= 1.0f) {
    float2 last_pixel = make_float2(1.0f - 1.0f / (float)inWidth, 1.0f - 1.0f / (float)inHeight);
    uv.x = fmin(fmax(uv.x, 0.0f), last_pixel.x);
    uv.y = fmin(fmax(uv.y, 0.0f), last_pixel.y);
  }
  unsigned int column = (unsigned int)(uv.x * (float)inWidth);
  unsigned int row = (unsigned int)(uv.y * (float)inHeight);
  /* Finite positions already land inside; this only keeps a NaN position,
   * whose conversion is undefined, from reading outside the frame. */
  column = column < inWidth ? column : inWidth - 1u;
  row = row < inHeight ? row : inHeight - 1u;
  return bgra(readPixel(frame, (int)(row * (unsigned int)inPitch + column), is16Bit));
}

/* The column (or row) that getTexture reads at the own uv of pixel x: x, or
 * x - 1 where the round trip falls short. */
GF_DEVICE_FUNCTION unsigned int ownCell(unsigned int x, unsigned int size) {
  float u = (float)x / (float)size;
  unsigned int cell = (unsigned int)(u * (float)size);
  return cell < size ? cell : size - 1u;
}

/* getTexture at pixel (x, y)'s own uv. Both kernels read the accumulation
 * through this one expression: under fast maths the compiler may fold
 * x / W * W to x in one form of it and not in another. */
GF_DEVICE_FUNCTION float4 readOwnCell(GF_CONST_PTR(float4) frame, unsigned int x, unsigned int y, unsigned int inWidth,
                                      unsigned int inHeight, int inPitch, int is16Bit) {
  return bgra(readPixel(frame, (int)(ownCell(y, inHeight) * (unsigned int)inPitch + ownCell(x, inWidth)), is16Bit));
}

#endif
