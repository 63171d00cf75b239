// The engine against the module: a clip of 8-bit, 16-bit or float frames,
// rendered by the engine (on PoCL and on the CPU reference) and through the
// built module in the stand-in After Effects host, must give the same
// pictures for every mode, stack length and offset; and the engine's
// pictures must not depend on what it rendered before or on which thread.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <sstream>
#include <thread>

#include "Device.h"
#include "Engine.h"
#include "GpuTestSupport.h"
#include "ModuleHostTest.h"
#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_Schedule.h"

namespace {

constexpr int kWidth = 21, kHeight = 13, kFrames = 20;

// A clip in memory, each frame a different pattern over the whole range of
// its depth (floats also below 0 and above 1).
class MemoryClip : public engine::ClipSource {
 public:
  MemoryClip(FrameDepth depth, int frames) : depth_(depth) {
    for (int k = 0; k < frames; ++k) frames_.push_back(Make(k));
  }
  int64_t FrameCount() const override { return static_cast<int64_t>(frames_.size()); }
  bool Fetch(int64_t k, engine::SourcePicture& picture) override {
    if (k < 0 || k >= FrameCount()) return false;
    picture = frames_[static_cast<size_t>(k)];
    return true;
  }
  // Frame k as a host holds it: R, G, B, A floats, v/255 or v/65535.
  aehost::Image HostImage(int k) const {
    const engine::SourcePicture& p = frames_[static_cast<size_t>(k)];
    aehost::Image img(kWidth, kHeight);
    for (size_t i = 0; i < img.rgba.size(); ++i) {
      const size_t c = i % 4 == 3 ? i : i - i % 4 + (2 - i % 4);  // B, G, R, A to R, G, B, A
      img.rgba[i] = Unit(p, c);
    }
    return img;
  }

