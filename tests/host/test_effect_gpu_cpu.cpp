// The After Effects GPU handlers and the software path, driven through a small
// fake of the host's basic, handle, world, pixel format and GPU device suites.
// GPU worlds are real OpenCL buffers (PoCL by default) where a device exists.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "CpuRender.h"
#include "GpuTestSupport.h"
#include "KernelTestSupport.h"
#include "LogsController.h"
#include "TremorDistiller.h"
#include "TremorDistiller_CPU.h"
#include "TremorDistiller_GPURecords.h"

namespace {

class LogEnvironment : public ::testing::Environment {
  void SetUp() override {
    setenv("TMPDIR", TD_TEST_TMP_DIR, 1);
    LoggerInit(kLogFileStem, kLogFolderName);
  }
};
::testing::Environment* const kLogEnvironment = ::testing::AddGlobalTestEnvironment(new LogEnvironment);

// ---- The fake host --------------------------------------------------------------

struct CreatedWorld {
  A_long width, height;
  PF_RationalScale par;
  PF_Field field;
  PF_PixelFormat format;
  PF_Boolean clear;
};

struct FakeHost {
  const OpenCLDevice* device = nullptr;  // without one, a GPU world's data is a token
  std::set<std::string> refused;
  std::map<std::string, int> held;  // acquisitions not yet released, per suite
  PF_PixelFormat worldFormat = PF_FourCharCode("argb");
  PF_PixelFormat pixelSuiteFormat = PF_FourCharCode("argb");
  PF_Err worldFormatErr = 0;
  int failCreateAt = 0;  // the nth CreateGPUWorld fails with 4; 0 never
  std::vector<CreatedWorld> created;
  std::set<PF_EffectWorld*> liveWorlds;
  int disposedWorlds = 0, deviceInfoCalls = 0;
  std::set<PF_Handle> liveHandles;
  int disposedHandles = 0;

  SPBasicSuite basic{};
  PF_UtilCallbacks utils{};
  PF_InData in{};
  PF_OutData out{};
  FakeHost();
  ~FakeHost();
};

FakeHost* gHost = nullptr;

A_long FakeSprintf(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, PF_MAX_EFFECT_MSG_LEN + 1, format, args);
  va_end(args);
  return n;
}

const PF_HandleSuite2 kHandleSuite = {
    [](A_u_longlong size) -> PF_Handle {
      PF_Handle h = new void*(std::malloc(size));
      std::memset(*h, 0xCD, size);  // hosts hand out memory uninitialised
      gHost->liveHandles.insert(h);
      return h;
    },
    [](PF_Handle h) -> void* { return *h; },
    [](PF_Handle) {},
    [](PF_Handle h) {
      EXPECT_EQ(gHost->liveHandles.erase(h), 1u) << "disposing a handle the host never gave";
      ++gHost->disposedHandles;
      std::free(*h);
      delete h;
    },
    [](PF_Handle) -> A_u_longlong { return 0; },
};

const PF_WorldSuite2 kWorldSuite = {[](const PF_EffectWorld*, PF_PixelFormat* f) -> PF_Err {
  *f = gHost->worldFormat;
  return gHost->worldFormatErr;
}};

const PF_PixelFormatSuite1 kPixelFormatSuite = {
    nullptr, nullptr, [](const PF_EffectWorld*, PF_PixelFormat* f) -> PF_Err {
      *f = gHost->pixelSuiteFormat;
      return 0;
    }};

