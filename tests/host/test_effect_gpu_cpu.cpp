// The software path's pieces on their own, and the GPU device set-up and the
// software path's host-facing answers through the built module in the
// stand-in host on OpenCL (PoCL by default).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "ModuleHostTest.h"
#include "TremorDistiller_CPU.h"

namespace {

using aehost::AeHost;
using aehost::RenderPath;

// ---- Software path pieces ----

// A host world over a vector, with `pad` spare pixels a row filled with a guard.
template <typename T>
struct CpuWorld {
  std::vector<T> px;
  PF_EffectWorld world{};
  CpuWorld(A_long w, A_long h, A_long pad, T fill) : px(static_cast<size_t>(w + pad) * h * 4, fill) {
    world.data = px.data();
    world.rowbytes = static_cast<A_long>((w + pad) * 4 * sizeof(T));
    world.width = w;
    world.height = h;
  }
  T* at(A_long x, A_long y) { return &px[(static_cast<size_t>(y) * (world.rowbytes / sizeof(T) / 4) + x) * 4]; }
};

// The input is 5x9 in rows of six pixels over eleven rows, the output 7x11 in
// rows of nine, all guard-filled: reading past the input's width or rows would
// bring guards into the output, which beyond the input is transparent black.
template <typename T>
void ExpectHalfValueCopy(int depth, T a, T r, T g, T b, T ha, T hr, T hg, T hb) {
  SCOPED_TRACE(depth);
  EXPECT_EQ(PixelSizeOfDepth(depth), static_cast<int>(4 * sizeof(T)));
  const T guard = static_cast<T>(7);
  CpuWorld<T> input(5, 11, 1, guard), output(7, 11, 2, guard);
  input.world.height = 9;
  for (A_long y = 0; y < 9; ++y)
    for (A_long x = 0; x < 5; ++x) {
      T* p = input.at(x, y);
      p[0] = a, p[1] = r, p[2] = g, p[3] = b;
    }
  for (A_long y = 0; y < 11; ++y) HalfValueRow(depth, input.world, output.world, y);
  for (A_long y = 0; y < 11; ++y) {
    for (A_long x = 0; x < 7; ++x) {
      const T* p = output.at(x, y);
      const std::vector<T> want = x < 5 && y < 9 ? std::vector<T>{ha, hr, hg, hb} : std::vector<T>(4, 0);
      EXPECT_EQ(std::vector<T>(p, p + 4), want) << x << "," << y;
    }
    for (A_long x = 7; x < 9; ++x) EXPECT_EQ(output.at(x, y)[0], guard) << "padding written in row " << y;
  }
}

TEST(SoftwarePath, CopiesTheFirstComponentAndHalvesTheOthersWithinTheInputAtEachDepth) {
  ExpectHalfValueCopy<uint8_t>(8, 200, 255, 128, 1, 200, 127, 64, 0);
  ExpectHalfValueCopy<uint16_t>(16, 32768, 32767, 65535, 1, 32768, 16383, 32767, 0);
  ExpectHalfValueCopy<float>(32, 0.5f, 1.0f, -0.5f, 2.0f, 0.5f, 0.5f, -0.25f, 1.0f);
  // Over-range, negative and infinite floats pass through unclamped.
  ExpectHalfValueCopy<float>(32, -3.0f, 1e30f, INFINITY, -7.0f, -3.0f, 5e29f, INFINITY, -3.5f);
  EXPECT_EQ(PixelSizeOfDepth(10), 0);
}

// ---- Through the host ----

class EffectHosted : public ModuleHostTest {
 protected:
  // A host with a short clip of mid-grey frames.
  AeHost& ClipHost(aehost::HostOptions options = {}) {
    AeHost& host = NewHost(options);
    for (int k = 0; k < 4; ++k) host.AddFrame(host.FrameTime(k), aehost::Image(8, 4, 0.5f));
    return host;
  }
};

TEST_F(EffectHosted, UnsupportedDepthsLogAndLeaveTheOutputAlone) {
  struct Case {
    A_long applId;
    const char* format;
    const char* line;
  };
  for (const Case& c : {Case{aehost::kApplIdAfterEffects, "Bgra", "Wrong bitdepth: 0"},
                        Case{aehost::kApplIdPremiere, "v210", "Wrong bitdepth: 10"}}) {
    SCOPED_TRACE(c.line);
    aehost::HostOptions options;
    options.applId = c.applId;
    std::memcpy(&options.softwareFormat, c.format, 4);
    AeHost& host = ClipHost(options);
    ASSERT_EQ(host.SetUp(nullptr), PF_Err_NONE);
    const aehost::RenderResult r = host.Render(host.FrameTime(3), RenderPath::SmartSoftware);
    EXPECT_EQ(r.result, PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(LogCount(std::string(":RenderCPU] :: ") + c.line + "\n"), 1u) << Log();
    EXPECT_EQ(r.output.rgba, std::vector<float>(r.output.rgba.size(), 0.0f));
  }
}

// The notice is the process's: a GPU frame takes down one that earlier renders
// raised, and none comes while a device is set up.
TEST_F(EffectHosted, SoftwareNoticeComesOnceOnAnEarlySoftwareFrame) {
  const std::string ae = "Wrong Settings for GPU Acceleration\n\nSorry, the current version of the plugin only "
                         "supports GPU acceleration. Go in File > Project Settings";
  const std::string select = " and select 'Mercury GPU Acceleration'";
  const struct {
    A_long applId;
    bool keepDevice;
    std::string notice;
  } rows[] = {{aehost::kApplIdAfterEffects, false, ae + select},
              {aehost::kApplIdPremiere, false, ae + " > General" + select},
              {aehost::kApplIdAfterEffects, true, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.notice);
    aehost::HostOptions options;
    options.applId = row.applId;
    AeHost& host = ClipHost(options);
    aehost::DeviceOptions device;
    ASSERT_EQ(host.SetUp(&device), PF_Err_NONE);
    ASSERT_EQ(host.Render(host.FrameTime(0), RenderPath::SmartGPU).result, PF_Err_NONE);
    if (!row.keepDevice) {
      ASSERT_EQ(host.SetdownDevice(), PF_Err_NONE);
    }
    std::vector<std::string> messages;
    for (int frame = 1; frame <= 3; ++frame) {
      const aehost::RenderResult r = host.Render(host.FrameTime(frame), RenderPath::SmartSoftware);
      ASSERT_EQ(r.result, PF_Err_NONE);
      EXPECT_FLOAT_EQ(r.output.At(1, 1)[1], 0.25f);
      EXPECT_EQ((r.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE) != 0, !r.render.return_msg.empty());
      EXPECT_EQ(r.checkouts[1].pixelCheckouts, 0);  // the software path fetches one frame
      messages.push_back(r.render.return_msg);
    }
    // On the second software frame of a fresh process, the first of one that had some.
    EXPECT_TRUE(messages[0].empty() || messages[1].empty());
    EXPECT_EQ(messages[0] + messages[1], row.notice);
    EXPECT_EQ(messages[2], "");
  }
}

TEST_F(EffectHosted, DeviceSetUpKeepsAHandleOnlyForAnOpenCLDevice) {
  // what_gpu -1 is the device's own framework; 2 (Metal) and 0 (none) are refused.
  for (A_long whatGpu : {-1, 2, 0}) {
    SCOPED_TRACE(whatGpu);
    AeHost& host = ClipHost();
    host.Options().beforeCommand = [](PF_Cmd, PF_InData&, PF_OutData& out) {
      out.out_flags2 = PF_OutFlag2_SUPPORTS_THREADED_RENDERING;
    };
    ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
    ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
    const size_t handles = host.LiveHandleCount();
    const bool ok = whatGpu < 0;
    EXPECT_EQ(host.SetupDevice({"opencl", whatGpu}), ok ? PF_Err_NONE : PF_Err_INTERNAL_STRUCT_DAMAGED);
    const auto setup = host.LastCommand(PF_Cmd_GPU_DEVICE_SETUP);
    EXPECT_NE(setup->out_flags & PF_OutFlag_REFRESH_UI, 0);
    EXPECT_EQ(setup->out_flags2, ok ? 0x02000000 : PF_OutFlag2_SUPPORTS_THREADED_RENDERING);  // replaced, not or-ed
    EXPECT_EQ(host.GpuData() != nullptr, ok);
    EXPECT_EQ(host.LiveHandleCount(), handles + ok);
    if (whatGpu == 0) {
      EXPECT_EQ(host.Render(host.FrameTime(3), RenderPath::SmartGPU).result, PF_Err_INTERNAL_STRUCT_DAMAGED);
      EXPECT_EQ(LogCount(":SmartRenderGPU] :: Something wrong with GPU\n"), 1u) << Log();
    }
    // Set-down frees the handle, and disposes nothing when there is none.
    host.ClearCallLog();
    EXPECT_EQ(host.SetdownDevice(), PF_Err_NONE);
    EXPECT_EQ(host.LiveHandleCount(), handles);
    int disposed = 0;
    for (const auto& call : host.CallLog()) disposed += call.op == "host_dispose_handle";
    EXPECT_EQ(disposed, ok ? 1 : 0);
  }
}

// Whichever host operation fails mid-render, the render stops there, checks
// every frame in and gives the scratch worlds made so far back; the host gets
// the code, and for a missing suite a text to show.
TEST_F(EffectHosted, AFailedRenderGivesEveryScratchWorldBack) {
  AeHost& host = ClipHost();
  aehost::DeviceOptions device;
  ASSERT_EQ(host.SetUp(&device), PF_Err_NONE);
  const struct {
    const char* op;
    int nth;
  } failures[] = {{"CreateGPUWorld", 1}, {"CreateGPUWorld", 2}, {"CreateGPUWorld", 3},
                  {"GetGPUWorldData", 3}, {"checkout_layer_pixels", 4}, {"checkout_output", 1}};
  for (const auto& f : failures) {
    SCOPED_TRACE(testing::Message() << f.op << " #" << f.nth);
    host.ClearInjections();
    host.ClearCallLog();
    host.FailOperation(f.op, PF_Err_OUT_OF_MEMORY, f.nth);
    const aehost::RenderResult r = host.Render(host.FrameTime(3), RenderPath::SmartGPU);
    EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(r.effectWorldsLeft, 0u);
    EXPECT_EQ(r.worldsNotCheckedIn, 0u);
    int calls = 0;
    for (const auto& call : host.CallLog()) calls += call.op == f.op;
    EXPECT_EQ(calls, f.nth);
    // Counted from when it was set, it does not fire again.
    EXPECT_EQ(host.Render(host.FrameTime(3), RenderPath::SmartGPU).result, PF_Err_NONE);
  }
  EXPECT_EQ(LogCount(":EffectMain] :: PF_Cmd_SMART_RENDER_GPU. Code: PF_Err_OUT_OF_MEMORY (4)\n"), 6u) << Log();
  host.ClearInjections();
  host.RemoveSuite("PF World Suite");
  const aehost::RenderResult r = host.Render(host.FrameTime(3), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, 13);
  EXPECT_EQ(r.render.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(r.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(LogCount("Try Catch Exception code at event PF_Cmd_SMART_RENDER_GPU is PF_Err?UNKNOWN (13)\n"), 1u);
}

}  // namespace
