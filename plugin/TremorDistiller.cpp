// The module's entry points, the command dispatch, and the global lifecycle.
#include "TremorDistiller.h"

#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include "LogsController.h"
#include "TremorDistiller_GPURecords.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_PiPL.h"

static_assert(kGlobalOutFlags == (PF_OutFlag_NON_PARAM_VARY | PF_OutFlag_PIX_INDEPENDENT | PF_OutFlag_CUSTOM_UI |
                                  PF_OutFlag_DEEP_COLOR_AWARE | PF_OutFlag_SEND_UPDATE_PARAMS_UI),
              "global out flags");
static_assert(kGlobalOutFlags2 == (PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG | PF_OutFlag2_SUPPORTS_SMART_RENDER |
                                   PF_OutFlag2_FLOAT_COLOR_AWARE | PF_OutFlag2_CUSTOM_UI_ASYNC_MANAGER |
                                   PF_OutFlag2_SUPPORTS_GPU_RENDER_F32 | PF_OutFlag2_SUPPORTS_THREADED_RENDERING),
              "global out flags 2");

namespace {

// Premiere's 32-bit float BGRA, whose bytes read "ARgb": the one format the
// effect declares there.
constexpr PF_PixelFormat kPremiereFloatBGRA = PF_FourCharCode("ARgb");
static_assert(kPremiereFloatBGRA == 0x62675241, "Premiere float format code");

// return_msg holds 255 characters; the host's strcpy does not know that.
void CopyReturnMessage(PF_InData* in_data, PF_OutData* out_data, const std::string& text) {
  in_data->utils->ansi.strcpy(out_data->return_msg, text.substr(0, PF_MAX_EFFECT_MSG_LEN).c_str());
}

PF_Err Dispatch(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output,
                void* extra) {
  switch (cmd) {
    case PF_Cmd_ABOUT: return About(in_data, out_data);
    case PF_Cmd_GLOBAL_SETUP: return GlobalSetup(in_data, out_data);
    case PF_Cmd_GLOBAL_SETDOWN: return GlobalSetdown(in_data);
    case PF_Cmd_PARAMS_SETUP: return ParamsSetup(in_data, out_data);
    case PF_Cmd_RENDER:
      return RenderCPU(in_data, out_data, &params[FindParamIndex(PARAM_INPUT, ParamTable())]->u.ld, output);
    case PF_Cmd_EVENT: return HandleEvent(in_data, out_data, params, output, static_cast<PF_EventExtra*>(extra));
    case PF_Cmd_SMART_PRE_RENDER: return PreRender(in_data, out_data, static_cast<PF_PreRenderExtra*>(extra));
    case PF_Cmd_SMART_RENDER: return SmartRender(in_data, out_data, static_cast<PF_SmartRenderExtra*>(extra), false);
    case PF_Cmd_SMART_RENDER_GPU: return SmartRender(in_data, out_data, static_cast<PF_SmartRenderExtra*>(extra), true);
    case PF_Cmd_GPU_DEVICE_SETUP: return GPUDeviceSetup(in_data, out_data, static_cast<PF_GPUDeviceSetupExtra*>(extra));
    case PF_Cmd_GPU_DEVICE_SETDOWN:
      return GPUDeviceSetdown(in_data, out_data, static_cast<PF_GPUDeviceSetdownExtra*>(extra));
    default: return PF_Err_NONE;
  }
}

}  // namespace

// ---- Exports ----

// Read by NVIDIA's driver: run this process on the discrete GPU.
DllExport int NvOptimusEnablementCuda;
int NvOptimusEnablementCuda = 1;

DllExport PF_Err PluginDataEntryFunction(PF_PluginDataPtr inPtr, PF_PluginDataCB inPluginDataCallBackPtr, SPBasicSuite*,
                                         const char*, const char*) {
  auto text = [](const char* s) { return reinterpret_cast<const A_u_char*>(s); };
  return inPluginDataCallBackPtr(inPtr, text(kEffectName), text(kEffectMatchName), text(kEffectCategory),
                                 text(kEffectEntryPoint), kPiPLKindEffect, kEffectApiMajor, kEffectApiMinor,
                                 kEffectReservedInfo);
}