const PF_GPUDeviceSuite1 kGPUSuite = {
    [](PF_ProgPtr, A_u_long, PF_GPUDeviceInfo* info) -> PF_Err {
      ++gHost->deviceInfoCalls;
      if (gHost->device) {
        info->devicePV = gHost->device->device;
        info->contextPV = gHost->device->context;
        info->command_queuePV = gHost->device->queue;
      }
      return 0;
    },
    [](PF_ProgPtr, A_u_long, A_long w, A_long h, PF_RationalScale par, PF_Field field, PF_PixelFormat format,
       PF_Boolean clear, PF_EffectWorld** world) -> PF_Err {
      gHost->created.push_back({w, h, par, field, format, clear});
      if (static_cast<int>(gHost->created.size()) == gHost->failCreateAt) return PF_Err_OUT_OF_MEMORY;
      auto* wd = new PF_EffectWorld{};
      wd->width = w;
      wd->height = h;
      wd->rowbytes = w * 16;
      wd->pix_aspect_ratio = par;
      wd->data = wd;
      if (gHost->device) {
        const size_t bytes = static_cast<size_t>(w) * h * 16;
        wd->data = CreateOpenCLBuffer(*gHost->device, bytes);
        if (clear) ClearOpenCLBuffer(*gHost->device, static_cast<cl_mem>(wd->data), bytes);
      }
      gHost->liveWorlds.insert(wd);
      *world = wd;
      return 0;
    },
    [](PF_ProgPtr, PF_EffectWorld* world) -> PF_Err {
      EXPECT_EQ(gHost->liveWorlds.erase(world), 1u) << "disposing a world the host never created";
      ++gHost->disposedWorlds;
      if (gHost->device) clReleaseMemObject(static_cast<cl_mem>(world->data));
      delete world;
      return 0;
    },
    [](PF_ProgPtr, PF_EffectWorld* world, void** pixels) -> PF_Err {
      *pixels = world->data;
      return 0;
    },
};

FakeHost::FakeHost() {
  gHost = this;
  basic.AcquireSuite = [](const char* name, int32_t version, const void** suite) -> SPErr {
    const std::string n = name;
    if (gHost->refused.count(n)) return 1;
    const std::map<std::string, std::pair<int32_t, const void*>> suites = {
        {kPFHandleSuite, {2, &kHandleSuite}},
        {kPFWorldSuite, {2, &kWorldSuite}},
        {kPFPixelFormatSuite, {1, &kPixelFormatSuite}},
        {kPFGPUDeviceSuite, {1, &kGPUSuite}}};
    const auto row = suites.find(n);
    if (row == suites.end() || row->second.first != version) return 1;
    ++gHost->held[n];
    *suite = row->second.second;
    return 0;
  };
  basic.ReleaseSuite = [](const char* name, int32_t) -> SPErr {
    --gHost->held[name];
    return 0;
  };
  utils.ansi.sprintf = &FakeSprintf;
  utils.ansi.strcpy = [](char* d, const char* s) { return std::strcpy(d, s); };
  in.pica_basicP = &basic;
  in.utils = &utils;
  in.field = 1;
  // The effect starts from the process-wide record as a fresh process has it.
  GPUStatus& status = GetGPUStatus();
  *status.text = GPUStatusText{};
  status.noDevice = true;
  status.softwareRenderSeen = false;
}

FakeHost::~FakeHost() {
  for (const auto& [name, count] : held) EXPECT_EQ(count, 0) << name << " not released";
  for (PF_EffectWorld* w : liveWorlds) {
    ADD_FAILURE() << "a GPU world was never disposed";
    if (device) clReleaseMemObject(static_cast<cl_mem>(w->data));
    delete w;
  }
  gHost = nullptr;
}

// ---- Software path ------------------------------------------------------------

// A host world over a vector, with `pad` spare pixels a row filled with a guard.
template <typename T>
struct CpuWorld {
  std::vector<T> px;
  PF_EffectWorld world{};
  CpuWorld(A_long w, A_long h, A_long pad, T fill) : px(static_cast<size_t>(w + pad) * h * 4, fill) {
    world.data = px.data();
    world.rowbytes = static_cast<A_long>((w + pad) * 4 * sizeof(T));
    world.width = w;
    world.height = h;
  }
  T* at(A_long x, A_long y) { return &px[(static_cast<size_t>(y) * (world.rowbytes / sizeof(T) / 4) + x) * 4]; }
};

template <typename T>
void ExpectHalfValueCopy(PF_PixelFormat format, T a, T r, T g, T b, T ha, T hr, T hg, T hb) {
  SCOPED_TRACE(format);
  FakeHost host;
  host.worldFormat = format;
  const T guard = static_cast<T>(7);
  CpuWorld<T> input(5, 9, 1, guard), output(5, 9, 2, guard);
  for (A_long y = 0; y < 9; ++y)
    for (A_long x = 0; x < 5; ++x) {
      T* p = input.at(x, y);
      p[0] = a, p[1] = r, p[2] = g, p[3] = b;
    }
  EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_NONE);
  for (A_long y = 0; y < 9; ++y) {
    for (A_long x = 0; x < 5; ++x) {
      const T* p = output.at(x, y);
      EXPECT_EQ(std::vector<T>(p, p + 4), (std::vector<T>{ha, hr, hg, hb})) << x << "," << y;
    }
    for (A_long x = 5; x < 7; ++x) EXPECT_EQ(output.at(x, y)[0], guard) << "padding written in row " << y;
  }
}

