// The built module, loaded and driven by the stand-in After Effects host on
// OpenCL (PoCL here): whole frames against the frame-stack loop on the CPU
// reference device given the same stack; the host's own duties (loading
// errors, frames outside the clip, the upload cache, padded worlds, the call
// log); the device set-up, the software path's answers and failed renders.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <iterator>
#include <map>
#include <new>

#include "CpuRender.h"
#include "Device.h"
#include "ModuleHostTest.h"
#include "ClipReference.h"
#include "KernelTestSupport.h"

// While set, the next nothrow request of a KernelData's size fails: the one
// way to make pre-render's record fail in the module without touching it.
static std::atomic<bool> gRefuseKernelData{false};

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size == sizeof(KernelData) && gRefuseKernelData.exchange(false)) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using namespace aehost;
namespace fs = std::filesystem;

constexpr float kTolerance = 1e-4f;

Image ClipFrame(int k) {
  Image img(kClipW, kClipH);
  img.rgba = ClipFrameRGBA(k);
  return img;
}

Image ReferenceRender(int newest, int count, const KernelData& kd) {
  Image img(kClipW, kClipH);
  img.rgba = ClipReferenceRGBA(newest, count, kd);
  return img;
}

float WorstDifference(const Image& a, const Image& b) {
  float worst = 0.0f;
  for (size_t i = 0; i < a.rgba.size(); ++i)
    worst = std::max(worst, std::fabs(a.rgba[i] - b.rgba[i]) / std::max(1.0f, std::fabs(b.rgba[i])));
  return worst;
}

// Every pixel of every frame differs; all values are even steps of 1/255, so
// 8-bit worlds hold them and their halves exactly.
Image MakeFrame(int k, A_long w = 24, A_long h = 8) {
  Image img(w, h);
  for (A_long y = 0; y < h; ++y)
    for (A_long x = 0; x < w; ++x) {
      float* p = img.At(x, y);
      p[0] = static_cast<float>(2 * ((x + 3 * k) % 128)) / 255.0f;
      p[1] = static_cast<float>(2 * y) / 255.0f;
      p[2] = static_cast<float>(2 * k) / 255.0f;
      p[3] = static_cast<float>(128 + 2 * k) / 255.0f;
    }
  return img;
}

// What the effect's software path makes of a frame: colour halved, alpha kept.
Image Halved(Image img) {
  for (size_t i = 0; i < img.rgba.size(); ++i)
    if (i % 4 != 3) img.rgba[i] *= 0.5f;
  return img;
}

size_t IndexOf(const std::vector<CallRecord>& log, const std::string& op, size_t from = 0) {
  for (size_t i = from; i < log.size(); ++i)
    if (log[i].op == op) return i;
  return log.size();
}

class AeRender : public ModuleHostTest {
 protected:
  void SetUp() override {
    ModuleHostTest::SetUp();
    HostOptions options;
    options.rowPaddingBytes = 48;  // worlds with a pitch wider than the frame
    ClipHost(options);
  }
  // A fresh host holding clip frames 0..11.
  AeHost& ClipHost(HostOptions options = {}) {
    AeHost& host = NewHost(std::move(options));
    for (int k = 0; k < 12; ++k) host.AddFrame(host.FrameTime(k), ClipFrame(k));
    return host;
  }
  void SetUpGpu(const std::string& kind = "opencl") {
    DeviceOptions device;
    device.device = kind;
    ASSERT_EQ(host_->SetUp(&device), 0);
    ASSERT_TRUE(host_->GpuReady());
  }
  void Set(A_long diskId, double value) { host_->SetParamValue(host_->FindParam(diskId), value); }
};

class AeRenderDevices : public AeRender, public ::testing::WithParamInterface<std::string> {};
class AeHostTest : public AeRender {};
class EffectHosted : public AeRender {};

