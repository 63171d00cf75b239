// The built module's Premiere Pro GPU filter, driven by the stand-in Premiere
// host on OpenCL (PoCL here): the entry and the instance's slots, parameter
// access, the frame-dependency queries, whole renders against the After
// Effects path and the CPU reference, and failed renders.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "ClipReference.h"
#include "CpuRender.h"
#include "Device.h"
#include "KernelTestSupport.h"
#include "ModuleHostTest.h"
#include "PrHost.h"
#include "TremorDistiller_Parameters.h"

namespace {

using prhost::PrHost;
using prhost::PrHostOptions;
using prhost::PrRenderRequest;

constexpr float kTolerance32 = 1e-4f;  // as the After Effects renders against the reference
constexpr float kTolerance16 = 2e-3f;  // a half's ulp at 1.0 is 1e-3
constexpr PrTime kP = prhost::kTicksPerSecond / 30;
constexpr prSuiteError kFail = static_cast<prSuiteError>(0x80000000u);

aehost::Image ClipFrame(int k, int w = kClipW, int h = kClipH) {
  aehost::Image img(w, h);
  const std::vector<float> full = ClipFrameRGBA(k);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) std::copy_n(&full[(static_cast<size_t>(y) * kClipW + x) * 4], 4, img.At(x, y));
  return img;
}

float WorstDifference(const aehost::Image& a, const aehost::Image& b) {
  EXPECT_EQ(a.rgba.size(), b.rgba.size());
  float worst = a.rgba.size() == b.rgba.size() ? 0.0f : INFINITY;
  for (size_t i = 0; i < a.rgba.size() && i < b.rgba.size(); ++i) {
    const float d = std::fabs(a.rgba[i] - b.rgba[i]) / std::max(1.0f, std::fabs(b.rgba[i]));
    worst = std::max(worst, std::isnan(d) ? INFINITY : d);
  }
  return worst;
}

// The loop on the CPU reference over the given frames, each centred on a
// canvas of the output's size, in the OpenCL 16-bit form when `half`.
aehost::Image Reference(const std::vector<aehost::Image>& frames, int outW, int outH, bool half, KernelData kd) {
  const size_t px = half ? 8 : 16;
  std::vector<std::vector<uint8_t>> stored;
  auto store = [&](const float* rgba, uint8_t* at) {
    const float bgra[4] = {rgba[2], rgba[1], rgba[0], rgba[3]};
    for (int c = 0; c < 4; ++c) {
      const uint16_t h = gfcpu::FloatToHalfRtz(bgra[c]);
      half ? std::memcpy(at + 2 * c, &h, 2) : std::memcpy(at + 4 * c, &bgra[c], 4);
    }
  };
  FrameStackJob job{};
  for (const aehost::Image& f : frames) {
    stored.emplace_back(f.width * f.height * px);
    for (int i = 0; i < f.width * f.height; ++i) store(&f.rgba[i * 4], &stored.back()[i * px]);
    job.frames.push_back({stored.back().data(), f.width, f.height, static_cast<int32_t>(f.width * px),
                          (outW - f.width) / 2, (outH - f.height) / 2});
  }
  std::vector<uint8_t> out(outW * outH * px, 0);
  job.output = {out.data(), outW, outH, static_cast<int32_t>(outW * px), 0, 0};
  job.is16f = half;
  kd.numFrames = static_cast<int>(frames.size());
  job.kernelData = &kd;
  EXPECT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);
  aehost::Image img(outW, outH);
  for (int i = 0; i < outW * outH; ++i)
    for (int c = 0; c < 4; ++c) {
      float v;
      if (half) {
        uint16_t h;
        std::memcpy(&h, &out[i * px + 2 * c], 2);
        v = gfcpu::HalfToFloat(h);
      } else {
        std::memcpy(&v, &out[i * px + 4 * c], 4);
      }
      img.rgba[i * 4 + (c == 3 ? 3 : 2 - c)] = v;
    }
  return img;
}

