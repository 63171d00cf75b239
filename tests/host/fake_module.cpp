// A tiny effect that lets the stand-in host be tested apart from the real one.
// It books "Frames" frames going back in time, and its render copies the one
// that "Pick" chooses (1 = newest) to the output on whatever device it is
// given; a time with nothing there leaves the output as the host cleared it.
// Built once more with its entry under another name, to test a missing export.
#include <cstring>
#include <new>

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 120
#endif
#include <CL/cl.h>

#ifdef TD_HAVE_CUDA
#include <cuda_runtime_api.h>
#endif

#include "AE_Effect.h"
#include "AE_EffectSuites.h"

namespace {

constexpr int kMaxFrames = 8;

struct Plan {
  int frames;
  int pick;  // checkout index copied to the output
};

struct DeviceData {
  A_long whatGpu;
};

template <typename Suite>
const Suite* Acquire(const PF_InData* in, const char* name, int32_t version) {
  const void* suite = nullptr;
  if (in->pica_basicP->AcquireSuite(name, version, &suite) != 0) return nullptr;
  return static_cast<const Suite*>(suite);
}

PF_Err GlobalSetup(PF_InData* in, PF_OutData* out) {
  out->my_version = 0x00010001;
  out->out_flags |= PF_OutFlag_DEEP_COLOR_AWARE;
  out->out_flags2 = PF_OutFlag2_SUPPORTS_SMART_RENDER | PF_OutFlag2_FLOAT_COLOR_AWARE |
                    PF_OutFlag2_SUPPORTS_GPU_RENDER_F32 | PF_OutFlag2_SUPPORTS_THREADED_RENDERING;
  auto* hs = Acquire<PF_HandleSuite2>(in, kPFHandleSuite, kPFHandleSuiteVersion2);
  if (!hs) return PF_Err_BAD_CALLBACK_PARAM;
  PF_Err err = PF_Err_NONE;
  PF_Handle h = hs->host_new_handle(sizeof(A_long));
  if (!h) {
    err = PF_Err_OUT_OF_MEMORY;
  } else if (auto* g = static_cast<A_long*>(hs->host_lock_handle(h))) {
    *g = 0x600D;
    hs->host_unlock_handle(h);
    out->global_data = h;
  } else {
    hs->host_dispose_handle(h);
    err = PF_Err_OUT_OF_MEMORY;
  }
  in->pica_basicP->ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion2);
  return err;
}

PF_Err GlobalSetdown(PF_InData* in) {
  auto* hs = Acquire<PF_HandleSuite2>(in, kPFHandleSuite, kPFHandleSuiteVersion2);
  if (!hs) return PF_Err_BAD_CALLBACK_PARAM;
  if (in->global_data) hs->host_dispose_handle(in->global_data);
  in->pica_basicP->ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion2);
  return PF_Err_NONE;
}

PF_Err ParamsSetup(PF_InData* in, PF_OutData* out) {
  PF_CustomUIInfo ui{};
  ui.events = PF_CustomEFlag_EFFECT;
  PF_Err err = in->inter.register_ui(in->effect_ref, &ui);

  PF_ParamDef def{};
  def.param_type = PF_Param_FLOAT_SLIDER;
  std::strcpy(def.name, "Frames");
  def.uu.id = 5;
  def.u.fs_d.value = def.u.fs_d.dephault = 3;
  def.u.fs_d.valid_min = def.u.fs_d.slider_min = 1;
  def.u.fs_d.valid_max = def.u.fs_d.slider_max = kMaxFrames;
  if (!err) err = PF_ADD_PARAM(in, -1, &def);

  // The names live on this stack only; the host must copy them.
  char names[64];
  in->utils->ansi.sprintf(names, "%s|%s|%s", "Newest", "Middle", "Oldest");
  def = PF_ParamDef{};
  def.param_type = PF_Param_POPUP;
  std::strcpy(def.name, "Pick");
  def.uu.id = 2;
  def.u.pd.value = def.u.pd.dephault = 1;
  def.u.pd.num_choices = 3;
  def.u.pd.u.namesptr = names;
  if (!err) err = PF_ADD_PARAM(in, -1, &def);
  std::memset(names, 'X', sizeof names - 1);
  names[sizeof names - 1] = '\0';

  def = PF_ParamDef{};
  def.param_type = PF_Param_CHECKBOX;
  std::strcpy(def.name, "Unused");
  def.uu.id = 3;
  def.u.bd.u.nameptr = "";
  if (!err) err = PF_ADD_PARAM(in, -1, &def);
  if (!err) out->num_params = 4;
  return err;
}

