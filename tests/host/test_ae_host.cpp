// The stand-in After Effects host's own duties, seen through the built module:
// loading errors, frames outside the clip, the upload cache, padded worlds and
// the call log of a render. Whole-frame results are test_ae_render.cpp's.
#include <functional>
#include <iterator>
#include <map>

#include "ModuleHostTest.h"

using namespace aehost;
namespace fs = std::filesystem;

namespace {

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

class AeHostTest : public ModuleHostTest {
 protected:
  // The module set up (on OpenCL when `gpu`) with frames 0..11 at k * time step.
  AeHost& Start(bool gpu, HostOptions options = {}) {
    AeHost& host = NewHost(std::move(options));
    DeviceOptions device;
    EXPECT_EQ(host.SetUp(gpu ? &device : nullptr), PF_Err_NONE);
    EXPECT_EQ(host.GpuReady(), gpu);
    for (int k = 0; k < 12; ++k) host.AddFrame(host.FrameTime(k), MakeFrame(k));
    return host;
  }
};

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
  badPadding.rowPaddingBytes = 8;  // rows of 16-byte pixels could not be addressed in pixels
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

TEST_F(AeHostTest, TimeOutsideTheClipGivesANullWorldWithoutError) {
  AeHost& host = Start(false);
  // One step past the last frame; the nine before it lie in the clip.
  const RenderResult r = host.Render(host.FrameTime(12), RenderPath::SmartSoftware);
  ASSERT_EQ(r.checkouts.size(), 10u);
  EXPECT_FALSE(r.checkouts[0].hasFrame);
  EXPECT_EQ(r.checkouts[0].pixelCheckouts, 1);
  EXPECT_EQ(r.checkouts[0].checkins, 1);
  EXPECT_EQ(r.checkouts[1].frameTime, host.FrameTime(11));
  const auto log = host.CallLog();
  const size_t fetch = IndexOf(log, "checkout_layer_pixels");
  ASSERT_LT(fetch, log.size());
  EXPECT_EQ(log[fetch].args.rfind("idx=0 world=null", 0), 0u) << log[fetch].args;
  EXPECT_EQ(log[fetch].result, PF_Err_NONE);
}

TEST_F(AeHostTest, RendersUploadOnlyFramesNotUploadedBeforeAndSeeReplacedOnes) {
  AeHost& host = Start(true);
  const RenderResult first = host.Render(host.FrameTime(11));
  ASSERT_EQ(first.result, PF_Err_NONE);
  EXPECT_EQ(first.uploads, 10u);
  const RenderResult again = host.Render(host.FrameTime(11));
  EXPECT_EQ(again.uploads, 0u);
  EXPECT_EQ(again.output.rgba, first.output.rgba);
  EXPECT_EQ(host.Render(host.FrameTime(10)).uploads, 1u);  // frame 1
  EXPECT_EQ(host.UploadCount(), 11u);

  host.AddFrame(host.FrameTime(11), MakeFrame(40));
  const RenderResult replaced = host.Render(host.FrameTime(11));
  EXPECT_EQ(replaced.uploads, 1u);
  EXPECT_NE(replaced.output.rgba, first.output.rgba);
  // The new pixels are the ones the effect saw: a render from a cold cache agrees.
  host.ClearFrameCache();
  const RenderResult cold = host.Render(host.FrameTime(11));
  EXPECT_EQ(cold.uploads, 10u);
  EXPECT_EQ(cold.output.rgba, replaced.output.rgba);
}

TEST_F(AeHostTest, SoftwareRendersOnThreadsCarryPaddedFramesBothWays) {
  for (const PF_PixelFormat format : {PF_PixelFormat(0), PF_PixelFormat(PF_PixelFormat_ARGB32)}) {
    SCOPED_TRACE(format ? "8-bit" : "float");
    HostOptions options;
    options.rowPaddingBytes = 48;
    options.softwareFormat = format;
    AeHost& host = Start(false, options);
    std::vector<A_long> times;
    for (int k = 2; k < 12; ++k) times.push_back(host.FrameTime(k));
    const auto results = host.RenderMany(times, 4, RenderPath::SmartSoftware);
    for (size_t i = 0; i < results.size(); ++i) {
      EXPECT_EQ(results[i].result, PF_Err_NONE);
      EXPECT_EQ(results[i].output.rgba, Halved(MakeFrame(static_cast<int>(i) + 2)).rgba) << "render " << i;
    }
  }
}

TEST_F(AeHostTest, CommandsAndCallbacksOfARenderAreLoggedInOrder) {
  AeHost& host = Start(true);
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
  EXPECT_EQ(r.effectWorldsLeft, 0u);
  EXPECT_EQ(host.LiveHandleCount(), 0u);
  EXPECT_EQ(host.LiveGpuWorldCount(), 0u);
}

}  // namespace