class PrRender : public ModuleHostTest {
 protected:
  PrHost& NewPrHost(PrHostOptions options = {}) {
    host_.reset();
    pr_.reset();
    pr_ = std::make_unique<PrHost>(ModulePath(), std::move(options));
    for (int k = 0; k < 12; ++k) pr_->AddFrame(k, ClipFrame(k));
    return *pr_;
  }
  void SetUp() override {
    ModuleHostTest::SetUp();
    PrHostOptions options;
    options.rowPaddingBytes = 32;  // frames with a pitch wider than their width
    NewPrHost(options);
  }
  void TearDown() override { pr_.reset(); }
  // The filter's five functions, as the entry gives them.
  PrGPUFilter Filter() {
    csSDK_int32 index = -1;
    PrGPUFilter filter{};
    PrGPUFilterInfo info{};
    EXPECT_EQ(pr_->Entry(&index, 1, &filter, &info), 0);
    return filter;
  }
  PrGPUFilterInstance* Instance() {
    PrGPUFilterInstance* instance = nullptr;
    EXPECT_EQ(pr_->Instance(1, &instance), 0);
    return instance;
  }
  std::unique_ptr<PrHost> pr_;
};

TEST_F(PrRender, EntryFillsTheOneFilterAndSlotsAnswer) {
  const struct {
    csSDK_int32 index;
    prBool startup;
    prSuiteError result;
    csSDK_int32 indexAfter;
    bool filled;
  } cases[] = {{-1, 1, 0, 0, true},
               {0, 1, 0, 0, true},
               {1, 1, static_cast<prSuiteError>(0x80000001u), 1, true},
               {-1, 0, 0, -1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "index " << c.index << " startup " << c.startup);
    csSDK_int32 index = c.index;
    PrGPUFilter filter{};
    PrGPUFilterInfo info;
    std::memset(&info, 0xAB, sizeof info);
    EXPECT_EQ(pr_->Entry(&index, c.startup, &filter, &info), c.result);
    EXPECT_EQ(index, c.indexAfter);
    EXPECT_EQ(filter.CreateInstance != nullptr && filter.Render != nullptr, c.filled);
    if (c.result == 0 && c.startup) {
      EXPECT_EQ(info.outInterfaceVersion, 2u);
      const uint8_t* tail = reinterpret_cast<const uint8_t*>(&info) + 4;
      EXPECT_TRUE(std::all_of(tail, tail + 16, [](uint8_t b) { return b == 0; }));
    }
  }
  const PrGPUFilter filter = Filter();
  PrGPUFilterInstance* instance = Instance();
  EXPECT_EQ(filter.Precompute(instance, nullptr, 0, nullptr), static_cast<prSuiteError>(0x80000004u));
  PrGPUFilterInstance empty{};
  EXPECT_EQ(filter.DisposeInstance(&empty), 0);
}

TEST_F(PrRender, ParametersAreAskedForWithoutTheInputLayer) {
  pr_->SetParam(PARAM_OUTPUT, 3);  // luma, 2 as the host counts
  ASSERT_EQ(pr_->Render({11}).result, 0);
  // "Frames Fade" is table row 4 and host parameter 3; popups come back + 1.
  std::vector<std::string> asked;
  for (const auto& c : pr_->CallLog())
    if (c.op == "GetParam") asked.push_back(c.args.substr(0, c.args.find(" time")));
  const int fade = FindParamIndex(PARAM_FRAMES_FADE, ParamTable());
  EXPECT_EQ(fade, 4);
  EXPECT_NE(std::find(asked.begin(), asked.end(), "node=1 index=3"), asked.end());
  EXPECT_EQ(std::count(asked.begin(), asked.end(), "node=1 index=1"), 10);  // "Frames", once per query

  // A failed read is logged with its status and reads as zero: "Frames" 0
  // asks for nothing.
  pr_->FailOperation("GetParam", static_cast<prSuiteError>(0x80000001u));
  const auto r = pr_->Render({11});
  EXPECT_TRUE(r.requested.empty());
  EXPECT_GE(LogCount("PrGPUFilterBase::GetParam] :: -2147483647"), 1u) << Log();
}

