// OpenCL: the program built from the embedded kernel text, its kernels in the
// KernelList's slots, and launches serialised per list.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "LogsController.h"
#include "TremorDistiller_AePrGPU_Functions.h"
#include "TremorDistiller_GPUQueue.h"
#include "TremorDistiller_KernelText.h"

namespace {

// Renders of one device share its cl_kernel objects: setting a kernel's
// arguments and enqueuing it must not interleave between threads. One lock per
// kernel list (striped, so the list keeps the host's layout).
std::mutex& KernelListLaunchLock(const KernelList* list) {
  static std::mutex locks[16];
  return locks[(reinterpret_cast<uintptr_t>(list) >> 4) % 16];
}

struct OpenCLPass {
  const OpenCLCalls& cl;
  cl_command_queue queue;
  cl_kernel mainKernel;
  cl_kernel resizeKernel;
  cl_mem params;
  float weight;
  size_t global[2];
  size_t local[2];
  int32_t failureCode;
};

// Sets the arguments in order, then enqueues; the first failure skips the rest.
// A kernel's arguments in order; no allocation on the per-pass path.
struct KernelArgs {
  std::pair<size_t, const void*> at[25];
  cl_uint count = 0;
  void Add(size_t size, const void* value) { at[count++] = {size, value}; }
};

int32_t EnqueueOpenCL(const OpenCLPass& pass, cl_kernel kernel, const KernelArgs& args) {
  cl_int err = CL_SUCCESS;
  for (cl_uint i = 0; i < args.count && err == CL_SUCCESS; ++i)
    err = pass.cl.setKernelArg(kernel, i, args.at[i].first, args.at[i].second);
  if (err == CL_SUCCESS)
    err = pass.cl.enqueueNDRangeKernel(pass.queue, kernel, 2, nullptr, pass.global, pass.local, 0, nullptr, nullptr);
  if (err == CL_SUCCESS) return 0;
  LOG_ERROR_IN("GPURender", "OpenCL Assert: ", OpenCLErrorText(err));
  return pass.failureCode;
}

int32_t OpenCLResize(void* form, void* src, void* dst, const ResizeKernelArgs& a) {
  const OpenCLPass& pass = *static_cast<const OpenCLPass*>(form);
  const cl_mem srcMem = static_cast<cl_mem>(src), dstMem = static_cast<cl_mem>(dst);
  KernelArgs args;
  args.Add(sizeof(cl_mem), &srcMem);
  args.Add(sizeof(cl_mem), &dstMem);
  const int32_t* ints = &a.inSrcPitch;  // nine int32 in argument order
  for (int i = 0; i < 9; ++i) args.Add(sizeof(int32_t), ints + i);
  return EnqueueOpenCL(pass, pass.resizeKernel, args);
}

int32_t OpenCLMain(void* form, const MainKernelBuffers& b, const MainKernelArgs& m) {
  const OpenCLPass& pass = *static_cast<const OpenCLPass*>(form);
  const cl_mem mems[5] = {static_cast<cl_mem>(b.inPre), static_cast<cl_mem>(b.inCur), static_cast<cl_mem>(b.outIm),
                          static_cast<cl_mem>(b.outDst), static_cast<cl_mem>(b.inIm)};
  KernelArgs args;
  for (int i = 0; i < 4; ++i) args.Add(sizeof(cl_mem), &mems[i]);
  args.Add(sizeof(cl_mem), &pass.params);
  const int32_t* ints = &m.inPrePitch;  // six int32 in argument order
  for (int i = 0; i < 6; ++i) args.Add(sizeof(int32_t), ints + i);
  args.Add(sizeof(cl_mem), &mems[4]);
  args.Add(sizeof(float), &pass.weight);
  return EnqueueOpenCL(pass, pass.mainKernel, args);
}

// The record's copy for one launch, taken now, so changing the record for the
// next launch cannot disturb one still queued. Null after a logged failure.
cl_mem CopyParamsOpenCL(const OpenCLCalls& cl, cl_context context, const KernelData& kernelData) {
  cl_int err = CL_SUCCESS;
  cl_mem params = cl.createBuffer(context, CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR, sizeof(KernelData),
                                  const_cast<KernelData*>(&kernelData), &err);
  if (err == CL_SUCCESS && params) return params;
  LOG_ERROR_IN("GPURender", "OpenCL Assert: ", OpenCLErrorText(err != CL_SUCCESS ? err : CL_INVALID_MEM_OBJECT));
  return nullptr;
}

OpenCLPass PassOpenCL(const OpenCLCalls& cl, cl_command_queue queue, const KernelList& kernels, cl_mem params,
                      const MainKernelArgs& m, size_t groupX, size_t groupY, int32_t failureCode) {
  auto roundUp = [](int32_t n, size_t group) { return (static_cast<size_t>(n) + group - 1) / group * group; };
  return OpenCLPass{cl,
                    queue,
                    static_cast<cl_kernel>(kernels.entries[0].kernel),
                    static_cast<cl_kernel>(kernels.entries[1].kernel),
                    params,
                    0.0f,
                    {roundUp(m.inWidth, groupX), roundUp(m.inHeight, groupY)},
                    {groupX, groupY},
                    failureCode};
}

int32_t RenderPassOpenCL(const KernelList& kernels, cl_context context, cl_command_queue queue,
                         const PassBuffers& buffers, const KernelData& kernelData, const MainKernelArgs& mainArgs,
                         const ResizeKernelArgs& preArgs, const ResizeKernelArgs& curArgs, unsigned int blockSize,
                         int32_t failureCode) {
  const OpenCLCalls& cl = GetOpenCLCalls();
  cl_mem params = CopyParamsOpenCL(cl, context, kernelData);
  if (!params) return failureCode;  // no launch without its parameters
  const KernelEntry& mainEntry = kernels.entries[0];
  const KernelEntry& resizeEntry = kernels.entries[1];
  int32_t status = 0;
  if (!mainEntry.kernel) {
    LOG_ERROR_IN("GPURender", "Unknown OpenCL Kernel Function: ", mainEntry.name);
    status = failureCode;
  } else if ((FrameNeedsCanvas(curArgs) || FrameNeedsCanvas(preArgs)) && !resizeEntry.kernel) {
    LOG_ERROR_IN("GPURender", "Unknown OpenCL Kernel Function", resizeEntry.name);
    status = failureCode;
  }
  OpenCLPass pass = PassOpenCL(cl, queue, kernels, params, mainArgs, blockSize, blockSize, failureCode);
  pass.weight = EasedWeight(kernelData);
  if (status == 0) {
    std::lock_guard<std::mutex> lock(KernelListLaunchLock(&kernels));
    status = RunPassLaunches({&pass, OpenCLResize, OpenCLMain}, buffers, mainArgs, preArgs, curArgs);
  }
  cl.releaseMemObject(params);
  return status;
}

int32_t RenderStackOpenCL(const KernelList& kernels, cl_context context, cl_command_queue queue,
                          const StackBuffers& buffers, const KernelData& kernelData, const MainKernelArgs& m,
                          const StackChunk& chunk, unsigned int blockSize, int32_t failureCode) {
  const KernelEntry& stackEntry = kernels.entries[2];
  if (!stackEntry.kernel) {
    LOG_ERROR_IN("GPURender", "Unknown OpenCL Kernel Function: ", stackEntry.name);
    return failureCode;
  }
  const OpenCLCalls& cl = GetOpenCLCalls();
  cl_mem params = CopyParamsOpenCL(cl, context, kernelData);
  if (!params) return failureCode;
  // One row of items per group: a CPU device runs a group's items row by
  // row, and each row streams every frame of the chunk, so rows side by side
  // multiply the streams its prefetcher must follow. On PoCL a 1080p 10-frame
  // stack took 20.3 ms at 64x4 and 16.3 ms at 128x1 (2160p: 88 and 78 ms).
  // There each item also takes a run of the row's pixels. Items are
  // independent, so neither changes a value.
  const unsigned int groupX = blockSize * 8;
  StackChunk launch = chunk;
  MainKernelArgs items = m;
  if (kernels.cpuDevice) {
    launch.pixelsPerItem = std::max(1, (m.inWidth + static_cast<int32_t>(groupX) - 1) / static_cast<int32_t>(groupX));
    items.inWidth = (m.inWidth + launch.pixelsPerItem - 1) / launch.pixelsPerItem;
  }
  const OpenCLPass pass = PassOpenCL(cl, queue, kernels, params, items, groupX, 1, failureCode);
  cl_mem mems[STACK_CHUNK_FRAMES + 3];
  for (int j = 0; j < STACK_CHUNK_FRAMES; ++j) mems[j] = static_cast<cl_mem>(buffers.frames[j]);
  mems[STACK_CHUNK_FRAMES] = static_cast<cl_mem>(buffers.outIm);
  mems[STACK_CHUNK_FRAMES + 1] = static_cast<cl_mem>(buffers.outDst);
  mems[STACK_CHUNK_FRAMES + 2] = static_cast<cl_mem>(buffers.inIm);
  KernelArgs args;
  for (int j = 0; j < STACK_CHUNK_FRAMES + 2; ++j) args.Add(sizeof(cl_mem), &mems[j]);
  args.Add(sizeof(cl_mem), &params);
  const int32_t ints[4] = {m.inDstPitch, m.in16f, m.inWidth, m.inHeight};
  for (const int32_t& v : ints) args.Add(sizeof(int32_t), &v);
  args.Add(sizeof(cl_mem), &mems[STACK_CHUNK_FRAMES + 2]);
  args.Add(sizeof(StackChunk), &launch);
  int32_t status = 0;
  {
    std::lock_guard<std::mutex> lock(KernelListLaunchLock(&kernels));
    status = EnqueueOpenCL(pass, static_cast<cl_kernel>(stackEntry.kernel), args);
  }
  cl.releaseMemObject(params);
  return status;
}

int32_t Initialize(KernelList* list, void* device, void* context, int32_t failureCode) {
  return InitializeOpenCL(list, static_cast<cl_device_id>(device), static_cast<cl_context>(context), failureCode);
}

int32_t ReleaseKernel(void* kernel, int32_t failureCode) {
  const cl_int err = GetOpenCLCalls().releaseKernel(static_cast<cl_kernel>(kernel));
  if (err == CL_SUCCESS) return 0;
  LOG_ERROR_IN("GPUDispose", "OpenCL Assert: ", OpenCLErrorText(err));
  return failureCode;
}

int32_t Pass(const KernelList* kernels, void* context, void* queue, const PassBuffers& buffers,
             const KernelData& kernelData, const MainKernelArgs& mainArgs, const ResizeKernelArgs& preArgs,
             const ResizeKernelArgs& curArgs, unsigned int blockSize, int32_t failureCode) {
  return RenderPassOpenCL(*kernels, static_cast<cl_context>(context), static_cast<cl_command_queue>(queue), buffers,
                          kernelData, mainArgs, preArgs, curArgs, blockSize, failureCode);
}

int32_t Stack(const KernelList* kernels, void* context, void* queue, const StackBuffers& buffers,
              const KernelData& kernelData, const MainKernelArgs& mainArgs, const StackChunk& chunk,
              unsigned int blockSize, int32_t failureCode) {
  return RenderStackOpenCL(*kernels, static_cast<cl_context>(context), static_cast<cl_command_queue>(queue), buffers,
                           kernelData, mainArgs, chunk, blockSize, failureCode);
}

int32_t Clear(const KernelList* kernels, void* queue, void* buffer, const ResizeKernelArgs& a, unsigned int blockSize,
              int32_t failureCode) {
  if (!kernels || !kernels->entries[1].kernel) {
    LOG_ERROR_IN("GPURender", "Unknown OpenCL Kernel Function: ", kernels ? kernels->entries[1].name : "");
    return failureCode;
  }
  const MainKernelArgs range{0, 0, 0, 0, a.outWidth, a.outHeight};
  OpenCLPass pass = PassOpenCL(GetOpenCLCalls(), static_cast<cl_command_queue>(queue), *kernels, nullptr, range,
                               blockSize, blockSize, failureCode);
  std::lock_guard<std::mutex> lock(KernelListLaunchLock(kernels));
  return OpenCLResize(&pass, buffer, buffer, a);
}

bool StackReady(const KernelList* kernels) { return kernels && kernels->entries[2].kernel; }

}  // namespace