TEST(RenderCPU, CopiesTheFirstComponentAndHalvesTheOthersAtEachDepth) {
  ExpectHalfValueCopy<uint8_t>(PF_FourCharCode("argb"), 200, 255, 128, 1, 200, 127, 64, 0);
  ExpectHalfValueCopy<uint16_t>(PF_FourCharCode("ae16"), 32768, 32767, 65535, 1, 32768, 16383, 32767, 0);
  ExpectHalfValueCopy<float>(PF_FourCharCode("ae32"), 0.5f, 1.0f, -0.5f, 2.0f, 0.5f, 0.5f, -0.25f, 1.0f);
  // Over-range, negative and infinite floats pass through unclamped.
  ExpectHalfValueCopy<float>(PF_FourCharCode("@CDA"), -3.0f, 1e30f, INFINITY, -7.0f, -3.0f, 5e29f, INFINITY, -3.5f);
}

TEST(RenderCPU, InputSmallerThanOutputIsReadOnlyWithinItsBounds) {
  FakeHost host;
  host.worldFormat = PF_PixelFormat_ARGB128;
  // Two rows of three pixels in rows of five, then rows that belong to
  // nobody: reading past the input's width or rows would bring their 100s
  // into the output.
  CpuWorld<float> input(3, 4, 2, 100.0f);
  input.world.height = 2;
  for (A_long y = 0; y < 2; ++y)
    for (A_long x = 0; x < 3; ++x) std::fill(input.at(x, y), input.at(x, y) + 4, 0.5f);
  CpuWorld<float> output(5, 4, 0, -1.0f);
  EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_NONE);
  for (A_long y = 0; y < 4; ++y)
    for (A_long x = 0; x < 5; ++x) {
      const bool inside = x < 3 && y < 2;
      const float* p = output.at(x, y);
      EXPECT_EQ(std::vector<float>(p, p + 4), inside ? (std::vector<float>{0.5f, 0.25f, 0.25f, 0.25f})
                                                     : (std::vector<float>{0, 0, 0, 0}))
          << x << "," << y;
    }
}

TEST(RenderCPU, RowBandsCoverEveryRowOnce) {
  for (A_long rows : {0, 1, 2, 5, 97})
    for (unsigned threads : {0u, 1u, 2u, 3u, 8u, 200u}) {
      std::vector<int> seen(static_cast<size_t>(rows), 0);
      ForEachRowInParallel(rows, threads, [&](A_long r) { ++seen[r]; });
      EXPECT_EQ(seen, std::vector<int>(static_cast<size_t>(rows), 1)) << rows << " rows, " << threads << " threads";
    }
}

TEST(RenderCPU, DepthTablesDifferByHost) {
  // Case matters: "VUYA", "Vuya" and "VUya" are three depths on Premiere.
  const struct {
    const char* code;
    int ae, premiere;
  } rows[] = {{"ae16", 16, 0}, {"@CDA", 32, 0}, {"Bgra", 0, 16}, {"VUYA", 0, 8},
              {"Vuya", 0, 16}, {"VUya", 0, 32}, {"ARgb", 0, 32},  {"badf", 0, 0}};
  for (const auto& r : rows) {
    PF_PixelFormat code = 0;
    std::memcpy(&code, r.code, 4);  // the bytes as they stand in memory
    EXPECT_EQ(PixelFormatDepth(code, false), r.ae) << r.code;
    EXPECT_EQ(PixelFormatDepth(code, true), r.premiere) << r.code;
  }
}

