// The Premiere Pro GPU filter: the exported entry, the five functions it hands
// the host, and the filter that tells the host which frames a render needs and
// renders them through the frame-stack loop.
#include "TremorDistiller_PrGPU.h"

#include <cmath>
#include <cstring>
#include <new>

#include "AE_Effect.h"
#include "LogsController.h"
#include "TremorDistiller_AePrGPU_Functions.h"
#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Parameters.h"

GPUFramework FrameworkFromPrDeviceFramework(PrGPUDeviceFramework framework) {
  switch (framework) {
    case PrGPUDeviceFramework_CUDA: return CUDA;
    case PrGPUDeviceFramework_OpenCL: return OpenCL;
    case PrGPUDeviceFramework_Metal: return Metal;
    default: return GPU_FRAMEWORK_NONE;
  }
}

namespace {

// The filter calls four of the seven suites it keeps; the image processing,
// memory manager and transition suites are kept for the host's sake only.
enum class SuiteUse { Called, KeptOnly };

template <typename Suite>
prSuiteError Acquire(SPBasicSuite* basic, const char* name, int32_t version, const Suite** suite, SuiteUse use) {
  const void* table = nullptr;
  if (basic) basic->AcquireSuite(name, version, &table);
  *suite = static_cast<const Suite*>(table);
  if (table || use == SuiteUse::KeptOnly) return suiteError_NoError;
  // Every later call would go through this pointer: the instance is refused now.
  LOG_ERROR_IN("PrGPUFilterBase::Initialize", "Not able to acquire suite: ", name, " ", version);
  return kPrGPUFailureCode;
}

int32_t RowOf(int32_t diskId) { return FindParamIndex(diskId, ParamTable()); }

}  // namespace

// ---- PrGPUFilterBase ----

prSuiteError PrGPUFilterBase::Initialize(PrGPUFilterInstance* ioInstanceData) {
  mSuites = ioInstanceData->piSuites;
  mDeviceIndex = ioInstanceData->inDeviceIndex;
  mTimelineID = ioInstanceData->inTimelineID;
  mNodeID = ioInstanceData->inNodeID;
  SPBasicSuite* basic = mSuites && mSuites->utilFuncs ? mSuites->utilFuncs->getSPBasicSuite() : nullptr;
  // All seven are asked for, in this order, whatever becomes of the first;
  // only a missing one that the filter calls refuses the instance.
  const prSuiteError results[] = {
      Acquire(basic, kPrSDKGPUDeviceSuite, kPrSDKGPUDeviceSuiteVersion, &mGPUDeviceSuite, SuiteUse::Called),
      Acquire(basic, kPrSDKGPUImageProcessingSuite, kPrSDKGPUImageProcessingSuiteVersion, &mGPUImageProcessingSuite,
              SuiteUse::KeptOnly),
      Acquire(basic, kPrSDKMemoryManagerSuite, kPrSDKMemoryManagerSuiteVersion, &mMemoryManagerSuite,
              SuiteUse::KeptOnly),
      Acquire(basic, kPrSDKPPixSuite, kPrSDKPPixSuiteVersion, &mPPixSuite, SuiteUse::Called),
      Acquire(basic, kPrSDKPPix2Suite, kPrSDKPPix2SuiteVersion, &mPPix2Suite, SuiteUse::Called),
      Acquire(basic, kPrSDKTransitionSuite, kPrSDKTransitionSuiteVersion, &mTransitionSuite, SuiteUse::KeptOnly),
      Acquire(basic, kPrSDKVideoSegmentSuite, kPrSDKVideoSegmentSuiteVersion, &mVideoSegmentSuite, SuiteUse::Called)};
  for (const prSuiteError r : results)
    if (r != suiteError_NoError) return r;
  mGPUDeviceSuite->GetDeviceInfo(kPrSDKGPUDeviceSuiteVersion, mDeviceIndex, &mDeviceInfo);
  return suiteError_NoError;
}

