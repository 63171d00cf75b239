// The frame-stack loop run for real through InitializeGPU and GPURender on
// OpenCL (PoCL by default), compared with the CPU reference device.
#define GPU_FAILURE_CODE 512
#include "TremorDistiller_AePrGPU_Functions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>
#include <tuple>
#include <vector>

#include "GpuTestSupport.h"
#include "RenderScenes.h"

namespace {

// Records go to a log under the build tree, as after a host's global set-up.
class LogEnvironment : public ::testing::Environment {
  void SetUp() override {
    setenv("TMPDIR", TD_TEST_TMP_DIR, 1);
    LoggerInit(kLogFileStem, kLogFolderName);
  }
};
::testing::Environment* const kLogEnvironment = ::testing::AddGlobalTestEnvironment(new LogEnvironment);

class OpenCLRender : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!OpenTestDevice(device_)) return;
    std::memset(&kernels_, 0, sizeof kernels_);
    ready_ = InitializeGPU(OpenCL, &kernels_, device_.device, device_.context) == 0;
  }
  static void TearDownTestSuite() {
    if (device_.context) {
      GPUDispose(OpenCL, &kernels_);
      CloseOpenCLDevice(device_);
    }
  }
  void SetUp() override {
    if (!device_.context) GTEST_SKIP() << "no OpenCL device";
    ASSERT_TRUE(ready_) << "InitializeGPU failed on " << device_.deviceName;
  }

  // Renders the scene on OpenCL; returns the output rows (pitch included).
  static std::vector<unsigned char> RenderOpenCL(const Scene& s, KernelData kd) {
    std::vector<cl_mem> frames;
    FrameStackJob job;
    for (int i = 0; i < s.numFrames; ++i) {
      cl_mem m = CreateOpenCLBuffer(device_, s.Bytes());
      UploadOpenCLBuffer(device_, m, s.Frame(i), s.Bytes());
      frames.push_back(m);
      job.frames.push_back({m, s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()), s.offsets[i].first,
                            s.offsets[i].second});
    }
    // Guard values in the padding must survive.
    std::vector<unsigned char> out(s.Bytes(), 0xA5);
    cl_mem outMem = CreateOpenCLBuffer(device_, s.Bytes());
    UploadOpenCLBuffer(device_, outMem, out.data(), out.size());
    job.output = {outMem, s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()), 0, 0};
    job.is16f = s.is16f;
    job.kernelData = &kd;
    const FrameStackHost host = MakeOpenCLFrameStackHost(
        device_, job,
        [](const PassBuffers& b, KernelData& k, const MainKernelArgs& m, const ResizeKernelArgs& pre,
           const ResizeKernelArgs& cur) {
          return GPURender(OpenCL, &kernels_, device_.context, device_.queue, b, k, m, pre, cur, 16);
        });
    EXPECT_EQ(RenderFrameStack(job, host), 0);
    DownloadOpenCLBuffer(device_, outMem, out.data(), out.size());
    clReleaseMemObject(outMem);
    for (cl_mem m : frames) clReleaseMemObject(m);
    return out;
  }

  static OpenCLDevice device_;
  static KernelList kernels_;
  static bool ready_;
};

OpenCLDevice OpenCLRender::device_;
KernelList OpenCLRender::kernels_;
bool OpenCLRender::ready_ = false;

using ModeParam = std::tuple<bool, DiffBlendMode, BlendMode>;

class OpenCLRenderModes : public OpenCLRender, public ::testing::WithParamInterface<ModeParam> {
 protected:
  // Every output with every combination of the three switches.
  template <typename Check>
  void ForEachOutputAndSwitch(const Scene& scene, Check check) {
    const auto [is16f, diff, blend] = GetParam();
    (void)is16f;
    for (ColorFrom output : {FROM_MOTION, FROM_SOURCE, FROM_LUMA})
      for (int flags = 0; flags < 8; ++flags) {
        KernelData kd = DefaultKernelData(scene.numFrames);
        kd.diffMode = diff;
        kd.blendMode = blend;
        kd.output = output;
        kd.normalize = flags & 1;
        kd.motion_amp = (flags & 2) != 0;
        kd.chromatic = (flags & 4) != 0;
        SCOPED_TRACE(testing::Message() << "output " << output << " normalize " << kd.normalize
                                        << " motion_amp " << kd.motion_amp << " chromatic " << kd.chromatic);
        check(kd);
      }
  }
};

