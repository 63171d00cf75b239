// Device set-up, program build, teardown and the GPU pass's failure rows, with
// fake OpenCL and CUDA runtimes in the call tables.
#include "TremorDistiller_AePrGPU_Functions.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "GpuTestSupport.h"
#include "TremorDistiller_KernelText.h"

namespace {

// A scriptable OpenCL runtime: results to give, and a record of the calls.
struct FakeCL {
  static inline cl_int createProgramResult, buildResult, releaseKernelResult, setArgResult;
  static inline int failSetArgAt, setArgCount;
  static inline cl_int createKernelResult[3];
  static inline std::string buildLog;
  static inline std::vector<std::string> calls;
  static inline std::vector<cl_uint> argIndices;
  static inline int kernelObjects, releasedKernels, buffersLive;
  static inline size_t logSize;  // reported in place of the log's own when not 0

  static void Reset() {
    createProgramResult = buildResult = releaseKernelResult = setArgResult = CL_SUCCESS;
    failSetArgAt = -1;
    setArgCount = 0;
    for (cl_int& r : createKernelResult) r = CL_SUCCESS;
    buildLog.clear();
    calls.clear();
    argIndices.clear();
    kernelObjects = releasedKernels = buffersLive = 0;
    logSize = 0;
  }
  static size_t Count(const std::string& call) {
    size_t n = 0;
    for (const auto& c : calls) n += c == call;
    return n;
  }
  static void Install() {
    OpenCLCalls& cl = GetOpenCLCalls();
    cl.createProgramWithSource = [](cl_context, cl_uint count, const char** strings, const size_t* lengths,
                                    cl_int* err) -> cl_program {
      calls.push_back("createProgramWithSource");
      // Exactly two strings with explicit lengths, the prefix first.
      EXPECT_EQ(count, 2u);
      EXPECT_EQ(lengths[0], 33u);
      EXPECT_EQ(std::string(strings[0], lengths[0]), "#define GF_OPENCL_SUPPORTS_16F 1\n");
      EXPECT_EQ(lengths[1], std::strlen(strings[1]));
      *err = createProgramResult;
      return createProgramResult == CL_SUCCESS ? reinterpret_cast<cl_program>(0x100) : nullptr;
    };
    cl.buildProgram = [](cl_program, cl_uint n, const cl_device_id*, const char* options,
                         void(CL_CALLBACK*)(cl_program, void*), void*) -> cl_int {
      calls.push_back("buildProgram");
      EXPECT_EQ(n, 1u);
      EXPECT_STREQ(options, "-cl-single-precision-constant -cl-fast-relaxed-math");
      return buildResult;
    };
    cl.getProgramBuildInfo = [](cl_program, cl_device_id, cl_program_build_info what, size_t size, void* value,
                                size_t* sizeRet) -> cl_int {
      calls.push_back("getProgramBuildInfo");
      EXPECT_EQ(what, static_cast<cl_program_build_info>(0x1183));
      if (sizeRet) *sizeRet = logSize ? logSize : buildLog.size() + 1;
      if (value) std::memcpy(value, buildLog.c_str(), std::min(size, buildLog.size() + 1));
      return CL_SUCCESS;
    };
    cl.releaseProgram = [](cl_program) -> cl_int { return CL_SUCCESS; };
    cl.createKernel = [](cl_program, const char* name, cl_int* err) -> cl_kernel {
      calls.push_back(std::string("createKernel ") + name);
      int slot = 0;
      while (slot < 2 && std::strcmp(name, kKernelNames[slot]) != 0) ++slot;
      *err = createKernelResult[slot];
      if (*err != CL_SUCCESS) return nullptr;
      ++kernelObjects;
      return reinterpret_cast<cl_kernel>(0x200 + slot);
    };
    cl.releaseKernel = [](cl_kernel) -> cl_int {
      calls.push_back("releaseKernel");
      if (releaseKernelResult == CL_SUCCESS) ++releasedKernels;
      return releaseKernelResult;
    };
    cl.setKernelArg = [](cl_kernel, cl_uint index, size_t, const void*) -> cl_int {
      calls.push_back("setKernelArg");
      argIndices.push_back(index);
      return setArgCount++ == failSetArgAt ? CL_INVALID_ARG_VALUE : CL_SUCCESS;
    };
    cl.createBuffer = [](cl_context, cl_mem_flags flags, size_t size, void* host, cl_int* err) -> cl_mem {
      calls.push_back("createBuffer");
      EXPECT_EQ(flags, static_cast<cl_mem_flags>(CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR));
      EXPECT_EQ(size, sizeof(KernelData));
      EXPECT_NE(host, nullptr);
      *err = CL_SUCCESS;
      ++buffersLive;
      return reinterpret_cast<cl_mem>(0x300);
    };
    cl.enqueueNDRangeKernel = [](cl_command_queue, cl_kernel k, cl_uint dims, const size_t* offset,
                                 const size_t* global, const size_t* local, cl_uint, const cl_event*,
                                 cl_event* event) -> cl_int {
      calls.push_back(k == reinterpret_cast<cl_kernel>(0x200) ? "enqueue MainKernel" : "enqueue ResizeKernel");
      EXPECT_EQ(dims, 2u);
      EXPECT_EQ(offset, nullptr);
      EXPECT_EQ(event, nullptr);
      EXPECT_EQ(local[0], 16u);
      EXPECT_EQ(global[0] % 16, 0u);
      EXPECT_EQ(global[1] % 16, 0u);
      return CL_SUCCESS;
    };
    cl.releaseMemObject = [](cl_mem) -> cl_int {
      --buffersLive;
      return CL_SUCCESS;
    };
  }
};

class GpuLifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeCL::Reset();
    FakeCL::Install();
    std::memset(&list_, 0, sizeof list_);
    GetGPUStatus().noDevice = true;
    GetGPUStatus().softwareRenderSeen = true;
  }
  ScopedGPUCalls restore_;
  LogCapture log_;
  KernelList list_;
};

