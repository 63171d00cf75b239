// Whole frames through the built module, loaded and driven by the stand-in
// After Effects host on OpenCL (PoCL here), against the frame-stack loop on
// the CPU reference device given the same stack.
#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <set>

#include "CpuRender.h"
#include "Device.h"
#include "ModuleHostTest.h"
#include "KernelTestSupport.h"

namespace {

using aehost::Image;
using aehost::RenderPath;
using aehost::RenderResult;

constexpr int kW = 64, kH = 32;  // powers of two: own-pixel reads agree across forms
constexpr float kTolerance = 1e-4f;

// A band moving right two pixels a frame over a steep ramp, varying along x
// only, so flow and displaced reads agree between OpenCL and the reference.
Image ClipFrame(int k) {
  Image img(kW, kH);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const bool band = x >= 10 + 2 * k && x < 20 + 2 * k;
      const float g = 0.1f + 0.012f * x + (band ? 0.05f : 0.0f);
      float* p = img.At(x, y);
      p[0] = g;
      p[1] = 0.9f * g;
      p[2] = 0.8f * g + 0.05f;
      p[3] = 0.6f + 0.4f * x / kW;
    }
  return img;
}

// R, G, B, A to B, G, R, A and back: the same swap.
std::vector<float> SwapRB(std::vector<float> px) {
  for (size_t i = 0; i < px.size(); i += 4) std::swap(px[i], px[i + 2]);
  return px;
}

// The frame-stack loop on the CPU reference device over clip frames `ks` (newest first).
Image ReferenceRender(const std::vector<int>& ks, KernelData kd) {
  std::vector<std::vector<float>> frames;
  for (int k : ks) frames.push_back(SwapRB(ClipFrame(k).rgba));
  std::vector<float> out(static_cast<size_t>(kW) * kH * 4, 0.0f);
  FrameStackJob job;
  for (auto& f : frames) job.frames.push_back({f.data(), kW, kH, kW * 16, 0, 0});
  job.output = {out.data(), kW, kH, kW * 16, 0, 0};
  job.is16f = false;
  kd.numFrames = static_cast<int>(ks.size());
  job.kernelData = &kd;
  EXPECT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);
  Image img(kW, kH);
  img.rgba = SwapRB(out);
  return img;
}

float WorstDifference(const Image& a, const Image& b) {
  float worst = 0.0f;
  for (size_t i = 0; i < a.rgba.size(); ++i)
    worst = std::max(worst, std::fabs(a.rgba[i] - b.rgba[i]) / std::max(1.0f, std::fabs(b.rgba[i])));
  return worst;
}

std::vector<int> Stack(int newest, int frames) {
  std::vector<int> ks;
  for (int i = 0; i < frames; ++i) ks.push_back(std::max(newest - i, 0));  // the oldest frame repeats
  return ks;
}

class AeRender : public ModuleHostTest {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    aehost::HostOptions options;
    options.rowPaddingBytes = 48;  // worlds with a pitch wider than the frame
    NewHost(options);
    for (int k = 0; k < 12; ++k) host_->AddFrame(host_->FrameTime(k), ClipFrame(k));
  }
  void SetUpGpu(const std::string& kind = "opencl") {
    aehost::DeviceOptions device;
    device.device = kind;
    ASSERT_EQ(host_->SetUp(&device), 0);
    ASSERT_TRUE(host_->GpuReady());
  }
  void Set(A_long diskId, double value) { host_->SetParamValue(host_->FindParam(diskId), value); }
};

class AeRenderDevices : public AeRender, public ::testing::WithParamInterface<std::string> {};

TEST_P(AeRenderDevices, EveryModeAndSwitchMatchesTheReference) {
  try {
    ResolveDeviceText(GetParam());
  } catch (const DeviceError& e) {
    GTEST_SKIP() << "no " << GetParam() << " device on this machine: " << e.what();
  }
  SetUpGpu(GetParam());
  // Disk id, value, the default it goes back to, and what the reference is told.
  const struct {
    A_long id;
    double value, dephault;
    std::function<void(KernelData&)> apply;
  } settings[] = {
      {0, 0, 0, [](KernelData&) {}},
      {19, 2, 1, [](KernelData& kd) { kd.blendMode = BLEND_SCREEN; }},
      {20, 2, 1, [](KernelData& kd) { kd.diffMode = DIFF_SUBT; }},
      {23, 2, 1, [](KernelData& kd) { kd.output = static_cast<ColorFrom>(2); }},
      {23, 3, 1, [](KernelData& kd) { kd.output = static_cast<ColorFrom>(3); }},
      {24, 1, 0, [](KernelData& kd) { kd.normalize = true; }},
      {22, 1, 0, [](KernelData& kd) { kd.motion_amp = true; }},
      {21, 1, 0, [](KernelData& kd) { kd.chromatic = true; }},
      {12, 0, 80, [](KernelData& kd) { kd.percentEase = 0.0f; }},
      {5, 3, 10, [](KernelData&) {}},  // three frames
  };
  for (const auto& s : settings) {
    SCOPED_TRACE(testing::Message() << "disk id " << s.id << " = " << s.value);
    KernelData kd = DefaultKernelData();
    s.apply(kd);
    if (s.id) Set(s.id, s.value);
    const int frames = s.id == 5 ? 3 : 10;
    const RenderResult r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.checkouts.size(), static_cast<size_t>(frames));
    EXPECT_EQ(r.effectWorldsLeft, 0u);
    EXPECT_EQ(r.worldsNotCheckedIn, 0u);
    EXPECT_LE(WorstDifference(r.output, ReferenceRender(Stack(11, frames), kd)), kTolerance);
    if (s.id) Set(s.id, s.dephault);
  }
}