TEST_F(PrRender, FrameDependenciesFollowFramesAndWholeOffsets) {
  const PrTime T = 20 * kP;
  const struct {
    double frames, offset;
    std::vector<int> stepsBack;  // each request at T - step * P
  } cases[] = {
      {10, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {3, 1, {1, 2}},
      {3, 1.9, {1, 2}},
      {3, -1.9, {-1, -2}},  // later frames
      {4, 0.5, {0, 0, 0}},  // the current time, F - 1 times
      {3.9, 2, {2, 4}},
      {0, 1, {}},
  };
  PrGPUFilterRenderParams params{T, T, kClipW, kClipH, kP};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "frames " << c.frames << " offset " << c.offset);
    pr_->SetParam(PARAM_FRAMES, c.frames);
    pr_->SetParam(PARAM_FRAMES_OFFSET, c.offset);
    std::vector<PrTime> expected;
    for (int s : c.stepsBack) expected.push_back(T - s * kP);
    prSuiteError result = -1;
    EXPECT_EQ(pr_->FrameDependencies(params, 1, &result), expected);
    EXPECT_EQ(result, 0);
  }
  // Out of range: no request, the record untouched, the index where it was.
  pr_->SetParam(PARAM_FRAMES, 10);
  const PrGPUFilter filter = Filter();
  for (csSDK_int32 query : {-1, 9, 10, 1000}) {
    csSDK_int32 index = query;
    PrGPUFilterFrameDependency d{77, 99};
    EXPECT_EQ(filter.GetFrameDependencies(Instance(), &params, &index, &d), 0);
    EXPECT_EQ(index, query);
    EXPECT_EQ(d.outDependencyType, 77);
    EXPECT_EQ(d.outSequenceTime, 99);
  }
  EXPECT_EQ(LogCount("Frame numbers are wrong!"), 0u);
  // Past 2^53 ticks a double no longer holds the time, and the two ways of
  // counting the frame part: the line is written and the request stands.
  const PrTime far = (PrTime(1) << 53) + 1;
  PrGPUFilterRenderParams farParams{far, far, kClipW, kClipH, 1};
  pr_->SetParam(PARAM_FRAMES, 2);
  pr_->SetParam(PARAM_FRAMES_OFFSET, 1);
  csSDK_int32 index = 0;
  PrGPUFilterFrameDependency d{};
  EXPECT_EQ(filter.GetFrameDependencies(Instance(), &farParams, &index, &d), 0);
  EXPECT_EQ(d.outSequenceTime, far - 1);
  EXPECT_EQ(LogCount("Frame numbers are wrong!"), 1u);
}

class PrRenderDevices : public PrRender, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    try {
      ResolveDeviceText(GetParam());
    } catch (const DeviceError& e) {
      GTEST_SKIP() << "no " << GetParam() << " device on this machine: " << e.what();
    }
    PrHostOptions options;
    options.device = GetParam();
    options.rowPaddingBytes = 32;
    NewPrHost(options);
  }
};

// Whole-frame offsets give what the After Effects path gives for the same
// settings, in the 128-bit form.
TEST_P(PrRenderDevices, FloatRendersMatchTheAfterEffectsPath) {
  aehost::AeHost ae(ModulePath());
  aehost::DeviceOptions device;
  device.device = GetParam();
  ASSERT_EQ(ae.SetUp(&device), 0);
  for (int k = 0; k < 12; ++k) ae.AddFrame(ae.FrameTime(k), ClipFrame(k));
  const struct {
    std::vector<std::pair<int32_t, double>> params;  // popups as After Effects counts them
    int newest;
  } cases[] = {
      {{}, 11},                                             // ten frames, one StackKernel launch
      {{{PARAM_FRAMES, 5}, {PARAM_FRAMES_OFFSET, 2}}, 11},  // every other frame
      {{{PARAM_FRAMES, 4}, {PARAM_FRAMES_OFFSET, -1}}, 2},  // later frames
      {{{PARAM_BLENDING_MODE, 2}, {PARAM_DIFFERENCE_ALGORITHM, 2}, {PARAM_OUTPUT, 2}}, 11},
      {{{PARAM_MOTION_AMPLIFICATION, 1}, {PARAM_NORMALIZE, 1}}, 11},  // pass by pass, displaced reads
      {{{PARAM_CHROMATIC_ABERRATION, 1}, {PARAM_OUTPUT, 3}, {PARAM_FRAMES_FADE, 30}}, 11},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case at frame " << c.newest << " with " << c.params.size() << " settings");
    for (const auto& [id, v] : c.params) {
      ae.SetParamValue(ae.FindParam(id), v);
      pr_->SetParam(id, v);
    }
    const aehost::RenderResult a = ae.Render(ae.FrameTime(c.newest), aehost::RenderPath::SmartGPU);
    const auto p = pr_->Render({c.newest});
    ASSERT_EQ(a.result, 0);
    ASSERT_EQ(p.result, 0);
    EXPECT_EQ(p.framesLeft, 0u);
    EXPECT_LE(WorstDifference(p.output, a.output), kTolerance32);
    for (const auto& [id, v] : c.params) {  // back to the defaults
      const auto& row = ParamTable()[FindParamIndex(id, ParamTable())];
      const double d = std::holds_alternative<float>(row.defaultValue)  ? std::get<float>(row.defaultValue)
                       : std::holds_alternative<bool>(row.defaultValue) ? std::get<bool>(row.defaultValue)
                                                                        : std::get<int32_t>(row.defaultValue);
      ae.SetParamValue(ae.FindParam(id), d);
      pr_->SetParam(id, d);
    }
  }
  EXPECT_EQ(pr_->LiveFrameCount(), 0u);
}

