/* Per-pixel flow: the brightness change between the two frames of a pass,
 * split along the image gradient, in one step without iteration or search. */
#ifndef KERNEL_FUNCTIONS_H
#define KERNEL_FUNCTIONS_H

#define KERNEL_PI 3.141592653589793238f

GF_DEVICE_FUNCTION float4 getGray(float4 p) {
  float g = 0.3f * p.x + 0.59f * p.y + 0.11f * p.z;
  return make_float4(g, g, g, 1.0f);
}

GF_DEVICE_FUNCTION float4 premult(float4 p) { return make_float4(p.x * p.w, p.y * p.w, p.z * p.w, p.w); }

/* Central difference over both frames; the offsets are a tenth of the frame,
 * not a texel. */
GF_DEVICE_FUNCTION float4 getGradientAt(GF_CONST_PTR(float4) inPre, GF_CONST_PTR(float4) inCur, float2 uv,
                                        float2 offset, unsigned int inWidth, unsigned int inHeight, int inPrePitch,
                                        int inCurPitch, int is16Bit) {
  return getGray(getTexture(inPre, uv + offset, inWidth, inHeight, inPrePitch, is16Bit)) -
         getGray(getTexture(inPre, uv - offset, inWidth, inHeight, inPrePitch, is16Bit)) +
         getGray(getTexture(inCur, uv + offset, inWidth, inHeight, inCurPitch, is16Bit)) -
         getGray(getTexture(inCur, uv - offset, inWidth, inHeight, inCurPitch, is16Bit));
}

/* Comes to (sx * fx, -sy * fy): x keeps the gradient's sign, y is inverted. */
GF_DEVICE_FUNCTION float2 getFlowVector(float fx, float fy, float2 scale) {
  float2 flowX = make_float2(fmax(fx, 0.0f), fabs(fmin(fx, 0.0f))) * scale.x;
  float2 flowY = make_float2(fmax(fy, 0.0f), fabs(fmin(fy, 0.0f))) * scale.y;
  float dirY = flowY.x > flowY.y ? -1.0f : 1.0f;
  return make_float2(flowX.x - flowX.y, fmax(flowY.x, flowY.y) * dirY);
}

/* Ramp of the velocity between its two edges, tested in this order so that
 * equal edges give a hard step (the built-in smoothstep leaves that undefined). */
GF_DEVICE_FUNCTION float velocityRamp(float vel, float minVel, float maxVel) {
  float lo = fmin(minVel, maxVel);
  float hi = fmax(minVel, maxVel);
  if (vel <= lo) return 0.0f;
  if (vel >= hi) return 1.0f;
  float t = (vel - lo) / (hi - lo);
  return t * t * (3.0f - 2.0f * t);
}

GF_DEVICE_FUNCTION float2 getFlow(GF_CONST_PTR(float4) inPre, GF_CONST_PTR(float4) inCur,
                                  GF_CONST_PTR(KernelData) params, unsigned int inWidth, unsigned int inHeight,
                                  int inPrePitch, int inCurPitch, int is16Bit, unsigned int x, unsigned int y) {
  float2 uv = make_float2((float)x / (float)inWidth, (float)y / (float)inHeight);
  float4 prevPixel = bgra(readPixel(inPre, (int)(y * (unsigned int)inPrePitch + x), is16Bit));
  float4 currentPixel = bgra(readPixel(inCur, (int)(y * (unsigned int)inCurPitch + x), is16Bit));
  float4 differencing = premult(prevPixel) - premult(currentPixel);
  float vel = (differencing.x + differencing.y + differencing.z) / 3.0f;
  /* A pixel that did not change has no velocity. Said outright because a
   * fused multiply-add leaves one product's rounding error in the difference
   * of two equal products, and the hard step of motion amplification would
   * turn that into a full move of a still pixel. */
  if (prevPixel.x == currentPixel.x && prevPixel.y == currentPixel.y && prevPixel.z == currentPixel.z &&
      prevPixel.w == currentPixel.w)
    vel = 0.0f;
  float movement = velocityRamp(vel, params->minVel, params->maxVel);

  float4 gradX =
      getGradientAt(inPre, inCur, uv, make_float2(0.1f, 0.0f), inWidth, inHeight, inPrePitch, inCurPitch, is16Bit);
  float4 gradY =
      getGradientAt(inPre, inCur, uv, make_float2(0.0f, 0.1f), inWidth, inHeight, inPrePitch, inCurPitch, is16Bit);
  /* Only the first component is used; the others are equal grays anyway. */
  float gradMag = sqrt(gradX.x * gradX.x + gradY.x * gradY.x + 0.5f);
  float vx = movement * (gradX.x / gradMag);
  float vy = movement * (gradY.x / gradMag);

  float2 flow = getFlowVector(vx, vy, make_float2(10.0f, 10.0f));
  flow.x = fmin(fmax(flow.x, -1.0f), 1.0f);
  flow.y = fmin(fmax(flow.y, -1.0f), 1.0f);
  return flow;
}

/* The read of the previous accumulation for this pixel, moved along the flow
 * and, with chromatic aberration, with red and blue taken a little apart. */
GF_DEVICE_FUNCTION float4 displacedRead(GF_CONST_PTR(float4) inIm, GF_CONST_PTR(float4) inPre,
                                        GF_CONST_PTR(float4) inCur, GF_CONST_PTR(KernelData) params, float2 uv,
                                        unsigned int inWidth, unsigned int inHeight, int inPrePitch, int inCurPitch,
                                        int is16Bit, unsigned int x, unsigned int y) {
  /* Without displacement or colour split the flow cannot move the read, so
   * the flow's nine reads and its arithmetic are skipped, and the read is
   * the one StackKernel makes. */
  if (params->displaceIntensity == 0.0f && !params->chromatic)
    return readOwnCell(inIm, x, y, inWidth, inHeight, inPrePitch, is16Bit);
  float2 texel = make_float2(1.0f / (float)inWidth, 1.0f / (float)inHeight);
  float2 flow = getFlow(inPre, inCur, params, inWidth, inHeight, inPrePitch, inCurPitch, is16Bit, x, y);
  float2 st = uv + flow * texel * params->displaceIntensity;
  float4 intermediate = getTexture(inIm, st, inWidth, inHeight, inPrePitch, is16Bit);
  if (params->chromatic) {
    float2 shift = make_float2(cos(flow.x * KERNEL_PI), sin(flow.y * KERNEL_PI)) * 0.0025f;
    intermediate.x = getTexture(inIm, st + shift, inWidth, inHeight, inPrePitch, is16Bit).x;
    intermediate.z = getTexture(inIm, st - shift, inWidth, inHeight, inPrePitch, is16Bit).z;
  }
  return intermediate;
}

#endif
