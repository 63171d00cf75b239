// The stand-in After Effects host's own duties, seen through the built module:
// loading errors, frames outside the clip, the upload cache, the layout of
// padded worlds, failure injection, the call log of a render and renders on
// several threads. Whole-frame results are test_ae_render.cpp's.
#include <gtest/gtest.h>

#include <functional>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "AeHost.h"

using namespace aehost;
namespace fs = std::filesystem;

namespace {

constexpr SPErr kSuiteNotFound = 0x53214e46;  // the basic suite's "not found"

// The module can be pointed elsewhere, e.g. on a machine the build was copied to.
std::string ModulePath() { return std::getenv("TD_MODULE_PATH") ? std::getenv("TD_MODULE_PATH") : TD_MODULE_PATH; }

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

class AeHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::path(TD_TEST_TMP_DIR) / "ae_host" / info->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    setenv("TMPDIR", dir_.c_str(), 1);  // the effect's log
  }
  // The module set up (on OpenCL when `gpu`) with frames 0..count-1 at k * time step.
  void Start(int count, bool gpu, HostOptions options = {}) {
    host_ = std::make_unique<AeHost>(ModulePath(), std::move(options));
    DeviceOptions device;
    ASSERT_EQ(host_->SetUp(gpu ? &device : nullptr), PF_Err_NONE);
    ASSERT_EQ(host_->GpuReady(), gpu);
    for (int k = 0; k < count; ++k) host_->AddFrame(host_->FrameTime(k), MakeFrame(k));
  }
  // A copy of the module in a folder of its own, with `pipl` as its property
  // list (none when empty).
  std::string Stage(const std::string& name, const std::string& pipl) {
    fs::create_directories(dir_ / name);
    fs::copy_file(ModulePath(), dir_ / name / "effect.so");
    if (!pipl.empty()) std::ofstream(dir_ / name / "effect.pipl", std::ios::binary) << pipl;
    return (dir_ / name / "effect.so").string();
  }

  fs::path dir_;
  std::unique_ptr<AeHost> host_;
};

// ---- Loading ----

