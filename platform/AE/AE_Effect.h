// Stand-in declarations of the After Effects effect API, written from what the
// effect relies on: commands, error codes, flags, the records the host passes
// with each command, and the callbacks in them. Names and the values the effect
// depends on are the host's; layouts are our own.
#pragma once

#include <cstdint>

#include "SPBasic.h"

typedef int32_t A_long;
typedef uint32_t A_u_long;
typedef int16_t A_short;
typedef uint16_t A_u_short;
typedef uint8_t A_u_char;
typedef int64_t A_longlong;
typedef uint64_t A_u_longlong;
typedef uint8_t PF_Boolean;
typedef int32_t PF_Err;
typedef int32_t PF_Cmd;
typedef A_long PF_ParamIndex;
typedef A_long PF_ParamValue;
typedef void* PF_ProgPtr;  // the host's reference to an effect instance
typedef void** PF_Handle;  // host memory; lock it to reach the contents
typedef A_long PF_Field;
typedef A_long PF_ChannelMask;
typedef A_u_long PF_PixelFormat;

// Four bytes as they stand in memory, read as a little-endian 32-bit code.
constexpr PF_PixelFormat PF_FourCharCode(const char (&s)[5]) {
  return static_cast<PF_PixelFormat>(static_cast<uint8_t>(s[0])) |
         static_cast<PF_PixelFormat>(static_cast<uint8_t>(s[1])) << 8 |
         static_cast<PF_PixelFormat>(static_cast<uint8_t>(s[2])) << 16 |
         static_cast<PF_PixelFormat>(static_cast<uint8_t>(s[3])) << 24;
}

enum {
  PF_Cmd_ABOUT = 0,
  PF_Cmd_GLOBAL_SETUP,
  PF_Cmd_UNUSED_0,
  PF_Cmd_GLOBAL_SETDOWN,
  PF_Cmd_PARAMS_SETUP,
  PF_Cmd_SEQUENCE_SETUP,
  PF_Cmd_SEQUENCE_RESETUP,
  PF_Cmd_SEQUENCE_FLATTEN,
  PF_Cmd_SEQUENCE_SETDOWN,
  PF_Cmd_DO_DIALOG,
  PF_Cmd_FRAME_SETUP,
  PF_Cmd_RENDER,
  PF_Cmd_FRAME_SETDOWN,
  PF_Cmd_USER_CHANGED_PARAM,
  PF_Cmd_UPDATE_PARAMS_UI,
  PF_Cmd_EVENT,
  PF_Cmd_GET_EXTERNAL_DEPENDENCIES,
  PF_Cmd_COMPLETELY_GENERAL,
  PF_Cmd_QUERY_DYNAMIC_FLAGS,
  PF_Cmd_AUDIO_RENDER,
  PF_Cmd_AUDIO_SETUP,
  PF_Cmd_AUDIO_SETDOWN,
  PF_Cmd_ARBITRARY_CALLBACK,
  PF_Cmd_SMART_PRE_RENDER,
  PF_Cmd_SMART_RENDER,
  PF_Cmd_RESERVED1,
  PF_Cmd_RESERVED2,
  PF_Cmd_RESERVED3,
  PF_Cmd_GET_FLATTENED_SEQUENCE_DATA,
  PF_Cmd_TRANSLATE_PARAMS_TO_PREFS,
  PF_Cmd_RESERVED4,
  PF_Cmd_SMART_RENDER_GPU,
  PF_Cmd_GPU_DEVICE_SETUP,
  PF_Cmd_GPU_DEVICE_SETDOWN,
  PF_Cmd_NUM_CMDS
};

enum {
  PF_Err_NONE = 0,
  PF_Err_OUT_OF_MEMORY = 4,
  PF_Err_INTERNAL_STRUCT_DAMAGED = 512,
  PF_Err_INVALID_INDEX = 513,
  PF_Err_UNRECOGNIZED_PARAM_TYPE = 514,
  PF_Err_INVALID_CALLBACK = 515,
  PF_Err_BAD_CALLBACK_PARAM = 516,
  PF_Interrupt_CANCEL = 517,
  PF_Err_CANNOT_PARSE_KEYFRAME_TEXT = 518
};

// The host's application id for Premiere Pro; any other is After Effects.
constexpr A_long PF_APPL_ID_PREMIERE = 0x50724D72;