// The half-float form against the reference fed the same halves; odd frames
// smaller than the output and centred, except under motion amplification,
// whose hard step tips over at a canvas's edge between forms; and stacks of
// two frames, whose one pass reads an accumulation that CreateGPUPPix left NaN.
TEST_P(PrRenderDevices, HalfRendersAndCentredFramesMatchTheReference) {
  const struct {
    PrPixelFormat format;
    double frames;
    bool motion;
  } cases[] = {{PrPixelFormat_GPU_BGRA_4444_16f, 10, false}, {PrPixelFormat_GPU_BGRA_4444_16f, 6, true},
               {PrPixelFormat_GPU_BGRA_4444_16f, 2, false},  {PrPixelFormat_GPU_BGRA_4444_32f, 2, false},
               {PrPixelFormat_GPU_BGRA_4444_16f, 2, true},   {PrPixelFormat_GPU_BGRA_4444_32f, 2, true}};
  for (const auto& c : cases) {
    const bool half = c.format != PrPixelFormat_GPU_BGRA_4444_32f;
    SCOPED_TRACE(testing::Message() << (half ? "half" : "float") << ", " << c.frames << " frames, motion " << c.motion);
    auto frame = [&](int64_t k) {
      const bool small = !c.motion && k % 2 == 1;
      return ClipFrame(static_cast<int>(k), small ? 48 : kClipW, small ? 24 : kClipH);
    };
    pr_->ClearFrames();
    for (int k = 0; k < 12; ++k) pr_->AddFrame(k, frame(k));
    pr_->SetParam(PARAM_FRAMES, c.frames);
    pr_->SetParam(PARAM_MOTION_AMPLIFICATION, c.motion);
    const auto p = pr_->Render({11, c.format, kClipW, kClipH});
    ASSERT_EQ(p.result, 0);
    std::vector<aehost::Image> frames;
    for (int64_t k : p.delivered) frames.push_back(frame(k));
    KernelData kd = DefaultKernelData();
    kd.motion_amp = c.motion;
    EXPECT_LE(WorstDifference(p.output, Reference(frames, kClipW, kClipH, half, kd)),
              half ? kTolerance16 : kTolerance32);
  }
}

INSTANTIATE_TEST_SUITE_P(Devices, PrRenderDevices, ::testing::Values("opencl", "cuda"));

// The host keeps clip frames uploaded, once per format: the next frame's
// stack uploads only its new frame.
TEST_F(PrRender, RendersUploadOnlyNewFrames) {
  for (const auto& [frame, format, uploads] : {std::tuple{11, PrPixelFormat_GPU_BGRA_4444_32f, 10u},
                                               {10, PrPixelFormat_GPU_BGRA_4444_32f, 11u},
                                               {11, PrPixelFormat_GPU_BGRA_4444_16f, 21u}}) {
    ASSERT_EQ(pr_->Render({frame, format}).result, 0);
    EXPECT_EQ(pr_->UploadCount(), uploads);
  }
  pr_->RemoveFramesBefore(11);
  EXPECT_EQ(pr_->Render({11}).delivered, std::vector<int64_t>(10, 11));  // the clip now starts at 11
  EXPECT_EQ(pr_->UploadCount(), 21u);
  EXPECT_EQ(pr_->LiveFrameCount(), 0u);
}