prSuiteError PrGPUFilterBase::GetFrameDependencies(const PrGPUFilterRenderParams*, csSDK_int32*,
                                                   PrGPUFilterFrameDependency*) {
  return suiteError_NotImplemented;
}

prSuiteError PrGPUFilterBase::Precompute(const PrGPUFilterRenderParams*, csSDK_int32, PPixHand) {
  return suiteError_NotImplemented;
}

PrParam PrGPUFilterBase::GetParam(csSDK_int32 paramIndex, PrTime time) {
  PrParam param;
  std::memset(&param, 0, sizeof param);
  const prSuiteError result = mVideoSegmentSuite->GetParam(mNodeID, paramIndex - 1, time, &param);
  if (result != suiteError_NoError) {
    LOG_ERROR(result);
    std::memset(&param, 0, sizeof param);
  }
  return param;
}

// ---- GPUTremorDistiller ----

GPUTremorDistiller::~GPUTremorDistiller() {
  GPUDispose(FrameworkFromPrDeviceFramework(mDeviceInfo.outDeviceFramework), &kernels, kPrGPUFailureCode);
}

prSuiteError GPUTremorDistiller::Initialize(PrGPUFilterInstance* ioInstanceData) {
  const prSuiteError status = PrGPUFilterBase::Initialize(ioInstanceData);
  if (status != suiteError_NoError) return status;
  return InitializeGPU(FrameworkFromPrDeviceFramework(mDeviceInfo.outDeviceFramework), &kernels,
                       mDeviceInfo.outDeviceHandle, mDeviceInfo.outContextHandle, kPrGPUFailureCode);
}

prSuiteError GPUTremorDistiller::GetFrameDependencies(const PrGPUFilterRenderParams* inRenderParams,
                                                      csSDK_int32* ioQueryIndex,
                                                      PrGPUFilterFrameDependency* outFrameDependencies) {
  const PrTime clipTime = inRenderParams->inClipTime;
  const int64_t frames = WholeFrames(GetParam(RowOf(PARAM_FRAMES), clipTime).mFloat64);
  const int64_t offset = WholeFrames(GetParam(RowOf(PARAM_FRAMES_OFFSET), clipTime).mFloat64);
  // Query q asks for frame q + 1 of the stack; frames 1 to F - 1 are asked for.
  const int64_t i = static_cast<int64_t>(*ioQueryIndex) + 1;
  if (i < 1 || i > frames - 1) return suiteError_NoError;  // the list is complete

  const PrTime ticks = inRenderParams->inRenderTicksPerFrame;
  outFrameDependencies->outDependencyType = PrGPUDependency_InputFrame;
  outFrameDependencies->outSequenceTime = inRenderParams->inSequenceTime - i * offset * ticks;

  const double t = static_cast<double>(ticks);
  const double expected = std::trunc(static_cast<double>(inRenderParams->inSequenceTime) / t -
                                     static_cast<double>(i) * static_cast<double>(offset));
  const double asked = std::trunc(static_cast<double>(outFrameDependencies->outSequenceTime) / t);
  if (expected != asked) LOG_ERROR("Frame numbers are wrong!");
  ++*ioQueryIndex;
  return suiteError_NoError;
}

void GPUTremorDistiller::ReadControls(PrTime at, KernelData& kd) {
  // Premiere's order of asking; each value as After Effects would hold it.
  for (const int32_t id : {PARAM_FRAMES_FADE, PARAM_BLENDING_MODE, PARAM_DIFFERENCE_ALGORITHM, PARAM_OUTPUT,
                           PARAM_MOTION_AMPLIFICATION, PARAM_CHROMATIC_ABERRATION, PARAM_NORMALIZE}) {
    const PrParam p = GetParam(RowOf(id), at);
    switch (ParamTable()[FindParamIndex(id, ParamTable())].kind) {
      case ParamKind::Popup: ApplyControl(id, PopupFromPremiere(p.mInt8), kd, nullptr); break;
      case ParamKind::Checkbox: ApplyControl(id, p.mBool, kd, nullptr); break;
      default: ApplyControl(id, p.mFloat64, kd, nullptr); break;
    }
  }
}

