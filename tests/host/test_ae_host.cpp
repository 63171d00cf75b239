// The stand-in After Effects host, driven through a small effect module of
// the tests' own: loading, the command order and call log, the layer's frames
// by time, the upload cache, the suites, failure injection and threaded renders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "AeHost.h"
#include "OpenCLDevice.h"
#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif

using namespace aehost;
namespace fs = std::filesystem;

namespace {

constexpr PF_ParamIndex kFrames = 1, kPick = 2;

void PushCode(std::vector<uint8_t>& b, const char* code) {
  for (int i = 3; i >= 0; --i) b.push_back(static_cast<uint8_t>(code[i]));
}
void PushU32(std::vector<uint8_t>& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PushProperty(std::vector<uint8_t>& b, const char* key, std::vector<uint8_t> data) {
  PushCode(b, "8BIM");
  PushCode(b, key);
  PushU32(b, 0);
  PushU32(b, static_cast<uint32_t>(data.size()));
  b.insert(b.end(), data.begin(), data.end());
  while (b.size() % 4 != 2) b.push_back(0);  // the 10-byte header leaves properties at 2 mod 4
}

std::vector<uint8_t> MakePiPL(const std::string& entry) {
  std::vector<uint8_t> b = {1, 0, 0, 0, 0, 0};
  PushU32(b, 2);
  std::vector<uint8_t> kind;
  PushCode(kind, "eFKT");
  PushProperty(b, "kind", kind);
  std::vector<uint8_t> name(entry.begin(), entry.end());
  name.push_back(0);
  PushProperty(b, "8664", name);
  return b;
}

// A copy of a built module in a folder of its own, with a property list.
std::string Stage(const char* built, const std::string& entry = "EffectMain", bool withPiPL = true) {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const fs::path dir = fs::path(TD_TEST_TMP_DIR) / "ae_host" / (std::string(info->test_suite_name()) + "." + info->name());
  fs::remove_all(dir);
  fs::create_directories(dir);
  fs::copy_file(built, dir / "effect.so");
  if (withPiPL) {
    const auto bytes = MakePiPL(entry);
    std::ofstream(dir / "effect.pipl", std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  return (dir / "effect.so").string();
}

// Every pixel of every frame differs, and all values survive float copies exactly.
Image MakeFrame(int k, A_long w = 7, A_long h = 5) {
  Image img(w, h);
  for (A_long y = 0; y < h; ++y)
    for (A_long x = 0; x < w; ++x) {
      float* p = img.At(x, y);
      p[0] = static_cast<float>(k) + x / 8.0f;
      p[1] = y / 4.0f;
      p[2] = -static_cast<float>(k);
      p[3] = 0.5f + k / 64.0f;
    }
  return img;
}

bool HasOpenCL() {
  setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
  return !ListOpenCLDevices().empty();
}

size_t IndexOf(const std::vector<CallRecord>& log, const std::string& op, size_t from = 0) {
  for (size_t i = from; i < log.size(); ++i)
    if (log[i].op == op) return i;
  return log.size();
}

size_t CountOf(const std::vector<CallRecord>& log, const std::string& op) {
  return static_cast<size_t>(std::count_if(log.begin(), log.end(), [&](const CallRecord& r) { return r.op == op; }));
}

class AeHostTest : public ::testing::Test {
 protected:
  // A host with the effect set up and frames 0..count-1 at k * time_step.
  std::unique_ptr<AeHost> Start(int count, bool gpu, HostOptions options = {}) {
    if (gpu && !HasOpenCL()) return nullptr;
    auto host = std::make_unique<AeHost>(Stage(TD_FAKE_EFFECT), std::move(options));
    DeviceOptions device;
    EXPECT_EQ(host->SetUp(gpu ? &device : nullptr), PF_Err_NONE);
    for (int k = 0; k < count; ++k) host->AddFrame(host->FrameTime(k), MakeFrame(k));
    return host;
  }
};

#define START_OR_SKIP(var, ...)                                  \
  auto var = Start(__VA_ARGS__);                                 \
  if (!var) GTEST_SKIP() << "no OpenCL device (install an ICD)"

// ---- Loading ----

TEST_F(AeHostTest, LoadFailuresNameWhatIsMissingOnOneLine) {
  auto message = [](const std::function<void()>& load) {
    try {
      load();
    } catch (const HostError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  const std::string missing = message([] { AeHost h("/no/such/folder/effect.so"); });
  EXPECT_NE(missing.find("/no/such/folder/effect.so"), std::string::npos) << missing;
  const std::string noEntry = message([] { AeHost h(Stage(TD_FAKE_EFFECT_NOENTRY)); });
  EXPECT_NE(noEntry.find("has no export EffectMain"), std::string::npos) << noEntry;
  const std::string noPiPL = message([] { AeHost h(Stage(TD_FAKE_EFFECT, "EffectMain", false)); });
  EXPECT_NE(noPiPL.find("effect.pipl"), std::string::npos) << noPiPL;
  // The entry point is the one the property list names.
  const std::string renamed = message([] { AeHost h(Stage(TD_FAKE_EFFECT, "OtherMain")); });
  EXPECT_NE(renamed.find("OtherMain"), std::string::npos) << renamed;
  HostOptions badPadding;
  badPadding.rowPaddingBytes = 8;  // rows of 16-byte pixels could not be addressed in pixels
  const std::string padding = message([&] { AeHost h(Stage(TD_FAKE_EFFECT), badPadding); });
  EXPECT_NE(padding.find("multiple of 16"), std::string::npos) << padding;
  for (const auto& m : {missing, noEntry, noPiPL, renamed}) EXPECT_EQ(m.find('\n'), std::string::npos) << m;
}

TEST_F(AeHostTest, LoadReadsPropertyListExportsAndPluginData) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  EXPECT_EQ(host.PiPL(), MakePiPL("EffectMain"));
  EXPECT_EQ(host.NvOptimusEnablementCuda(), 1);
  const PluginData& d = host.PluginDataRecord();
  EXPECT_EQ(d.calls, 1);
  EXPECT_EQ(d.name, "Fake Effect");
  EXPECT_EQ(d.entryPoint, "EffectMain");
  EXPECT_EQ(d.kind, 0x65464B54);
  EXPECT_EQ(d.apiMajor, 13);
  EXPECT_EQ(d.apiMinor, 28);
  const auto log = host.CallLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back().op, "PluginDataEntryFunction");
  EXPECT_EQ(log.back().kind, CallRecord::Kind::EffectCall);
}

TEST(AeHostPiPL, ParsesCodesInReadingOrderAndRejectsBadLengths) {
  const auto bytes = MakePiPL("EffectMain");
  const auto props = ParsePiPL(bytes);
  ASSERT_EQ(props.size(), 2u);
  EXPECT_EQ(props[0].vendor, "8BIM");
  EXPECT_EQ(props[0].key, "kind");
  EXPECT_EQ(std::string(props[0].data.begin(), props[0].data.end()), "TKFe");  // data is not a code: as stored
  EXPECT_EQ(props[1].key, "8664");
  EXPECT_EQ(props[1].data.size(), 11u);
  EXPECT_THROW(ParsePiPL(std::vector<uint8_t>(bytes.begin(), bytes.end() - 4)), HostError);
  auto longer = bytes;
  longer.push_back(0);
  EXPECT_THROW(ParsePiPL(longer), HostError);
  EXPECT_THROW(ParsePiPL({1, 0}), HostError);
}

// ---- The command sequence and the call log ----

TEST_F(AeHostTest, CommandsFollowTheHostsOrderAndTheLogKeepsCallOrder) {
  START_OR_SKIP(host, 3, true);
  const RenderResult r = host->Render(host->FrameTime(2));
  ASSERT_EQ(r.result, PF_Err_NONE);
  host->SetDown();
  std::vector<PF_Cmd> sent;
  for (const auto& c : host->Commands()) sent.push_back(c.cmd);
  EXPECT_EQ(sent, (std::vector<PF_Cmd>{PF_Cmd_GLOBAL_SETUP, PF_Cmd_PARAMS_SETUP, PF_Cmd_GPU_DEVICE_SETUP,
                                       PF_Cmd_SMART_PRE_RENDER, PF_Cmd_SMART_RENDER_GPU, PF_Cmd_GPU_DEVICE_SETDOWN,
                                       PF_Cmd_GLOBAL_SETDOWN}));
  const auto log = host->CallLog();
  const size_t pre = IndexOf(log, "PF_Cmd_SMART_PRE_RENDER");
  const size_t booking = IndexOf(log, "checkout_layer", pre);
  const size_t render = IndexOf(log, "PF_Cmd_SMART_RENDER_GPU", pre);
  const size_t fetch = IndexOf(log, "checkout_layer_pixels", render);
  const size_t output = IndexOf(log, "checkout_output", render);
  const size_t checkin = IndexOf(log, "checkin_layer_pixels", render);
  const size_t freed = IndexOf(log, "delete_pre_render_data_func", render);
  EXPECT_LT(pre, booking);
  EXPECT_LT(booking, render);
  EXPECT_LT(render, fetch);
  EXPECT_LT(fetch, output);
  EXPECT_LT(output, checkin);
  EXPECT_LT(checkin, freed);
  EXPECT_LT(freed, log.size());
  EXPECT_EQ(CountOf(log, "checkout_layer"), 3u);
  EXPECT_EQ(CountOf(log, "checkin_layer_pixels"), 3u);
  for (size_t i = pre; i <= freed; ++i) EXPECT_EQ(log[i].renderId, r.renderId) << log[i].op;
  // Nothing the host lent is left after set-down.
  EXPECT_EQ(host->LiveHandleCount(), 0u);
  EXPECT_EQ(host->LiveGpuWorldCount(), 0u);
  EXPECT_EQ(r.effectWorldsLeft, 0u);
  EXPECT_EQ(r.worldsNotCheckedIn, 0u);
}

TEST_F(AeHostTest, CommandResultsAndOutDataAreReadBack) {
  HostOptions options;
  options.beforeCommand = [](PF_Cmd cmd, PF_InData&, PF_OutData& out) {
    if (cmd == PF_Cmd_GLOBAL_SETUP) out.out_flags = PF_OutFlag_WIDE_TIME_INPUT;  // a bit the host set before
  };
  START_OR_SKIP(host, 3, false, options);
  const auto global = host->LastCommand(PF_Cmd_GLOBAL_SETUP);
  ASSERT_TRUE(global);
  EXPECT_EQ(global->my_version, 0x00010001u);
  EXPECT_EQ(global->out_flags, PF_OutFlag_WIDE_TIME_INPUT | PF_OutFlag_DEEP_COLOR_AWARE);
  EXPECT_TRUE(global->out_flags2 & PF_OutFlag2_SUPPORTS_THREADED_RENDERING);
  EXPECT_EQ(host->LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 4);
  EXPECT_EQ(host->About(), PF_Err_NONE);
  EXPECT_EQ(host->LastCommand(PF_Cmd_ABOUT)->return_msg, "fake effect under 46585443");

  HostOptions premiere;
  premiere.applId = kApplIdPremiere;
  AeHost other(Stage(TD_FAKE_EFFECT), premiere);
  other.About();
  EXPECT_EQ(other.LastCommand(PF_Cmd_ABOUT)->return_msg, "fake effect under 50724D72");
}

// ---- Parameters ----

TEST_F(AeHostTest, ParametersTakeIndicesInAddOrderAndKeepCopiedNames) {
  START_OR_SKIP(host, 3, false);
  const auto params = host->Params();
  ASSERT_EQ(params.size(), 3u);
  for (size_t i = 0; i < params.size(); ++i) EXPECT_EQ(params[i].index, static_cast<PF_ParamIndex>(i + 1));
  EXPECT_EQ(params[0].def.uu.id, 5);
  EXPECT_EQ(params[1].requestedIndex, -1);
  // The effect overwrote its buffer after the add: the host's copy stands.
  EXPECT_STREQ(params[1].def.u.pd.u.namesptr, "Newest|Middle|Oldest");
  EXPECT_STREQ(host->ParamValue(kPick).u.pd.u.namesptr, "Newest|Middle|Oldest");
  EXPECT_EQ(host->FindParam(2), kPick);
  EXPECT_EQ(host->FindParam(99), -1);
  EXPECT_EQ(host->ParamValue(0).param_type, PF_Param_LAYER);
  ASSERT_TRUE(host->CustomUI());
  EXPECT_EQ(host->CustomUI()->events, PF_CustomEFlag_EFFECT);
  EXPECT_THROW(host->SetParamValue(4, 1.0), HostError);
  // A value set by index is what the effect reads: "Pick" 3 copies the oldest frame.
  host->SetParamValue(kPick, 3);
  const RenderResult r = host->Render(host->FrameTime(2), RenderPath::SmartSoftware);
  ASSERT_EQ(r.result, PF_Err_NONE);
  EXPECT_EQ(r.output.rgba, MakeFrame(0).rgba);
}

// ---- The input layer ----

TEST_F(AeHostTest, FramesCoverTheirTimeStepAndNothingOutsideTheClip) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  for (int k = 0; k < 3; ++k) host.AddFrame(host.FrameTime(k), MakeFrame(k));
  host.AddFrame(10010, MakeFrame(9));
  EXPECT_EQ(host.FrameAt(0), 0);
  EXPECT_EQ(host.FrameAt(1000), 0);
  EXPECT_EQ(host.FrameAt(1001), 1001);
  EXPECT_EQ(host.FrameAt(2500), 2002);
  EXPECT_FALSE(host.FrameAt(-1));
  EXPECT_FALSE(host.FrameAt(3003));  // one step past the last of the run
  EXPECT_FALSE(host.FrameAt(5000));  // a gap
  EXPECT_EQ(host.FrameAt(10010), 10010);
  host.RemoveFramesBefore(2002);
  EXPECT_FALSE(host.FrameAt(1001));
  EXPECT_EQ(host.FrameCount(), 2u);
  Image bad(2, 2);
  bad.rgba.pop_back();
  EXPECT_THROW(host.AddFrame(0, bad), HostError);
}

TEST_F(AeHostTest, TimeOutsideTheClipBooksNothingAndGivesANullWorldWithoutError) {
  START_OR_SKIP(host, 3, false);
  host->SetParamValue(kPick, 3);
  const RenderResult r = host->Render(host->FrameTime(1), RenderPath::SmartSoftware);
  ASSERT_EQ(r.result, PF_Err_NONE);
  ASSERT_EQ(r.checkouts.size(), 3u);
  EXPECT_TRUE(r.checkouts[0].hasFrame);
  EXPECT_EQ(r.checkouts[1].frameTime, 0);
  EXPECT_FALSE(r.checkouts[2].hasFrame);
  EXPECT_EQ(r.checkouts[2].whatTime, -1001);
  EXPECT_EQ(r.checkouts[2].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[2].checkins, 1);
  const auto log = host->CallLog();
  bool sawNull = false;
  for (const auto& c : log)
    if (c.op == "checkout_layer_pixels" && c.args.find("idx=2 world=null") != std::string::npos) {
      sawNull = true;
      EXPECT_EQ(c.result, PF_Err_NONE);
    }
  EXPECT_TRUE(sawNull);
  // Nothing to copy: the output is as the host cleared it.
  EXPECT_EQ(r.output.rgba, Image(7, 5, 0.0f).rgba);
}

TEST_F(AeHostTest, PixelsSurviveUploadAndDownloadWithPaddedRows) {
  HostOptions options;
  options.rowPaddingBytes = 48;
  START_OR_SKIP(host, 3, true, options);
  const RenderResult gpu = host->Render(host->FrameTime(2));
  ASSERT_EQ(gpu.result, PF_Err_NONE);
  EXPECT_EQ(gpu.render.cmd, PF_Cmd_SMART_RENDER_GPU);
  EXPECT_EQ(gpu.output.rgba, MakeFrame(2).rgba);
  const RenderResult soft = host->Render(host->FrameTime(1), RenderPath::SmartSoftware);
  EXPECT_EQ(soft.render.cmd, PF_Cmd_SMART_RENDER);
  EXPECT_EQ(soft.output.rgba, MakeFrame(1).rgba);
  const RenderResult plain = host->Render(host->FrameTime(0), RenderPath::Render);
  EXPECT_EQ(plain.render.cmd, PF_Cmd_RENDER);
  EXPECT_EQ(plain.output.rgba, MakeFrame(0).rgba);
}

TEST_F(AeHostTest, EightBitSoftwareWorldsRoundTripWholeSteps) {
  HostOptions options;
  options.softwareFormat = PF_PixelFormat_ARGB32;
  START_OR_SKIP(host, 0, false, options);
  Image img(3, 2);
  for (size_t i = 0; i < img.rgba.size(); ++i) img.rgba[i] = static_cast<float>(i * 11 % 256) / 255.0f;
  host->AddFrame(0, img);
  const RenderResult r = host->Render(0, RenderPath::SmartSoftware);
  ASSERT_EQ(r.result, PF_Err_NONE);
  EXPECT_EQ(r.output.rgba, img.rgba);
}

// ---- The upload cache ----

TEST_F(AeHostTest, ARenderUploadsOnlyFramesNotUploadedBefore) {
  START_OR_SKIP(host, 6, true);
  EXPECT_EQ(host->Render(host->FrameTime(2)).uploads, 3u);
  EXPECT_EQ(host->Render(host->FrameTime(2)).uploads, 0u);
  EXPECT_EQ(host->Render(host->FrameTime(3)).uploads, 1u);
  EXPECT_EQ(host->UploadCount(), 4u);
  EXPECT_EQ(host->CachedFrameCount(), 4u);
  // A replaced frame is uploaded again and its new pixels are the ones seen.
  host->AddFrame(host->FrameTime(3), MakeFrame(7));
  const RenderResult r = host->Render(host->FrameTime(3));
  EXPECT_EQ(r.uploads, 1u);
  EXPECT_EQ(r.output.rgba, MakeFrame(7).rgba);
}

TEST_F(AeHostTest, CacheLimitDropsTheLeastRecentlyUsedFrames) {
  HostOptions options;
  options.frameCacheLimit = 3;
  START_OR_SKIP(host, 6, true, options);
  EXPECT_EQ(host->Render(host->FrameTime(2)).uploads, 3u);
  EXPECT_EQ(host->Render(host->FrameTime(3)).uploads, 1u);  // frame 0 goes
  EXPECT_EQ(host->CachedFrameCount(), 3u);
  EXPECT_EQ(host->Render(host->FrameTime(3)).uploads, 0u);
  EXPECT_EQ(host->Render(host->FrameTime(2)).uploads, 1u);  // frame 0 again
}

// ---- Suites called directly ----

TEST_F(AeHostTest, HandleSuiteRoundTrip) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  const SPBasicSuite* basic = host.BasicSuite();
  const void* raw = nullptr;
  ASSERT_EQ(basic->AcquireSuite(kPFHandleSuite, kPFHandleSuiteVersion2, &raw), kSPNoError);
  const auto* hs = static_cast<const PF_HandleSuite2*>(raw);
  PF_Handle h = hs->host_new_handle(64);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(host.LiveHandleCount(), 1u);
  EXPECT_EQ(hs->host_get_handle_size(h), 64u);
  auto* p = static_cast<uint8_t*>(hs->host_lock_handle(h));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(*h, p);  // the handle leads to its block without a lock, as the real host's does
  for (int i = 0; i < 64; ++i) p[i] = static_cast<uint8_t>(i * 3);
  hs->host_unlock_handle(h);
  auto* again = static_cast<uint8_t*>(hs->host_lock_handle(h));
  ASSERT_EQ(again, p);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(again[i], static_cast<uint8_t>(i * 3));
  hs->host_unlock_handle(h);
  hs->host_dispose_handle(h);
  EXPECT_EQ(host.LiveHandleCount(), 0u);
  // A handle the host never made (or disposed already) is refused, not touched.
  EXPECT_EQ(hs->host_lock_handle(h), nullptr);
  hs->host_dispose_handle(h);
  EXPECT_EQ(host.CallLog().back().result, PF_Err_BAD_CALLBACK_PARAM);
  basic->ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion2);
  // Only the versions the host has are handed out.
  raw = &raw;
  EXPECT_NE(basic->AcquireSuite(kPFHandleSuite, 1, &raw), kSPNoError);
  EXPECT_EQ(raw, nullptr);
}

TEST_F(AeHostTest, AnsiSprintfWritesLikeTheCLibraryAndIsLogged) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  const void* raw = nullptr;
  ASSERT_EQ(host.BasicSuite()->AcquireSuite(kPFANSISuite, kPFANSISuiteVersion1, &raw), kSPNoError);
  char buffer[32];
  EXPECT_EQ(static_cast<const PF_ANSICallbacksSuite1*>(raw)->sprintf(buffer, "%s v%d.%d", "Fx", 1, 0), 7);
  EXPECT_STREQ(buffer, "Fx v1.0");
  const auto log = host.CallLog();
  EXPECT_EQ(log[IndexOf(log, "sprintf")].args, "text=Fx v1.0");
}