// Nothing a handler throws reaches the host; every failed command leaves one
// error line.
DllExport PF_Err EffectMain(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                            PF_LayerDef* output, void* extra) {
  GetGPUStatus();  // exists before any handler or log line can need it
  if (static_cast<A_u_long>(cmd) > PF_Cmd_GPU_DEVICE_SETDOWN) return PF_Err_NONE;
  const char* name = PFCmdNames[cmd];

  PF_Err err = PF_Err_NONE;
  try {
    err = Dispatch(cmd, in_data, out_data, params, output, extra);
  } catch (int32_t code) {
    LOG_ERROR("Try Catch Exception code at event ", name, " is ", PFErrText(code));
    return code;
  } catch (const std::exception& e) {
    LOG_ERROR("Try Catch Exception at event ", name, ". Error is ", e.what());
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  } catch (...) {
    LOG_ERROR("Try Catch Uknown Exception at event ", name);
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  if (err != PF_Err_NONE) {
    LOG_ERROR(name, ". Code: ", PFErrText(err));
  }
  return err;
}

// ---- Global lifecycle ----

PF_Err About(PF_InData* in_data, PF_OutData* out_data) {
  if (IsPremiere(in_data)) return PF_Err_NONE;
  SuiteAccess<PF_ANSICallbacksSuite1> ansi(in_data);
  ansi->sprintf(out_data->return_msg, "%s, v%d.%d\r%s", kEffectName, static_cast<int>(kEffectMajorVersion),
                static_cast<int>(kEffectMinorVersion), kEffectName);
  return PF_Err_NONE;
}

PF_Err GlobalSetup(PF_InData* in_data, PF_OutData* out_data) {
  // In place whatever fails below.
  out_data->my_version = kEffectVersion;
  out_data->out_flags |= kGlobalOutFlags;
  out_data->out_flags2 = kGlobalOutFlags2;

  const std::string loggerFailure = LoggerInit(kLogFileStem, kLogFolderName);
  if (!loggerFailure.empty()) {
    // The user is told, but a missing log is no reason to refuse the effect.
    CopyReturnMessage(in_data, out_data, loggerFailure);
  } else {
    LOG_INFO("Welcome!");
    LOG_INFO(kEffectName, ", v", kEffectVersionText, " in ", (IsPremiere(in_data) ? "Premiere" : "AE"),
             in_data->version.major, ".", in_data->version.minor);
  }

  SuiteAccess<PF_HandleSuite2> handles(in_data);
  const PF_Handle handle = handles->host_new_handle(sizeof(GlobalData));
  if (!handle) {
    LOG_ERROR("Global Data Handle memory allocation failed");
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  out_data->global_data = handle;
  // Stays locked until GlobalSetdown: render threads read it without a lock.
  auto* global = static_cast<GlobalData*>(handles->host_lock_handle(handle));
  if (!global) {
    LOG_ERROR("Global Data memory allocation failed");
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }
  *global = GlobalData{};

  auto about = std::make_unique<AboutImage>();
  if (LoadAboutImage(in_data, about.get()) == PF_Err_NONE) {
    global->aboutImage = about.release();
  } else {
    // The effect works without its picture; the control keeps its size.
    LOG_ERROR("Error loading about image");
    CopyReturnMessage(in_data, out_data, "Cannot Load Image");
    out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
  }

  if (IsPremiere(in_data)) {
    // Results not looked at: without the declaration Premiere still renders,
    // only in its default format.
    ScopedSuite<PF_PixelFormatSuite1> formats(in_data, out_data);
    formats->ClearSupportedPixelFormats(in_data->effect_ref);
    formats->AddSupportedPixelFormat(in_data->effect_ref, kPremiereFloatBGRA);
  }
  return PF_Err_NONE;
}

PF_Err GlobalSetdown(PF_InData* in_data) {
  LOG_INFO("Clean data");
  if (!in_data->global_data) return PF_Err_NONE;

  SuiteAccess<PF_HandleSuite2> handles(in_data);
  auto* global = static_cast<GlobalData*>(handles->host_lock_handle(in_data->global_data));
  std::unique_ptr<AboutImage> about;
  if (global) {
    about.reset(global->aboutImage);
    global->aboutImage = nullptr;
  }
  if (about && about->pixels) {
    handles->host_unlock_handle(about->pixels);
    handles->host_dispose_handle(about->pixels);
  }
  handles->host_unlock_handle(in_data->global_data);
  handles->host_dispose_handle(in_data->global_data);
  return PF_Err_NONE;
}
