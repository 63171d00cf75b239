// The frame-stack loop: pass order and weights against a recording host, and
// whole renders on the CPU reference device.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <vector>

#include "CpuRender.h"
#include "KernelTestSupport.h"

namespace {

// Host operations that hand out fake buffers and record what the loop does.
struct RecordingHost {
  struct Pass {
    float percent;
    PassBuffers buffers;
    ResizeKernelArgs pre, cur;
    MainKernelArgs main;
  };
  std::vector<Pass> passes;
  std::set<void*> live;
  std::vector<bool> clearRequests;
  int created = 0, disposed = 0;
  int failCreateAt = -1, failPassAt = -1;
  bool emptyOutput = false;
  char slots[16];

  FrameStackHost Ops() {
    FrameStackHost h;
    h.failureCode = 512;
    h.createScratch = [this](int32_t, int32_t, bool clear, void** out) -> int32_t {
      if (created == failCreateAt) return 4;
      *out = &slots[created++];
      live.insert(*out);
      clearRequests.push_back(clear);
      return 0;
    };
    h.deviceBuffer = [this](void* frame, void** buffer) -> int32_t {
      *buffer = (emptyOutput && frame == &slots[15]) ? nullptr : frame;
      return 0;
    };
    h.disposeScratch = [this](void* s) -> int32_t {
      ++disposed;
      return live.erase(s) ? 0 : 99;
    };
    h.runPass = [this](const PassBuffers& b, KernelData& kd, const MainKernelArgs& m, const ResizeKernelArgs& pre,
                       const ResizeKernelArgs& cur) -> int32_t {
      passes.push_back({kd.percent, b, pre, cur, m});
      return static_cast<int>(passes.size()) - 1 == failPassAt ? 512 : 0;
    };
    return h;
  }
};

struct FakeJob {
  std::vector<char> frames;
  KernelData kd;
  FrameStackJob job;
  FakeJob(RecordingHost& host, int numFrames, int listed = -1) : frames(64), kd(DefaultKernelData(numFrames)) {
    if (listed < 0) listed = numFrames;
    for (int i = 0; i < listed; ++i) job.frames.push_back({&frames[i], 37, 19, 40 * 16, 0, 0});
    job.output = {&host.slots[15], 37, 19, 40 * 16, 0, 0};
    job.is16f = false;
    job.kernelData = &kd;
  }
};

TEST(FrameStackLoop, WalksPairsFromOldestWithEqualPercentSteps) {
  for (int numFrames : {3, 10, 50}) {
    RecordingHost host;
    FakeJob fj(host, numFrames);
    ASSERT_EQ(RenderFrameStack(fj.job, host.Ops()), 0);
    ASSERT_EQ(static_cast<int>(host.passes.size()), numFrames - 1);
    const int n = numFrames - 2;
    for (int k = 0; k < numFrames - 1; ++k) {
      const int i = n - k;
      const auto& p = host.passes[k];
      EXPECT_EQ(p.percent, 1.0f - static_cast<float>(i) / static_cast<float>(n));
      EXPECT_EQ(p.buffers.inCurFrame, &fj.frames[i]);
      EXPECT_EQ(p.buffers.inPreFrame, &fj.frames[i + 1]);
      EXPECT_EQ(p.buffers.outDst, &host.slots[15]);
      EXPECT_NE(p.buffers.inIm, p.buffers.outIm);
      if (k > 0) {
        EXPECT_EQ(p.buffers.inIm, host.passes[k - 1].buffers.outIm);  // reads what the pass before wrote
      }
    }
    EXPECT_EQ(host.passes.front().percent, 0.0f);
    EXPECT_EQ(host.passes.back().percent, 1.0f);
    if (numFrames == 10) {
      EXPECT_EQ(host.passes[1].percent, 0.125f);
    }
    EXPECT_EQ(host.disposed, 4);
    EXPECT_TRUE(host.live.empty());
  }
}

TEST(FrameStackLoop, KernelArgumentsUseTheOutputsPitchAndSize) {
  RecordingHost host;
  FakeJob fj(host, 3);
  fj.job.frames[1] = {&fj.frames[1], 30, 10, 33 * 16, 5, -2};
  ASSERT_EQ(RenderFrameStack(fj.job, host.Ops()), 0);
  const auto& last = host.passes.back();
  EXPECT_EQ(last.main.inPrePitch, 40);
  EXPECT_EQ(last.main.inCurPitch, 40);
  EXPECT_EQ(last.main.inDstPitch, 40);
  EXPECT_EQ(last.main.inWidth, 37);
  EXPECT_EQ(last.main.inHeight, 19);
  EXPECT_EQ(last.main.in16f, 0);
  const ResizeKernelArgs& pre = last.pre;  // frame 1 is the older frame of the last pair
  EXPECT_EQ(pre.inSrcPitch, 33);
  EXPECT_EQ(pre.inWidth, 30);
  EXPECT_EQ(pre.inOffsetX, 5);
  EXPECT_EQ(pre.inOffsetY, -2);
  EXPECT_EQ(pre.outWidth, 37);
  EXPECT_EQ(pre.inDstPitch, 40);
  EXPECT_TRUE(FrameNeedsCanvas(pre));
  EXPECT_FALSE(FrameNeedsCanvas(last.cur));
  // In place only when offset, pitch and size all match the output.
  ResizeKernelArgs same = last.cur;
  same.inSrcPitch = 41;
  EXPECT_TRUE(FrameNeedsCanvas(same));
  same = last.cur;
  same.inHeight = 18;
  EXPECT_TRUE(FrameNeedsCanvas(same));
}

TEST(FrameStackLoop, TooFewFramesAndALonePair) {
  RecordingHost none;
  FakeJob one(none, 1);
  EXPECT_EQ(RenderFrameStack(one.job, none.Ops()), 0);
  EXPECT_TRUE(none.passes.empty());
  EXPECT_EQ(none.created, 0);

  RecordingHost pair;
  FakeJob two(pair, 2);
  EXPECT_EQ(RenderFrameStack(two.job, pair.Ops()), 0);
  ASSERT_EQ(pair.passes.size(), 1u);
  EXPECT_EQ(pair.passes[0].percent, 1.0f);  // rendered as the last pass
  // ... reading an accumulation that must start out empty.
  ASSERT_EQ(pair.clearRequests.size(), 4u);
  EXPECT_EQ(pair.passes[0].buffers.inIm, &pair.slots[1]);
  EXPECT_TRUE(pair.clearRequests[1]);

  RecordingHost shortStack;
  FakeJob missing(shortStack, 10, 9);  // numFrames promises more frames than listed
  EXPECT_EQ(RenderFrameStack(missing.job, shortStack.Ops()), 512);
  EXPECT_TRUE(shortStack.passes.empty());
}

TEST(FrameStackLoop, FailuresStopTheWorkAndScratchIsAlwaysDisposed) {
  RecordingHost createFails;
  createFails.failCreateAt = 2;
  FakeJob a(createFails, 10);
  EXPECT_EQ(RenderFrameStack(a.job, createFails.Ops()), 4);
  EXPECT_TRUE(createFails.passes.empty());
  EXPECT_EQ(createFails.disposed, 2);
  EXPECT_TRUE(createFails.live.empty());

  RecordingHost passFails;
  passFails.failPassAt = 3;
  FakeJob b(passFails, 10);
  EXPECT_EQ(RenderFrameStack(b.job, passFails.Ops()), 512);
  EXPECT_EQ(passFails.passes.size(), 4u);
  EXPECT_TRUE(passFails.live.empty());

  RecordingHost noOutput;
  noOutput.emptyOutput = true;
  FakeJob c(noOutput, 10);
  EXPECT_EQ(RenderFrameStack(c.job, noOutput.Ops()), 512);
  EXPECT_TRUE(noOutput.passes.empty());
  EXPECT_TRUE(noOutput.live.empty());
}

// ---- Whole renders on the CPU reference device ----

struct Render {
  int w, h, pitch;
  std::vector<TestFrame> frames;
  TestFrame out;
  KernelData kd;
  CpuLaunchConfig config;