// ---- Failure injection ----

TEST_F(AeHostTest, InjectedFailureHitsOnlyTheNthCall) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  const void* raw = nullptr;
  host.BasicSuite()->AcquireSuite(kPFHandleSuite, kPFHandleSuiteVersion2, &raw);
  const auto* hs = static_cast<const PF_HandleSuite2*>(raw);
  PF_Handle h = hs->host_new_handle(8);
  host.NullOperation("host_lock_handle", 2);
  EXPECT_NE(hs->host_lock_handle(h), nullptr);
  EXPECT_EQ(hs->host_lock_handle(h), nullptr);
  EXPECT_NE(hs->host_lock_handle(h), nullptr);
  host.FailOperation("host_new_handle", PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(hs->host_new_handle(8), nullptr);
  host.ClearInjections();
  PF_Handle h2 = hs->host_new_handle(8);
  EXPECT_NE(h2, nullptr);
  hs->host_dispose_handle(h);
  hs->host_dispose_handle(h2);
}

TEST_F(AeHostTest, MissingSuiteIsRefusedUntilRestored) {
  AeHost host(Stage(TD_FAKE_EFFECT));
  host.RemoveSuite(kPFHandleSuite);
  EXPECT_EQ(host.GlobalSetup(), PF_Err_BAD_CALLBACK_PARAM);  // the effect's answer to a missing suite
  const auto log = host.CallLog();
  const auto& acquire = log[IndexOf(log, "AcquireSuite")];
  EXPECT_NE(acquire.result, kSPNoError);
  EXPECT_NE(acquire.args.find(kPFHandleSuite), std::string::npos);
  const void* raw = nullptr;
  EXPECT_EQ(host.BasicSuite()->AcquireSuite(kPFGPUDeviceSuite, kPFGPUDeviceSuiteVersion1, &raw), kSPNoError);
  host.RestoreSuite(kPFHandleSuite);
  EXPECT_EQ(host.GlobalSetup(), PF_Err_NONE);
}