enum {
  PF_OutFlag_NONE = 0,
  PF_OutFlag_WIDE_TIME_INPUT = 1L << 1,
  PF_OutFlag_NON_PARAM_VARY = 1L << 2,
  PF_OutFlag_DISPLAY_ERROR_MESSAGE = 1L << 8,
  PF_OutFlag_PIX_INDEPENDENT = 1L << 10,
  PF_OutFlag_CUSTOM_UI = 1L << 15,
  PF_OutFlag_REFRESH_UI = 1L << 17,
  PF_OutFlag_DEEP_COLOR_AWARE = 1L << 25,
  PF_OutFlag_SEND_UPDATE_PARAMS_UI = 1L << 26
};

enum {
  PF_OutFlag2_NONE = 0,
  PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG = 1L << 3,
  PF_OutFlag2_SUPPORTS_SMART_RENDER = 1L << 10,
  PF_OutFlag2_FLOAT_COLOR_AWARE = 1L << 12,
  PF_OutFlag2_CUSTOM_UI_ASYNC_MANAGER = 1L << 24,
  PF_OutFlag2_SUPPORTS_GPU_RENDER_F32 = 1L << 25,
  PF_OutFlag2_SUPPORTS_THREADED_RENDERING = 1L << 27
};

typedef A_long PF_RenderOutputFlags;
enum { PF_RenderOutputFlag_RETURNS_EXTRA_PIXELS = 1, PF_RenderOutputFlag_GPU_RENDER_POSSIBLE = 2 };

// what_gpu
typedef A_long PF_GPU_Framework;
enum { PF_GPU_Framework_NONE = 0, PF_GPU_Framework_OPENCL = 1, PF_GPU_Framework_METAL = 2, PF_GPU_Framework_CUDA = 3 };

constexpr PF_PixelFormat PF_PixelFormat_ARGB32 = PF_FourCharCode("argb");
constexpr PF_PixelFormat PF_PixelFormat_ARGB64 = PF_FourCharCode("ae16");
constexpr PF_PixelFormat PF_PixelFormat_ARGB128 = PF_FourCharCode("ae32");
constexpr PF_PixelFormat PF_PixelFormat_GPU_BGRA128 = PF_FourCharCode("@CDA");
constexpr PF_PixelFormat PF_PixelFormat_INVALID = PF_FourCharCode("badf");
static_assert(PF_PixelFormat_GPU_BGRA128 == 0x41444340, "GPU float format code");
static_assert(PF_PixelFormat_INVALID == 0x66646162, "invalid format code");

typedef A_long PF_ParamType;
enum {
  PF_Param_LAYER = 0,
  PF_Param_ANGLE = 3,
  PF_Param_CHECKBOX = 4,
  PF_Param_POPUP = 7,
  PF_Param_NO_DATA = 9,
  PF_Param_FLOAT_SLIDER = 10,
  PF_Param_GROUP_START = 13,
  PF_Param_GROUP_END = 14
};

enum { PF_PUI_CONTROL = 1L << 1, PF_PUI_DONT_ERASE_CONTROL = 1L << 7 };

enum { PF_ValueDisplayFlag_PERCENT = 1 };

enum { PF_CustomEFlag_COMP = 1L << 0, PF_CustomEFlag_LAYER = 1L << 1, PF_CustomEFlag_EFFECT = 1L << 2 };

#define PF_MAX_EFFECT_MSG_LEN 255
#define PF_MAX_EFFECT_PARAM_NAME_LEN 31

typedef struct PF_RationalScale {
  A_long num;
  A_u_long den;
} PF_RationalScale;

typedef struct PF_LRect {
  A_long left, top, right, bottom;
} PF_LRect;

// A frame or layer of pixels in host memory (software) or a GPU world.
typedef struct PF_EffectWorld {
  void* data;  // pixels, or the host's GPU world record
  A_long rowbytes;
  A_long width;
  A_long height;
  PF_RationalScale pix_aspect_ratio;
  PF_LRect extent_hint;
  void* platform_ref;  // host-private
} PF_EffectWorld;
typedef PF_EffectWorld PF_LayerDef;