prSuiteError GPUTremorDistiller::AddStackFrames(const PPixHand* frames, size_t count, FrameStackJob& job) {
  prSuiteError status = suiteError_NoError;
  for (size_t i = 0; i < count && status == 0; ++i) {
    prRect bounds{};
    csSDK_int32 frameRowBytes = 0;
    status = mPPixSuite->GetBounds(frames[i], &bounds);
    if (status == 0) status = mPPixSuite->GetRowBytes(frames[i], &frameRowBytes);
    const int32_t w = bounds.right - bounds.left, h = bounds.bottom - bounds.top;
    // Centred on the output; a larger frame is cropped around its centre.
    job.frames.push_back({frames[i], w, h, frameRowBytes, (job.output.width - w) / 2, (job.output.height - h) / 2});
  }
  return status;
}

prSuiteError GPUTremorDistiller::Render(const PrGPUFilterRenderParams* inRenderParams, const PPixHand* inFrames,
                                        size_t inFrameCount, PPixHand* outFrame) {
  KernelData kd{};
  kd.numFrames = static_cast<int>(inFrameCount);  // the host fetched the stack already
  ReadControls(inRenderParams->inClipTime, kd);

  if (!outFrame) {
    LOG_ERROR("Destination buffer is not available.");
    return kPrGPUFailureCode;
  }
  if (!inFrames || inFrameCount == 0) return suiteError_InvalidParms;  // nothing to take the properties from
  PrPixelFormat format = PrPixelFormat_Invalid;
  prSuiteError status = mPPixSuite->GetPixelFormat(*outFrame, &format);
  const int32_t width = static_cast<int16_t>(inRenderParams->inRenderWidth);
  const int32_t height = static_cast<int16_t>(inRenderParams->inRenderHeight);

  csSDK_uint32 device = 0, parNum = 0, parDen = 0;
  prFieldType field = prFieldsNone;
  if (status == 0) status = mGPUDeviceSuite->GetGPUPPixDeviceIndex(inFrames[0], &device);
  if (status == 0) status = mPPixSuite->GetPixelAspectRatio(inFrames[0], &parNum, &parDen);
  if (status == 0) status = mPPix2Suite->GetFieldOrder(inFrames[0], &field);
  const bool is16f = format != PrPixelFormat_GPU_BGRA_4444_32f;
  const int32_t pixelSize = is16f ? 8 : 16;
  if (status == 0)
    status = mGPUDeviceSuite->CreateGPUPPix(device, format, width, height, parNum, parDen, field, outFrame);
  csSDK_int32 rowBytes = 0;
  if (status == 0) status = mPPixSuite->GetRowBytes(*outFrame, &rowBytes);
  // The scratch frames would take these properties: without them there is nothing to make them with.
  if (status != 0) {
    LOG_ERROR("Cannot allocate GPU buffers");
    return kPrGPUFailureCode;
  }

  FrameStackJob job;
  job.output = {*outFrame, width, height, rowBytes, 0, 0};
  job.is16f = is16f;
  job.kernelData = &kd;
  if ((status = AddStackFrames(inFrames, inFrameCount, job)) != 0) return status;

  const GPUFramework framework = FrameworkFromPrDeviceFramework(mDeviceInfo.outDeviceFramework);
  ResizeKernelArgs canvas{};
  canvas.inDstPitch = rowBytes / pixelSize;
  canvas.in16f = is16f ? 1 : 0;
  canvas.outWidth = width;
  canvas.outHeight = height;

  FrameStackHost host;
  host.failureCode = kPrGPUFailureCode;
  host.createScratch = [&](int32_t, int32_t, bool mustClear, void** scratch) -> int32_t {
    PPixHand made = nullptr;
    const prSuiteError e = mGPUDeviceSuite->CreateGPUPPix(device, format, width, height, parNum, parDen, field, &made);
    *scratch = made;
    if (e != 0 || !made) {
      LOG_ERROR_IN("GPUTremorDistiller::Render", "Cannot allocate GPU buffers");
      return kPrGPUFailureCode;
    }
    // The host's new frames come uncleared; only a lone pair's empty
    // accumulation needs to be.
    void* buffer = nullptr;
    prSuiteError cleared = 0;
    if (mustClear) cleared = mGPUDeviceSuite->GetGPUPPixData(made, &buffer);
    if (mustClear && cleared == 0 && buffer)  // an empty buffer is the loop's to report
      cleared = GPUClear(framework, &kernels, mDeviceInfo.outCommandQueueHandle, buffer, canvas, 16, kPrGPUFailureCode);
    return cleared;
  };
  host.deviceBuffer = [&](void* frame, void** buffer) -> int32_t {
    if (!frame) return 0;  // an empty buffer, which the loop reports
    return mGPUDeviceSuite->GetGPUPPixData(static_cast<PPixHand>(frame), buffer);
  };
  host.disposeScratch = [&](void* frame) -> int32_t { return mPPixSuite->Dispose(static_cast<PPixHand>(frame)); };
  SetGPULaunches(host, framework, &kernels, mDeviceInfo.outContextHandle, mDeviceInfo.outCommandQueueHandle,
                 kPrGPUFailureCode);
  return RenderFrameStack(job, host);
}