TEST_P(AeRenderDevices, EveryModeAndSwitchMatchesTheReference) {
  try {
    ResolveDeviceText(GetParam());
  } catch (const DeviceError& e) {
    GTEST_SKIP() << "no " << GetParam() << " device on this machine: " << e.what();
  }
  SetUpGpu(GetParam());
  // Disk id, value, the default it goes back to, and what the reference is told.
  const struct {
    A_long id;
    double value, dephault;
    std::function<void(KernelData&)> apply;
    int newest = 11;
  } settings[] = {
      {0, 0, 0, [](KernelData&) {}},
      {0, 0, 0, [](KernelData&) {}, 3},  // the start of the clip: the oldest frame repeats
      {19, 2, 1, [](KernelData& kd) { kd.blendMode = BLEND_SCREEN; }},
      {20, 2, 1, [](KernelData& kd) { kd.diffMode = DIFF_SUBT; }},
      {23, 2, 1, [](KernelData& kd) { kd.output = static_cast<ColorFrom>(2); }},
      {23, 3, 1, [](KernelData& kd) { kd.output = static_cast<ColorFrom>(3); }},
      {24, 1, 0, [](KernelData& kd) { kd.normalize = true; }},
      {22, 1, 0, [](KernelData& kd) { kd.motion_amp = true; }},
      {21, 1, 0, [](KernelData& kd) { kd.chromatic = true; }},
      {12, 0, 80, [](KernelData& kd) { kd.percentEase = 0.0f; }},
      {5, 3, 10, [](KernelData&) {}},  // three frames
  };
  for (const auto& s : settings) {
    SCOPED_TRACE(testing::Message() << "disk id " << s.id << " = " << s.value);
    KernelData kd = DefaultKernelData();
    s.apply(kd);
    if (s.id) Set(s.id, s.value);
    const int frames = s.id == 5 ? 3 : 10;
    const RenderResult r = host_->Render(host_->FrameTime(s.newest), RenderPath::SmartGPU);
    ASSERT_EQ(r.result, 0);
    EXPECT_EQ(r.checkouts.size(), static_cast<size_t>(frames));
    EXPECT_EQ(r.effectWorldsLeft, 0u);
    EXPECT_EQ(r.worldsNotCheckedIn, 0u);
    EXPECT_LE(WorstDifference(r.output, ReferenceRender(s.newest, frames, kd)), kTolerance);
    if (s.id) Set(s.id, s.dephault);
  }
  EXPECT_EQ(LogCount("Reached a last NULL frame at #3 frame."), 1u);
}

INSTANTIATE_TEST_SUITE_P(, AeRenderDevices, ::testing::Values("opencl", "cuda"),
                         [](const auto& info) { return info.param; });

// A host that serves a user keeps the newest records only, and those as a
// host keeping all would have them, command results included.
TEST_F(AeRender, BoundedRecordsAreTheNewestOnes) {
  auto records = [&](size_t limit) {
    HostOptions options;
    options.recordLimit = limit;
    ClipHost(options);
    SetUpGpu();
    host_->FailOperation("checkout_layer_pixels", 7, 115);  // a command of the last render ends in an error
    for (int k = 0; k < 12; ++k) host_->Render(host_->FrameTime(k));
    EXPECT_LE(host_->Commands().size(), limit ? 2 * limit : SIZE_MAX);
    return host_->CallLog();
  };
  const std::vector<CallRecord> all = records(0), kept = records(60);
  ASSERT_GT(all.size(), 240u);
  EXPECT_GE(kept.size(), 60u);
  EXPECT_LE(kept.size(), 120u);
  size_t failed = 0;
  for (size_t i = 0; i < kept.size(); ++i) {
    const CallRecord& a = all[all.size() - kept.size() + i];  // arguments name addresses: left out
    EXPECT_EQ(std::tie(a.kind, a.suite, a.op, a.result), std::tie(kept[i].kind, kept[i].suite, kept[i].op, kept[i].result));
    failed += kept[i].kind == CallRecord::Kind::Command && kept[i].result != 0;
  }
  EXPECT_GE(failed, 1u);
}