TEST_F(AeHostTest, InjectedCallbackFailuresReachTheEffect) {
  START_OR_SKIP(host, 3, true);
  host->FailOperation("checkout_layer_pixels", PF_Err_OUT_OF_MEMORY, 2);
  RenderResult r = host->Render(host->FrameTime(2));
  EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.render.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.checkouts[1].pixelCheckouts, 0);  // failed without fetching
  EXPECT_EQ(host->CallLog()[IndexOf(host->CallLog(), "PF_Cmd_SMART_RENDER_GPU")].result, PF_Err_OUT_OF_MEMORY);
  host->ClearInjections();

  ASSERT_EQ(host->Render(host->FrameTime(2)).result, PF_Err_NONE);  // all three frames uploaded
  const size_t worlds = host->LiveGpuWorldCount();
  host->FailOperation("CreateGPUWorld", PF_Err_BAD_CALLBACK_PARAM);
  r = host->Render(host->FrameTime(2));
  EXPECT_EQ(r.result, PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(host->LiveGpuWorldCount(), worlds);
  host->ClearInjections();

  // A null world for one checkout, no error: the effect copies nothing.
  host->NullCheckout(1);
  host->SetParamValue(kPick, 2);
  r = host->Render(host->FrameTime(2));
  EXPECT_EQ(r.result, PF_Err_NONE);
  EXPECT_EQ(r.output.rgba, Image(7, 5, 0.0f).rgba);
  host->ClearInjections();

  host->NullOperation("checkout_output");
  r = host->Render(host->FrameTime(2));
  EXPECT_EQ(r.result, PF_Err_NONE);
  EXPECT_FALSE(r.hasOutput);
}