 private:
  engine::SourcePicture Make(int k) const {
    engine::SourcePicture p;
    p.width = kWidth, p.height = kHeight, p.depth = depth_;
    const size_t n = static_cast<size_t>(kWidth) * kHeight * 4;
    p.pixels.resize(n * engine::PixelBytes(depth_) / 4);
    for (size_t i = 0; i < n; ++i) {
      const uint32_t h = static_cast<uint32_t>((i * 2654435761u) ^ (k * 40503u + (i / 4) * (k + 3)));
      if (depth_ == FRAME_DEPTH_U8)
        p.pixels[i] = static_cast<uint8_t>(h >> 7);
      else if (depth_ == FRAME_DEPTH_U16)
        reinterpret_cast<uint16_t*>(p.pixels.data())[i] = static_cast<uint16_t>(h >> 5);
      else
        reinterpret_cast<float*>(p.pixels.data())[i] = static_cast<float>(h % 1400) / 1000.0f - 0.2f;
    }
    return p;
  }
  float Unit(const engine::SourcePicture& p, size_t i) const {
    if (depth_ == FRAME_DEPTH_U8) return p.pixels[i] / 255.0f;
    if (depth_ == FRAME_DEPTH_U16) return reinterpret_cast<const uint16_t*>(p.pixels.data())[i] / 65535.0f;
    return reinterpret_cast<const float*>(p.pixels.data())[i];
  }
  FrameDepth depth_;
  std::vector<engine::SourcePicture> frames_;
};

struct Scene {
  FrameDepth depth;
  int frames;
  double offset;
  int blend, diff, output;  // popup values, from 1
  bool normalize, motion, chromatic;
};

std::string Name(const Scene& s) {
  std::ostringstream o;
  o << "depth" << s.depth << "_frames" << s.frames << "_offset" << s.offset << "_b" << s.blend << s.diff << s.output
    << (s.normalize ? "_norm" : "") << (s.motion ? "_motion" : "") << (s.chromatic ? "_chroma" : "");
  std::string n = o.str();
  for (char& c : n)
    if (c == '.' || c == '-') c = c == '.' ? 'p' : 'm';
  return n;
}

const Scene kScenes[] = {
    {FRAME_DEPTH_U8, 10, 1.0, 1, 1, 1, false, false, false},
    {FRAME_DEPTH_U8, 3, 1.0, 2, 2, 2, false, false, false},
    {FRAME_DEPTH_U8, 3, 1.5, 1, 2, 3, true, false, false},
    {FRAME_DEPTH_U8, 15, 0.5, 2, 1, 1, false, false, false},
    {FRAME_DEPTH_U8, 16, -1.0, 1, 1, 2, true, false, false},
    {FRAME_DEPTH_U8, 50, 0.3, 2, 2, 1, false, false, false},
    {FRAME_DEPTH_U16, 10, 1.0, 1, 1, 1, false, false, false},
    {FRAME_DEPTH_U16, 16, 2.0, 2, 2, 3, true, false, false},
    {FRAME_DEPTH_U16, 3, -0.7, 1, 2, 2, false, false, false},
    {FRAME_DEPTH_PASS, 10, 1.0, 1, 1, 1, false, false, false},
    {FRAME_DEPTH_PASS, 17, -1.5, 2, 2, 2, true, false, false},
    {FRAME_DEPTH_U8, 5, 1.0, 1, 1, 1, false, true, false},
    {FRAME_DEPTH_U16, 4, 2.0, 2, 1, 2, false, false, true},
    {FRAME_DEPTH_U8, 6, 0.5, 1, 2, 1, true, true, true},
};

// Output frames at the clip's start, inside it and at its end.
constexpr int kOutputs[] = {0, 1, 7, kFrames - 1};

class EngineAgainstModule : public ModuleHostTest, public ::testing::WithParamInterface<Scene> {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    const Scene& s = GetParam();
    clip_ = std::make_unique<MemoryClip>(s.depth, kFrames);
    aehost::AeHost& host = NewHost();
    for (int k = 0; k < kFrames; ++k) host.AddFrame(host.FrameTime(k), clip_->HostImage(k));
    aehost::DeviceOptions device;
    device.device = "opencl";
    ASSERT_EQ(host.SetUp(&device), 0);
    ASSERT_TRUE(host.GpuReady());
    const std::pair<int32_t, double> values[] = {
        {PARAM_FRAMES, s.frames},    {PARAM_FRAMES_OFFSET, s.offset},        {PARAM_BLENDING_MODE, s.blend},
        {PARAM_DIFFERENCE_ALGORITHM, s.diff}, {PARAM_OUTPUT, s.output},       {PARAM_NORMALIZE, s.normalize},
        {PARAM_MOTION_AMPLIFICATION, s.motion}, {PARAM_CHROMATIC_ABERRATION, s.chromatic}};
    for (const auto& [id, v] : values) host.SetParamValue(host.FindParam(id), v);
    FillKernelData([&](int32_t id) { return Read(host, id); }, settings_.controls, &settings_.offset);
  }
  static double Read(aehost::AeHost& host, int32_t id) {
    const PF_ParamDef d = host.ParamValue(host.FindParam(id));
    return d.param_type == PF_Param_FLOAT_SLIDER ? d.u.fs_d.value
           : d.param_type == PF_Param_POPUP      ? d.u.pd.value
                                                 : d.u.bd.value;
  }
  // The module's picture of output frame k, as B, G, R, A.
  std::vector<float> ModuleFrame(int k) {
    const aehost::RenderResult r = host_->Render(host_->FrameTime(k));
    EXPECT_EQ(r.result, 0);
    std::vector<float> bgra = r.output.rgba;
    for (size_t i = 0; i + 3 < bgra.size(); i += 4) std::swap(bgra[i], bgra[i + 2]);
    return bgra;
  }
  // PoCL runs the module's kernels: the same picture is expected. The CPU
  // reference differs from PoCL by a few ulps, within whole frames' tolerance.
  void ExpectSame(const engine::EngineDevice& device, float tolerance) {
    engine::Engine eng(device, *clip_, settings_);
    for (int k : kOutputs) {
      std::vector<float> got;
      eng.Render(k, got);
      const std::vector<float> want = ModuleFrame(k);
      ASSERT_EQ(got.size(), want.size());
      float worst = 0.0f;
      for (size_t i = 0; i < got.size(); ++i)
        if (!(std::isnan(got[i]) && std::isnan(want[i]))) worst = std::max(worst, std::fabs(got[i] - want[i]));
      EXPECT_LE(worst, tolerance) << "output frame " << k;
    }
  }
  std::unique_ptr<MemoryClip> clip_;
  engine::Settings settings_;
};

TEST_P(EngineAgainstModule, OnPoCL) {
  engine::OpenedDevice device("opencl");
  ExpectSame(device.Get(), 1e-6f);
}

TEST_P(EngineAgainstModule, OnTheCpuReference) {
  if (GetParam().motion || GetParam().chromatic)
    GTEST_SKIP() << "displaced reads turn the devices' last-bit differences into other pixels; PoCL covers these";
  engine::OpenedDevice reference("reference");
  ExpectSame(reference.Get(), 1e-4f);
}

INSTANTIATE_TEST_SUITE_P(Scenes, EngineAgainstModule, ::testing::ValuesIn(kScenes),
                         [](const auto& info) { return Name(info.param); });

// Controls at their defaults but for the stack's length and step.
engine::Settings Controls(double frames, double offset) {
  engine::Settings s;
  FillKernelData(
      [&](int32_t id) {
        switch (id) {
          case PARAM_FRAMES: return frames;
          case PARAM_FRAMES_OFFSET: return offset;
          case PARAM_FRAMES_FADE: return 80.0;
          case PARAM_BLENDING_MODE:
          case PARAM_DIFFERENCE_ALGORITHM:
          case PARAM_OUTPUT: return 1.0;
          default: return 0.0;
        }
      },
      s.controls, &s.offset);
  return s;
}