TEST_F(GpuLifecycle, ProgramBuildFailureRows) {
  // No program: no build, no kernel, and the failure code.
  FakeCL::createProgramResult = CL_OUT_OF_HOST_MEMORY;
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), 512);
  EXPECT_EQ(FakeCL::Count("buildProgram"), 0u);
  EXPECT_EQ(FakeCL::kernelObjects, 0);
  EXPECT_EQ(log_.Count("OpenCL Assert: Code: 0xFFFFFFFA (Out of host memory)"), 1u);

  // Build fails: its log follows as an error line, spanning lines.
  SetUp();
  FakeCL::buildResult = CL_BUILD_PROGRAM_FAILURE;
  FakeCL::buildLog = "error: one\nerror: two";
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), 512);
  EXPECT_EQ(FakeCL::kernelObjects, 0);
  EXPECT_EQ(log_.Count("Code: 0xFFFFFFF5 (Build program failure)"), 1u);
  EXPECT_NE(log_.All().find("] :: error: one\nerror: two"), std::string::npos);

  // A good build with warnings logs them and still makes every kernel.
  SetUp();
  FakeCL::buildLog = "w";  // two bytes with its NUL
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), 0);
  EXPECT_EQ(log_.Count("] :: w\n"), 1u);
  EXPECT_EQ(FakeCL::kernelObjects, 3);

  // A log too big to hold is left out; the good build still makes its kernels.
  SetUp();
  FakeCL::logSize = SIZE_MAX;
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), 0);
  EXPECT_EQ(log_.Count(":InitializeOpenCL] :: Failed to allocate memory for log\n"), 1u);

  // Slot 1 fails: slot 0 stays live, slot 1 keeps its name, the code is OpenCL's.
  SetUp();
  FakeCL::createKernelResult[1] = CL_INVALID_KERNEL_NAME;
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), CL_INVALID_KERNEL_NAME);
  EXPECT_NE(list_.entries[0].kernel, nullptr);
  EXPECT_EQ(list_.entries[1].kernel, nullptr);
  EXPECT_STREQ(list_.entries[1].name, "ResizeKernel");
  EXPECT_EQ(log_.Count("Can't initialize kernel function \"ResizeKernel\""), 1u);

  // StackKernel cannot be made: the device still renders, pass by pass, and says so once.
  SetUp();
  FakeCL::createKernelResult[2] = CL_INVALID_KERNEL_NAME;
  EXPECT_EQ(InitializeOpenCL(&list_, nullptr, nullptr, 512), 0);
  EXPECT_TRUE(list_.entries[0].kernel && list_.entries[1].kernel);
  EXPECT_EQ(list_.entries[2].kernel, nullptr);
  EXPECT_FALSE(StackKernelReady(OpenCL, &list_));
  EXPECT_EQ(log_.Count("StackKernel is not available on this device (Code: 0xFFFFFFD2 (Invalid kernel name)); stacks "
                       "render pass by pass"),
            1u)
      << log_.All();
  EXPECT_EQ(log_.Count("Can't initialize kernel function \"StackKernel\""), 0u);

  EXPECT_EQ(InitializeOpenCL(nullptr, nullptr, nullptr, 512), 512);
  EXPECT_EQ(log_.Count("KernelList pointer is null"), 1u);
}