TEST_F(AeRender, ThreadedRendersEqualSerialOnesAndKeepTheirOwnCallbacks) {
  SetUpGpu();
  std::vector<A_long> times;
  for (int k : {11, 10, 9, 8, 11, 10}) times.push_back(host_->FrameTime(k));
  std::vector<Image> serial;
  for (A_long t : times) serial.push_back(host_->Render(t, RenderPath::SmartGPU).output);
  host_->ResetUploadCount();
  host_->ClearCallLog();
  const auto threaded = host_->RenderMany(times, 3, RenderPath::SmartGPU);
  EXPECT_EQ(host_->UploadCount(), 0u);                // the serial renders left every frame in the cache
  std::map<uint64_t, std::pair<int, int>> perRender;  // bookings, check-ins
  for (const auto& c : host_->CallLog()) {
    perRender[c.renderId].first += c.op == "checkout_layer";
    perRender[c.renderId].second += c.op == "checkin_layer_pixels";
  }
  for (size_t i = 0; i < times.size(); ++i) {
    ASSERT_EQ(threaded[i].result, 0);
    EXPECT_EQ(threaded[i].output.rgba, serial[i].rgba) << i;
    // Shared render ids would add their counts up.
    EXPECT_EQ(perRender[threaded[i].renderId], std::make_pair(10, 10)) << i;
  }
  EXPECT_NE(serial[0].rgba, serial[1].rgba);
}

// The device is named at its first render, not at its set-up, and once
// however many frames render on it at once; a device set up anew is read anew.
TEST_F(AeRender, ThreadedFirstRendersOfADeviceLogItsIdentityOnce) {
  SetUpGpu();
  EXPECT_EQ(LogCount("HLL :: Initialized new device: OpenCL\n"), 1u) << Log();
  EXPECT_EQ(LogCount("HLL :: GPU: "), 0u);
  std::vector<A_long> times;
  for (int k : {11, 10, 9, 8, 7, 6}) times.push_back(host_->FrameTime(k));
  for (const auto& r : host_->RenderMany(times, 3, RenderPath::SmartGPU)) ASSERT_EQ(r.result, 0);
  EXPECT_EQ(LogCount("HLL :: GPU: "), 1u) << Log();
  ASSERT_EQ(host_->SetdownDevice(), PF_Err_NONE);
  ASSERT_EQ(host_->SetupDevice(), PF_Err_NONE);
  EXPECT_EQ(LogCount("HLL :: GPU: "), 1u);
  ASSERT_EQ(host_->Render(times[0], RenderPath::SmartGPU).result, PF_Err_NONE);
  EXPECT_EQ(LogCount("HLL :: GPU: "), 2u) << Log();
}