// ---- The entry and the five functions ----

namespace {

PrGPUFilterBase* FilterOf(const PrGPUFilterInstance* instance) {
  return static_cast<PrGPUFilterBase*>(instance->ioPrivatePluginData);
}

prSuiteError CreateInstance(PrGPUFilterInstance* ioInstanceData) {
  auto* filter = new (std::nothrow) GPUTremorDistiller();
  if (!filter) return kPrGPUFailureCode;
  const prSuiteError result = filter->Initialize(ioInstanceData);
  if (result < 0) {
    delete filter;
    return result;
  }
  ioInstanceData->ioPrivatePluginData = filter;
  return result;
}

prSuiteError DisposeInstance(PrGPUFilterInstance* ioInstanceData) {
  delete FilterOf(ioInstanceData);
  ioInstanceData->ioPrivatePluginData = nullptr;
  return suiteError_NoError;
}

prSuiteError GetFrameDependencies(PrGPUFilterInstance* inInstanceData, const PrGPUFilterRenderParams* inRenderParams,
                                  csSDK_int32* ioQueryIndex, PrGPUFilterFrameDependency* outFrameDependencies) {
  return FilterOf(inInstanceData)->GetFrameDependencies(inRenderParams, ioQueryIndex, outFrameDependencies);
}

prSuiteError Precompute(PrGPUFilterInstance* inInstanceData, const PrGPUFilterRenderParams* inRenderParams,
                        csSDK_int32 inIndex, PPixHand inFrame) {
  return FilterOf(inInstanceData)->Precompute(inRenderParams, inIndex, inFrame);
}

prSuiteError Render(PrGPUFilterInstance* inInstanceData, const PrGPUFilterRenderParams* inRenderParams,
                    const PPixHand* inFrames, size_t inFrameCount, PPixHand* outFrame) {
  return FilterOf(inInstanceData)->Render(inRenderParams, inFrames, inFrameCount, outFrame);
}

}  // namespace

DllExport prSuiteError xGPUFilterEntry(csSDK_uint32, csSDK_int32* ioIndex, prBool inStartup, piSuitesPtr,
                                       PrGPUFilter* outFilter, PrGPUFilterInfo* outFilterInfo) {
  if (!inStartup) return suiteError_NoError;  // nothing to do at shutdown
  *outFilter = PrGPUFilter{CreateInstance, DisposeInstance, GetFrameDependencies, Precompute, Render};
  const csSDK_int32 k = *ioIndex + 1;
  if (k > 1) return suiteError_InvalidParms;  // one filter only
  if (k < 1) *ioIndex = k;
  outFilterInfo->outInterfaceVersion = 2;
  std::memset(reinterpret_cast<char*>(outFilterInfo) + sizeof outFilterInfo->outInterfaceVersion, 0, 16);
  return suiteError_NoError;
}
