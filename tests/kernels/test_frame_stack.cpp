// The frame-stack loop: pass order and weights against a recording host, and
// whole renders on the CPU reference device.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "CpuRender.h"
#include "GpuTestSupport.h"
#include "KernelTestSupport.h"

namespace {

// Host operations that hand out fake buffers and record what the loop does.
struct RecordingHost {
  struct Pass {
    float percent;
    PassBuffers buffers;
    ResizeKernelArgs pre, cur;
  };
  std::vector<Pass> passes;
  std::set<void*> live;
  std::vector<bool> clearRequests;
  int created = 0, disposed = 0;
  int failCreateAt = -1, failPassAt = -1;
  void* emptyBuffer = nullptr;  // a scratch, frame or output whose device buffer comes back null
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
      *buffer = frame == emptyBuffer ? nullptr : frame;
      return 0;
    };
    h.disposeScratch = [this](void* s) -> int32_t {
      ++disposed;
      return live.erase(s) ? 0 : 99;
    };
    h.runPass = [this](const PassBuffers& b, KernelData& kd, const MainKernelArgs&, const ResizeKernelArgs& pre,
                       const ResizeKernelArgs& cur) -> int32_t {
      passes.push_back({kd.percent, b, pre, cur});
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
    for (int i = 0; i < (listed < 0 ? numFrames : listed); ++i)
      job.frames.push_back({&frames[i], 37, 19, 40 * 16, 0, 0});
    job.output = {&host.slots[15], 37, 19, 40 * 16, 0, 0};
    job.is16f = false;
    job.kernelData = &kd;
  }
};

TEST(FrameStackLoop, WalksPairsFromOldestWithEqualPercentSteps) {
  for (int numFrames : {2, 3, 10, 50}) {
    SCOPED_TRACE(numFrames);
    RecordingHost host;
    FakeJob fj(host, numFrames);
    ASSERT_EQ(RenderFrameStack(fj.job, host.Ops()), 0);
    ASSERT_EQ(static_cast<int>(host.passes.size()), numFrames - 1);
    const int n = numFrames - 2;
    for (int k = 0; k <= n; ++k) {
      const int i = n - k;
      const auto& p = host.passes[k];
      // Exactly 1 - i/n in float, not k/n: the weights, and so the renders' bits, follow from it.
      EXPECT_EQ(p.percent, n == 0 ? 1.0f : 1.0f - static_cast<float>(i) / static_cast<float>(n));
      EXPECT_EQ(p.buffers.inCurFrame, &fj.frames[i]);
      EXPECT_EQ(p.buffers.inPreFrame, &fj.frames[i + 1]);
      EXPECT_EQ(p.buffers.outDst, &host.slots[15]);
      EXPECT_NE(p.buffers.inIm, p.buffers.outIm);
      // Each pass reads what the pass before wrote.
      EXPECT_EQ(p.buffers.inIm, k > 0 ? host.passes[k - 1].buffers.outIm : &host.slots[1]);
    }
    // Only a lone pair reads an accumulation no pass wrote, so only then must it start out empty.
    EXPECT_EQ(host.clearRequests, (std::vector<bool>{false, numFrames == 2, false, false}));
    EXPECT_EQ(host.disposed, 4);
    EXPECT_TRUE(host.live.empty());
  }
}

TEST(FrameStackLoop, OffsetOrMismatchedFramesNeedACanvas) {
  RecordingHost host;
  FakeJob fj(host, 3);
  fj.job.frames[1] = {&fj.frames[1], 30, 10, 33 * 16, 5, -2};
  ASSERT_EQ(RenderFrameStack(fj.job, host.Ops()), 0);
  const ResizeKernelArgs& pre = host.passes.back().pre;  // frame 1 is the older frame of the last pair
  EXPECT_EQ(std::vector<int32_t>({pre.inSrcPitch, pre.inWidth, pre.inHeight, pre.inOffsetX, pre.inOffsetY, pre.outWidth,
                                  pre.outHeight, pre.inDstPitch}),
            std::vector<int32_t>({33, 30, 10, 5, -2, 37, 19, 40}));
  // In place only when offset, pitch and size all match the output.
  const ResizeKernelArgs cur = host.passes.back().cur;
  EXPECT_FALSE(FrameNeedsCanvas(cur));
  for (int32_t ResizeKernelArgs::*field :
       {&ResizeKernelArgs::inOffsetX, &ResizeKernelArgs::inOffsetY, &ResizeKernelArgs::inSrcPitch,
        &ResizeKernelArgs::inWidth, &ResizeKernelArgs::inHeight}) {
    ResizeKernelArgs a = cur;
    a.*field -= 1;
    EXPECT_TRUE(FrameNeedsCanvas(a));
  }
}

