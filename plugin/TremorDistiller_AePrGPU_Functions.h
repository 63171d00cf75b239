// Device set-up and teardown, the OpenCL program build and the GPU pass, shared
// by the After Effects and Premiere GPU units. Each unit compiles this header
// for itself after defining GPU_FAILURE_CODE, the one thing in which the two
// sides differ (512 on After Effects, 0x80000000 on Premiere).
#ifndef TREMORDISTILLER_AEPRGPU_FUNCTIONS_H
#define TREMORDISTILLER_AEPRGPU_FUNCTIONS_H

#ifndef GPU_FAILURE_CODE
#error "Define GPU_FAILURE_CODE before including TremorDistiller_AePrGPU_Functions.h"
#endif

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>

#include "LogsController.h"
#include "TremorDistiller_FrameStack.h"
#include "TremorDistiller_GPUCalls.h"
#include "TremorDistiller_GPURecords.h"
#include "TremorDistiller_KernelText.h"

// Internal linkage: each unit that includes this has its own copy.
namespace {

constexpr int32_t GPUFailureCode = static_cast<int32_t>(GPU_FAILURE_CODE);

// Renders of one device share its cl_kernel objects: setting a kernel's
// arguments and enqueuing it must not interleave between threads. One lock per
// kernel list (striped, so the list keeps the host's layout).
inline std::mutex& KernelListLaunchLock(const KernelList* list) {
  static std::mutex locks[16];
  return locks[(reinterpret_cast<uintptr_t>(list) >> 4) % 16];
}

inline int32_t InitializeOpenCL(KernelList* list, cl_device_id device, cl_context context) {
  const OpenCLCalls& cl = GetOpenCLCalls();
  if (!list) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "KernelList pointer is null";
    Log(std::move(s));
    return GPUFailureCode;
  }
  int32_t result = 0;
  const char* strings[2] = {kOpenCLSourcePrefix, kTremorDistillerKernelText};
  const size_t lengths[2] = {kOpenCLSourcePrefixLength, std::strlen(kTremorDistillerKernelText)};
  cl_int err = CL_SUCCESS;
  cl_program program = cl.createProgramWithSource(context, 2, strings, lengths, &err);
  if (err != CL_SUCCESS) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "OpenCL Assert: " << OpenCLErrorText(err);
    Log(std::move(s));
    result = GPUFailureCode;
  } else {
    err = cl.buildProgram(program, 1, &device, kOpenCLBuildOptions, nullptr, nullptr);
    if (err != CL_SUCCESS) {
      std::ostringstream s;
      s << LOG_ERROR_LINE << "OpenCL Assert: " << OpenCLErrorText(err);
      Log(std::move(s));
      result = GPUFailureCode;
    }
  }

  // The build log, whatever came before: a good build with warnings logs too.
  size_t logSize = 0;
  cl.getProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &logSize);
  if (logSize >= 2) {
    char* buildLog = static_cast<char*>(std::malloc(logSize));
    std::ostringstream s;
    if (!buildLog) {
      s << LOG_ERROR_LINE << "Failed to allocate memory for log";
    } else {
      cl.getProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, logSize, buildLog, nullptr);
      buildLog[logSize - 1] = '\0';
      s << LOG_ERROR_LINE << buildLog;
      std::free(buildLog);
    }
    Log(std::move(s));
  }

  if (result == 0) {
    for (int slot = 0; slot < 2; ++slot) {
      KernelEntry& entry = list->entries[slot];
      std::strncpy(entry.name, kKernelNames[slot], sizeof entry.name - 1);
      entry.name[sizeof entry.name - 1] = '\0';
      cl_kernel kernel = cl.createKernel(program, entry.name, &err);
      result = err;
      if (result != 0) {
        std::ostringstream s;
        s << LOG_ERROR_LINE << "Can't initialize kernel function \"" << entry.name << "\"";
        Log(std::move(s));
        break;
      }
      entry.kernel = kernel;
    }
  }
  // Kernels keep their program alive; nothing else needs it.
  if (program) cl.releaseProgram(program);
  return result;
}

inline int32_t InitializeGPU(GPUFramework framework, KernelList* list, void* device, void* context) {
  {
    std::ostringstream s;
    s << "Initialized new device: " << GPUFrameworkText(framework);
    Log(std::move(s));
  }
  if (!list) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "KernelList pointer is null";
    Log(std::move(s));
    return GPUFailureCode;
  }
  GPUStatus& status = GetGPUStatus();
  status.text->frameworkName = GPUFrameworkText(framework);
  status.noDevice = false;
  status.softwareRenderSeen = false;
  switch (framework) {
    case CUDA:
      return 0;
    case OpenCL:
      return InitializeOpenCL(list, static_cast<cl_device_id>(device), static_cast<cl_context>(context));
    case Metal: {
      std::ostringstream s;
      s << LOG_ERROR_LINE << "Metal is not available";
      Log(std::move(s));
      return GPUFailureCode;
    }
    default: {
      std::ostringstream s;
      s << LOG_ERROR_LINE << "Unsupported GPU type";
      Log(std::move(s));
      return GPUFailureCode;
    }
  }
}

