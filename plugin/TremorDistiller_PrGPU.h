// The Premiere Pro side of the module: the GPU filter the host creates per
// device and effect node through xGPUFilterEntry, apart from EffectMain.
#ifndef TREMORDISTILLER_PRGPU_H
#define TREMORDISTILLER_PRGPU_H

#include "PrGPU/PrSDKGPUFilter.h"
#include "PrGPU/PrSDKGPUSuites.h"
#include "TremorDistiller_FrameStack.h"
#include "TremorDistiller_GPURecords.h"

// The host's suites and parameter access; the host asks for this shape of
// object, whose slots the five entry functions forward to.
class PrGPUFilterBase {
 public:
  virtual ~PrGPUFilterBase() = default;
  virtual prSuiteError Initialize(PrGPUFilterInstance* ioInstanceData);
  virtual prSuiteError GetFrameDependencies(const PrGPUFilterRenderParams* inRenderParams, csSDK_int32* ioQueryIndex,
                                            PrGPUFilterFrameDependency* outFrameDependencies);
  virtual prSuiteError Precompute(const PrGPUFilterRenderParams* inRenderParams, csSDK_int32 inIndex, PPixHand inFrame);
  virtual prSuiteError Render(const PrGPUFilterRenderParams* inRenderParams, const PPixHand* inFrames,
                              size_t inFrameCount, PPixHand* outFrame) = 0;

 protected:
  // paramIndex is the row in the parameter table; the host counts without the
  // input layer. All zero after a failure, which is logged.
  PrParam GetParam(csSDK_int32 paramIndex, PrTime time);

  // The image processing, memory manager and transition suites are never
  // called: null where the host lacks them, which refuses nothing.
  const PrSDKGPUDeviceSuite* mGPUDeviceSuite = nullptr;
  const PrSDKGPUImageProcessingSuite* mGPUImageProcessingSuite = nullptr;
  const PrSDKMemoryManagerSuite* mMemoryManagerSuite = nullptr;
  const PrSDKPPixSuite* mPPixSuite = nullptr;
  const PrSDKPPix2Suite* mPPix2Suite = nullptr;
  const PrSDKTransitionSuite* mTransitionSuite = nullptr;
  const PrSDKVideoSegmentSuite* mVideoSegmentSuite = nullptr;
  piSuitesPtr mSuites = nullptr;
  PrTimelineID mTimelineID = 0;
  csSDK_int32 mNodeID = 0;
  csSDK_uint32 mDeviceIndex = 0;
  PrGPUDeviceInfo mDeviceInfo{};
};

class GPUTremorDistiller : public PrGPUFilterBase {
 public:
  ~GPUTremorDistiller() override;
  prSuiteError Initialize(PrGPUFilterInstance* ioInstanceData) override;
  prSuiteError GetFrameDependencies(const PrGPUFilterRenderParams* inRenderParams, csSDK_int32* ioQueryIndex,
                                    PrGPUFilterFrameDependency* outFrameDependencies) override;
  prSuiteError Render(const PrGPUFilterRenderParams* inRenderParams, const PPixHand* inFrames, size_t inFrameCount,
                      PPixHand* outFrame) override;

 private:
  // The controls a render reads, into `kd`, in the order Premiere is asked.
  void ReadControls(PrTime at, KernelData& kd);
  // The host's frames of a stack, centred on the job's output.
  prSuiteError AddStackFrames(const PPixHand* frames, size_t count, FrameStackJob& job);
  KernelList kernels{};
};

// The host's framework numbering to ours.
GPUFramework FrameworkFromPrDeviceFramework(PrGPUDeviceFramework framework);

#endif