TEST(FrameStackLoop, FailuresStopTheWorkAndScratchIsAlwaysDisposed) {
  struct Row {
    const char* what;
    int numFrames, listed, failCreateAt, failPassAt, emptyAt, status, passes, created;  // emptyAt: slot, or 16 + frame
    std::string line;                                                                   // the error line, if any
  };
  const Row rows[] = {
      {"one frame: nothing to do", 1, 1, -1, -1, -1, 0, 0, 0, ""},
      {"stack shorter than numFrames", 10, 9, -1, -1, -1, 512, 0, 0, "Frame stack holds 9 frames, expected 10"},
      {"third scratch refused", 10, 10, 2, -1, -1, 4, 0, 2, ""},
      {"fourth pass fails", 10, 10, -1, 3, -1, 512, 4, 4, ""},
      {"no output buffer", 10, 10, -1, -1, 15, 512, 0, 4, "Destination buffer is not available."},
      {"no scratch buffer", 10, 10, -1, -1, 0, 512, 0, 1, "Cannot allocate GPU buffers"},
      {"no buffer for frame 8", 10, 10, -1, -1, 16 + 8, 512, 0, 4, "Frame buffer is not available."},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    LogCapture log;
    RecordingHost host;
    host.failCreateAt = r.failCreateAt;
    host.failPassAt = r.failPassAt;
    FakeJob fj(host, r.numFrames, r.listed);
    host.emptyBuffer = r.emptyAt < 0 ? nullptr : r.emptyAt < 16 ? &host.slots[r.emptyAt] : &fj.frames[r.emptyAt - 16];
    EXPECT_EQ(RenderFrameStack(fj.job, host.Ops()), r.status);
    EXPECT_EQ(log.Count(":RenderFrameStack] :: " + r.line + "\n"), r.line.empty() ? 0u : 1u);
    EXPECT_EQ(log.Lines().size(), r.line.empty() ? 0u : 1u) << log.All();
    EXPECT_EQ(static_cast<int>(host.passes.size()), r.passes);
    EXPECT_EQ(host.created, r.created);
    EXPECT_EQ(host.disposed, r.created);
    EXPECT_TRUE(host.live.empty());
  }
}

// Only StackKernel reads integer frames: without it (or with a displaced
// mode) such a stack is refused before anything is made.
TEST(FrameStackLoop, IntegerFramesNeedStackKernel) {
  LogCapture log;
  RecordingHost host;
  FakeJob fj(host, 3);
  fj.job.frames[2].depth = FRAME_DEPTH_U8;
  EXPECT_EQ(RenderFrameStack(fj.job, host.Ops()), 512);
  EXPECT_EQ(log.Count(":RenderFrameStack] :: Frames of integers need StackKernel.\n"), 1u) << log.All();
  EXPECT_EQ(host.created, 0);
}

// ---- Whole renders on the CPU reference device ----

struct Render {
  int w, h;
  std::vector<TestFrame> frames;
  TestFrame out;
  KernelData kd;
  CpuLaunchConfig config;

  Render(int numFrames, int width, int height, int outPitch, int framePitch = 0)
      : w(width), h(height), out(width, height, outPitch), kd(DefaultKernelData(numFrames)) {
    for (int i = 0; i < numFrames; ++i) frames.emplace_back(w, h, framePitch ? framePitch : outPitch);
  }
  int32_t Run(std::vector<std::pair<int, int>> offsets = {}) {
    FrameStackJob job;
    for (size_t i = 0; i < frames.size(); ++i) {
      const auto o = i < offsets.size() ? offsets[i] : std::make_pair(0, 0);
      job.frames.push_back(
          {frames[i].data(), frames[i].width, frames[i].height, frames[i].pitch * 16, o.first, o.second});
    }
    job.output = {out.data(), w, h, out.pitch * 16, 0, 0};
    job.is16f = false;
    job.kernelData = &kd;
    return CpuRenderFrameStack(config, job);
  }
};

