// The After Effects side of the GPU: a device's kernels in a host handle that
// the host carries as gpu_data, and the frame-stack loop run on the host's GPU
// worlds through its GPU device suite.
#include "TremorDistiller_AePrGPU_Functions.h"

#include <algorithm>
#include <cstring>

#include "LogsController.h"
#include "TremorDistiller.h"

namespace {

// The list is the handle's content, read without locking it.
KernelList* KernelListOf(const void* gpu_data) {
  return gpu_data ? static_cast<KernelList*>(*static_cast<void* const*>(gpu_data)) : nullptr;
}

// A set-up that fails between the two kernels has made the first already; the
// handle goes back to the host, so the kernel would be lost with it.
void ReleaseLeftoverKernels(GPUFramework framework, KernelList* list) {
  if (framework != OpenCL || !list) return;
  for (KernelEntry& entry : list->entries) {
    if (entry.kernel) GetOpenCLCalls().releaseKernel(static_cast<cl_kernel>(entry.kernel));
    entry.kernel = nullptr;
  }
}

}  // namespace

PF_Err SmartRenderGPU(PF_InData* in_data, PF_OutData* out_data, PF_PixelFormat format, PF_EffectWorld** frames,
                      PF_EffectWorld* output, PF_SmartRenderExtra* extra, KernelData* kernelData) {
  ScopedSuite<PF_GPUDeviceSuite1> gpu(in_data, out_data);
  PF_GPUDeviceInfo info{};
  PF_Err err = PF_Err_UNRECOGNIZED_PARAM_TYPE;
  if (format == PF_PixelFormat_GPU_BGRA128)
    err = gpu->GetDeviceInfo(in_data->effect_ref, extra->input->device_index, &info);

  const GPUFramework framework = FrameworkFromAeWhatGpu(extra->input->what_gpu);
  if (framework == GPU_FRAMEWORK_NONE) {
    LOG_ERROR("Something wrong with GPU");
    return kAeGPUFailureCode;
  }
  if (err) return err;

  if (!output || !frames || !kernelData) {
    LOG_ERROR("Input or Output data is unavailable");
    return kAeGPUFailureCode;
  }

  // Only the first 50 frames have origins, and the caller's list holds no
  // more: a record asking for more is refused by the loop as a short stack
  // instead of being read past its end.
  FrameStackJob job;
  const int stack = std::clamp(kernelData->numFrames, 0, KERNEL_DATA_MAX_FRAMES);
  for (int i = 0; i < stack; ++i) {
    PF_EffectWorld* f = frames[i];
    job.frames.push_back(
        {f, f ? f->width : 0, f ? f->height : 0, f ? f->rowbytes : 0, kernelData->originH[i], kernelData->originV[i]});
  }
  job.output = {output, output->width, output->height, output->rowbytes, 0, 0};
  job.is16f = false;  // only the 128-bit format gets here
  job.kernelData = kernelData;

  const PF_ProgPtr effect = in_data->effect_ref;
  const A_u_long device = extra->input->device_index;
  const KernelList* kernels = KernelListOf(extra->input->gpu_data);

  // A scratch buffer's handle is its GPU world, so disposing gets the world.
  FrameStackHost host;
  host.failureCode = kAeGPUFailureCode;
  host.createScratch = [&](int32_t width, int32_t height, bool, void** scratch) -> int32_t {
    // Always asked cleared, which also covers the buffers the loop needs empty.
    PF_EffectWorld* world = nullptr;
    const PF_Err e =
        gpu->CreateGPUWorld(effect, device, width, height, output->pix_aspect_ratio, in_data->field, format, 1, &world);
    *scratch = e ? nullptr : world;
    return e;
  };
  host.deviceBuffer = [&](void* world, void** buffer) -> int32_t {
    if (!world) return 0;  // an empty buffer, which the loop reports
    return gpu->GetGPUWorldData(effect, static_cast<PF_EffectWorld*>(world), buffer);
  };
  host.disposeScratch = [&](void* world) -> int32_t {
    return gpu->DisposeGPUWorld(effect, static_cast<PF_EffectWorld*>(world));
  };
  SetGPULaunches(host, framework, kernels, info.contextPV, info.command_queuePV, kAeGPUFailureCode);
  return RenderFrameStack(job, host);
}

PF_Err GPUDeviceSetup(PF_InData* in_data, PF_OutData* out_data, PF_GPUDeviceSetupExtra* extra) {
  ScopedSuite<PF_HandleSuite2> handles(in_data, out_data);
  ScopedSuite<PF_GPUDeviceSuite1> gpu(in_data, out_data);

  PF_GPUDeviceInfo info{};
  gpu->GetDeviceInfo(in_data->effect_ref, extra->input->device_index, &info);
  out_data->out_flags |= PF_OutFlag_REFRESH_UI;

  PF_Handle handle = handles->host_new_handle(sizeof(KernelList));
  KernelList* list = handle ? static_cast<KernelList*>(*handle) : nullptr;
  // The host's memory comes uninitialised; teardown releases every non-null
  // kernel, and a CUDA list is never written after this.
  if (list) std::memset(list, 0, sizeof *list);

  const GPUFramework framework = FrameworkFromAeWhatGpu(extra->input->what_gpu);
  const PF_Err err = InitializeGPU(framework, list, info.devicePV, info.contextPV, kAeGPUFailureCode);
  if (err == PF_Err_NONE) {
    extra->output->gpu_data = handle;
    out_data->out_flags2 = PF_OutFlag2_SUPPORTS_GPU_RENDER_F32;
  } else if (handle) {
    // The host never sees a failed device's handle and no set-down will come
    // for it, so it goes back now.
    ReleaseLeftoverKernels(framework, list);
    handles->host_dispose_handle(handle);
  }
  return err;
}

PF_Err GPUDeviceSetdown(PF_InData* in_data, PF_OutData* out_data, PF_GPUDeviceSetdownExtra* extra) {
  ScopedSuite<PF_HandleSuite2> handles(in_data, out_data);
  if (!extra->input->gpu_data) return PF_Err_NONE;
  const PF_Err err = GPUDispose(FrameworkFromAeWhatGpu(extra->input->what_gpu), KernelListOf(extra->input->gpu_data),
                                kAeGPUFailureCode);
  handles->host_dispose_handle(static_cast<PF_Handle>(extra->input->gpu_data));
  return err;
}