TEST_F(GpuLifecycle, SetUpPerFramework) {
  ASSERT_EQ(InitializeGPU(OpenCL, &list_, nullptr, nullptr, 512), 0);
  EXPECT_TRUE(list_.entries[0].kernel && list_.entries[1].kernel);
  EXPECT_FALSE(GetGPUStatus().noDevice || GetGPUStatus().softwareRenderSeen);
  EXPECT_EQ(GetGPUStatus().text->frameworkName, "OpenCL");
  EXPECT_EQ(log_.Count("HLL :: Initialized new device: OpenCL"), 1u);
  EXPECT_EQ(log_.Count("ERROR ["), 0u);  // an empty build log says nothing

  FakeCL::calls.clear();
  list_.entries[0].kernel = reinterpret_cast<void*>(0x1);  // CUDA leaves the list alone
  EXPECT_EQ(InitializeGPU(CUDA, &list_, nullptr, nullptr, 512), 0);
  EXPECT_EQ(list_.entries[0].kernel, reinterpret_cast<void*>(0x1));
  EXPECT_TRUE(FakeCL::calls.empty());

  EXPECT_EQ(InitializeGPU(Metal, &list_, nullptr, nullptr, 512), 512);
  EXPECT_EQ(GetGPUStatus().text->frameworkName, "Metal");
  EXPECT_FALSE(GetGPUStatus().noDevice);
  EXPECT_EQ(log_.Count("Initialized new device: Metal"), 1u);
  EXPECT_EQ(log_.Count("Metal is not available"), 1u);

  EXPECT_EQ(InitializeGPU(GPU_FRAMEWORK_NONE, &list_, nullptr, nullptr, 512), 512);
  EXPECT_EQ(log_.Count("Unsupported GPU type"), 1u);
  GetGPUStatus().noDevice = true;
  EXPECT_EQ(InitializeGPU(OpenCL, nullptr, nullptr, nullptr, 512), 512);
  EXPECT_TRUE(GetGPUStatus().noDevice);  // unchanged by a null list
  EXPECT_EQ(log_.Count(":InitializeGPU] :: KernelList pointer is null\n"), 1u);
}

TEST_F(GpuLifecycle, TeardownReleasesOnceAndClearsEverySlot) {
  ASSERT_EQ(InitializeGPU(OpenCL, &list_, nullptr, nullptr, 512), 0);
  FakeCL::releaseKernelResult = CL_INVALID_KERNEL;
  FakeCL::calls.clear();
  EXPECT_EQ(GPUDispose(OpenCL, &list_, 512), 512);
  EXPECT_EQ(FakeCL::Count("releaseKernel"), 1u);  // slot 1 cleared without a call
  EXPECT_EQ(list_.entries[0].kernel, nullptr);
  EXPECT_EQ(list_.entries[1].kernel, nullptr);
  EXPECT_TRUE(GetGPUStatus().noDevice);
  EXPECT_EQ(log_.Count("OpenCL Assert: Code: 0xFFFFFFD0 (Invalid kernel)"), 1u);

  // A second teardown finds empty slots: no call, success.
  FakeCL::calls.clear();
  EXPECT_EQ(GPUDispose(OpenCL, &list_, 512), 0);
  EXPECT_TRUE(FakeCL::calls.empty());

  // CUDA clears without releasing; a null list is no error there only.
  list_.entries[0].kernel = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(GPUDispose(CUDA, &list_, 512), 0);
  EXPECT_EQ(list_.entries[0].kernel, nullptr);
  EXPECT_TRUE(FakeCL::calls.empty());
  EXPECT_EQ(GPUDispose(CUDA, nullptr, 512), 0);
  EXPECT_EQ(GPUDispose(OpenCL, nullptr, 512), 512);
  EXPECT_EQ(log_.Count(":GPUDispose] :: KernelList pointer is null\n"), 1u);

  // A throwing runtime stops the walk where it threw, with the result so far.
  for (cl_int (*release)(cl_kernel) :
       {+[](cl_kernel) -> cl_int { throw std::runtime_error("device lost"); }, +[](cl_kernel) -> cl_int { throw 7; }}) {
    ASSERT_EQ(InitializeGPU(OpenCL, &list_, nullptr, nullptr, 512), 0);
    GetOpenCLCalls().releaseKernel = release;
    EXPECT_EQ(GPUDispose(OpenCL, &list_, 512), 0);
    EXPECT_TRUE(list_.entries[0].kernel && list_.entries[1].kernel);
  }
  EXPECT_EQ(log_.Count(":GPUDispose] :: Could not destroy it in a graceful way. Error: device lost\n"), 1u);
  EXPECT_EQ(log_.Count(":GPUDispose] :: Could not destroy it in a graceful way. Unknown Error.\n"), 1u);
}

