// Whole frames through the built module, loaded and driven by the stand-in
// After Effects host on OpenCL (PoCL here), against the frame-stack loop on
// the CPU reference device given the same stack.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "AeHost.h"
#include "CpuRender.h"
#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif
#include "KernelTestSupport.h"

namespace {

using aehost::AeHost;
using aehost::Image;
using aehost::RenderPath;

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

std::vector<float> ToBgra(const Image& img) {
  std::vector<float> out(img.rgba.size());
  for (size_t i = 0; i < img.rgba.size(); i += 4) {
    out[i] = img.rgba[i + 2];
    out[i + 1] = img.rgba[i + 1];
    out[i + 2] = img.rgba[i];
    out[i + 3] = img.rgba[i + 3];
  }
  return out;
}

// The frame-stack loop on the CPU reference device over clip frames `ks`
// (newest first), R, G, B, A out.
Image ReferenceRender(const std::vector<int>& ks, KernelData kd) {
  std::vector<std::vector<float>> frames;
  for (int k : ks) frames.push_back(ToBgra(ClipFrame(k)));
  std::vector<float> out(static_cast<size_t>(kW) * kH * 4, 0.0f);
  FrameStackJob job;
  for (auto& f : frames) job.frames.push_back({f.data(), kW, kH, kW * 16, 0, 0});
  job.output = {out.data(), kW, kH, kW * 16, 0, 0};
  job.is16f = false;
  kd.numFrames = static_cast<int>(ks.size());
  job.kernelData = &kd;
  EXPECT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);
  Image img(kW, kH);
  img.rgba = out;
  img.rgba = ToBgra(img);  // the same swap turns B, G, R, A back into R, G, B, A
  return img;
}

float WorstDifference(const Image& a, const Image& b) {
  float worst = 0.0f;
  for (size_t i = 0; i < a.rgba.size(); ++i)
    worst = std::max(worst, std::fabs(a.rgba[i] - b.rgba[i]) / std::max(1.0f, std::fabs(b.rgba[i])));
  return worst;
}

std::string ReadLog(const std::string& tmp) {
  std::ifstream in(tmp + "/Harbour Lantern Lab/com.hll.tremordistiller.log");
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool HasCudaDevice() {
#ifdef TD_HAVE_CUDA
  return CudaDeviceCount() > 0;
#else
  return false;
#endif
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

class AeRender : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
    tmp_ = std::string(TD_TEST_TMP_DIR) + "/ae-render-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::remove_all(tmp_);
    std::filesystem::create_directories(tmp_);
    setenv("TMPDIR", tmp_.c_str(), 1);
    aehost::HostOptions options;
    options.rowPaddingBytes = 48;  // GPU worlds with a pitch wider than the frame
    // The module can be pointed elsewhere, e.g. on a machine the build was copied to.
    const char* module = std::getenv("TD_MODULE_PATH");
    host_ = std::make_unique<AeHost>(module ? module : TD_MODULE_PATH, options);
    for (int k = 0; k < 12; ++k) host_->AddFrame(host_->FrameTime(k), ClipFrame(k));
  }
  void SetUpGpu(aehost::GpuKind kind = aehost::GpuKind::OpenCL) {
    aehost::DeviceOptions device;
    device.kind = kind;
    ASSERT_EQ(host_->SetUp(&device), 0);
    ASSERT_TRUE(host_->GpuReady());
  }
  void Set(A_long diskId, double value) { host_->SetParamValue(host_->FindParam(diskId), value); }

  std::string tmp_;
  std::unique_ptr<AeHost> host_;
};

class AeRenderDevices : public AeRender, public ::testing::WithParamInterface<aehost::GpuKind> {};

TEST_P(AeRenderDevices, EveryModeAndSwitchMatchesTheReference) {
  if (GetParam() == aehost::GpuKind::Cuda && !HasCudaDevice()) GTEST_SKIP() << "no CUDA device on this machine";
  SetUpGpu(GetParam());
  struct Setting { A_long id; double value; } settings[] = {
      {0, 0}, {19, 2}, {20, 2}, {23, 2}, {23, 3}, {24, 1}, {22, 1}, {21, 1}, {12, 0}, {5, 3},
  };
  for (const Setting& s : settings) {
    KernelData kd = DefaultKernelData();
    if (s.id) Set(s.id, s.value);
    switch (s.id) {
      case 19: kd.blendMode = BLEND_SCREEN; break;
      case 20: kd.diffMode = DIFF_SUBT; break;
      case 23: kd.output = static_cast<ColorFrom>(s.value); break;
      case 24: kd.normalize = true; break;
      case 22: kd.motion_amp = true; break;
      case 21: kd.chromatic = true; break;
      case 12: kd.percentEase = 0.0f; break;
      default: break;
    }
    const int frames = s.id == 5 ? 3 : 10;
    std::vector<int> ks;
    for (int i = 0; i < frames; ++i) ks.push_back(11 - i);
    SCOPED_TRACE(testing::Message() << "disk id " << s.id << " = " << s.value);
    const aehost::RenderResult r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.checkouts.size(), static_cast<size_t>(frames));
    EXPECT_EQ(r.effectWorldsLeft, 0u);
    EXPECT_EQ(r.worldsNotCheckedIn, 0u);
    EXPECT_LE(WorstDifference(r.output, ReferenceRender(ks, kd)), kTolerance);
    // Back to the default before the next setting.
    if (s.id == 19 || s.id == 20 || s.id == 23) Set(s.id, 1);
    if (s.id == 24 || s.id == 22 || s.id == 21) Set(s.id, 0);
    if (s.id == 12) Set(12, 80);
    if (s.id == 5) Set(5, 10);
  }
}