TEST_F(AeHostTest, LoadFailuresNameWhatIsMissingOnOneLine) {
  std::ifstream in(fs::path(ModulePath()).replace_extension(".pipl"), std::ios::binary);
  const std::string pipl((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t entry = pipl.find("EffectMain");
  ASSERT_NE(entry, std::string::npos);
  std::string renamed = pipl;
  renamed.replace(entry, 10, "EffectMaix");  // an entry point the module does not export

  auto message = [](const std::function<void()>& load) {
    try {
      load();
    } catch (const HostError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  const std::string intact = Stage("intact", pipl);
  HostOptions badPadding;
  badPadding.rowPaddingBytes = 8;  // rows of 16-byte pixels could not be addressed in pixels
  EXPECT_EQ(message([&] { AeHost h(intact); }), "no error");  // the staging itself is sound
  const std::vector<std::pair<std::string, std::string>> cases = {
      {message([] { AeHost h("/no/such/folder/effect.so"); }), "/no/such/folder/effect.so"},
      {message([&] { AeHost h(Stage("renamed", renamed)); }), "has no export EffectMaix"},
      {message([&] { AeHost h(Stage("bare", "")); }), "effect.pipl"},
      {message([&] { AeHost h(Stage("truncated", pipl.substr(0, pipl.size() - 4))); }), "property list"},
      {message([&] { AeHost h(intact, badPadding); }), "multiple of 16"},
  };
  for (const auto& [text, names] : cases) {
    EXPECT_NE(text.find(names), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  }
}

// ---- The input layer ----

TEST_F(AeHostTest, TimeOutsideTheClipGivesANullWorldWithoutError) {
  Start(12, false);
  // One step past the last frame; the nine before it lie in the clip.
  const RenderResult r = host_->Render(host_->FrameTime(12), RenderPath::SmartSoftware);
  ASSERT_EQ(r.checkouts.size(), 10u);
  EXPECT_FALSE(r.checkouts[0].hasFrame);
  EXPECT_EQ(r.checkouts[0].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[0].checkins, 1);
  EXPECT_TRUE(r.checkouts[1].hasFrame);
  EXPECT_EQ(r.checkouts[1].frameTime, host_->FrameTime(11));
  const auto log = host_->CallLog();
  const size_t fetch = IndexOf(log, "checkout_layer_pixels");
  ASSERT_LT(fetch, log.size());
  EXPECT_EQ(log[fetch].args.rfind("idx=0 world=null", 0), 0u) << log[fetch].args;
  EXPECT_EQ(log[fetch].result, PF_Err_NONE);
}

// ---- The upload cache ----

TEST_F(AeHostTest, RendersUploadOnlyFramesNotUploadedBeforeAndSeeReplacedOnes) {
  Start(12, true);
  const RenderResult first = host_->Render(host_->FrameTime(11));
  ASSERT_EQ(first.result, PF_Err_NONE);
  EXPECT_EQ(first.uploads, 10u);
  const RenderResult again = host_->Render(host_->FrameTime(11));
  EXPECT_EQ(again.uploads, 0u);
  EXPECT_EQ(again.output.rgba, first.output.rgba);
  EXPECT_EQ(host_->Render(host_->FrameTime(10)).uploads, 1u);  // frame 1

  host_->AddFrame(host_->FrameTime(11), MakeFrame(40));
  const RenderResult replaced = host_->Render(host_->FrameTime(11));
  EXPECT_EQ(replaced.uploads, 1u);
  EXPECT_NE(replaced.output.rgba, first.output.rgba);
  // The new pixels are the ones the effect saw: a render from a cold cache agrees.
  host_->ClearFrameCache();
  const RenderResult cold = host_->Render(host_->FrameTime(11));
  EXPECT_EQ(cold.uploads, 10u);
  EXPECT_EQ(cold.output.rgba, replaced.output.rgba);
}

// ---- World layout ----

TEST_F(AeHostTest, PaddedSoftwareWorldsCarryWholeFramesBothWays) {
  for (const PF_PixelFormat format : {PF_PixelFormat(0), PF_PixelFormat(PF_PixelFormat_ARGB32)}) {
    SCOPED_TRACE(format ? "8-bit" : "float");
    HostOptions options;
    options.rowPaddingBytes = 48;
    options.softwareFormat = format;
    Start(6, false, options);
    const RenderResult r = host_->Render(host_->FrameTime(5), RenderPath::SmartSoftware);
    ASSERT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.output.rgba, Halved(MakeFrame(5)).rgba);
  }
}

// ---- Failure injection ----

TEST_F(AeHostTest, InjectedFailureHitsOnlyTheNthCallAndReachesTheEffect) {
  Start(12, true);
  host_->FailOperation("checkout_layer_pixels", PF_Err_OUT_OF_MEMORY, 2);
  RenderResult r = host_->Render(host_->FrameTime(11));
  EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.render.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.checkouts[0].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[1].pixelCheckouts, 0);  // failed without fetching
  // Counted from when it was set, it does not fire again.
  r = host_->Render(host_->FrameTime(11));
  EXPECT_EQ(r.result, PF_Err_NONE);
  for (const auto& c : r.checkouts) EXPECT_EQ(c.pixelCheckouts, 1) << c.checkoutIdx;
}

TEST_F(AeHostTest, MissingSuiteIsNotFoundForTheEffectUntilRestored) {
  AeHost host(ModulePath());
  host.RemoveSuite(kPFHandleSuite);
  EXPECT_NE(host.GlobalSetup(), PF_Err_NONE);
  const auto log = host.CallLog();
  const size_t acquire = IndexOf(log, "AcquireSuite");
  ASSERT_LT(acquire, log.size());
  EXPECT_NE(log[acquire].args.find(kPFHandleSuite), std::string::npos);
  EXPECT_EQ(log[acquire].result, kSuiteNotFound);
  const void* suite = &suite;
  EXPECT_EQ(host.BasicSuite()->AcquireSuite(kPFHandleSuite, kPFHandleSuiteVersion2, &suite), kSuiteNotFound);
  EXPECT_EQ(suite, nullptr);
  EXPECT_EQ(host.BasicSuite()->AcquireSuite(kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1, &suite), kSPNoError);
  host.RestoreSuite(kPFHandleSuite);
  EXPECT_EQ(host.GlobalSetup(), PF_Err_NONE);
}

// ---- The call log ----

TEST_F(AeHostTest, CommandsAndCallbacksOfARenderAreLoggedInOrder) {
  Start(12, true);
  const RenderResult r = host_->Render(host_->FrameTime(11));
  ASSERT_EQ(r.result, PF_Err_NONE);
  host_->SetDown();
  std::vector<PF_Cmd> sent;
  for (const auto& c : host_->Commands()) sent.push_back(c.cmd);
  EXPECT_EQ(sent, (std::vector<PF_Cmd>{PF_Cmd_GLOBAL_SETUP, PF_Cmd_PARAMS_SETUP, PF_Cmd_GPU_DEVICE_SETUP,
                                       PF_Cmd_SMART_PRE_RENDER, PF_Cmd_SMART_RENDER_GPU, PF_Cmd_GPU_DEVICE_SETDOWN,
                                       PF_Cmd_GLOBAL_SETDOWN}));
  const auto log = host_->CallLog();
  const size_t pre = IndexOf(log, "PF_Cmd_SMART_PRE_RENDER");
  const size_t render = IndexOf(log, "PF_Cmd_SMART_RENDER_GPU", pre);
  const size_t freed = IndexOf(log, "delete_pre_render_data_func", render);
  ASSERT_LT(freed, log.size());
  std::map<std::string, std::vector<size_t>> at;
  for (size_t i = pre; i <= freed; ++i) {
    EXPECT_EQ(log[i].renderId, r.renderId) << log[i].op;
    at[log[i].op].push_back(i);
  }
  ASSERT_EQ(at["checkout_layer"].size(), 10u);
  ASSERT_EQ(at["checkout_layer_pixels"].size(), 10u);
  ASSERT_EQ(at["checkin_layer_pixels"].size(), 10u);
  ASSERT_EQ(at["checkout_output"].size(), 1u);
  EXPECT_LT(at["checkout_layer"].back(), render);  // booked in pre-render
  EXPECT_LT(render, at["checkout_layer_pixels"].front());
  EXPECT_LT(render, at["checkout_output"].front());
  EXPECT_LT(at["checkout_layer_pixels"].back(), at["checkin_layer_pixels"].front());
  EXPECT_LT(at["checkin_layer_pixels"].back(), freed);
  // Nothing the host lent is left after set-down.
  EXPECT_EQ(r.effectWorldsLeft, 0u);
  EXPECT_EQ(host_->LiveHandleCount(), 0u);
  EXPECT_EQ(host_->LiveGpuWorldCount(), 0u);
}

// ---- Threaded rendering ----

TEST_F(AeHostTest, ConcurrentGpuRendersKeepTheirCallbacksAndUploadEachFrameOnce) {
  Start(12, true);
  const std::vector<A_long> times = {host_->FrameTime(9), host_->FrameTime(10), host_->FrameTime(11),
                                     host_->FrameTime(11), host_->FrameTime(10), host_->FrameTime(9)};
  const auto results = host_->RenderMany(times, 4);
  std::map<uint64_t, std::pair<int, int>> perRender;  // bookings, check-ins
  for (const auto& c : host_->CallLog()) {
    perRender[c.renderId].first += c.op == "checkout_layer";
    perRender[c.renderId].second += c.op == "checkin_layer_pixels";
  }
  std::set<uint64_t> ids;
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].result, PF_Err_NONE);
    EXPECT_EQ(results[i].time, times[i]);
    EXPECT_EQ(results[i].worldsNotCheckedIn, 0u);
    EXPECT_EQ(perRender[results[i].renderId], std::make_pair(10, 10)) << "render " << i;
    ids.insert(results[i].renderId);
  }
  EXPECT_EQ(ids.size(), times.size());
  EXPECT_EQ(results[0].output.rgba, results[5].output.rgba);
  EXPECT_NE(results[0].output.rgba, results[1].output.rgba);
  EXPECT_EQ(host_->UploadCount(), 12u);
}

TEST_F(AeHostTest, ConcurrentSoftwareRendersEachGetTheirOwnFrame) {
  Start(12, false);
  std::vector<A_long> times;
  for (int k = 2; k < 12; ++k) times.push_back(host_->FrameTime(k));
  const auto results = host_->RenderMany(times, 4, RenderPath::SmartSoftware);
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].result, PF_Err_NONE);
    EXPECT_EQ(results[i].output.rgba, Halved(MakeFrame(static_cast<int>(i) + 2)).rgba) << "render " << i;
  }
}

}  // namespace