TEST(RenderCPU, UnsupportedDepthsLogAndLeaveTheOutputAlone) {
  struct Case {
    bool premiere;
    PF_PixelFormat code;
    const char* line;
  };
  for (const Case& c : {Case{false, PF_FourCharCode("Bgra"), "Wrong bitdepth: 0"},
                        Case{true, PF_FourCharCode("v210"), "Wrong bitdepth: 10"},
                        Case{true, PF_FourCharCode("@PQ2"), "Wrong bitdepth: 12"}}) {
    SCOPED_TRACE(c.line);
    FakeHost host;
    host.in.appl_id = c.premiere ? PF_APPL_ID_PREMIERE : 0;
    // Premiere's answer comes from the pixel format suite; the world suite's
    // code would be a supported one.
    (c.premiere ? host.pixelSuiteFormat : host.worldFormat) = c.code;
    CpuWorld<uint8_t> input(2, 2, 0, 200), output(2, 2, 0, 9);
    LogCapture log;
    EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(log.Count(std::string(":RenderCPU] :: ") + c.line + "\n"), 1u) << log.All();
    EXPECT_EQ(output.px, std::vector<uint8_t>(16, 9));
  }
}

TEST(RenderCPU, PremiereTakesTheSecondFormatAndTheFirstQuerysError) {
  FakeHost host;
  host.in.appl_id = PF_APPL_ID_PREMIERE;
  host.worldFormat = PF_FourCharCode("bgra");
  host.pixelSuiteFormat = PF_FourCharCode("ARgb");
  host.worldFormatErr = PF_Err_INVALID_INDEX;
  CpuWorld<float> input(1, 1, 0, 4.0f), output(1, 1, 0, 0.0f);
  EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_INVALID_INDEX);
  EXPECT_EQ(output.px, (std::vector<float>{4, 2, 2, 2}));  // written as floats all the same
}