// Frame N is the same whatever came before, in whatever order and on
// whichever thread, and with a cache too small for one clip's reach.
TEST(Engine, FramesDoNotDependOnHistoryOrThreads) {
  MemoryClip clip(FRAME_DEPTH_U8, kFrames);
  engine::OpenedDevice reference("reference");
  engine::Settings s = Controls(12, 1.5);
  std::vector<std::vector<float>> forward(kFrames);
  {
    engine::Engine eng(reference.Get(), clip, s);
    for (int k = 0; k < kFrames; ++k) eng.Render(k, forward[k]);
    EXPECT_EQ(eng.Fetches(), static_cast<uint64_t>(kFrames));  // each frame fetched once
  }
  s.cacheBytes = uint64_t{kWidth} * kHeight * 4 * 12;  // one stack's frames, no more
  engine::Engine eng(reference.Get(), clip, s);
  std::vector<std::vector<float>> shuffled(kFrames);
  auto work = [&](int first) {
    for (int k = kFrames - 1 - first; k >= 0; k -= 2) eng.Render(k, shuffled[k]);
  };
  std::thread other(work, 1);
  work(0);
  other.join();
  for (int k = 0; k < kFrames; ++k) EXPECT_EQ(shuffled[k], forward[k]) << "frame " << k;
  EXPECT_NE(forward[5], forward[6]);
}

TEST(Engine, MissingFrameAndBadPicturesAreErrors) {
  MemoryClip clip(FRAME_DEPTH_U8, 3);
  engine::OpenedDevice reference("reference");
  engine::Settings s = Controls(3, 1);
  engine::Engine eng(reference.Get(), clip, s);
  std::vector<float> out;
  EXPECT_THROW(eng.Render(3, out), engine::EngineError);
  EXPECT_THROW(eng.Render(-1, out), engine::EngineError);

  struct Odd : engine::ClipSource {
    int64_t FrameCount() const override { return 2; }
    bool Fetch(int64_t k, engine::SourcePicture& p) override {
      p.width = 4 + static_cast<int>(k), p.height = 4, p.depth = FRAME_DEPTH_U8;
      p.pixels.assign(static_cast<size_t>(p.width) * 16, 0);
      return true;
    }
  } odd;
  engine::Engine mixed(reference.Get(), odd, s);
  try {
    mixed.Render(1, out);
    FAIL() << "frames of two sizes rendered";
  } catch (const engine::EngineError& e) {
    EXPECT_NE(std::string(e.what()).find("unlike the clip's"), std::string::npos) << e.what();
  }
}

// A device whose kernels do not build is refused with its name.
TEST(Engine, ADeviceWithoutKernelsIsRefusedByName) {
  ScopedGPUCalls restore;
  GetOpenCLCalls().buildProgram = [](cl_program, cl_uint, const cl_device_id*, const char*,
                                     void(CL_CALLBACK*)(cl_program, void*), void*) -> cl_int {
    return CL_BUILD_PROGRAM_FAILURE;
  };
  Device plain = OpenDevice("opencl");
  const std::string name = plain.name;
  CloseDevice(plain);
  try {
    engine::OpenedDevice device("opencl");
    FAIL() << "opened";
  } catch (const DeviceError& e) {
    EXPECT_EQ(std::string(e.what()), "the effect's kernels did not build on " + name + " (status 512)");
  }
}

// The schedule front ends share with the module: the stack's frames, with
// the start and the end of the clip taking their newer neighbours.
TEST(StackSourceFrames, FollowsTheHostsCheckoutTimes) {
  EXPECT_EQ(StackSourceFrames(5, 4, 1.0f, 10), (std::vector<int64_t>{5, 4, 3, 2}));
  EXPECT_EQ(StackSourceFrames(1, 4, 1.0f, 10), (std::vector<int64_t>{1, 0, 0, 0}));
  EXPECT_EQ(StackSourceFrames(8, 3, -1.0f, 10), (std::vector<int64_t>{8, 9, 9}));
  EXPECT_EQ(StackSourceFrames(8, 3, -1.0f, -1), (std::vector<int64_t>{8, 9, 10}));
  EXPECT_EQ(StackSourceFrames(4, 4, 1.5f, 10), (std::vector<int64_t>{4, 2, 1, 1}));
  // A fractional step falls as the host's float time does: 3003 - 1001 * 0.5.
  EXPECT_EQ(StackSourceFrames(3, 3, 0.5f, 10), (std::vector<int64_t>{3, 2, 2}));
}

}  // namespace