inline int32_t GPUDispose(GPUFramework framework, KernelList* list) noexcept {
  int32_t result = 0;
  try {
    GetGPUStatus().noDevice = true;
    if (!list) {
      if (framework == CUDA) return 0;
      std::ostringstream s;
      s << LOG_ERROR_LINE << "KernelList pointer is null";
      Log(std::move(s));
      return GPUFailureCode;
    }
    for (KernelEntry& entry : list->entries) {
      if (!entry.kernel) continue;
      // After a failed release the rest are cleared without a call.
      if (framework == OpenCL && result == 0) {
        const cl_int err = GetOpenCLCalls().releaseKernel(static_cast<cl_kernel>(entry.kernel));
        if (err != CL_SUCCESS) {
          std::ostringstream s;
          s << LOG_ERROR_LINE << "OpenCL Assert: " << OpenCLErrorText(err);
          Log(std::move(s));
          result = GPUFailureCode;
        }
      }
      entry.kernel = nullptr;
    }
  } catch (const std::exception& e) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "Could not destroy it in a graceful way. Error: " << e.what();
    Log(std::move(s));
  } catch (...) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "Could not destroy it in a graceful way. Unknown Error.";
    Log(std::move(s));
  }
  return result;
}

// ---- The GPU pass ----

inline int32_t RenderPassCUDA(const PassBuffers& b, const KernelData& kernelData, const MainKernelArgs& m,
                       const ResizeKernelArgs& pre, const ResizeKernelArgs& cur, bool preCanvas, bool curCanvas,
                       unsigned int blockSize) {
  const CudaCalls& cuda = GetCudaCalls();
  if (!cuda.launchMain) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "CUDA Assert: this module was built without CUDA";
    Log(std::move(s));
    return GPUFailureCode;
  }
  int32_t status = 0;
  auto checkLaunch = [&]() {
    const int err = cuda.peekAtLastError();
    if (err != 0) {
      std::ostringstream s;
      s << LOG_ERROR_LINE << "CUDA Assert: " << cuda.getErrorString(err);
      Log(std::move(s));
      status = GPUFailureCode;
    }
  };
  void* params = nullptr;
  cuda.malloc(&params, sizeof(KernelData));
  cuda.memcpyHostToDevice(params, &kernelData, sizeof(KernelData));
  if (curCanvas) {
    cuda.launchResize(b.inCurFrame, b.curCanvas, cur.inSrcPitch, cur.inDstPitch, cur.in16f, cur.inWidth,
                      cur.inHeight, cur.outWidth, cur.outHeight, cur.inOffsetX, cur.inOffsetY, blockSize);
    checkLaunch();
  }
  if (status == 0 && preCanvas) {
    cuda.launchResize(b.inPreFrame, b.preCanvas, pre.inSrcPitch, pre.inDstPitch, pre.in16f, pre.inWidth,
                      pre.inHeight, pre.outWidth, pre.outHeight, pre.inOffsetX, pre.inOffsetY, blockSize);
    checkLaunch();
  }
  if (status == 0) {
    cuda.launchMain(preCanvas ? b.preCanvas : b.inPreFrame, curCanvas ? b.curCanvas : b.inCurFrame, b.outIm,
                    b.outDst, params, m.inPrePitch, m.inCurPitch, m.inDstPitch, m.in16f,
                    static_cast<unsigned int>(m.inWidth), static_cast<unsigned int>(m.inHeight), b.inIm, blockSize);
    checkLaunch();
  }
  cuda.free(params);
  return status;
}

