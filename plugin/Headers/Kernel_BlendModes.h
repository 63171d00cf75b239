/* How the accumulated image (blend) joins the new difference (base). Per
 * component, alpha included, with no final clamp unless the formula has one. */
#ifndef KERNEL_BLENDMODES_H
#define KERNEL_BLENDMODES_H

GF_DEVICE_FUNCTION float blendDarken(float base, float blend) { return fmin(base, blend); }
GF_DEVICE_FUNCTION float blendLighten(float base, float blend) { return fmax(base, blend); }
GF_DEVICE_FUNCTION float blendLinearBurn(float base, float blend) { return fmax(base + blend - 1.0f, 0.0f); }
GF_DEVICE_FUNCTION float blendLinearDodge(float base, float blend) { return fmin(base + blend, 1.0f); }
GF_DEVICE_FUNCTION float blendScreen(float base, float blend) { return 1.0f - (1.0f - base) * (1.0f - blend); }

GF_DEVICE_FUNCTION float blendColorBurn(float base, float blend) {
  return blend == 0.0f ? blend : fmax(1.0f - (1.0f - base) / blend, 0.0f);
}

GF_DEVICE_FUNCTION float blendColorDodge(float base, float blend) {
  return blend == 1.0f ? blend : fmin(base / (1.0f - blend), 1.0f);
}

GF_DEVICE_FUNCTION float blendVividLight(float base, float blend) {
  return blend < 0.5f ? blendColorBurn(base, 2.0f * blend) : blendColorDodge(base, 2.0f * (blend - 0.5f));
}

GF_DEVICE_FUNCTION float blendHardMix(float base, float blend) {
  return blendVividLight(base, blend) < 0.5f ? 0.0f : 1.0f;
}

/* From blend 0.5 on this takes the root of base: a negative base gives NaN. */
GF_DEVICE_FUNCTION float blendSoftLight(float base, float blend) {
  return blend < 0.5f ? 2.0f * base * blend + base * base * (1.0f - 2.0f * blend)
                      : sqrt(base) * (2.0f * blend - 1.0f) + 2.0f * base * (1.0f - blend);
}

GF_DEVICE_FUNCTION float blendLinearLight(float base, float blend) {
  return blend < 0.5f ? blendLinearBurn(base, 2.0f * blend) : blendLinearDodge(base, 2.0f * (blend - 0.5f));
}

GF_DEVICE_FUNCTION float blendPinLight(float base, float blend) {
  return blend < 0.5f ? blendDarken(base, 2.0f * blend) : blendLighten(base, 2.0f * (blend - 0.5f));
}

GF_DEVICE_FUNCTION float blendOverlay(float base, float blend) {
  return base < 0.5f ? 2.0f * base * blend : 1.0f - 2.0f * (1.0f - base) * (1.0f - blend);
}

/* Rec. 709 weights here, unlike the 0.3/0.59/0.11 luma of the main kernel. */
GF_DEVICE_FUNCTION float4 blendLighterColor(float4 base, float4 blend) {
  float baseLight = 0.2126f * base.x + 0.7152f * base.y + 0.0722f * base.z;
  float blendLight = 0.2126f * blend.x + 0.7152f * blend.y + 0.0722f * blend.z;
  return blendLight > baseLight ? blend : base;
}

#define BLEND_EACH(fn, a, b) make_float4(fn((a).x, (b).x), fn((a).y, (b).y), fn((a).z, (b).z), fn((a).w, (b).w))

/* Inlined by force: PoCL otherwise calls it once per pixel and pass, which
 * took a quarter of StackKernel's time and a third of MainKernel's. */
GF_ALWAYS_INLINE GF_DEVICE_FUNCTION float4 applyBlendMode(float4 base, float4 blend, float percent, int mode) {
  float4 result;
  switch (mode) {
    case BLEND_ADD: result = base + blend; break;
    case BLEND_SCREEN: result = BLEND_EACH(blendScreen, base, blend); break;
    case BLEND_LIGHTEN: result = BLEND_EACH(blendLighten, base, blend); break;
    case BLEND_COLOR_DODGE: result = BLEND_EACH(blendColorDodge, base, blend); break;
    case BLEND_LIGHTER_COLOR: result = blendLighterColor(base, blend); break;
    case BLEND_OVERLAY: result = BLEND_EACH(blendOverlay, base, blend); break;
    case BLEND_SOFT_LIGHT: result = BLEND_EACH(blendSoftLight, base, blend); break;
    case BLEND_LINEAR_LIGHT: result = BLEND_EACH(blendLinearLight, base, blend); break;
    case BLEND_PIN_LIGHT: result = BLEND_EACH(blendPinLight, base, blend); break;
    case BLEND_HARD_MIX: result = BLEND_EACH(blendHardMix, base, blend); break;
    default: result = base; break;
  }
  return base + (result - base) * percent;
}

#endif