INSTANTIATE_TEST_SUITE_P(, AeRenderDevices, ::testing::Values(aehost::GpuKind::OpenCL, aehost::GpuKind::Cuda),
                         [](const auto& info) { return info.param == aehost::GpuKind::Cuda ? "Cuda" : "OpenCL"; });

TEST_F(AeRender, StartOfClipRepeatsTheOldestFrameAndSaysSoOnce) {
  SetUpGpu();
  const aehost::RenderResult r = host_->Render(host_->FrameTime(3), RenderPath::SmartGPU);
  ASSERT_EQ(r.result, 0);
  ASSERT_EQ(r.checkouts.size(), 10u);
  for (const auto& c : r.checkouts) EXPECT_EQ(c.checkins, 1) << c.checkoutIdx;
  EXPECT_LE(WorstDifference(r.output, ReferenceRender({3, 2, 1, 0, 0, 0, 0, 0, 0, 0}, DefaultKernelData())),
            kTolerance);
  EXPECT_EQ(Count(ReadLog(tmp_), "Reached a last NULL frame at #3 frame."), 1u);
}

TEST_F(AeRender, ConcurrentRendersEqualSerialOnesAndUploadOnlyWhatIsNew) {
  SetUpGpu();
  const std::vector<A_long> times = {host_->FrameTime(11), host_->FrameTime(10), host_->FrameTime(9),
                                     host_->FrameTime(8)};
  std::vector<Image> serial;
  for (A_long t : times) serial.push_back(host_->Render(t, RenderPath::SmartGPU).output);
  EXPECT_EQ(host_->UploadCount(), 12u);  // frames 0..11, each once
  host_->ResetUploadCount();
  const auto threaded = host_->RenderMany(times, 3, RenderPath::SmartGPU);
  EXPECT_EQ(host_->UploadCount(), 0u);
  for (size_t i = 0; i < times.size(); ++i) {
    ASSERT_EQ(threaded[i].result, 0);
    EXPECT_EQ(threaded[i].output.rgba, serial[i].rgba) << i;
  }
}

TEST_F(AeRender, SetUpDeclaresTheEffectAndLogsItsVersion) {
  SetUpGpu();
  const auto setup = host_->LastCommand(PF_Cmd_GLOBAL_SETUP);
  ASSERT_TRUE(setup);
  EXPECT_EQ(setup->my_version, 0x00080001u);
  EXPECT_EQ(setup->out_flags & 0x06008404, 0x06008404);
  EXPECT_EQ(setup->out_flags2, 0x0B001408);
  const std::string log = ReadLog(tmp_);
  EXPECT_NE(log.find("HLL :: Welcome!\n"), std::string::npos);
  EXPECT_NE(log.find("HLL :: Tremor Distiller, v1.0.0 in AE13.28\n"), std::string::npos);
  EXPECT_EQ(host_->PiPL().size(), 294u);
  EXPECT_EQ(host_->NvOptimusEnablementCuda(), 1);
  EXPECT_EQ(host_->Params().size(), 10u);
}

TEST_F(AeRender, FailuresKeepCheckInsAndReachTheHostWithTheirTexts) {
  SetUpGpu();
  host_->FailOperation("checkout_layer_pixels", PF_Err_OUT_OF_MEMORY, 3);
  aehost::RenderResult r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
  for (const auto& c : r.checkouts) EXPECT_EQ(c.checkins, 1) << c.checkoutIdx;
  host_->ClearInjections();

  host_->RemoveSuite("PF World Suite");
  r = host_->Render(host_->FrameTime(11), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, 13);
  EXPECT_EQ(r.render.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(r.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  host_->ClearInjections();
  const std::string log = ReadLog(tmp_);
  EXPECT_EQ(Count(log, "PF_Cmd_SMART_RENDER_GPU. Code: PF_Err_OUT_OF_MEMORY (4)"), 1u);
  EXPECT_EQ(Count(log, "Try Catch Exception code at event PF_Cmd_SMART_RENDER_GPU is PF_Err?UNKNOWN (13)"), 1u);
}

TEST_F(AeRender, SoftwareFramesComeBackDimmedAndTheSecondRaisesTheNotice) {
  ASSERT_EQ(host_->SetUp(nullptr), 0);  // no GPU device
  aehost::RenderResult first = host_->Render(host_->FrameTime(5), RenderPath::SmartSoftware);
  ASSERT_EQ(first.result, 0);
  EXPECT_EQ(first.render.return_msg, "");
  const float* in = ClipFrame(5).At(30, 4);
  const float* out = first.output.At(30, 4);
  EXPECT_FLOAT_EQ(out[0], in[0] * 0.5f);
  EXPECT_FLOAT_EQ(out[3], in[3]);  // alpha is copied
  aehost::RenderResult second = host_->Render(host_->FrameTime(6), RenderPath::SmartSoftware);
  EXPECT_EQ(second.render.return_msg,
            "Wrong Settings for GPU Acceleration\n\nSorry, the current version of the plugin only supports GPU "
            "acceleration. Go in File > Project Settings and select 'Mercury GPU Acceleration'");
  EXPECT_TRUE(second.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(second.checkouts.size(), 10u);
  EXPECT_EQ(second.checkouts[0].pixelCheckouts, 1);
  EXPECT_EQ(second.checkouts[1].pixelCheckouts, 0);  // the software path fetches one frame
}

}  // namespace
