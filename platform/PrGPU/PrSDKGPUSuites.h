// Stand-ins for the host suites a GPU filter acquires through the basic suite,
// by name and version, with the members the effect calls. Every member returns
// 0 for success.
#pragma once

#include "PrGPU/PrSDKGPUFilter.h"

#define kPrSDKGPUDeviceSuite "MediaCore GPU Device Suite"
#define kPrSDKGPUDeviceSuiteVersion 2
#define kPrSDKGPUImageProcessingSuite "MediaCore GPU Image Processing Suite"
#define kPrSDKGPUImageProcessingSuiteVersion 1
#define kPrSDKMemoryManagerSuite "Premiere Memory Manager Suite"
#define kPrSDKMemoryManagerSuiteVersion 4
#define kPrSDKPPixSuite "Premiere PPix Suite"
#define kPrSDKPPixSuiteVersion 1
#define kPrSDKPPix2Suite "Premiere PPix 2 Suite"
#define kPrSDKPPix2SuiteVersion 3
#define kPrSDKTransitionSuite "PF Transition Suite"
#define kPrSDKTransitionSuiteVersion 2
#define kPrSDKVideoSegmentSuite "MediaCore Video Segment Suite"
#define kPrSDKVideoSegmentSuiteVersion 9

typedef struct PrSDKGPUDeviceSuite {
  prSuiteError (*GetDeviceInfo)(csSDK_uint32 inSuiteVersion, csSDK_uint32 inDeviceIndex,
                                PrGPUDeviceInfo* outDeviceInfo);
  // A new frame on the device; its content is undefined.
  prSuiteError (*CreateGPUPPix)(csSDK_uint32 inDeviceIndex, PrPixelFormat inPixelFormat, int32_t inWidth,
                                int32_t inHeight, csSDK_uint32 inPARNumerator, csSDK_uint32 inPARDenominator,
                                prFieldType inFieldType, PPixHand* outPPixHand);
  // A device pointer on CUDA, a cl_mem on OpenCL.
  prSuiteError (*GetGPUPPixData)(PPixHand inPPixHand, void** outData);
  prSuiteError (*GetGPUPPixDeviceIndex)(PPixHand inPPixHand, csSDK_uint32* outDeviceIndex);
} PrSDKGPUDeviceSuite;

typedef struct PrSDKPPixSuite {
  prSuiteError (*Dispose)(PPixHand inPPixHand);
  prSuiteError (*GetPixelFormat)(PPixHand inPPixHand, PrPixelFormat* outPixelFormat);
  prSuiteError (*GetBounds)(PPixHand inPPixHand, prRect* outBounds);
  prSuiteError (*GetRowBytes)(PPixHand inPPixHand, csSDK_int32* outRowBytes);
  prSuiteError (*GetPixelAspectRatio)(PPixHand inPPixHand, csSDK_uint32* outNumerator, csSDK_uint32* outDenominator);
} PrSDKPPixSuite;

typedef struct PrSDKPPix2Suite {
  prSuiteError (*GetFieldOrder)(PPixHand inPPixHand, prFieldType* outFieldType);
} PrSDKPPix2Suite;

typedef struct PrSDKVideoSegmentSuite {
  // inIndex counts the effect's parameters without its input.
  prSuiteError (*GetParam)(csSDK_int32 inNodeID, csSDK_int32 inIndex, PrTime inTime, PrParam* outParam);
} PrSDKVideoSegmentSuite;

// Acquired and kept, but none of their members is called.
typedef struct PrSDKGPUImageProcessingSuite PrSDKGPUImageProcessingSuite;
typedef struct PrSDKMemoryManagerSuite PrSDKMemoryManagerSuite;
typedef struct PrSDKTransitionSuite PrSDKTransitionSuite;