TEST_F(AeHostTest, LoadFailuresNameWhatIsMissingOnOneLine) {
  std::ifstream in(fs::path(ModulePath()).replace_extension(".pipl"), std::ios::binary);
  const std::string pipl((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string renamed = pipl;
  ASSERT_NE(renamed.find("EffectMain"), std::string::npos);
  renamed.replace(renamed.find("EffectMain"), 10, "EffectMaix");  // an entry point the module does not export
  // A copy of the module in a folder of its own, with `list` as its property list (none when empty).
  auto stage = [&](const std::string& name, const std::string& list) {
    fs::create_directories(fs::path(tmp_) / name);
    fs::copy_file(ModulePath(), fs::path(tmp_) / name / "effect.so");
    if (!list.empty()) std::ofstream(fs::path(tmp_) / name / "effect.pipl", std::ios::binary) << list;
    return (fs::path(tmp_) / name / "effect.so").string();
  };
  auto message = [](const std::function<void()>& load) {
    try {
      load();
    } catch (const HostError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  const std::string intact = stage("intact", pipl);
  HostOptions badPadding;
  badPadding.rowPaddingBytes = 8;                             // rows of 16-byte pixels could not be addressed in pixels
  EXPECT_EQ(message([&] { AeHost h(intact); }), "no error");  // the staging itself is sound
  const std::pair<std::string, const char*> cases[] = {
      {message([] { AeHost h("/no/such/folder/effect.so"); }), "/no/such/folder/effect.so"},
      {message([&] { AeHost h(stage("renamed", renamed)); }), "has no export EffectMaix"},
      {message([&] { AeHost h(stage("bare", "")); }), "effect.pipl"},
      {message([&] { AeHost h(stage("truncated", pipl.substr(0, pipl.size() - 4))); }), "property list"},
      {message([&] { AeHost h(intact, badPadding); }), "multiple of 16"},
  };
  for (const auto& [text, names] : cases) {
    EXPECT_NE(text.find(names), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  }
}

// The host's fetch gives no world and no error; the software path refuses the frame.
TEST_F(AeHostTest, TimeOutsideTheClipGivesANullWorldTheSoftwarePathRefuses) {
  ASSERT_EQ(host_->SetUp(nullptr), PF_Err_NONE);
  // One step past the last frame; the nine before it lie in the clip.
  const RenderResult r = host_->Render(host_->FrameTime(12), RenderPath::SmartSoftware);
  EXPECT_EQ(r.result, PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":RenderCPU] :: Input or Output data is unavailable\n"), 1u) << Log();
  ASSERT_EQ(r.checkouts.size(), 10u);
  EXPECT_FALSE(r.checkouts[0].hasFrame);
  EXPECT_EQ(r.checkouts[0].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[0].checkins, 1);
  EXPECT_EQ(r.checkouts[1].frameTime, host_->FrameTime(11));
}

TEST_F(AeHostTest, RendersUploadOnlyFramesNotUploadedBeforeAndSeeReplacedOnes) {
  SetUpGpu();
  AeHost& host = *host_;
  const RenderResult first = host.Render(host.FrameTime(11));
  ASSERT_EQ(first.result, PF_Err_NONE);
  EXPECT_EQ(first.uploads, 10u);
  const RenderResult again = host.Render(host.FrameTime(11));
  EXPECT_EQ(again.uploads, 0u);
  EXPECT_EQ(again.output.rgba, first.output.rgba);
  EXPECT_EQ(host.Render(host.FrameTime(10)).uploads, 1u);  // frame 1
  EXPECT_EQ(host.UploadCount(), 11u);

  host.AddFrame(host.FrameTime(11), ClipFrame(0));
  const RenderResult replaced = host.Render(host.FrameTime(11));
  EXPECT_EQ(replaced.uploads, 1u);
  EXPECT_NE(replaced.output.rgba, first.output.rgba);
  // The new pixels are the ones the effect saw: a render from a cold cache agrees.
  host.ClearFrameCache();
  const RenderResult cold = host.Render(host.FrameTime(11));
  EXPECT_EQ(cold.uploads, 10u);
  EXPECT_EQ(cold.output.rgba, replaced.output.rgba);
}

// Formats the effect cannot render are logged and leave the output alone.
TEST_F(AeHostTest, SoftwareRendersOnThreadsCarryPaddedFramesOrLogAnUnknownFormat) {
  const struct {
    A_long applId;
    PF_PixelFormat format;  // 0: float
    std::string error;      // the software path's log line, if any
  } rows[] = {{kApplIdAfterEffects, 0, ""},
              {kApplIdAfterEffects, PF_PixelFormat_ARGB32, ""},
              {kApplIdAfterEffects, PF_FourCharCode("Bgra"), "Wrong bitdepth: 0\n"},
              {kApplIdPremiere, PF_FourCharCode("v210"), "Wrong bitdepth: 10\n"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.format);
    HostOptions options;
    options.applId = row.applId;
    options.rowPaddingBytes = 48;
    options.softwareFormat = row.format;
    AeHost& host = NewHost(options);
    ASSERT_EQ(host.SetUp(nullptr), PF_Err_NONE);
    std::vector<A_long> times;
    for (int k = 2; k < 12; ++k) {
      host.AddFrame(host.FrameTime(k), MakeFrame(k));
      times.push_back(host.FrameTime(k));
    }
    const auto results = host.RenderMany(times, 4, RenderPath::SmartSoftware);
    for (size_t i = 0; i < results.size(); ++i) {
      const bool known = row.error.empty();
      EXPECT_EQ(results[i].result, known ? PF_Err_NONE : PF_Err_BAD_CALLBACK_PARAM);
      EXPECT_EQ(results[i].output.rgba, (known ? Halved(MakeFrame(static_cast<int>(i) + 2)) : Image(24, 8)).rgba) << i;
    }
    EXPECT_EQ(LogCount(":RenderCPU] :: " + row.error), row.error.empty() ? 0u : times.size()) << Log();
  }
}

TEST_F(AeHostTest, CommandsAndCallbacksOfARenderAreLoggedInOrder) {
  SetUpGpu();
  AeHost& host = *host_;
  const RenderResult r = host.Render(host.FrameTime(11));
  ASSERT_EQ(r.result, PF_Err_NONE);
  host.SetDown();
  std::vector<PF_Cmd> sent;
  for (const auto& c : host.Commands()) sent.push_back(c.cmd);
  EXPECT_EQ(sent, (std::vector<PF_Cmd>{PF_Cmd_GLOBAL_SETUP, PF_Cmd_PARAMS_SETUP, PF_Cmd_GPU_DEVICE_SETUP,
                                       PF_Cmd_SMART_PRE_RENDER, PF_Cmd_SMART_RENDER_GPU, PF_Cmd_GPU_DEVICE_SETDOWN,
                                       PF_Cmd_GLOBAL_SETDOWN}));
  const auto log = host.CallLog();
  const size_t pre = IndexOf(log, "PF_Cmd_SMART_PRE_RENDER");
  const size_t render = IndexOf(log, "PF_Cmd_SMART_RENDER_GPU", pre);
  const size_t freed = IndexOf(log, "delete_pre_render_data_func", render);
  ASSERT_LT(freed, log.size());
  std::map<std::string, std::vector<size_t>> at;
  for (size_t i = pre; i <= freed; ++i) {
    EXPECT_EQ(log[i].renderId, r.renderId) << log[i].op;
    at[log[i].op].push_back(i);
  }
  for (const char* op : {"checkout_layer", "checkout_layer_pixels", "checkin_layer_pixels"})
    ASSERT_EQ(at[op].size(), 10u) << op;
  ASSERT_EQ(at["checkout_output"].size(), 1u);
  EXPECT_LT(at["checkout_layer"].back(), render);  // booked in pre-render
  EXPECT_LT(render, at["checkout_layer_pixels"].front());
  EXPECT_LT(render, at["checkout_output"].front());
  EXPECT_LT(at["checkout_layer_pixels"].back(), at["checkin_layer_pixels"].front());
  // Nothing the host lent is left after set-down.
  EXPECT_EQ(host.LiveHandleCount(), 0u);
  EXPECT_EQ(host.LiveGpuWorldCount(), 0u);
}

// The notice is the process's: a GPU frame takes down one that earlier renders
// raised, and none comes while a device is set up.
TEST_F(EffectHosted, SoftwareNoticeComesOnceOnAnEarlySoftwareFrame) {
  const std::string ae =
      "Wrong Settings for GPU Acceleration\n\nSorry, the current version of the plugin only "
      "supports GPU acceleration. Go in File > Project Settings";
  const std::string select = " and select 'Mercury GPU Acceleration'";
  const struct {
    A_long applId;
    bool keepDevice;
    std::string notice;
  } rows[] = {{kApplIdAfterEffects, false, ae + select},
              {kApplIdPremiere, false, ae + " > General" + select},
              {kApplIdAfterEffects, true, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.notice);
    HostOptions options;
    options.applId = row.applId;
    AeHost& host = ClipHost(options);
    SetUpGpu();
    ASSERT_EQ(host.Render(host.FrameTime(0), RenderPath::SmartGPU).result, PF_Err_NONE);
    if (!row.keepDevice) {
      ASSERT_EQ(host.SetdownDevice(), PF_Err_NONE);
    }
    std::vector<std::string> messages;
    for (int frame = 1; frame <= 3; ++frame) {
      const RenderResult r = host.Render(host.FrameTime(frame), RenderPath::SmartSoftware);
      ASSERT_EQ(r.result, PF_Err_NONE);
      EXPECT_EQ(r.output.rgba, Halved(ClipFrame(frame)).rgba);
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
    ASSERT_EQ(host.SetUp(nullptr), PF_Err_NONE);  // global and parameter set-up
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
// the code and the log its line, and for a missing suite a text to show. A
// null answer (code 0) is for the effect to catch; a frame whose format is
// left unwritten is not in the 128-bit one. Motion amplification runs
// pass by pass with four scratch worlds; a plain stack of 20 frames runs in
// two launches that hand on through two.
TEST_F(EffectHosted, AFailedRenderGivesEveryScratchWorldBack) {
  SetUpGpu();
  AeHost& host = *host_;
  const struct {
    const char* op;
    int nth;
    bool fused = false;
    PF_Err code = PF_Err_OUT_OF_MEMORY, result = PF_Err_OUT_OF_MEMORY;
    const char* line = ":EffectMain] :: PF_Cmd_SMART_RENDER_GPU. Code: PF_Err_OUT_OF_MEMORY (4)";
  } failures[] = {
      {"CreateGPUWorld", 1},
      {"CreateGPUWorld", 2},
      {"CreateGPUWorld", 3},
      {"GetGPUWorldData", 3},
      {"checkout_layer_pixels", 4},
      {"checkout_output", 1},
      {"CreateGPUWorld", 2, true},
      {"GetGPUWorldData", 5, true},
      {"host_new_handle", 1, false, 0, PF_Err_OUT_OF_MEMORY, ":SmartRender] :: Cannot initialize layer frames"},
      {"checkout_output", 1, false, 0, 512, ":SmartRenderGPU] :: Input or Output data is unavailable"},
      {"PF_GetPixelFormat", 1, false, 0, 514,
       ":EffectMain] :: PF_Cmd_SMART_RENDER_GPU. Code: PF_Err_UNRECOGNIZED_PARAM_TYPE (514)"}};
  for (const auto& f : failures) {
    SCOPED_TRACE(testing::Message() << f.op << " #" << f.nth << (f.fused ? " fused" : "") << " code " << f.code);
    Set(22, f.fused ? 0 : 1);
    Set(5, f.fused ? 20 : 10);
    host.ClearInjections();
    host.ClearCallLog();
    host.FailOperation(f.op, f.code, f.nth);
    const size_t lines = LogCount(f.line + std::string("\n"));
    const RenderResult r = host.Render(host.FrameTime(3), RenderPath::SmartGPU);
    EXPECT_EQ(r.result, f.result);
    EXPECT_EQ(LogCount(f.line + std::string("\n")), lines + 1) << Log();
    EXPECT_EQ(r.effectWorldsLeft, 0u);
    EXPECT_EQ(r.worldsNotCheckedIn, 0u);
    int calls = 0;
    for (const auto& call : host.CallLog()) calls += call.op == f.op;
    EXPECT_EQ(calls, f.nth);
    // Counted from when it was set, it does not fire again.
    EXPECT_EQ(host.Render(host.FrameTime(3), RenderPath::SmartGPU).result, PF_Err_NONE);
  }
  gRefuseKernelData = true;  // pre-render's own record
  EXPECT_EQ(host.Render(host.FrameTime(3), RenderPath::SmartGPU).result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(LogCount(":PreRender] :: Something wrong with allocation of Kernel Data\n"), 1u);
  host.ClearInjections();
  host.RemoveSuite("PF World Suite");
  const RenderResult r = host.Render(host.FrameTime(3), RenderPath::SmartGPU);
  EXPECT_EQ(r.result, 13);
  EXPECT_EQ(r.render.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(r.render.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(LogCount("Try Catch Exception code at event PF_Cmd_SMART_RENDER_GPU is PF_Err?UNKNOWN (13)\n"), 1u);
}

}  // namespace