// ---- The pass's failure rows ----

struct PassSetUp {
  PassBuffers buffers{reinterpret_cast<void*>(1), reinterpret_cast<void*>(2), reinterpret_cast<void*>(3),
                      reinterpret_cast<void*>(4), reinterpret_cast<void*>(5), reinterpret_cast<void*>(6),
                      reinterpret_cast<void*>(7)};
  KernelData kd = {};
  MainKernelArgs main{40, 40, 40, 0, 37, 19};
  ResizeKernelArgs pre{40, 40, 0, 37, 19, 37, 19, 0, 0};
  ResizeKernelArgs cur{40, 40, 0, 37, 19, 37, 19, 0, 0};
  int32_t Run(GPUFramework f, const KernelList* list, int32_t failureCode = 512) {
    return GPURender(f, list, nullptr, nullptr, buffers, kd, main, pre, cur, 16, failureCode);
  }
};

TEST_F(GpuLifecycle, PassLaunchesOnlyTheCanvasesItNeedsAndStopsAtTheFirstFailure) {
  ASSERT_EQ(InitializeGPU(OpenCL, &list_, nullptr, nullptr, 512), 0);
  const struct {
    int preOffset, curOffset, failSetArgAt;
    int32_t status;
    size_t resizes, mains, setArgs;
  } rows[] = {
      {0, 0, -1, 0, 0, 1, 13},   // no canvas: frames used in place
      {3, 0, -1, 0, 1, 1, 24},   // the older frame only
      {3, -1, -1, 0, 2, 1, 35},  // both, each on its own canvas
      {0, 1, 3, 512, 0, 0, 4},   // a failed argument skips every later one
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.preOffset << " " << row.curOffset << " " << row.failSetArgAt);
    PassSetUp p;
    p.pre.inOffsetX = row.preOffset;
    p.cur.inOffsetY = row.curOffset;
    FakeCL::calls.clear();
    FakeCL::argIndices.clear();
    FakeCL::setArgCount = 0;
    FakeCL::failSetArgAt = row.failSetArgAt;
    EXPECT_EQ(p.Run(OpenCL, &list_), row.status);
    EXPECT_EQ(FakeCL::Count("enqueue ResizeKernel"), row.resizes);
    EXPECT_EQ(FakeCL::Count("enqueue MainKernel"), row.mains);
    EXPECT_EQ(FakeCL::Count("setKernelArg"), row.setArgs);
    if (row.mains) {
      EXPECT_EQ(FakeCL::calls.back(), "enqueue MainKernel");
    }
    for (size_t i = 0; i < FakeCL::argIndices.size(); ++i) {  // each kernel's arguments in order from 0
      EXPECT_EQ(FakeCL::argIndices[i], row.resizes && i < 11 * row.resizes ? i % 11 : (i - 11 * row.resizes) % 13);
    }
    EXPECT_EQ(FakeCL::buffersLive, 0);  // the parameter copy is released on every way out
  }
  EXPECT_EQ(log_.Count(":GPURender] :: OpenCL Assert: Code: 0xFFFFFFCE (Invalid argument value)"), 1u);
}

TEST_F(GpuLifecycle, PassFailureRows) {
  ASSERT_EQ(InitializeGPU(OpenCL, &list_, nullptr, nullptr, 512), 0);
  PassSetUp p;
  p.cur.inOffsetX = 1;
  void* resize = list_.entries[1].kernel;
  list_.entries[1].kernel = nullptr;
  EXPECT_EQ(p.Run(OpenCL, &list_), 512);
  EXPECT_EQ(log_.Count("Unknown OpenCL Kernel FunctionResizeKernel"), 1u);
  list_.entries[1].kernel = resize;
  list_.entries[0].kernel = nullptr;
  EXPECT_EQ(p.Run(OpenCL, &list_), 512);
  EXPECT_EQ(log_.Count("Unknown OpenCL Kernel Function: MainKernel"), 1u);
  list_.entries[2].kernel = nullptr;
  const StackBuffers stack{{p.buffers.inPreFrame, p.buffers.inCurFrame}, nullptr, nullptr, p.buffers.outDst};
  StackChunk chunk{};
  chunk.passes = 1;
  EXPECT_EQ(GPURenderStack(OpenCL, &list_, nullptr, nullptr, stack, p.kd, p.main, chunk, 16, 512), 512);
  EXPECT_EQ(log_.Count("Unknown OpenCL Kernel Function: StackKernel"), 1u);
  EXPECT_EQ(FakeCL::buffersLive, 0);

  // The failure code is the caller's: Premiere's general failure on that side.
  EXPECT_EQ(p.Run(OpenCL, nullptr, kPrGPUFailureCode), kPrGPUFailureCode);
  EXPECT_EQ(log_.Count("KernelList pointer is null"), 1u);
  FakeCL::calls.clear();
  EXPECT_EQ(p.Run(Metal, &list_), 0);  // known, draws nothing
  EXPECT_TRUE(FakeCL::calls.empty());
  EXPECT_EQ(p.Run(static_cast<GPUFramework>(7), &list_), 512);
  EXPECT_EQ(log_.Count("Uknown GPU framework. Value: 7"), 1u);
}

