// Stand-in for the host's GPU filter interface: the entry a module exports, the
// records of a filter instance and a render, and the host's status codes and
// pixel formats. Only what the effect reads or writes is declared.
#pragma once

#include <cstddef>
#include <cstdint>

#include "SPBasic.h"

typedef int32_t prSuiteError;
typedef int32_t csSDK_int32;
typedef uint32_t csSDK_uint32;
typedef int64_t PrTime;  // ticks
typedef int32_t prBool;

constexpr prSuiteError suiteError_NoError = 0;
constexpr prSuiteError suiteError_Fail = static_cast<prSuiteError>(0x80000000u);
constexpr prSuiteError suiteError_InvalidParms = static_cast<prSuiteError>(0x80000001u);
constexpr prSuiteError suiteError_NotImplemented = static_cast<prSuiteError>(0x80000004u);

// Four-character codes as their bytes lie in memory: 0x41444340 is "@CDA".
typedef uint32_t PrPixelFormat;
constexpr PrPixelFormat PrPixelFormat_GPU_BGRA_4444_32f = 0x41444340u;  // 16 bytes a pixel
constexpr PrPixelFormat PrPixelFormat_GPU_BGRA_4444_16f = 0x61444340u;  // "@CDa", 8 bytes a pixel
constexpr PrPixelFormat PrPixelFormat_Invalid = 0x66646162u;            // "badf"

typedef int32_t prFieldType;
constexpr prFieldType prFieldsNone = 0;

// A frame the host owns; the module sees only the handle.
typedef struct PPix* PPixHand;

typedef struct prRect {
  int32_t left, top, right, bottom;
} prRect;

// How a module reaches the host's basic suite.
typedef struct PlugUtilFuncs {
  SPBasicSuite* (*getSPBasicSuite)();
} PlugUtilFuncs;

typedef struct piSuites {
  int32_t piInterfaceVer;
  PlugUtilFuncs* utilFuncs;
} piSuites;
typedef piSuites* piSuitesPtr;

typedef int32_t PrTimelineID;

typedef struct PrGPUFilterInstance {
  piSuitesPtr piSuites;
  csSDK_uint32 inDeviceIndex;
  PrTimelineID inTimelineID;
  csSDK_int32 inNodeID;
  void* ioPrivatePluginData;  // the module's own object
} PrGPUFilterInstance;

typedef struct PrGPUFilterRenderParams {
  PrTime inClipTime;      // parameters are read here
  PrTime inSequenceTime;  // requested frames are counted from here
  uint32_t inRenderWidth;
  uint32_t inRenderHeight;
  PrTime inRenderTicksPerFrame;
} PrGPUFilterRenderParams;

typedef int32_t PrGPUDependencyType;
constexpr PrGPUDependencyType PrGPUDependency_InputFrame = 1;

typedef struct PrGPUFilterFrameDependency {
  PrGPUDependencyType outDependencyType;
  PrTime outSequenceTime;
} PrGPUFilterFrameDependency;

typedef struct PrGPUFilter {
  prSuiteError (*CreateInstance)(PrGPUFilterInstance* ioInstanceData);
  prSuiteError (*DisposeInstance)(PrGPUFilterInstance* ioInstanceData);
  prSuiteError (*GetFrameDependencies)(PrGPUFilterInstance* inInstanceData,
                                       const PrGPUFilterRenderParams* inRenderParams, csSDK_int32* ioQueryIndex,
                                       PrGPUFilterFrameDependency* outFrameDependencies);
  prSuiteError (*Precompute)(PrGPUFilterInstance* inInstanceData, const PrGPUFilterRenderParams* inRenderParams,
                             csSDK_int32 inIndex, PPixHand inFrame);
  prSuiteError (*Render)(PrGPUFilterInstance* inInstanceData, const PrGPUFilterRenderParams* inRenderParams,
                         const PPixHand* inFrames, size_t inFrameCount, PPixHand* outFrame);
} PrGPUFilter;

typedef struct PrSDKString {
  uint32_t opaque[2];
} PrSDKString;

typedef struct PrGPUFilterInfo {
  csSDK_uint32 outInterfaceVersion;
  PrSDKString outMatchName;  // with the next, the 16 bytes the module zeroes
  PrSDKString outIgnoredName;
} PrGPUFilterInfo;
static_assert(sizeof(PrGPUFilterInfo) == 20, "interface version, then 16 bytes");

typedef int32_t PrGPUDeviceFramework;
constexpr PrGPUDeviceFramework PrGPUDeviceFramework_CUDA = 0;
constexpr PrGPUDeviceFramework PrGPUDeviceFramework_OpenCL = 1;
constexpr PrGPUDeviceFramework PrGPUDeviceFramework_Metal = 2;

typedef struct PrGPUDeviceInfo {
  PrGPUDeviceFramework outDeviceFramework;
  void* outPlatformHandle;
  void* outDeviceHandle;        // cl_device_id, CUdevice
  void* outContextHandle;       // cl_context, CUcontext
  void* outCommandQueueHandle;  // cl_command_queue, CUstream
} PrGPUDeviceInfo;

// A parameter's value at a time: a type tag, then the value straight after it.
typedef int32_t PrParamType;
enum : PrParamType {
  kPrParamType_Int8 = 1,
  kPrParamType_Int16,
  kPrParamType_Int32,
  kPrParamType_Int64,
  kPrParamType_Float32,
  kPrParamType_Float64,
  kPrParamType_Bool
};

#pragma pack(push, 1)
typedef struct PrParam {
  PrParamType mType;
  union {
    int8_t mInt8;
    int16_t mInt16;
    int32_t mInt32;
    int64_t mInt64;
    float mFloat32;
    double mFloat64;
    uint8_t mBool;
  };
} PrParam;
#pragma pack(pop)
static_assert(offsetof(PrParam, mFloat64) == 4, "the value follows the tag directly");

// The exported entry: fills the filter's functions for index *ioIndex.
typedef prSuiteError (*PrGPUFilterEntry)(csSDK_uint32 inHostInterfaceVersion, csSDK_int32* ioIndex, prBool inStartup,
                                         piSuitesPtr piSuites, PrGPUFilter* outFilter, PrGPUFilterInfo* outFilterInfo);