  Render(int numFrames, int width, int height, int outPitch)
      : w(width), h(height), pitch(outPitch), out(width, height, outPitch), kd(DefaultKernelData(numFrames)) {
    for (int i = 0; i < numFrames; ++i) frames.emplace_back(w, h, outPitch);
  }
  FrameStackJob Job(std::vector<std::pair<int, int>> offsets = {}) {
    FrameStackJob job;
    for (size_t i = 0; i < frames.size(); ++i) {
      const auto o = i < offsets.size() ? offsets[i] : std::make_pair(0, 0);
      job.frames.push_back({frames[i].data(), frames[i].width, frames[i].height, frames[i].rowBytes(), o.first,
                            o.second});
    }
    job.output = {out.data(), w, h, out.rowBytes(), 0, 0};
    job.is16f = false;
    job.kernelData = &kd;
    return job;
  }
  int32_t Run(std::vector<std::pair<int, int>> offsets = {}) { return CpuRenderFrameStack(config, Job(offsets)); }
};

TEST(FrameStackRender, UniformFramesFollowTheEasedRecurrence) {
  const float grays[10] = {0.9f, 0.1f, 0.5f, 0.45f, 0.8f, 0.2f, 0.3f, 0.7f, 0.6f, 0.0f};
  for (float ease : {4.0f, 1.0f, 0.0f}) {
    Render r(10, 19, 7, 19);
    r.kd.percentEase = ease;
    for (int i = 0; i < 10; ++i) r.frames[i].Fill(grays[i], grays[i] * 0.5f, 0.25f, 1.0f - 0.05f * i);
    ASSERT_EQ(r.Run(), 0);
    // a(0) = d(0); a(k) = d(k) + e(k) * a(k-1), alpha from the newer frame.
    double acc = 0.0, accA = 0.0;
    for (int i = 8; i >= 0; --i) {
      const double p = 1.0 - i / 8.0;
      const double d = std::fabs(static_cast<double>(grays[i + 1]) - grays[i]);
      const double a = 1.0 - 0.05 * i;
      const double e = p == 0.0 ? 0.0 : std::min(1.0, std::max(0.0, 1.0 - std::pow(1.0 - p, ease)));
      acc = d + e * acc;
      accA = a + e * accA;
    }
    SCOPED_TRACE(ease);
    const gfcpu::float4 o = r.out.Rgba(9, 3);
    EXPECT_NEAR(o.x, acc, 1e-5);
    EXPECT_NEAR(o.w, accA, 1e-5);
    EXPECT_EQ(o.z, 0.0f);
    if (ease == 0.0f) {
      EXPECT_NEAR(o.x, std::fabs(grays[1] - grays[0]), 1e-6);  // newest pair alone
    }
    EXPECT_TRUE(r.out.GuardsIntact());
  }
}

void FillRandom(Render& r, uint32_t seed) {
  TestRandom rnd(seed);
  for (auto& f : r.frames)
    for (int y = 0; y < f.height; ++y)
      for (int x = 0; x < f.width; ++x)
        f.Set(x, y, rnd.Next(-0.2f, 1.2f), rnd.Next(0.f, 1.f), rnd.Next(0.f, 1.f), rnd.Next(0.5f, 1.f));
}

TEST(FrameStackRender, BitIdenticalRunToRunAndAcrossThreadCounts) {
  for (int mode : {0, 1}) {
    Render a(6, 53, 37, 57), b(6, 53, 37, 57);  // sizes not a multiple of 16, padded pitch
    FillRandom(a, 7);
    FillRandom(b, 7);
    for (Render* r : {&a, &b}) {
      r->kd.motion_amp = mode == 1;
      r->kd.chromatic = true;
      r->kd.normalize = mode == 1;
      r->kd.blendMode = mode == 1 ? BLEND_SCREEN : BLEND_ADD;
      r->kd.diffMode = mode == 1 ? DIFF_SUBT : DIFF_DIFF;
    }
    b.config.threads = 3;
    const std::vector<std::pair<int, int>> offsets = {{0, 0}, {3, -2}, {0, 0}, {-5, 4}, {0, 0}, {1, 1}};
    ASSERT_EQ(a.Run(offsets), 0);
    ASSERT_EQ(b.Run(offsets), 0);
    EXPECT_TRUE(a.out.BitEqual(b.out)) << "mode " << mode;
    EXPECT_TRUE(a.out.GuardsIntact());
    TestFrame first = a.out;
    ASSERT_EQ(a.Run(offsets), 0);
    EXPECT_TRUE(a.out.BitEqual(first));
    for (const TestFrame& f : a.frames) EXPECT_TRUE(f.GuardsIntact());  // frames are only read
  }
}

TEST(FrameStackRender, OffsetAndMismatchedFramesGoOnCanvasesFirst) {
  // Frames placed by the loop equal the same frames placed beforehand.
  Render viaLoop(4, 29, 21, 32), placed(4, 29, 21, 32);
  FillRandom(viaLoop, 11);
  FillRandom(placed, 11);
  const std::vector<std::pair<int, int>> offsets = {{0, 0}, {4, 3}, {-6, 0}, {0, 2}};
  for (int i = 0; i < 4; ++i) {
    TestFrame canvas(29, 21, 32);
    CpuResizeKernel(CpuLaunchConfig{}, viaLoop.frames[i].data(), canvas.data(), 32, 32, 0, 29, 21, 29, 21,
                    offsets[i].first, offsets[i].second);
    placed.frames[i] = canvas;
  }
  ASSERT_EQ(viaLoop.Run(offsets), 0);
  ASSERT_EQ(placed.Run(), 0);
  EXPECT_TRUE(viaLoop.out.BitEqual(placed.out));

  // A frame at offset 0 with its own pitch is not read with the output's pitch.
  Render narrow(3, 29, 21, 32), wide(3, 29, 21, 32);
  FillRandom(narrow, 5);
  FillRandom(wide, 5);
  TestFrame padded(29, 21, 45);
  for (int y = 0; y < 21; ++y)
    for (int x = 0; x < 29; ++x) {
      const gfcpu::float4 p = narrow.frames[1].Rgba(x, y);
      padded.Set(x, y, p.x, p.y, p.z, p.w);
    }
  wide.frames[1] = padded;
  ASSERT_EQ(narrow.Run(), 0);
  ASSERT_EQ(wide.Run(), 0);
  EXPECT_TRUE(narrow.out.BitEqual(wide.out));
}

}  // namespace