inline int32_t RenderPassOpenCL(const KernelList* kernels, cl_command_queue queue, const PassBuffers& b, cl_context context,
                         KernelData& kernelData, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                         const ResizeKernelArgs& cur, bool preCanvas, bool curCanvas, unsigned int blockSize) {
  const OpenCLCalls& cl = GetOpenCLCalls();
  int32_t status = 0;
  auto fail = [&](cl_int err) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "OpenCL Assert: " << OpenCLErrorText(err);
    Log(std::move(s));
    status = GPUFailureCode;
  };
  // The copy is taken now, so changing the record for the next pass cannot
  // disturb a pass still queued.
  cl_int err = CL_SUCCESS;
  cl_mem params = cl.createBuffer(context, CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR, sizeof(KernelData), &kernelData,
                                  &err);
  if (err != CL_SUCCESS || !params) {
    fail(err != CL_SUCCESS ? err : CL_INVALID_MEM_OBJECT);  // no launch without its parameters
    return status;
  }
  const size_t local[2] = {blockSize, blockSize};
  const size_t global[2] = {(static_cast<size_t>(m.inWidth) + blockSize - 1) / blockSize * blockSize,
                            (static_cast<size_t>(m.inHeight) + blockSize - 1) / blockSize * blockSize};

  auto setArg = [&](cl_kernel k, cl_uint index, size_t size, const void* value) {
    if (status != 0) return;
    const cl_int e = cl.setKernelArg(k, index, size, value);
    if (e != CL_SUCCESS) fail(e);
  };
  auto enqueue = [&](cl_kernel k) {
    if (status != 0) return;
    const cl_int e = cl.enqueueNDRangeKernel(queue, k, 2, nullptr, global, local, 0, nullptr, nullptr);
    if (e != CL_SUCCESS) fail(e);
  };
  auto resize = [&](cl_kernel k, void* src, void* dst, const ResizeKernelArgs& a) {
    cl_mem srcMem = static_cast<cl_mem>(src), dstMem = static_cast<cl_mem>(dst);
    setArg(k, 0, sizeof(cl_mem), &srcMem);
    setArg(k, 1, sizeof(cl_mem), &dstMem);
    const int32_t* ints = &a.inSrcPitch;  // nine int32 in argument order
    for (cl_uint i = 0; i < 9; ++i) setArg(k, 2 + i, sizeof(int32_t), ints + i);
    enqueue(k);
  };

  const KernelEntry& mainEntry = kernels->entries[0];
  const KernelEntry& resizeEntry = kernels->entries[1];
  if (!mainEntry.kernel) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "Unknown OpenCL Kernel Function: " << mainEntry.name;
    Log(std::move(s));
    status = GPUFailureCode;
  } else if ((curCanvas || preCanvas) && !resizeEntry.kernel) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "Unknown OpenCL Kernel Function" << resizeEntry.name;
    Log(std::move(s));
    status = GPUFailureCode;
  } else {
    std::lock_guard<std::mutex> lock(KernelListLaunchLock(kernels));
    cl_kernel resizeKernel = static_cast<cl_kernel>(resizeEntry.kernel);
    if (curCanvas) resize(resizeKernel, b.inCurFrame, b.curCanvas, cur);
    if (preCanvas) resize(resizeKernel, b.inPreFrame, b.preCanvas, pre);

    cl_kernel k = static_cast<cl_kernel>(mainEntry.kernel);
    cl_mem buffers[4] = {static_cast<cl_mem>(preCanvas ? b.preCanvas : b.inPreFrame),
                         static_cast<cl_mem>(curCanvas ? b.curCanvas : b.inCurFrame), static_cast<cl_mem>(b.outIm),
                         static_cast<cl_mem>(b.outDst)};
    for (cl_uint i = 0; i < 4; ++i) setArg(k, i, sizeof(cl_mem), &buffers[i]);
    setArg(k, 4, sizeof(cl_mem), &params);
    const int32_t* ints = &m.inPrePitch;  // six int32 in argument order
    for (cl_uint i = 0; i < 6; ++i) setArg(k, 5 + i, sizeof(int32_t), ints + i);
    cl_mem inIm = static_cast<cl_mem>(b.inIm);
    setArg(k, 11, sizeof(cl_mem), &inIm);
    enqueue(k);
  }
  cl.releaseMemObject(params);
  return status;
}

// One pass of the frame-stack loop on the host's device.
inline int32_t GPURender(GPUFramework framework, const KernelList* kernels, void* context, void* queue,
                  const PassBuffers& buffers, KernelData& kernelData, const MainKernelArgs& mainArgs,
                  const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs, unsigned int blockSize) {
  SetPassMotionValues(kernelData);
  GPUStatus& status = GetGPUStatus();
  if (status.text->gpuName.empty()) {
    FillGPUIdentity(*status.text);
    status.text->noticeLine1.clear();
    status.text->noticeLine2.clear();
  }
  const bool curCanvas = FrameNeedsCanvas(curArgs);
  const bool preCanvas = FrameNeedsCanvas(preArgs);

  if (framework == CUDA)
    return RenderPassCUDA(buffers, kernelData, mainArgs, preArgs, curArgs, preCanvas, curCanvas, blockSize);
  if (!kernels) {
    std::ostringstream s;
    s << LOG_ERROR_LINE << "KernelList pointer is null";
    Log(std::move(s));
    return GPUFailureCode;
  }
  if (framework == OpenCL)
    return RenderPassOpenCL(kernels, static_cast<cl_command_queue>(queue), buffers, static_cast<cl_context>(context),
                            kernelData, mainArgs, preArgs, curArgs, preCanvas, curCanvas, blockSize);
  if (framework == Metal) return 0;
  std::ostringstream s;
  s << LOG_ERROR_LINE << "Uknown GPU framework. Value: " << static_cast<int32_t>(framework);
  Log(std::move(s));
  return GPUFailureCode;
}

}  // namespace

#endif