TEST(RenderCPU, NullWorldsAreRefused) {
  FakeHost host;
  CpuWorld<uint8_t> world(1, 1, 0, 0);
  LogCapture log;
  EXPECT_EQ(RenderCPU(&host.in, &host.out, nullptr, &world.world), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(RenderCPU(&host.in, &host.out, &world.world, nullptr), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(log.Count(":RenderCPU] :: Input or Output data is unavailable"), 2u);
}

TEST(RenderCPU, NoticeComesOnTheSecondSoftwareFrameWithoutADevice) {
  for (bool premiere : {false, true}) {
    SCOPED_TRACE(premiere ? "Premiere Pro" : "After Effects");
    FakeHost host;
    host.in.appl_id = premiere ? PF_APPL_ID_PREMIERE : 0;
    GPUStatusText& text = *GetGPUStatus().text;
    text.gpuName = "RTX 3080";
    text.frameworkName = "OpenCL";
    const std::string line2 = std::string(premiere ? "Go in File > Project Settings > General"
                                                   : "Go in File > Project Settings") +
                              " and select 'Mercury GPU Acceleration'";
    CpuWorld<uint8_t> input(1, 1, 0, 8), output(1, 1, 0, 0);
    for (int frame = 1; frame <= 3; ++frame) {
      SCOPED_TRACE(frame);
      host.out = PF_OutData{};
      EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_NONE);
      EXPECT_EQ(output.px, (std::vector<uint8_t>{8, 4, 4, 4}));
      EXPECT_TRUE(GetGPUStatus().softwareRenderSeen);
      if (frame == 2) {
        EXPECT_EQ(std::string(host.out.return_msg),
                  "Wrong Settings for GPU Acceleration\n\nSorry, the current version of the plugin only supports "
                  "GPU acceleration. " + line2);
        EXPECT_NE(host.out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0);
      } else {
        EXPECT_STREQ(host.out.return_msg, "");
        EXPECT_EQ(host.out.out_flags, 0);
      }
      const bool raised = frame >= 2;
      EXPECT_EQ(text.noticeLine1, raised ? "Tremor Distiller cannot render using CPU only." : "");
      EXPECT_EQ(text.noticeLine2, raised ? line2 : "");
      EXPECT_EQ(text.gpuName, raised ? "" : "RTX 3080");
      EXPECT_EQ(text.frameworkName, raised ? "" : "OpenCL");
    }
  }
}

TEST(RenderCPU, NoNoticeWhileADeviceIsSetUp) {
  FakeHost host;
  GetGPUStatus().noDevice = false;
  CpuWorld<uint8_t> input(1, 1, 0, 8), output(1, 1, 0, 0);
  for (int frame = 1; frame <= 3; ++frame) {
    EXPECT_EQ(RenderCPU(&host.in, &host.out, &input.world, &output.world), PF_Err_NONE);
    EXPECT_EQ(output.px, (std::vector<uint8_t>{8, 4, 4, 4}));
  }
  EXPECT_STREQ(host.out.return_msg, "");
  EXPECT_EQ(host.out.out_flags, 0);
  EXPECT_FALSE(GetGPUStatus().softwareRenderSeen);
  EXPECT_TRUE(GetGPUStatus().text->noticeLine1.empty());
}

// ---- GPU handlers ---------------------------------------------------------------

struct SmartRenderCall {
  PF_SmartRenderInput input{};
  PF_SmartRenderExtra extra{};
  explicit SmartRenderCall(A_long whatGpu, const void* gpuData = nullptr) {
    input.what_gpu = whatGpu;
    input.gpu_data = gpuData;
    input.device_index = 3;
    extra.input = &input;
  }
};

TEST(SmartRenderGPU, WrongFormatOrFrameworkDoesNoGPUWork) {
  PF_EffectWorld frame{}, output{};
  PF_EffectWorld* frames[3] = {&frame, &frame, &frame};
  KernelData kd = DefaultKernelData(3);
  struct Case {
    PF_PixelFormat format;
    A_long whatGpu;
    PF_Err result;
    size_t logLines;
  };
  for (const Case& c : {Case{PF_PixelFormat_INVALID, 1, 514, 0}, Case{PF_PixelFormat_GPU_BGRA128, 0, 512, 1},
                        Case{PF_PixelFormat_INVALID, 0, 512, 1}, Case{PF_PixelFormat_GPU_BGRA128, 4, 512, 1}}) {
    SCOPED_TRACE(testing::Message() << c.format << " on " << c.whatGpu);
    FakeHost host;
    SmartRenderCall call(c.whatGpu);
    LogCapture log;
    EXPECT_EQ(SmartRenderGPU(&host.in, &host.out, c.format, frames, &output, &call.extra, &kd), c.result);
    EXPECT_EQ(log.Count(":SmartRenderGPU] :: Something wrong with GPU\n"), c.logLines) << log.All();
    EXPECT_TRUE(host.created.empty());
    if (c.format == PF_PixelFormat_INVALID) {
      EXPECT_EQ(host.deviceInfoCalls, 0);
    }
  }
}

TEST(SmartRenderGPU, AStackLongerThanTheFramesDeliveredIsRefused) {
  FakeHost host;
  std::vector<PF_EffectWorld> worlds(KERNEL_DATA_MAX_FRAMES);
  std::vector<PF_EffectWorld*> frames;
  for (auto& w : worlds) frames.push_back(&w);
  KernelData kd = DefaultKernelData(KERNEL_DATA_MAX_FRAMES + 10);
  SmartRenderCall call(1);
  LogCapture log;
  EXPECT_EQ(SmartRenderGPU(&host.in, &host.out, PF_PixelFormat_GPU_BGRA128, frames.data(), &worlds[0], &call.extra,
                           &kd),
            512);
  EXPECT_EQ(log.Count("Frame stack holds 50 frames, expected 60"), 1u) << log.All();
  EXPECT_TRUE(host.created.empty());
}

TEST(SmartRenderGPU, FailedScratchWorldStopsTheRenderAndTheOthersGoBack) {
  FakeHost host;
  host.failCreateAt = 3;
  PF_EffectWorld frame{nullptr, 64 * 16, 64, 32, {1, 1}, {}, nullptr};
  PF_EffectWorld* frames[3] = {&frame, &frame, &frame};
  KernelData kd = DefaultKernelData(3);
  SmartRenderCall call(1);
  EXPECT_EQ(SmartRenderGPU(&host.in, &host.out, PF_PixelFormat_GPU_BGRA128, frames, &frame, &call.extra, &kd),
            PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.created.size(), 3u);
  EXPECT_EQ(host.disposedWorlds, 2);
}

TEST(GPUDeviceSetdown, WithoutGpuDataCallsNothing) {
  FakeHost host;
  GetGPUStatus().noDevice = false;
  PF_GPUDeviceSetdownInput input{nullptr, 1, 0};
  PF_GPUDeviceSetdownExtra extra{&input};
  EXPECT_EQ(GPUDeviceSetdown(&host.in, &host.out, &extra), PF_Err_NONE);
  EXPECT_EQ(host.disposedHandles, 0);
  EXPECT_FALSE(GetGPUStatus().noDevice);  // GPUDispose would have set it
}

TEST(GPUDeviceSetup, AFailedDeviceKeepsNoHandle) {
  for (A_long whatGpu : {2, 0}) {
    SCOPED_TRACE(whatGpu);
    FakeHost host;
    host.out.out_flags2 = PF_OutFlag2_SUPPORTS_THREADED_RENDERING;
    PF_GPUDeviceSetupInput input{whatGpu, 0};
    PF_GPUDeviceSetupOutput output{nullptr};
    PF_GPUDeviceSetupExtra extra{&input, &output};
    EXPECT_EQ(GPUDeviceSetup(&host.in, &host.out, &extra), 512);
    EXPECT_EQ(output.gpu_data, nullptr);
    EXPECT_NE(host.out.out_flags & PF_OutFlag_REFRESH_UI, 0);
    EXPECT_EQ(host.out.out_flags2, PF_OutFlag2_SUPPORTS_THREADED_RENDERING);
    EXPECT_TRUE(host.liveHandles.empty());
    EXPECT_EQ(host.disposedHandles, 1);
  }
}

// Device set-up and renders on a real OpenCL device.
class AeOpenCL : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { opened_ = OpenTestDevice(device_); }
  static void TearDownTestSuite() {
    if (opened_) CloseOpenCLDevice(device_);
  }
  void SetUp() override {
    if (!opened_) GTEST_SKIP() << "no OpenCL device";
    host_.device = &device_;
  }
  // Set-up through the handler; returns the published handle.
  void* SetUpDevice() {
    PF_GPUDeviceSetupInput input{PF_GPU_Framework_OPENCL, 0};
    PF_GPUDeviceSetupOutput output{nullptr};
    PF_GPUDeviceSetupExtra extra{&input, &output};
    EXPECT_EQ(GPUDeviceSetup(&host_.in, &host_.out, &extra), PF_Err_NONE);
    return output.gpu_data;
  }
  void SetDownDevice(void* gpuData) {
    PF_GPUDeviceSetdownInput input{gpuData, PF_GPU_Framework_OPENCL, 0};
    PF_GPUDeviceSetdownExtra extra{&input};
    EXPECT_EQ(GPUDeviceSetdown(&host_.in, &host_.out, &extra), PF_Err_NONE);
  }
  static OpenCLDevice device_;
  static bool opened_;
  FakeHost host_;
};
OpenCLDevice AeOpenCL::device_;
bool AeOpenCL::opened_ = false;