typedef struct PF_PopupDef {
  A_long value;
  A_short num_choices;
  A_short dephault;
  union {
    const char* namesptr;
  } u;
} PF_PopupDef;

typedef struct PF_CheckBoxDef {
  PF_ParamValue value;
  PF_Boolean dephault;
  union {
    const char* nameptr;
  } u;
} PF_CheckBoxDef;

typedef struct PF_FloatSliderDef {
  double value;
  float valid_min, valid_max;
  float slider_min, slider_max;
  float dephault;
  A_short precision;
  A_short display_flags;
  float curve_tolerance;
} PF_FloatSliderDef;

typedef struct PF_AngleDef {
  A_long value;  // 16.16 fixed point degrees
  A_long dephault;
} PF_AngleDef;

typedef union PF_ParamDefUnion {
  PF_LayerDef ld;
  PF_PopupDef pd;
  PF_CheckBoxDef bd;
  PF_FloatSliderDef fs_d;
  PF_AngleDef ad;
} PF_ParamDefUnion;

typedef struct PF_ParamDef {
  union {
    A_long id;
    A_long change_flags;
  } uu;
  A_long ui_flags;
  A_short ui_width;
  A_short ui_height;
  PF_ParamType param_type;
  char name[32];
  A_long flags;
  PF_ParamDefUnion u;
} PF_ParamDef, *PF_ParamDefPtr, **PF_ParamList;

typedef struct PF_CustomUIInfo {
  A_long events;
  A_long comp_ui_width, comp_ui_height, comp_ui_alignment;
  A_long layer_ui_width, layer_ui_height, layer_ui_alignment;
  A_long preview_ui_width, preview_ui_height, preview_ui_alignment;
} PF_CustomUIInfo;

typedef struct PF_InteractCallbacks {
  PF_Err (*checkout_param)(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long what_time, A_long time_step,
                           A_u_long time_scale, PF_ParamDef* param);
  PF_Err (*checkin_param)(PF_ProgPtr effect_ref, PF_ParamDef* param);
  PF_Err (*add_param)(PF_ProgPtr effect_ref, PF_ParamIndex index, PF_ParamDefPtr def);
  PF_Err (*register_ui)(PF_ProgPtr effect_ref, PF_CustomUIInfo* cust_info);
} PF_InteractCallbacks;

typedef struct PF_ANSICallbacks {
  A_long (*sprintf)(char* buffer, const char* format, ...);
  char* (*strcpy)(char* dest, const char* src);
} PF_ANSICallbacks;

typedef struct PF_UtilCallbacks {
  PF_ANSICallbacks ansi;
} PF_UtilCallbacks;

typedef struct PF_SpecVersion {
  A_short major;
  A_short minor;
} PF_SpecVersion;

typedef struct PF_InData {
  PF_InteractCallbacks inter;
  PF_UtilCallbacks* utils;
  PF_ProgPtr effect_ref;
  PF_SpecVersion version;
  A_long appl_id;
  A_long current_time;
  A_long time_step;
  A_u_long time_scale;
  PF_Field field;
  A_long width;
  A_long height;
  PF_RationalScale downsample_x;
  PF_RationalScale downsample_y;
  PF_Handle global_data;
  PF_Handle sequence_data;
  PF_Handle frame_data;
  SPBasicSuite* pica_basicP;
} PF_InData;

typedef struct PF_OutData {
  A_u_long my_version;
  A_long out_flags;
  A_long out_flags2;
  A_long num_params;
  PF_Handle global_data;
  PF_Handle sequence_data;
  PF_Handle frame_data;
  char return_msg[PF_MAX_EFFECT_MSG_LEN + 1];
} PF_OutData;

#define PF_ADD_PARAM(in_data, index, def) ((in_data)->inter.add_param((in_data)->effect_ref, (index), (def)))
#define PF_CHECKOUT_PARAM(in_data, index, t, step, scale, param) \
  ((in_data)->inter.checkout_param((in_data)->effect_ref, (index), (t), (step), (scale), (param)))
#define PF_CHECKIN_PARAM(in_data, param) ((in_data)->inter.checkin_param((in_data)->effect_ref, (param)))

// ---- Smart pre-render (PF_Cmd_SMART_PRE_RENDER) ----

