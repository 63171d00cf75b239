// Pre-render books the frame stack with the host; smart render fetches it and
// hands it to the GPU or the software path, and gives everything back.
#include "TremorDistiller_SmartRender.h"

#include <cmath>
#include <new>
#include <sstream>

#include "LogsController.h"
#include "TremorDistiller.h"
#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Parameters.h"

void UnionLRect(const PF_LRect& src, PF_LRect& dst) {
  auto empty = [](const PF_LRect& r) { return r.left >= r.right || r.top >= r.bottom; };
  if (empty(dst)) {
    dst = src;
  } else if (!empty(src)) {
    if (src.left < dst.left) dst.left = src.left;
    if (src.top < dst.top) dst.top = src.top;
    if (src.right > dst.right) dst.right = src.right;
    if (src.bottom > dst.bottom) dst.bottom = src.bottom;
  }
}

namespace {

void DeleteKernelData(void* data) { delete static_cast<KernelData*>(data); }

// One check-out/read/check-in cycle of a parameter at the current time.
template <typename Read>
PF_Err ReadParam(PF_InData* in_data, A_long diskId, Read read) {
  PF_ParamDef def{};
  const A_long index = FindParamIndex(diskId, ParamTable());
  PF_Err err = PF_CHECKOUT_PARAM(in_data, index, in_data->current_time, in_data->time_step, in_data->time_scale, &def);
  if (err) return err;
  read(def);
  return PF_CHECKIN_PARAM(in_data, &def);
}

// A control's value as the host holds it, read as its row's kind.
double ControlValue(A_long diskId, const PF_ParamDef& d) {
  switch (ParamTable()[FindParamIndex(diskId, ParamTable())].kind) {
    case ParamKind::Popup: return d.u.pd.value;
    case ParamKind::Checkbox: return d.u.bd.value;
    default: return d.u.fs_d.value;
  }
}

}  // namespace

PF_Err PreRender(PF_InData* in_data, PF_OutData*, PF_PreRenderExtra* extra) {
  PF_RenderRequest req = extra->input->output_request;
  req.rect = PF_LRect{-10000, -10000, 10000, 10000};
  req.preserve_rgb_of_zero_alpha = 1;
  extra->output->flags |= PF_RenderOutputFlag_GPU_RENDER_POSSIBLE | PF_RenderOutputFlag_RETURNS_EXTRA_PIXELS;

  KernelData* kd = new (std::nothrow) KernelData;
  if (!kd) {
    LOG_ERROR("Something wrong with allocation of Kernel Data");
    return PF_Err_OUT_OF_MEMORY;
  }

  float offset = 0.0f;
  PF_Err err = FillKernelData(
      [&](int32_t diskId, std::optional<double>& value) -> int32_t {
        return ReadParam(in_data, diskId, [&](const PF_ParamDef& d) { value = ControlValue(diskId, d); });
      },
      *kd, &offset);

  extra->output->pre_render_data = kd;
  extra->output->delete_pre_render_data_func = &DeleteKernelData;
  if (err) return err;

  PF_CheckoutResult result{};
  err = extra->cb->checkout_layer(in_data->effect_ref, 0, 0, &req, in_data->current_time, in_data->time_step,
                                  in_data->time_scale, &result);
  if (err) return err;
  kd->originH[0] = result.result_rect.left;
  kd->originV[0] = result.result_rect.top;

  // Only a max rect that is empty across (right <= left) but not upside down
  // (top <= bottom) takes the checked-out rects; anything else, an ordinary
  // rect included, promises the whole downsampled frame.
  if (result.max_result_rect.right <= result.max_result_rect.left &&
      result.max_result_rect.top <= result.max_result_rect.bottom) {
    UnionLRect(result.result_rect, extra->output->result_rect);
    UnionLRect(result.max_result_rect, extra->output->max_result_rect);
  } else {
    const PF_LRect full{0, 0,
                        static_cast<A_long>(std::ceil(static_cast<double>(in_data->downsample_x.num) * in_data->width /
                                                      in_data->downsample_x.den)),
                        static_cast<A_long>(std::ceil(static_cast<double>(in_data->downsample_y.num) * in_data->height /
                                                      in_data->downsample_y.den))};
    UnionLRect(full, extra->output->result_rect);
    UnionLRect(full, extra->output->max_result_rect);
  }

  const PF_ParamIndex layer = FindParamIndex(PARAM_INPUT, ParamTable());
  for (A_long i = 1; i < kd->numFrames && !err; ++i) {
    const A_long when = FrameCheckoutTime(in_data->current_time, in_data->time_step, i, offset);
    err = extra->cb->checkout_layer(in_data->effect_ref, layer, i, &req, when, in_data->time_step, in_data->time_scale,
                                    &result);
    if (!err) {
      kd->originH[i] = result.result_rect.left;
      kd->originV[i] = result.result_rect.top;
    }
  }
  return err;
}

