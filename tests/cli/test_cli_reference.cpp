// tremor-render end to end: an EXR sequence in, an EXR sequence out, equal to
// the frame-stack loop on the CPU reference device given the same stacks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "CpuRender.h"
#include "MediaIO.h"

namespace {

namespace fs = std::filesystem;

constexpr int kW = 64, kH = 32, kFrames = 14;
constexpr float kTolerance = 1e-4f;  // as for whole frames through the host

// A band moving right two pixels a frame over a steep ramp (see the host tests
// for why this content keeps OpenCL and the reference comparable).
media::Picture ClipFrame(int k) {
  media::Picture p;
  p.width = kW;
  p.height = kH;
  p.rgba.resize(kW * kH * 4);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) {
      const bool band = x >= 10 + 2 * k && x < 20 + 2 * k;
      const float g = 0.1f + 0.012f * x + (band ? 0.05f : 0.0f);
      float* q = &p.rgba[(y * kW + x) * 4];
      q[0] = g;
      q[1] = 0.9f * g;
      q[2] = 0.8f * g + 0.05f;
      q[3] = 0.6f + 0.4f * x / kW;
    }
  return p;
}

std::vector<float> Swap(const std::vector<float>& v) {  // R,G,B,A <-> B,G,R,A
  std::vector<float> out(v);
  for (size_t i = 0; i < v.size(); i += 4) std::swap(out[i], out[i + 2]);
  return out;
}

// Output frame k: frames k, k-1, ... k-9, the missing ones before the clip
// taking the oldest frame that exists.
std::vector<float> Reference(int k) {
  std::vector<std::vector<float>> frames;
  for (int i = 0; i < 10; ++i) frames.push_back(Swap(ClipFrame(std::max(0, k - i)).rgba));
  std::vector<float> out(kW * kH * 4, 0.0f);
  KernelData kd{};
  kd.numFrames = 10;
  kd.percentEase = 4.0f;
  kd.blendMode = BLEND_ADD;
  kd.diffMode = DIFF_DIFF;
  kd.output = FROM_MOTION;
  FrameStackJob job;
  for (auto& f : frames) job.frames.push_back({f.data(), kW, kH, kW * 16, 0, 0});
  job.output = {out.data(), kW, kH, kW * 16, 0, 0};
  job.is16f = false;
  job.kernelData = &kd;
  EXPECT_EQ(CpuRenderFrameStack(CpuLaunchConfig{}, job), 0);
  return Swap(out);
}

TEST(TremorRenderReference, ExrOutputEqualsTheReference) {
  const fs::path dir = fs::path(TD_TEST_TMP_DIR) / "cli-reference";
  fs::remove_all(dir);
  fs::create_directories(dir);
  media::InputInfo info;
  info.width = kW;
  info.height = kH;
  info.frameRate = {10, 1};
  {
    const std::string pattern = (dir / "in.%04d.exr").string();
    media::Writer in(pattern, media::OutputFormatFor(pattern), info, "");
    for (int k = 0; k < kFrames; ++k) in.Write(ClipFrame(k), k);
    in.Finish();
  }
  const std::string cmd = "POCL_CACHE_DIR='" TD_POCL_CACHE_DIR "' TMPDIR='" + dir.string() + "' '" TD_TREMOR_RENDER "' '" +
                          (dir / "in.%04d.exr").string() + "' -o '" + (dir / "out.%04d.exr").string() +
                          "' --device opencl --quiet";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;

  media::Reader out((dir / "out.%04d.exr").string());
  media::Picture p;
  int k = 0;
  while (out.Next(p)) {
    SCOPED_TRACE(k);
    const std::vector<float> ref = Reference(k);
    ASSERT_EQ(p.rgba.size(), ref.size());
    float worst = 0.0f;
    for (size_t i = 0; i < ref.size(); ++i)
      worst = std::max(worst, std::fabs(p.rgba[i] - ref[i]) / std::max(1.0f, std::fabs(ref[i])));
    EXPECT_LE(worst, kTolerance);
    ++k;
  }
  EXPECT_EQ(k, kFrames);
}

}  // namespace