typedef struct PF_RenderRequest {
  PF_LRect rect;
  PF_Field field;
  PF_ChannelMask channel_mask;
  PF_Boolean preserve_rgb_of_zero_alpha;
} PF_RenderRequest;

typedef struct PF_CheckoutResult {
  PF_LRect result_rect;
  PF_LRect max_result_rect;
  PF_RationalScale par;
  A_long solid;
  A_long ref_width, ref_height;
} PF_CheckoutResult;

typedef void (*PF_DeletePreRenderDataFunc)(void* pre_render_data);

typedef struct PF_PreRenderInput {
  PF_RenderRequest output_request;
  A_short bitdepth;
  const void* gpu_data;
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_PreRenderInput;

typedef struct PF_PreRenderOutput {
  PF_LRect result_rect;
  PF_LRect max_result_rect;
  PF_Boolean solid;
  PF_RenderOutputFlags flags;
  void* pre_render_data;
  PF_DeletePreRenderDataFunc delete_pre_render_data_func;
} PF_PreRenderOutput;

typedef struct PF_PreRenderCallbacks {
  PF_Err (*checkout_layer)(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long checkout_idx, const PF_RenderRequest* req,
                           A_long what_time, A_long time_step, A_u_long time_scale, PF_CheckoutResult* result);
} PF_PreRenderCallbacks;

typedef struct PF_PreRenderExtra {
  PF_PreRenderInput* input;
  PF_PreRenderOutput* output;
  PF_PreRenderCallbacks* cb;
} PF_PreRenderExtra;

// ---- Smart render (PF_Cmd_SMART_RENDER, PF_Cmd_SMART_RENDER_GPU) ----

typedef struct PF_SmartRenderInput {
  PF_RenderRequest output_request;
  A_short bitdepth;
  void* pre_render_data;
  const void* gpu_data;
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_SmartRenderInput;

typedef struct PF_SmartRenderCallbacks {
  // May give a null world without an error where the host has no frame.
  PF_Err (*checkout_layer_pixels)(PF_ProgPtr effect_ref, A_long checkout_idx, PF_EffectWorld** pixels);
  PF_Err (*checkin_layer_pixels)(PF_ProgPtr effect_ref, A_long checkout_idx);
  PF_Err (*checkout_output)(PF_ProgPtr effect_ref, PF_EffectWorld** output);
} PF_SmartRenderCallbacks;

typedef struct PF_SmartRenderExtra {
  PF_SmartRenderInput* input;
  PF_SmartRenderCallbacks* cb;
} PF_SmartRenderExtra;

// ---- GPU device set-up and set-down ----

typedef struct PF_GPUDeviceSetupInput {
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_GPUDeviceSetupInput;

typedef struct PF_GPUDeviceSetupOutput {
  void* gpu_data;
} PF_GPUDeviceSetupOutput;

typedef struct PF_GPUDeviceSetupExtra {
  PF_GPUDeviceSetupInput* input;
  PF_GPUDeviceSetupOutput* output;
} PF_GPUDeviceSetupExtra;

typedef struct PF_GPUDeviceSetdownInput {
  void* gpu_data;
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_GPUDeviceSetdownInput;

typedef struct PF_GPUDeviceSetdownExtra {
  PF_GPUDeviceSetdownInput* input;
} PF_GPUDeviceSetdownExtra;

// ---- Entry points ----

#if defined(_WIN32)
#define DllExport extern "C" __declspec(dllexport)
#else
#define DllExport extern "C" __attribute__((visibility("default")))
#endif

extern "C" {
typedef PF_Err (*PF_EffectMainFunc)(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                                    PF_LayerDef* output, void* extra);

typedef void* PF_PluginDataPtr;
typedef PF_Err (*PF_PluginDataCB)(PF_PluginDataPtr inPtr, const A_u_char* inNameZ, const A_u_char* inMatchNameZ,
                                  const A_u_char* inCategoryZ, const A_u_char* inEntryPointNameZ, A_long inkind,
                                  A_long inApiVersionMajor, A_long inApiVersionMinor, A_long inReservedInfo);
typedef PF_Err (*PF_PluginDataEntryFunc)(PF_PluginDataPtr inPtr, PF_PluginDataCB inPluginDataCallBackPtr,
                                         SPBasicSuite* inSPBasicSuitePtr, const char* inHostName,
                                         const char* inHostVersion);
}