TEST_P(OpenCLRenderModes, LonePairOnRandomDataMatchesTheReference) {
  const bool is16f = std::get<0>(GetParam());
  // Odd size, padded pitch; the older frame on a canvas, then the newer.
  for (int placed = 0; placed < 2; ++placed) {
    Scene scene(Content::Random, 61, 37, 2, is16f, 17 + placed);
    scene.offsets[1 - placed] = {3, -2};
    ForEachOutputAndSwitch(scene, [&](const KernelData& kd) {
      EXPECT_LE(Compare(scene, RenderOpenCL(scene, kd), RenderReference(scene, kd)),
                is16f ? kOpenCLTolerance16 : kOpenCLTolerance32);
    });
  }
}

TEST_P(OpenCLRenderModes, StacksWithCanvasesMatchTheReference) {
  const bool is16f = std::get<0>(GetParam());
  const float tolerance = is16f ? kOpenCLTolerance16 : kOpenCLTolerance32;
  Scene randomStack(Content::Random, 64, 32, 6, is16f, 3);
  randomStack.offsets = {{0, 0}, {2, -1}, {0, 0}, {-3, 2}, {0, 0}, {1, 1}};
  Scene stripes(Content::Stripes, 64, 16, 6, is16f, 5);
  ForEachOutputAndSwitch(randomStack, [&](const KernelData& kd) {
    const bool displaced = kd.motion_amp || kd.chromatic;
    const Scene& scene = displaced ? stripes : randomStack;
    EXPECT_LE(Compare(scene, RenderOpenCL(scene, kd), RenderReference(scene, kd), displaced ? 1 : 0), tolerance);
  });
}

TEST_F(OpenCLRender, RendersAreBitIdenticalRunToRunAndAcrossThreads) {
  Scene scene(Content::Random, 61, 37, 6, false, 9);
  scene.offsets = {{0, 0}, {2, -1}, {0, 0}, {-3, 2}, {0, 0}, {1, 1}};
  std::vector<KernelData> settings;
  for (int k = 0; k < 4; ++k) {
    KernelData kd = DefaultKernelData(scene.numFrames);
    kd.motion_amp = k & 1;
    kd.chromatic = (k & 2) != 0;
    kd.normalize = true;
    kd.output = k == 3 ? FROM_SOURCE : FROM_MOTION;
    settings.push_back(kd);
  }
  std::vector<std::vector<unsigned char>> serial;
  for (const KernelData& kd : settings) serial.push_back(RenderOpenCL(scene, kd));
  for (size_t k = 0; k < settings.size(); ++k) EXPECT_EQ(RenderOpenCL(scene, settings[k]), serial[k]) << k;

  // Renders on one device from several threads share its kernels.
  std::vector<std::vector<unsigned char>> threaded(settings.size() * 3);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < threaded.size(); ++t)
    threads.emplace_back([&, t] { threaded[t] = RenderOpenCL(scene, settings[t % settings.size()]); });
  for (auto& th : threads) th.join();
  for (size_t t = 0; t < threaded.size(); ++t) EXPECT_EQ(threaded[t], serial[t % settings.size()]) << t;
}

INSTANTIATE_TEST_SUITE_P(, OpenCLRenderModes,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(DIFF_DIFF, DIFF_SUBT),
                                            ::testing::Values(BLEND_ADD, BLEND_SCREEN)),
                         [](const ::testing::TestParamInfo<ModeParam>& info) {
                           return std::string(std::get<0>(info.param) ? "Half" : "Float") +
                                  (std::get<1>(info.param) == DIFF_DIFF ? "Difference" : "Subtract") +
                                  (std::get<2>(info.param) == BLEND_ADD ? "Add" : "Screen");
                         });

}  // namespace