TEST(FrameStackRender, UniformFramesFollowTheEasedRecurrence) {
  const float grays[10] = {0.9f, 0.1f, 0.5f, 0.45f, 0.8f, 0.2f, 0.3f, 0.7f, 0.6f, 0.0f};
  for (float ease : {4.0f, 1.0f, 0.0f}) {
    SCOPED_TRACE(ease);
    Render r(10, 19, 7, 19);
    r.kd.percentEase = ease;
    for (int i = 0; i < 10; ++i) r.frames[i].Fill(grays[i], grays[i] * 0.5f, 0.25f, 1.0f - 0.05f * i);
    ASSERT_EQ(r.Run(), 0);
    // a(0) = d(0); a(k) = d(k) + e(k) * a(k-1), alpha from the newer frame.
    double acc = 0.0, accA = 0.0;
    for (int i = 8; i >= 0; --i) {
      const double p = 1.0 - i / 8.0;
      const double e = p == 0.0 ? 0.0 : std::min(1.0, std::max(0.0, 1.0 - std::pow(1.0 - p, ease)));
      acc = std::fabs(static_cast<double>(grays[i + 1]) - grays[i]) + e * acc;
      accA = (1.0 - 0.05 * i) + e * accA;
    }
    const gfcpu::float4 o = r.out.Rgba(9, 3);
    EXPECT_NEAR(o.x, acc, 1e-5);
    EXPECT_NEAR(o.w, accA, 1e-5);
    EXPECT_EQ(o.z, 0.0f);
    EXPECT_TRUE(r.out.GuardsIntact());
  }
}

TEST(FrameStackRender, BitIdenticalAcrossThreadsRunsAndWaysOfPlacingFrames) {
  const std::vector<std::pair<int, int>> offsets = {{0, 0}, {3, -2}, {0, 0}, {-5, 4}, {0, 0}, {1, 1}};
  for (bool amplify : {false, true}) {
    SCOPED_TRACE(amplify);
    // Sizes not a multiple of 16, padded pitches; placed frames at offset 0 with a pitch of their own.
    Render a(6, 53, 37, 57), placed(6, 53, 37, 57, 71);
    TestRandom rnd(7);
    for (TestFrame& f : a.frames)
      for (int y = 0; y < f.height; ++y)
        for (int x = 0; x < f.width; ++x)
          f.Set(x, y, rnd.Next(-0.2f, 1.2f), rnd.Next(0.f, 1.f), rnd.Next(0.f, 1.f), rnd.Next(0.5f, 1.f));
    for (Render* r : {&a, &placed}) {
      r->kd.motion_amp = r->kd.normalize = amplify;
      r->kd.chromatic = true;
      r->kd.blendMode = amplify ? BLEND_SCREEN : BLEND_ADD;
      r->kd.diffMode = amplify ? DIFF_SUBT : DIFF_DIFF;
    }
    ASSERT_EQ(a.Run(offsets), 0);
    EXPECT_TRUE(a.out.GuardsIntact());
    for (const TestFrame& f : a.frames) EXPECT_TRUE(f.GuardsIntact());  // frames are only read
    const TestFrame first = a.out;
    a.config.threads = 3;
    ASSERT_EQ(a.Run(offsets), 0);
    EXPECT_TRUE(a.out.BitEqual(first));

    // Frames the loop puts on canvases equal the same frames placed beforehand.
    for (int i = 0; i < 6; ++i)
      CpuResizeKernel(CpuLaunchConfig{}, a.frames[i].data(), placed.frames[i].data(), 57, 71, 0, 53, 37, 53, 37,
                      offsets[i].first, offsets[i].second);
    ASSERT_EQ(placed.Run(), 0);
    EXPECT_TRUE(placed.out.BitEqual(a.out));
  }
}

}  // namespace