PF_Err About(PF_InData* in, PF_OutData* out) {
  in->utils->ansi.sprintf(out->return_msg, "fake effect under %08X", static_cast<unsigned>(in->appl_id));
  return PF_Err_NONE;
}

PF_Err DeviceSetup(PF_InData* in, PF_OutData* out, PF_GPUDeviceSetupExtra* extra) {
  const A_long what = extra->input->what_gpu;
  if (what != PF_GPU_Framework_OPENCL && what != PF_GPU_Framework_CUDA) return PF_Err_INTERNAL_STRUCT_DAMAGED;
  auto* gs = Acquire<PF_GPUDeviceSuite1>(in, kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1);
  auto* hs = Acquire<PF_HandleSuite2>(in, kPFHandleSuite, kPFHandleSuiteVersion2);
  PF_Err err = gs && hs ? PF_Err_NONE : PF_Err_BAD_CALLBACK_PARAM;
  PF_GPUDeviceInfo info{};
  if (!err) err = gs->GetDeviceInfo(in->effect_ref, extra->input->device_index, &info);
  if (!err) {
    PF_Handle h = hs->host_new_handle(sizeof(DeviceData));
    auto* d = h ? static_cast<DeviceData*>(*h) : nullptr;
    if (!d) {
      err = PF_Err_OUT_OF_MEMORY;
    } else {
      d->whatGpu = what;
      extra->output->gpu_data = h;
      out->out_flags2 = PF_OutFlag2_SUPPORTS_GPU_RENDER_F32;
    }
  }
  if (gs) in->pica_basicP->ReleaseSuite(kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1);
  if (hs) in->pica_basicP->ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion2);
  return err;
}

PF_Err DeviceSetdown(PF_InData* in, PF_GPUDeviceSetdownExtra* extra) {
  auto* hs = Acquire<PF_HandleSuite2>(in, kPFHandleSuite, kPFHandleSuiteVersion2);
  if (!hs) return PF_Err_BAD_CALLBACK_PARAM;
  if (extra->input->gpu_data) hs->host_dispose_handle(static_cast<PF_Handle>(extra->input->gpu_data));
  in->pica_basicP->ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion2);
  return PF_Err_NONE;
}

void DeletePlan(void* data) { delete static_cast<Plan*>(data); }

PF_Err PreRender(PF_InData* in, PF_PreRenderExtra* extra) {
  PF_ParamDef frames{}, pick{};
  PF_Err err = PF_CHECKOUT_PARAM(in, 1, in->current_time, in->time_step, in->time_scale, &frames);
  if (!err) err = PF_CHECKIN_PARAM(in, &frames);
  if (!err) err = PF_CHECKOUT_PARAM(in, 2, in->current_time, in->time_step, in->time_scale, &pick);
  if (!err) err = PF_CHECKIN_PARAM(in, &pick);
  if (err) return err;
  auto* plan = new (std::nothrow) Plan{static_cast<int>(frames.u.fs_d.value), 0};
  if (!plan) return PF_Err_OUT_OF_MEMORY;
  if (plan->frames < 1) plan->frames = 1;
  if (plan->frames > kMaxFrames) plan->frames = kMaxFrames;
  plan->pick = pick.u.pd.value - 1;
  if (plan->pick >= plan->frames) plan->pick = plan->frames - 1;
  extra->output->pre_render_data = plan;
  extra->output->delete_pre_render_data_func = DeletePlan;
  extra->output->flags = PF_RenderOutputFlag_GPU_RENDER_POSSIBLE;
  extra->output->result_rect = extra->output->max_result_rect = PF_LRect{0, 0, in->width, in->height};
  PF_RenderRequest req = extra->input->output_request;
  for (int i = 0; i < plan->frames && !err; ++i) {
    PF_CheckoutResult result{};
    err = extra->cb->checkout_layer(in->effect_ref, 0, i, &req, in->current_time - i * in->time_step, in->time_step,
                                    in->time_scale, &result);
  }
  return err;
}