TEST_F(PrRender, FailedRendersReportAndLeaveNoFrames) {
  pr_->SetParam(PARAM_MOTION_AMPLIFICATION, 1);  // pass by pass: four scratch frames
  // The output is the filter's first frame, the scratch frames come after it.
  for (int nth : {2, 4}) {
    SCOPED_TRACE(testing::Message() << "CreateGPUPPix fails on call " << nth);
    pr_->FailOperation("CreateGPUPPix", static_cast<prSuiteError>(0x80000001u), nth);
    const auto r = pr_->Render({11});
    EXPECT_EQ(r.result, kFail);
    EXPECT_EQ(r.framesLeft, 0u);
    pr_->ClearInjections();
  }
  EXPECT_EQ(LogCount("GPUTremorDistiller::Render] :: Cannot allocate GPU buffers"), 2u) << Log();
  pr_->NullOperation("GetGPUPPixData", 1);  // the first scratch frame's buffer
  EXPECT_EQ(pr_->Render({11}).result, kFail);
  EXPECT_EQ(LogCount("Cannot allocate GPU buffers"), 3u);
  pr_->ClearInjections();

  PrGPUFilterRenderParams params{11 * kP, 11 * kP, kClipW, kClipH, kP};
  EXPECT_EQ(Filter().Render(Instance(), &params, nullptr, 0, nullptr), kFail);
  EXPECT_EQ(LogCount("GPUTremorDistiller::Render] :: Destination buffer is not available."), 1u);

  // A frame's query that fails ends the render with its status; one that
  // the scratch frames' properties needed, as a failure to make them.
  pr_->FailOperation("GetBounds", 7, 3);
  EXPECT_EQ(pr_->Render({11}).result, 7);
  pr_->ClearInjections();
  pr_->FailOperation("GetFieldOrder", 7);
  EXPECT_EQ(pr_->Render({11}).result, kFail);
  EXPECT_EQ(LogCount("Cannot allocate GPU buffers"), 4u);
  pr_->ClearInjections();
  EXPECT_EQ(pr_->LiveFrameCount(), 0u);
}

// The host is asked for all seven suites, in order, whatever it lacks; only a
// missing one of the four the filter calls refuses the instance. Without one
// of the three it merely keeps, the instance renders what it renders with all.
TEST_F(PrRender, OnlyASuiteTheFilterCallsIsNeeded) {
  const auto all = pr_->Render({11});
  ASSERT_EQ(all.result, 0);
  const std::vector<std::string> asked = {"MediaCore GPU Device Suite v2",    "MediaCore GPU Image Processing Suite v1",
                                          "Premiere Memory Manager Suite v4", "Premiere PPix Suite v1",
                                          "Premiere PPix 2 Suite v3",         "PF Transition Suite v2",
                                          "MediaCore Video Segment Suite v9"};
  const struct {
    const char* suite;
    bool called;
  } rows[] = {{"MediaCore GPU Image Processing Suite", false},
              {"Premiere Memory Manager Suite", false},
              {"PF Transition Suite", false},
              {"MediaCore GPU Device Suite", true},
              {"Premiere PPix Suite", true},
              {"Premiere PPix 2 Suite", true},
              {"MediaCore Video Segment Suite", true}};
  size_t refusals = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.suite);
    pr_->DisposeInstances();
    pr_->ClearInjections();
    pr_->ClearCallLog();
    pr_->RemoveSuite(row.suite);
    PrGPUFilterInstance* instance = nullptr;
    EXPECT_EQ(pr_->Instance(1, &instance), row.called ? kFail : 0);
    EXPECT_EQ(instance == nullptr, row.called);
    std::vector<std::string> acquired;
    for (const auto& c : pr_->CallLog())
      if (c.op == "AcquireSuite") {
        acquired.push_back(c.args);
        EXPECT_EQ(c.result != 0, c.args.rfind(row.suite + std::string(" v"), 0) == 0) << c.args;
      }
    EXPECT_EQ(acquired, asked);
    refusals += row.called;
    EXPECT_EQ(LogCount("PrGPUFilterBase::Initialize] :: Not able to acquire suite: "), refusals) << Log();
    if (row.called) {
      EXPECT_EQ(LogCount(std::string("Not able to acquire suite: ") + row.suite + " "), 1u);
      continue;
    }
    const auto r = pr_->Render({11});
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.framesLeft, 0u);
    EXPECT_EQ(r.output.rgba, all.output.rgba);
  }
}

}  // namespace