int32_t InitializeOpenCL(KernelList* list, cl_device_id device, cl_context context, int32_t failureCode) {
  const OpenCLCalls& cl = GetOpenCLCalls();
  if (!list) {
    LOG_ERROR("KernelList pointer is null");
    return failureCode;
  }
  int32_t result = 0;
  cl_device_type type = 0;
  if (cl.getDeviceInfo(device, CL_DEVICE_TYPE, sizeof type, &type, nullptr) != CL_SUCCESS) type = 0;
  list->cpuDevice = (type & CL_DEVICE_TYPE_CPU) != 0;
  const char* strings[2] = {kOpenCLSourcePrefix, kTremorDistillerKernelText};
  const size_t lengths[2] = {kOpenCLSourcePrefixLength, std::strlen(kTremorDistillerKernelText)};
  cl_int err = CL_SUCCESS;
  cl_program program = cl.createProgramWithSource(context, 2, strings, lengths, &err);
  if (err == CL_SUCCESS) err = cl.buildProgram(program, 1, &device, kOpenCLBuildOptions, nullptr, nullptr);
  if (err != CL_SUCCESS) {
    LOG_ERROR("OpenCL Assert: ", OpenCLErrorText(err));
    result = failureCode;
  }

  // The build log, whatever came before: a good build with warnings logs too.
  size_t logSize = 0;
  cl.getProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &logSize);
  if (logSize >= 2) {
    char* buildLog = static_cast<char*>(std::malloc(logSize));
    if (!buildLog) {
      LOG_ERROR("Failed to allocate memory for log");
    } else {
      cl.getProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, logSize, buildLog, nullptr);
      buildLog[logSize - 1] = '\0';
      LOG_ERROR(buildLog);
      std::free(buildLog);
    }
  }

  for (int slot = 0; slot < 3 && result == 0; ++slot) {
    KernelEntry& entry = list->entries[slot];
    std::strncpy(entry.name, kKernelNames[slot], sizeof entry.name - 1);
    entry.name[sizeof entry.name - 1] = '\0';
    cl_kernel kernel = cl.createKernel(program, entry.name, &err);
    if (err != CL_SUCCESS && slot == 2) {
      // StackKernel only saves time: without it every stack runs pass by pass.
      LOG_INFO("StackKernel is not available on this device (", OpenCLErrorText(err), "); stacks render pass by pass");
      break;
    }
    result = err;
    if (result != 0) {
      LOG_ERROR("Can't initialize kernel function \"", entry.name, "\"");
      break;
    }
    entry.kernel = kernel;
  }
  // Kernels keep their program alive; nothing else needs it.
  if (program) cl.releaseProgram(program);
  return result;
}

extern const GPUQueue kOpenCLQueue = {OpenCL, true, Initialize, ReleaseKernel, Pass, Stack, Clear, StackReady};