TEST_F(AeOpenCL, SetUpBuildsTheKernelsAndSetDownDisposesThem) {
  host_.out.out_flags2 = PF_OutFlag2_SUPPORTS_THREADED_RENDERING;
  void* gpuData = SetUpDevice();
  ASSERT_NE(gpuData, nullptr);
  EXPECT_EQ(host_.liveHandles.count(static_cast<PF_Handle>(gpuData)), 1u);
  EXPECT_EQ(host_.out.out_flags2, 0x02000000);
  EXPECT_NE(host_.out.out_flags & PF_OutFlag_REFRESH_UI, 0);
  EXPECT_FALSE(GetGPUStatus().noDevice);
  const KernelList& list = **static_cast<KernelList**>(gpuData);
  EXPECT_STREQ(list.entries[0].name, "MainKernel");
  EXPECT_STREQ(list.entries[1].name, "ResizeKernel");
  EXPECT_NE(list.entries[0].kernel, nullptr);
  EXPECT_NE(list.entries[1].kernel, nullptr);

  SetDownDevice(gpuData);
  EXPECT_TRUE(host_.liveHandles.empty());
  EXPECT_TRUE(GetGPUStatus().noDevice);
}

TEST_F(AeOpenCL, RenderMatchesTheReferenceOnScratchWorldsOfTheOutputsSize) {
  void* gpuData = SetUpDevice();
  ASSERT_NE(gpuData, nullptr);
  constexpr A_long W = 64, H = 32;
  const int pitches[3] = {W, W + 3, W};  // a padded frame goes on its canvas
  const int offsets[3][2] = {{0, 0}, {0, 0}, {2, -1}};
  TestRandom rnd(11);
  std::vector<std::vector<float>> pixels(3);
  std::vector<PF_EffectWorld> worlds(3);
  PF_EffectWorld* frames[3];
  KernelData kd = DefaultKernelData(3);
  kd.normalize = true;
  FrameStackJob job;  // the same stack in host memory, for the reference
  for (int i = 0; i < 3; ++i) {
    pixels[i].resize(static_cast<size_t>(pitches[i]) * H * 4);
    for (float& v : pixels[i]) v = rnd.Next(-0.25f, 1.25f);
    const size_t bytes = pixels[i].size() * sizeof(float);
    cl_mem mem = CreateOpenCLBuffer(device_, bytes);
    UploadOpenCLBuffer(device_, mem, pixels[i].data(), bytes);
    worlds[i] = PF_EffectWorld{mem, pitches[i] * 16, W, H, {1, 1}, {}, nullptr};
    frames[i] = &worlds[i];
    kd.originH[i] = offsets[i][0];
    kd.originV[i] = offsets[i][1];
    job.frames.push_back({pixels[i].data(), W, H, pitches[i] * 16, offsets[i][0], offsets[i][1]});
  }
  const size_t outBytes = static_cast<size_t>(W) * H * 16;
  std::vector<float> gpu(outBytes / 4, -9.0f), reference(outBytes / 4, -9.0f);
  cl_mem outMem = CreateOpenCLBuffer(device_, outBytes);
  UploadOpenCLBuffer(device_, outMem, gpu.data(), outBytes);
  PF_EffectWorld output{outMem, W * 16, W, H, {2, 1}, {}, nullptr};
  job.output = {reference.data(), W, H, W * 16, 0, 0};
  job.is16f = false;
  KernelData refKd = kd;
  job.kernelData = &refKd;
  ASSERT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);

  // A raised notice comes down with the first GPU frame.
  GetGPUStatus().text->noticeLine1 = "raised";
  GetGPUStatus().text->noticeLine2 = "raised";
  SmartRenderCall call(PF_GPU_Framework_OPENCL, gpuData);
  EXPECT_EQ(SmartRenderGPU(&host_.in, &host_.out, PF_PixelFormat_GPU_BGRA128, frames, &output, &call.extra, &kd),
            PF_Err_NONE);
  DownloadOpenCLBuffer(device_, outMem, gpu.data(), outBytes);
  float worst = 0.0f;
  for (size_t k = 0; k < gpu.size(); ++k) {
    ASSERT_FALSE(std::isnan(gpu[k]) || std::isnan(reference[k])) << k;
    worst = std::max(worst, std::fabs(gpu[k] - reference[k]) / std::max(1.0f, std::fabs(gpu[k])));
  }
  EXPECT_LE(worst, 1e-4f);
  EXPECT_NE(gpu, std::vector<float>(gpu.size(), -9.0f)) << "output never written";
  EXPECT_TRUE(GetGPUStatus().text->noticeLine1.empty());
  EXPECT_TRUE(GetGPUStatus().text->noticeLine2.empty());

  ASSERT_FALSE(host_.created.empty());
  for (const CreatedWorld& c : host_.created) {
    EXPECT_EQ(c.width, W);
    EXPECT_EQ(c.height, H);
    EXPECT_EQ(c.par.num, 2);
    EXPECT_EQ(c.field, host_.in.field);
    EXPECT_EQ(c.format, PF_PixelFormat_GPU_BGRA128);
    EXPECT_EQ(c.clear, 1);
  }
  EXPECT_TRUE(host_.liveWorlds.empty());

  clReleaseMemObject(outMem);
  for (PF_EffectWorld& w : worlds) clReleaseMemObject(static_cast<cl_mem>(w.data));
  SetDownDevice(gpuData);
}

}  // namespace