INSTANTIATE_TEST_SUITE_P(, AeRenderDevices, ::testing::Values("opencl", "cuda"),
                         [](const auto& info) { return info.param; });

TEST_F(AeRender, StartOfClipRepeatsTheOldestFrameAndSaysSoOnce) {
  SetUpGpu();
  const RenderResult r = host_->Render(host_->FrameTime(3), RenderPath::SmartGPU);
  ASSERT_EQ(r.result, 0);
  ASSERT_EQ(r.checkouts.size(), 10u);
  for (const auto& c : r.checkouts) EXPECT_EQ(c.checkins, 1) << c.checkoutIdx;
  EXPECT_LE(WorstDifference(r.output, ReferenceRender(Stack(3, 10), DefaultKernelData())), kTolerance);
  EXPECT_EQ(LogCount("Reached a last NULL frame at #3 frame."), 1u);
}

TEST_F(AeRender, ThreadedRendersEqualSerialOnesAndKeepTheirOwnCallbacks) {
  SetUpGpu();
  std::vector<A_long> times;
  for (int k : {11, 10, 9, 8, 11, 10}) times.push_back(host_->FrameTime(k));
  std::vector<Image> serial;
  for (A_long t : times) serial.push_back(host_->Render(t, RenderPath::SmartGPU).output);
  EXPECT_EQ(host_->UploadCount(), 12u);  // frames 0..11, each once
  host_->ResetUploadCount();
  host_->ClearCallLog();
  const auto threaded = host_->RenderMany(times, 3, RenderPath::SmartGPU);
  EXPECT_EQ(host_->UploadCount(), 0u);
  std::map<uint64_t, std::pair<int, int>> perRender;  // bookings, check-ins
  for (const auto& c : host_->CallLog()) {
    perRender[c.renderId].first += c.op == "checkout_layer";
    perRender[c.renderId].second += c.op == "checkin_layer_pixels";
  }
  std::set<uint64_t> ids;
  for (size_t i = 0; i < times.size(); ++i) {
    ASSERT_EQ(threaded[i].result, 0);
    EXPECT_EQ(threaded[i].time, times[i]);
    EXPECT_EQ(threaded[i].output.rgba, serial[i].rgba) << i;
    EXPECT_EQ(perRender[threaded[i].renderId], std::make_pair(10, 10)) << i;
    ids.insert(threaded[i].renderId);
  }
  EXPECT_EQ(ids.size(), times.size());
  EXPECT_NE(serial[0].rgba, serial[1].rgba);
}

TEST_F(AeRender, FailuresKeepCheckInsAndReachTheHostWithTheirTexts) {
  SetUpGpu();
  // Only the third fetch fails; the render stops there and still checks every frame in.
  host_->FailOperation("checkout_layer_pixels", PF_Err_OUT_OF_MEMORY, 3);
  RenderResult r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.render.result, PF_Err_OUT_OF_MEMORY);
  ASSERT_EQ(r.checkouts.size(), 10u);
  EXPECT_EQ(r.checkouts[1].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[2].pixelCheckouts, 0);
  for (const auto& c : r.checkouts) EXPECT_EQ(c.checkins, 1) << c.checkoutIdx;
  EXPECT_EQ(r.effectWorldsLeft, 0u);
  // Counted from when it was set, it does not fire again.
  EXPECT_EQ(host_->Render(host_->FrameTime(11), RenderPath::SmartGPU).result, 0);
  host_->ClearInjections();

  host_->RemoveSuite("PF World Suite");
  r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, 13);
  EXPECT_EQ(r.render.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(r.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(LogCount("PF_Cmd_SMART_RENDER_GPU. Code: PF_Err_OUT_OF_MEMORY (4)"), 1u);
  EXPECT_EQ(LogCount("Try Catch Exception code at event PF_Cmd_SMART_RENDER_GPU is PF_Err?UNKNOWN (13)"), 1u);
}

}  // namespace
