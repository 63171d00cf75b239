// Stand-in declarations of the host suites the effect acquires by name and
// version through the basic suite.
#pragma once

#include "AE_Effect.h"

#define kPFHandleSuite "PF Handle Suite"
#define kPFHandleSuiteVersion2 2
#define kPFWorldSuite "PF World Suite"
#define kPFWorldSuiteVersion2 2
#define kPFGPUDeviceSuite "PF GPU Device Suite"
#define kPFGPUDeviceSuiteVersion1 1
#define kPFPixelFormatSuite "PF Pixel Format Suite"
#define kPFPixelFormatSuiteVersion1 1
#define kPFANSISuite "PF ANSI Suite"
#define kPFANSISuiteVersion1 1

typedef struct PF_HandleSuite2 {
  PF_Handle (*host_new_handle)(A_u_longlong size);
  void* (*host_lock_handle)(PF_Handle handle);
  void (*host_unlock_handle)(PF_Handle handle);
  void (*host_dispose_handle)(PF_Handle handle);
  A_u_longlong (*host_get_handle_size)(PF_Handle handle);
} PF_HandleSuite2;

typedef struct PF_WorldSuite2 {
  PF_Err (*PF_GetPixelFormat)(const PF_EffectWorld* world, PF_PixelFormat* pixel_format);
} PF_WorldSuite2;

typedef struct PF_GPUDeviceInfo {
  PF_GPU_Framework device_framework;
  PF_Boolean compatibleB;
  void* platformPV;
  void* devicePV;         // cl_device_id, CUdevice
  void* contextPV;        // cl_context, CUcontext
  void* command_queuePV;  // cl_command_queue, CUstream
} PF_GPUDeviceInfo;

typedef struct PF_GPUDeviceSuite1 {
  PF_Err (*GetDeviceInfo)(PF_ProgPtr effect_ref, A_u_long device_index, PF_GPUDeviceInfo* device_info);
  PF_Err (*CreateGPUWorld)(PF_ProgPtr effect_ref, A_u_long device_index, A_long width, A_long height,
                           PF_RationalScale pixel_aspect_ratio, PF_Field field, PF_PixelFormat pixel_format,
                           PF_Boolean clear_pix, PF_EffectWorld** world);
  PF_Err (*DisposeGPUWorld)(PF_ProgPtr effect_ref, PF_EffectWorld* world);
  // The device memory of a GPU world: a CUDA pointer or a cl_mem.
  PF_Err (*GetGPUWorldData)(PF_ProgPtr effect_ref, PF_EffectWorld* world, void** pixels);
} PF_GPUDeviceSuite1;

typedef struct PF_PixelFormatSuite1 {
  PF_Err (*ClearSupportedPixelFormats)(PF_ProgPtr effect_ref);
  PF_Err (*AddSupportedPixelFormat)(PF_ProgPtr effect_ref, PF_PixelFormat pixel_format);
  PF_Err (*GetPixelFormat)(const PF_EffectWorld* world, PF_PixelFormat* pixel_format);
} PF_PixelFormatSuite1;

typedef struct PF_ANSICallbacksSuite1 {
  A_long (*sprintf)(char* buffer, const char* format, ...);
} PF_ANSICallbacksSuite1;