PF_Err CopyOnDevice(PF_InData* in, PF_SmartRenderExtra* extra, PF_EffectWorld* src, PF_EffectWorld* dst) {
  auto* gs = Acquire<PF_GPUDeviceSuite1>(in, kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1);
  auto* ws = Acquire<PF_WorldSuite2>(in, kPFWorldSuite, kPFWorldSuiteVersion2);
  PF_Err err = gs && ws ? PF_Err_NONE : PF_Err_BAD_CALLBACK_PARAM;
  PF_PixelFormat format = PF_PixelFormat_INVALID;
  if (!err) err = ws->PF_GetPixelFormat(src, &format);
  if (!err && format != PF_PixelFormat_GPU_BGRA128) err = PF_Err_UNRECOGNIZED_PARAM_TYPE;
  PF_GPUDeviceInfo info{};
  if (!err) err = gs->GetDeviceInfo(in->effect_ref, extra->input->device_index, &info);
  // A scratch world, as a real effect makes them.
  PF_EffectWorld* scratch = nullptr;
  if (!err)
    err = gs->CreateGPUWorld(in->effect_ref, extra->input->device_index, dst->width, dst->height,
                             dst->pix_aspect_ratio, in->field, PF_PixelFormat_GPU_BGRA128, 1, &scratch);
  void *from = nullptr, *to = nullptr;
  if (!err) err = gs->GetGPUWorldData(in->effect_ref, src, &from);
  if (!err) err = gs->GetGPUWorldData(in->effect_ref, dst, &to);
  const size_t bytes = static_cast<size_t>(dst->rowbytes) * dst->height;
  if (!err && (src->rowbytes != dst->rowbytes || src->height != dst->height)) err = PF_Err_BAD_CALLBACK_PARAM;
  if (!err && extra->input->what_gpu == PF_GPU_Framework_OPENCL) {
    auto queue = static_cast<cl_command_queue>(info.command_queuePV);
    if (clEnqueueCopyBuffer(queue, static_cast<cl_mem>(from), static_cast<cl_mem>(to), 0, 0, bytes, 0, nullptr,
                            nullptr) != CL_SUCCESS)
      err = PF_Err_INTERNAL_STRUCT_DAMAGED;
  } else if (!err) {
#ifdef TD_HAVE_CUDA
    if (cudaMemcpy(to, from, bytes, cudaMemcpyDeviceToDevice) != cudaSuccess) err = PF_Err_INTERNAL_STRUCT_DAMAGED;
#else
    err = PF_Err_INTERNAL_STRUCT_DAMAGED;
#endif
  }
  if (scratch) gs->DisposeGPUWorld(in->effect_ref, scratch);
  if (gs) in->pica_basicP->ReleaseSuite(kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1);
  if (ws) in->pica_basicP->ReleaseSuite(kPFWorldSuite, kPFWorldSuiteVersion2);
  return err;
}