TEST_F(GpuLifecycle, PassSetsMotionValuesAndTakesTheNoticeDownWithoutReadingTheAdapter) {
  ASSERT_EQ(InitializeGPU(CUDA, &list_, nullptr, nullptr, 512), 0);
  PassSetUp p;
  EXPECT_EQ(p.Run(Metal, &list_), 0);  // the device's first pass reads and logs the identity
  const std::string name = ReadGPUStatusText().gpuName;
  EditGPUStatusText([](GPUStatusText& t) {
    t.gpuName.clear();
    t.noticeLine1 = t.noticeLine2 = "notice";
  });
  p.kd.motion_amp = true;
  EXPECT_EQ(p.Run(Metal, &list_), 0);
  EXPECT_EQ(p.kd.minVel, 0.0f);
  EXPECT_EQ(p.kd.maxVel, 0.0f);
  const GPUStatusText text = ReadGPUStatusText();
  EXPECT_TRUE(text.noticeLine1.empty() && text.noticeLine2.empty());
  EXPECT_EQ(text.gpuName, name);
  p.kd.motion_amp = false;
  EXPECT_EQ(p.Run(Metal, &list_), 0);
  EXPECT_EQ(p.kd.minVel, 0.01f);
  EXPECT_EQ(p.kd.maxVel, 0.5f);
  EXPECT_EQ(log_.Count("HLL :: GPU: "), 1u) << "passes log no identity";
}

// A CUDA runtime that fails the launches it is told to.
struct FakeCuda {
  static inline int failOnLaunch, launches, mallocs, frees;
  static void Install() {
    failOnLaunch = -1;
    launches = mallocs = frees = 0;
    CudaCalls& c = GetCudaCalls();
    c.malloc = [](void** p, size_t) {
      ++mallocs;
      *p = reinterpret_cast<void*>(0x400);
      return 0;
    };
    c.memcpyHostToDevice = [](void*, const void*, size_t) { return 0; };
    c.free = [](void*) {
      ++frees;
      return 0;
    };
    c.peekAtLastError = []() { return launches - 1 == failOnLaunch ? 98 : 0; };
    c.getErrorString = [](int e) { return e == 98 ? "invalid device function" : "no error"; };
    c.launchMain = [](const void*, const void*, void*, void*, const void*, int, int, int, int, unsigned int,
                      unsigned int, const void*, float, unsigned int) { ++launches; };
    c.launchResize = [](const void*, void*, int, int, int, unsigned int, unsigned int, unsigned int, unsigned int, int,
                        int, unsigned int) { ++launches; };
  }
};

TEST_F(GpuLifecycle, CudaPassChecksEachLaunch) {
  FakeCuda::Install();
  PassSetUp p;
  p.pre.inOffsetX = p.cur.inOffsetX = 2;
  EXPECT_EQ(p.Run(CUDA, nullptr), 0);  // CUDA needs no kernel list
  EXPECT_EQ(FakeCuda::launches, 3);
  EXPECT_EQ(FakeCuda::mallocs, FakeCuda::frees);

  FakeCuda::Install();
  FakeCuda::failOnLaunch = 0;  // the newer frame's canvas
  EXPECT_EQ(p.Run(CUDA, nullptr), 512);
  EXPECT_EQ(FakeCuda::launches, 1);
  EXPECT_EQ(FakeCuda::frees, 1);
  EXPECT_EQ(log_.Count("CUDA Assert: invalid device function"), 1u);

  GetCudaCalls() = CudaCalls{};  // a module built without CUDA
  EXPECT_EQ(p.Run(CUDA, nullptr), 512);
  EXPECT_EQ(log_.Count(":GPURender] :: CUDA Assert: this module was built without CUDA\n"), 1u);
}

}  // namespace
