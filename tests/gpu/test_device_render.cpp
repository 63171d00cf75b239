// The frame-stack loop run for real through InitializeGPU and GPURender on each
// device kind of the build (PoCL by default; CUDA where a device exists),
// compared with the CPU reference device in that kind's 16-bit form.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <fstream>
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
  std::vector<unsigned char> RenderOnDevice(const Scene& s, KernelData kd, bool fused = true) const {
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
    FrameStackHost host = MakeDeviceFrameStackHost(device_, &kernels_->list, job);
    if (!fused) host.runStack = nullptr;
    EXPECT_EQ(RenderFrameStack(job, host), 0);
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
  // Past one StackKernel launch: the accumulation goes from chunk to chunk.
  // A single-precision reciprocal of 31 or 25 takes some own positions a
  // column or row back, which both paths must do alike.
  Scene longStack(Content::Random, 31, 25, 50, is16f, 9, Form());
  for (int i = 0; i < 50; i += 7) longStack.offsets[i] = {i % 3 - 1, 1 - i % 4};
  // Frames in place, wide enough that a CPU device's items take runs of a row.
  Scene wide(Content::Random, 256, 4, 5, is16f, 7, Form());
  for (DiffBlendMode diff : {DIFF_DIFF, DIFF_SUBT})
    for (int blend = BLEND_NONE; blend <= BLEND_HARD_MIX; ++blend)
      for (ColorFrom output : {FROM_MOTION, FROM_SOURCE, FROM_LUMA})
        // Displaced modes with the blend modes a user can choose only.
        for (int flags = 0; flags < (blend == BLEND_ADD || blend == BLEND_SCREEN ? 8 : 2); ++flags) {
          KernelData kd = DefaultKernelData();
          kd.diffMode = diff;
          kd.blendMode = static_cast<BlendMode>(blend);
          kd.output = output;
          kd.normalize = flags & 1;
          kd.motion_amp = (flags & 2) != 0;
          kd.chromatic = (flags & 4) != 0;
          SCOPED_TRACE(testing::Message()
                       << "diff " << diff << " blend " << blend << " output " << output << " flags " << flags);
          const bool displaced = kd.motion_amp || kd.chromatic;
          std::vector<const Scene*> scenes = {&pairs[flags % 2], displaced ? &stripes : &randomStack};
          if (!displaced && output == FROM_MOTION) scenes.insert(scenes.end(), {&longStack, &wide});
          for (const Scene* s : scenes) {
            kd.numFrames = s->numFrames;
            const std::vector<unsigned char> onDevice = RenderOnDevice(*s, kd);
            // The other blend modes have steps and poles that magnify a last-bit difference
            // of fast maths: those hold only against the same device's pass-by-pass loop.
            const float tolerance = is16f ? tol.f16 : tol.f32;
            if (blend == BLEND_ADD || blend == BLEND_SCREEN) {
              EXPECT_LE(Compare(*s, onDevice, RenderReference(*s, kd), s == &stripes || s == &longStack), tolerance);
            }
            if (!displaced) {
              EXPECT_LE(Compare(*s, onDevice, RenderOnDevice(*s, kd, false)), tolerance);
            }
          }
        }
}

// A device that could not make StackKernel renders every stack pass by pass,
// to the same picture.
TEST_P(DeviceRender, WithoutStackKernelStacksRenderPassByPass) {
  if (std::get<0>(GetParam()) != "opencl") GTEST_SKIP() << "only OpenCL makes StackKernel as a kernel object";
  const Scene s(Content::Random, 64, 32, 10, std::get<1>(GetParam()), 4, Form());
  KernelData kd = DefaultKernelData();
  kd.numFrames = s.numFrames;
  const std::vector<unsigned char> fused = RenderOnDevice(s, kd);
  void* stack = kernels_->list.entries[2].kernel;
  kernels_->list.entries[2].kernel = nullptr;  // as InitializeOpenCL leaves it then
  EXPECT_FALSE(StackKernelReady(OpenCL, &kernels_->list));
  const std::vector<unsigned char> passes = RenderOnDevice(s, kd);
  kernels_->list.entries[2].kernel = stack;
  const Tolerance tol = ToleranceOf("opencl");
  EXPECT_LE(Compare(s, passes, fused), std::get<1>(GetParam()) ? tol.f16 : tol.f32);
}

// The one-launch path gives the pass-by-pass loop's bits on the reference
// device, for every mode and storage form, through chunk boundaries, on
// canvases at negative and positive offsets or in place (3 frames), and at a
// size where a pixel's own position maps back one column or row before it.
TEST(StackKernel, EqualsThePassByPassLoopBitForBit) {
  for (int form = 0; form < 3; ++form)
    for (int numFrames : {2, 3, 17, 50}) {
      Scene s(Content::Random, 41, 23, numFrames, form > 0, 11 + numFrames,
              form == 2 ? CpuHalfForm::CUDA : CpuHalfForm::OpenCL);
      for (int i = 1; i < numFrames && numFrames != 3; i += 3) s.offsets[i] = {i % 5 - 2, 2 - i % 4};
      for (int m = 0; m < 24; ++m) {
        KernelData kd = DefaultKernelData(numFrames);
        kd.blendMode = static_cast<BlendMode>(m % 11);
        kd.diffMode = static_cast<DiffBlendMode>(m % 3);
        kd.output = static_cast<ColorFrom>(m % 4);
        kd.normalize = (m / 4) % 2;
        kd.percentEase = 0.25f * (m % 7);
        SCOPED_TRACE(testing::Message() << "form " << form << " frames " << numFrames << " mode " << m);
        EXPECT_EQ(RenderReference(s, kd), RenderReference(s, kd, false));
      }
    }
}

// With 64 MiB of address space left on `kind`: what the process may take
// counts the limit, and a 512 MiB buffer is an error to say (exit 0).
[[noreturn]] void AllocatePastTheLimit(const char* kind) {
  Device d = OpenDevice(kind);
  std::ifstream status("/proc/self/status");
  std::string key;
  uint64_t kb = 0;
  while (status >> key && key != "VmSize:") status.ignore(1 << 10, '\n');
  status >> kb;
  const rlimit limit{(kb << 10) + (uint64_t{64} << 20), RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &limit);
  if (AvailableHostMemory() > (uint64_t{64} << 20)) std::exit(2);
  try {
    d.kind->fill(d, d.kind->allocate(d, size_t{512} << 20), 0, size_t{512} << 20);
  } catch (const DeviceMemoryError& e) {
    std::fprintf(stderr, "%s\n", e.what());
    std::exit(0);
  }
  std::exit(1);
}

// Past the process's memory a buffer is an error to report, never an abort
// inside the device's runtime (PoCL allocates at first use, and asserts).
TEST(DeviceMemory, AnAllocationPastTheProcessLimitIsAnError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: PoCL's threads do not survive fork
  for (const char* kind : {"opencl", "reference"})
    EXPECT_EXIT(AllocatePastTheLimit(kind), ::testing::ExitedWithCode(0),
                "^out of memory: .* could not allocate a buffer of 512.0 MiB\n$")
        << kind;
}

INSTANTIATE_TEST_SUITE_P(, DeviceRender, ::testing::Combine(::testing::Values("opencl", "cuda"), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<Param>& info) {
                           return std::get<0>(info.param) + (std::get<1>(info.param) ? "Half" : "Float");
                         });

}  // namespace