// ---- Threaded rendering ----

void ExpectConcurrentRendersOwnTheirFrames(AeHost& host, RenderPath path) {
  std::vector<A_long> times;
  for (int k = 2; k < 12; ++k) times.push_back(host.FrameTime(k));
  host.ClearCallLog();
  const auto results = host.RenderMany(times, 4, path);
  std::set<uint64_t> ids;
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].result, PF_Err_NONE);
    EXPECT_EQ(results[i].time, times[i]);
    EXPECT_EQ(results[i].output.rgba, MakeFrame(static_cast<int>(i) + 2).rgba) << "render " << i;
    EXPECT_EQ(results[i].worldsNotCheckedIn, 0u);
    ids.insert(results[i].renderId);
  }
  EXPECT_EQ(ids.size(), times.size());
  // Each render's callbacks are its own: three bookings and three check-ins apiece.
  for (uint64_t id : ids) {
    int bookings = 0, checkins = 0;
    for (const auto& c : host.CallLog()) {
      if (c.renderId != id) continue;
      bookings += c.op == "checkout_layer";
      checkins += c.op == "checkin_layer_pixels";
    }
    EXPECT_EQ(bookings, 3);
    EXPECT_EQ(checkins, 3);
  }
}

TEST_F(AeHostTest, ConcurrentGpuRendersUploadEachFrameOnce) {
  START_OR_SKIP(host, 12, true);
  ExpectConcurrentRendersOwnTheirFrames(*host, RenderPath::Auto);
  EXPECT_EQ(host->UploadCount(), 12u);
}