namespace {

PF_Err SmartRenderCPU(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra) {
  const A_long row = FindParamIndex(PARAM_INPUT, ParamTable());
  PF_EffectWorld* input = nullptr;
  PF_EffectWorld* output = nullptr;
  PF_Err err = extra->cb->checkout_layer_pixels(in_data->effect_ref, row, &input);
  if (!err) err = extra->cb->checkout_output(in_data->effect_ref, &output);
  if (!err) err = RenderCPU(in_data, out_data, input, output);
  const PF_Err checkin = extra->cb->checkin_layer_pixels(in_data->effect_ref, row);
  return err ? err : checkin;
}

// Gives the frame list's handle back on every way out, a thrown one included.
struct FrameListHandle {
  const SuiteAccess<PF_HandleSuite2>& suite;
  PF_Handle handle;
  ~FrameListHandle() {
    if (handle) {
      suite->host_unlock_handle(handle);
      suite->host_dispose_handle(handle);
    }
  }
};

PF_Err SmartRenderStack(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra) {
  KernelData* kd = static_cast<KernelData*>(extra->input->pre_render_data);
  const A_long numFrames =
      kd->numFrames < 1 ? 1 : (kd->numFrames > KERNEL_DATA_MAX_FRAMES ? KERNEL_DATA_MAX_FRAMES : kd->numFrames);

  SuiteAccess<PF_HandleSuite2> handles(in_data);
  FrameListHandle list{handles, handles->host_new_handle(sizeof(PF_EffectWorld*) * numFrames)};
  PF_EffectWorld** frames =
      list.handle ? static_cast<PF_EffectWorld**>(handles->host_lock_handle(list.handle)) : nullptr;
  PF_Err err = PF_Err_NONE;
  if (!frames) {
    LOG_ERROR_IN("SmartRender", "Cannot initialize layer frames");
    err = PF_Err_OUT_OF_MEMORY;
  } else {
    for (A_long i = 0; i < numFrames; ++i) frames[i] = nullptr;
  }

  PF_EffectWorld* output = nullptr;
  if (!err) err = extra->cb->checkout_layer_pixels(in_data->effect_ref, 0, &frames[0]);
  if (!err) err = extra->cb->checkout_output(in_data->effect_ref, &output);

  PF_PixelFormat format = PF_PixelFormat_INVALID;
  {
    ScopedSuite<PF_WorldSuite2> worlds(in_data, out_data);
    if (!err) err = worlds->PF_GetPixelFormat(frames[0], &format);
    for (A_long i = 1; i < numFrames && !err; ++i) {
      err = extra->cb->checkout_layer_pixels(in_data->effect_ref, i, &frames[i]);
      if (!err && ReplaceMissingFrame(frames, i) && i == numFrames - 1) {
        // A zero time step has no frame number to show; the time itself is.
        const A_long at = in_data->time_step ? in_data->current_time / in_data->time_step : in_data->current_time;
        LOG_ERROR_IN("SmartRender", "Reached a last NULL frame at #", at, " frame.");
      }
    }
    if (!err) err = SmartRenderGPU(in_data, out_data, format, frames, output, extra, kd);
    // Every index goes back, also those never fetched.
    for (A_long i = 0; i < numFrames; ++i) {
      const PF_Err checkin = extra->cb->checkin_layer_pixels(in_data->effect_ref, i);
      if (!err) err = checkin;
    }
  }
  return err;
}

}  // namespace

PF_Err SmartRender(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra, bool useGPU) {
  return useGPU ? SmartRenderStack(in_data, out_data, extra) : SmartRenderCPU(in_data, out_data, extra);
}
