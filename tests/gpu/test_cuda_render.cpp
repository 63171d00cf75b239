// The frame-stack loop through GPURender on CUDA, compared with the CPU
// reference device in the CUDA 16-bit form. Skips where no CUDA device exists.
#define GPU_FAILURE_CODE 512
#include "TremorDistiller_AePrGPU_Functions.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "CudaDevice.h"
#include "RenderScenes.h"

namespace {

// CUDA builds with fast maths (approximate division, square root, exp and
// log). The 16-bit form goes through the power curve, whose steps near 1.0 are
// about half a percent apart.
constexpr float kCudaTolerance32 = 1e-4f;
constexpr float kCudaTolerance16 = 2e-2f;

class CudaRender : public ::testing::Test {
 protected:
  void SetUp() override {
    if (CudaDeviceCount() == 0) GTEST_SKIP() << "no CUDA device (no GPU or no driver on this machine)";
    std::string error;
    ASSERT_TRUE(SelectCudaDevice(0, error)) << error;
    kernels_ = KernelList{};
    ASSERT_EQ(InitializeGPU(CUDA, &kernels_, nullptr, nullptr), 0);
  }

  std::vector<unsigned char> RenderCuda(const Scene& s, KernelData kd) {
    std::vector<void*> frames;
    FrameStackJob job;
    for (int i = 0; i < s.numFrames; ++i) {
      void* m = CreateCudaBuffer(s.Bytes());
      UploadCudaBuffer(m, s.Frame(i), s.Bytes());
      frames.push_back(m);
      job.frames.push_back({m, s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()), s.offsets[i].first,
                            s.offsets[i].second});
    }
    std::vector<unsigned char> out(s.Bytes(), 0xA5);
    void* outMem = CreateCudaBuffer(s.Bytes());
    UploadCudaBuffer(outMem, out.data(), out.size());
    job.output = {outMem, s.w, s.h, static_cast<int32_t>(s.pitch * s.PixelBytes()), 0, 0};
    job.is16f = s.is16f;
    job.kernelData = &kd;
    const size_t bytes = s.Bytes();
    FrameStackHost host;
    host.failureCode = 512;
    host.createScratch = [bytes](int32_t, int32_t, bool clear, void** scratch) -> int32_t {
      *scratch = CreateCudaBuffer(bytes);
      if (clear) ClearCudaBuffer(*scratch, bytes);
      return 0;
    };
    host.deviceBuffer = [](void* frame, void** buffer) -> int32_t {
      *buffer = frame;
      return 0;
    };
    host.disposeScratch = [](void* scratch) -> int32_t {
      FreeCudaBuffer(scratch);
      return 0;
    };
    host.runPass = [this](const PassBuffers& b, KernelData& k, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                          const ResizeKernelArgs& cur) {
      return GPURender(CUDA, &kernels_, nullptr, nullptr, b, k, m, pre, cur, 16);
    };
    EXPECT_EQ(RenderFrameStack(job, host), 0);
    DownloadCudaBuffer(outMem, out.data(), out.size());
    FreeCudaBuffer(outMem);
    for (void* m : frames) FreeCudaBuffer(m);
    return out;
  }

  KernelList kernels_{};
};

TEST_F(CudaRender, EveryModeMatchesTheReference) {
  for (bool is16f : {false, true}) {
    const float tolerance = is16f ? kCudaTolerance16 : kCudaTolerance32;
    Scene pair(Content::Random, 61, 37, 2, is16f, 17, CpuHalfForm::CUDA);
    pair.offsets[1] = {3, -2};
    Scene randomStack(Content::Random, 64, 32, 6, is16f, 3, CpuHalfForm::CUDA);
    randomStack.offsets = {{0, 0}, {2, -1}, {0, 0}, {-3, 2}, {0, 0}, {1, 1}};
    Scene stripes(Content::Stripes, 64, 16, 6, is16f, 5, CpuHalfForm::CUDA);
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
            SCOPED_TRACE(testing::Message() << "16-bit " << is16f << " diff " << diff << " blend " << blend
                                            << " output " << output << " flags " << flags);
            const bool displaced = kd.motion_amp || kd.chromatic;
            for (const Scene* s : {&pair, displaced ? &stripes : &randomStack}) {
              kd.numFrames = s->numFrames;
              EXPECT_LE(Compare(*s, RenderCuda(*s, kd), RenderReference(*s, kd), s == &stripes ? 1 : 0), tolerance);
            }
          }
  }
}

TEST_F(CudaRender, RendersAreBitIdenticalRunToRun) {
  Scene scene(Content::Random, 61, 37, 6, false, 9, CpuHalfForm::CUDA);
  scene.offsets = {{0, 0}, {2, -1}, {0, 0}, {-3, 2}, {0, 0}, {1, 1}};
  KernelData kd = DefaultKernelData(scene.numFrames);
  kd.motion_amp = kd.chromatic = kd.normalize = true;
  EXPECT_EQ(RenderCuda(scene, kd), RenderCuda(scene, kd));
}

}  // namespace