PF_Err SmartRender(PF_InData* in, PF_SmartRenderExtra* extra, bool gpu) {
  const auto* plan = static_cast<const Plan*>(extra->input->pre_render_data);
  if (!plan) return PF_Err_INTERNAL_STRUCT_DAMAGED;
  PF_EffectWorld* frames[kMaxFrames] = {};
  PF_Err err = PF_Err_NONE;
  for (int i = 0; i < plan->frames && !err; ++i) err = extra->cb->checkout_layer_pixels(in->effect_ref, i, &frames[i]);
  PF_EffectWorld* output = nullptr;
  if (!err) err = extra->cb->checkout_output(in->effect_ref, &output);
  PF_EffectWorld* src = frames[plan->pick];
  if (!err && src && output) {
    if (gpu) {
      err = CopyOnDevice(in, extra, src, output);
    } else {
      for (A_long y = 0; y < output->height; ++y)
        std::memcpy(static_cast<char*>(output->data) + static_cast<size_t>(y) * output->rowbytes,
                    static_cast<const char*>(src->data) + static_cast<size_t>(y) * src->rowbytes,
                    static_cast<size_t>(output->rowbytes < src->rowbytes ? output->rowbytes : src->rowbytes));
    }
  }
  for (int i = 0; i < plan->frames; ++i) {
    const PF_Err e = extra->cb->checkin_layer_pixels(in->effect_ref, i);
    if (!err) err = e;
  }
  return err;
}

// The plain render copies parameter 0, the input layer.
PF_Err Render(PF_ParamDef* params[], PF_LayerDef* output) {
  const PF_LayerDef& input = params[0]->u.ld;
  if (!input.data || !output || !output->data) return PF_Err_INTERNAL_STRUCT_DAMAGED;
  for (A_long y = 0; y < output->height; ++y)
    std::memcpy(static_cast<char*>(output->data) + static_cast<size_t>(y) * output->rowbytes,
                static_cast<const char*>(input.data) + static_cast<size_t>(y) * input.rowbytes,
                static_cast<size_t>(output->rowbytes));
  return PF_Err_NONE;
}

}  // namespace

// The variant without the entry point exports it under another name.
#ifdef FAKE_NO_EFFECT_MAIN
#define FAKE_ENTRY_NAME NotTheEntryPoint
#else
#define FAKE_ENTRY_NAME EffectMain
#endif

DllExport PF_Err FAKE_ENTRY_NAME(PF_Cmd cmd, PF_InData* in, PF_OutData* out, PF_ParamDef* params[], PF_LayerDef* output,
                            void* extra) {
  switch (cmd) {
    case PF_Cmd_ABOUT: return About(in, out);
    case PF_Cmd_GLOBAL_SETUP: return GlobalSetup(in, out);
    case PF_Cmd_GLOBAL_SETDOWN: return GlobalSetdown(in);
    case PF_Cmd_PARAMS_SETUP: return ParamsSetup(in, out);
    case PF_Cmd_RENDER: return Render(params, output);
    case PF_Cmd_SMART_PRE_RENDER: return PreRender(in, static_cast<PF_PreRenderExtra*>(extra));
    case PF_Cmd_SMART_RENDER: return SmartRender(in, static_cast<PF_SmartRenderExtra*>(extra), false);
    case PF_Cmd_SMART_RENDER_GPU: return SmartRender(in, static_cast<PF_SmartRenderExtra*>(extra), true);
    case PF_Cmd_GPU_DEVICE_SETUP: return DeviceSetup(in, out, static_cast<PF_GPUDeviceSetupExtra*>(extra));
    case PF_Cmd_GPU_DEVICE_SETDOWN: return DeviceSetdown(in, static_cast<PF_GPUDeviceSetdownExtra*>(extra));
    default: return PF_Err_NONE;
  }
}

DllExport PF_Err PluginDataEntryFunction(PF_PluginDataPtr inPtr, PF_PluginDataCB cb, SPBasicSuite*, const char*,
                                         const char*) {
  return cb(inPtr, reinterpret_cast<const A_u_char*>("Fake Effect"), reinterpret_cast<const A_u_char*>("FAKE"),
            reinterpret_cast<const A_u_char*>("Tests"), reinterpret_cast<const A_u_char*>("EffectMain"), 0x65464B54,
            13, 28, 0);
}

extern "C" {
__attribute__((visibility("default"))) int32_t NvOptimusEnablementCuda = 1;
}