TEST_F(AeHostTest, ConcurrentSoftwareRendersOwnTheirFrames) {
  START_OR_SKIP(host, 12, false);
  ExpectConcurrentRendersOwnTheirFrames(*host, RenderPath::Auto);
}

TEST_F(AeHostTest, CudaDeviceRoundTrip) {
#ifdef TD_HAVE_CUDA
  if (CudaDeviceCount() == 0) GTEST_SKIP() << "no CUDA device";
  AeHost host(Stage(TD_FAKE_EFFECT), HostOptions{});
  DeviceOptions cuda;
  cuda.kind = GpuKind::Cuda;
  ASSERT_EQ(host.SetUp(&cuda), PF_Err_NONE);
  host.Options().rowPaddingBytes = 32;
  for (int k = 0; k < 12; ++k) host.AddFrame(host.FrameTime(k), MakeFrame(k));
  host.SetParamValue(kPick, 2);
  const RenderResult r = host.Render(host.FrameTime(2));
  ASSERT_EQ(r.result, PF_Err_NONE);
  EXPECT_EQ(r.render.cmd, PF_Cmd_SMART_RENDER_GPU);
  EXPECT_EQ(r.output.rgba, MakeFrame(1).rgba);
  // Render threads other than the one that set the device up find it too.
  host.SetParamValue(kPick, 1);
  ExpectConcurrentRendersOwnTheirFrames(host, RenderPath::Auto);
#else
  GTEST_SKIP() << "built without CUDA";
#endif
}

}  // namespace
