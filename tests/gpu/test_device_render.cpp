// The frame-stack loop run for real through InitializeGPU and GPURender on each
// device kind of the build (PoCL by default; CUDA where a device exists),
// compared with the CPU reference device in that kind's 16-bit form.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "DeviceFrameStack.h"
#include "LogsController.h"
#include "RenderScenes.h"

namespace {

struct Tolerance {
  float f32, f16;
};

// OpenCL stores true halves rounding toward zero; CUDA builds with fast maths
// and its 16-bit form goes through the power curve, whose steps near 1.0 are
// about half a percent apart.
Tolerance ToleranceOf(const std::string& kind) {
  return kind == "cuda" ? Tolerance{1e-4f, 2e-2f} : Tolerance{kOpenCLTolerance32, kOpenCLTolerance16};
}

// Records go to a log under the build tree, as after a host's global set-up.
class LogEnvironment : public ::testing::Environment {
  void SetUp() override {
    setenv("TMPDIR", TD_TEST_TMP_DIR, 1);
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
    LoggerInit(kLogFileStem, kLogFolderName);
  }
};
::testing::Environment* const kLogEnvironment = ::testing::AddGlobalTestEnvironment(new LogEnvironment);

using Param = std::tuple<std::string, bool>;  // device kind, 16-bit frames

class DeviceRender : public ::testing::TestWithParam<Param> {
 protected:
  void SetUp() override {
    const std::string& kind = std::get<0>(GetParam());
    if (!FindDeviceKind(kind)) GTEST_SKIP() << "this build has no " << kind << " support";
    try {
      device_ = OpenDevice(kind);
    } catch (const DeviceError& e) {
      GTEST_SKIP() << "no " << kind << " device on this machine: " << e.what();
    }
    kernels_ = std::make_unique<DeviceKernels>(device_);
    ASSERT_EQ(kernels_->status, 0) << "InitializeGPU failed on " << device_.name;
  }
  void TearDown() override {
    kernels_.reset();
    CloseDevice(device_);
  }

  CpuHalfForm Form() const { return std::get<0>(GetParam()) == "cuda" ? CpuHalfForm::CUDA : CpuHalfForm::OpenCL; }

  // Renders the scene on the device; returns the output rows, pitch included.
  std::vector<unsigned char> RenderOnDevice(const Scene& s, KernelData kd) const {
    std::vector<DeviceBuffer> frames;
    FrameStackJob job;
    const int32_t rowBytes = static_cast<int32_t>(s.pitch * s.PixelBytes());
    for (int i = 0; i < s.numFrames; ++i) {
      frames.push_back(AllocateDeviceBuffer(device_, s.Bytes()));
      device_.kind->upload(device_, frames.back().get(), s.Frame(i), s.Bytes());
      job.frames.push_back({frames.back().get(), s.w, s.h, rowBytes, s.offsets[i].first, s.offsets[i].second});
    }
    // Guard values in the padding must survive.
    std::vector<unsigned char> out(s.Bytes(), 0xA5);
    DeviceBuffer outMem = AllocateDeviceBuffer(device_, s.Bytes());
    device_.kind->upload(device_, outMem.get(), out.data(), out.size());
    job.output = {outMem.get(), s.w, s.h, rowBytes, 0, 0};
    job.is16f = s.is16f;
    job.kernelData = &kd;
    EXPECT_EQ(RenderFrameStack(job, MakeDeviceFrameStackHost(device_, &kernels_->list, job)), 0);
    device_.kind->download(device_, outMem.get(), out.data(), out.size());
    return out;
  }

  Device device_;
  std::unique_ptr<DeviceKernels> kernels_;
};

TEST_P(DeviceRender, EveryModeMatchesTheReference) {
  const bool is16f = std::get<1>(GetParam());
  const Tolerance tol = ToleranceOf(std::get<0>(GetParam()));
  // A lone pair at an odd size reads only a cleared accumulation; its older
  // frame, then its newer, on a canvas.
  Scene pairs[2] = {Scene(Content::Random, 61, 37, 2, is16f, 17, Form()),
                    Scene(Content::Random, 61, 37, 2, is16f, 18, Form())};
  pairs[0].offsets[1] = {3, -2};
  pairs[1].offsets[0] = {3, -2};
  Scene randomStack(Content::Random, 64, 32, 6, is16f, 3, Form());
  randomStack.offsets = {{0, 0}, {2, -1}, {0, 0}, {-3, 2}, {0, 0}, {1, 1}};
  Scene stripes(Content::Stripes, 64, 16, 6, is16f, 5, Form());
  for (DiffBlendMode diff : {DIFF_DIFF, DIFF_SUBT})
    for (BlendMode blend : {BLEND_ADD, BLEND_SCREEN})
      for (ColorFrom output : {FROM_MOTION, FROM_SOURCE, FROM_LUMA})
        for (int flags = 0; flags < 8; ++flags) {
          KernelData kd = DefaultKernelData();
          kd.diffMode = diff;
          kd.blendMode = blend;
          kd.output = output;
          kd.normalize = flags & 1;
          kd.motion_amp = (flags & 2) != 0;
          kd.chromatic = (flags & 4) != 0;
          SCOPED_TRACE(testing::Message()
                       << "diff " << diff << " blend " << blend << " output " << output << " flags " << flags);
          const bool displaced = kd.motion_amp || kd.chromatic;
          for (const Scene* s : {&pairs[flags % 2], displaced ? &stripes : &randomStack}) {
            kd.numFrames = s->numFrames;
            EXPECT_LE(Compare(*s, RenderOnDevice(*s, kd), RenderReference(*s, kd), s == &stripes ? 1 : 0),
                      is16f ? tol.f16 : tol.f32);
          }
        }
}

INSTANTIATE_TEST_SUITE_P(, DeviceRender, ::testing::Combine(::testing::Values("opencl", "cuda"), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<Param>& info) {
                           return std::get<0>(info.param) + (std::get<1>(info.param) ? "Half" : "Float");
                         });

}  // namespace
