#include <d3d9.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

#include "GpuTestSupport.h"
#include "LogsController.h"
#include "TremorDistiller_AePrGPU_Functions.h"

namespace fs = std::filesystem;

namespace {

TEST(ShortGPUName, SampleDescriptions) {
  const std::pair<const char*, const char*> cases[] = {
      {"AMD Radeon RX 6800 XT", "RX 6800"},  // the family word right before the number
      {"NVIDIA GeForce 940MX", "GeForce 940MX"},
      {"GTX1080", "GTX 1080"},
      {"NVIDIA Quadro K2200", "NVIDIA Quadro K2200"},  // no family word right before digits
      {"", ""},
      {"NVIDIA GeForce RTX\t \t4090 Laptop GPU", "RTX 4090"},  // any white space becomes one blank
      {"nvidia geforce gtx 1080", "nvidia geforce gtx 1080"},  // case matters
      {"AMD Radeon RX 7900 XTX (Navi 31)", "Navi 31"},         // the last match wins
  };
  for (const auto& [description, expected] : cases) {
    EXPECT_EQ(ShortGPUName(description), expected) << '"' << description << '"';
  }
}

TEST(OpenCLErrorText, SampleCodes) {
  const std::pair<int32_t, const char*> cases[] = {
      {0, "Code: 0x0 (Success)"},
      {-68, "Code: 0xFFFFFFBC (Invalid device partition count)"},
      {-20, "Code: 0xFFFFFFEC (Unknown error)"},
      {INT32_MIN, "Code: 0x80000000 (Unknown error)"},
  };
  for (const auto& [code, expected] : cases) {
    EXPECT_EQ(OpenCLErrorText(code), expected) << code;
  }
}

// "6.1" of the kernel release "6.1.0-18-amd64": what the OS version must say.
std::string KernelVersion() {
  struct utsname name {};
  std::cmatch match;
  EXPECT_TRUE(uname(&name) == 0 && std::regex_search(name.release, match, std::regex(R"(^\d+\.\d+)")));
  return match.str();
}

// The log goes to /dev/null and the debugger channel is captured; the
// Direct3D stand-in goes back to the system lookup afterwards.
class GPUIdentityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = GetLogPaths();
    GetLogPaths() = LogPaths{};
    std::strcpy(GetLogPaths().logFile, "/dev/null");
  }

  void TearDown() override {
    EXPECT_EQ(Direct3D9ObjectsAlive(), 0u) << "a Direct3D object was not released";
    SetAdapterIdentifierOverride(nullptr);
    SetAdapterStandIn(AdapterStandIn::System);
    GetLogPaths() = saved_;
  }

  // The records as sites composed them: prefix and line feed removed.
  std::vector<std::string> Records() {
    std::vector<std::string> records;
    for (const std::string& line : log_.Lines()) records.push_back(line.substr(7, line.size() - 8));
    return records;
  }

  const std::string os_ = KernelVersion();
  LogPaths saved_{};
  LogCapture log_;
};

TEST_F(GPUIdentityTest, AnAdapterIsLoggedAndNamedShortAndWithoutOneOnlyTheOsLineComes) {
  D3DADAPTER_IDENTIFIER9 id = {};
  std::strcpy(id.Driver, "nvldumdx.dll");
  std::strcpy(id.Description, "NVIDIA GeForce RTX 3080 Ti");
  std::strcpy(id.DeviceName, "\\\\.\\DISPLAY1");
  SetAdapterIdentifierOverride(&id);
  GPUStatusText text;
  FillGPUIdentity(text);
  EXPECT_EQ(Records(),
            (std::vector<std::string>{"GPU DeviceName: \\\\.\\DISPLAY1", "GPU Driver: nvldumdx.dll",
                                      "GPU Description: NVIDIA GeForce RTX 3080 Ti", "GPU: RTX 3080, OS: " + os_}));
  EXPECT_EQ(text.gpuName, "RTX 3080");
  EXPECT_EQ(text.osVersion, os_);
  EXPECT_TRUE(text.frameworkName.empty() && text.noticeLine1.empty() && text.noticeLine2.empty());

  SetAdapterIdentifierOverride(nullptr);
  for (AdapterStandIn mode : {AdapterStandIn::Missing, AdapterStandIn::Unreadable}) {
    SetAdapterStandIn(mode);
    const size_t before = Records().size();
    FillGPUIdentity(text);  // a name found earlier is kept
    EXPECT_EQ(Records().size(), before + 1);
    EXPECT_EQ(Records().back(), "GPU: RTX 3080, OS: " + os_) << static_cast<int>(mode);
    EXPECT_EQ(text.gpuName, "RTX 3080");
  }
}

// ---- When: at a device's first pass, once ----

// A device's passes with the adapter steered to one known GPU, from an empty
// status. The pass is Metal's, which draws nothing: the identity step comes
// before the framework's branch, so it is all that runs.
class DeviceIdentityTest : public GPUIdentityTest {
 protected:
  void SetUp() override {
    GPUIdentityTest::SetUp();
    D3DADAPTER_IDENTIFIER9 id = {};
    std::strcpy(id.Driver, "nvldumdx.dll");
    std::strcpy(id.Description, "NVIDIA GeForce RTX 3080 Ti");
    std::strcpy(id.DeviceName, "\\\\.\\DISPLAY1");
    SetAdapterIdentifierOverride(&id);
    EditGPUStatusText([](GPUStatusText& t) { t = GPUStatusText{}; });
    std::lock_guard<std::mutex> lock(GetGPUStatus().mutex);
    GetGPUStatus().deviceGpuName.clear();
    GetGPUStatus().deviceOsVersion.clear();
  }

  static int32_t Pass(const KernelList* device) {
    const PassBuffers buffers{};
    KernelData kd{};
    const MainKernelArgs main{};
    const ResizeKernelArgs none{};
    return GPURender(Metal, device, nullptr, nullptr, buffers, kd, main, none, none, 16, 512);
  }

  size_t Count(const std::string& record) {
    const std::vector<std::string> records = Records();
    return static_cast<size_t>(std::count(records.begin(), records.end(), record));
  }
  // The identity's records: the adapter's three and the summary.
  size_t IdentityRecords() {
    size_t n = 0;
    for (const std::string& r : Records()) n += r.rfind("GPU", 0) == 0;
    return n;
  }

  const std::string summary_ = "GPU: RTX 3080, OS: " + os_;
};

// Each device's first pass reads and logs the identity; its later passes and
// passes without a list read and log nothing, also where no adapter is found
// and the name stays empty.
TEST_F(DeviceIdentityTest, EachDeviceIsReadAtItsFirstPassOnly) {
  KernelList first{}, second{}, unnamed{};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Pass(&first), 0);
  EXPECT_EQ(Records(), (std::vector<std::string>{"GPU DeviceName: \\\\.\\DISPLAY1", "GPU Driver: nvldumdx.dll",
                                                 "GPU Description: NVIDIA GeForce RTX 3080 Ti", summary_}));
  EXPECT_EQ(Pass(nullptr), 512);  // refused for want of a list, after the identity step
  EXPECT_EQ(IdentityRecords(), 4u);

  for (int i = 0; i < 3; ++i) EXPECT_EQ(Pass(&second), 0);
  EXPECT_EQ(Count("GPU Description: NVIDIA GeForce RTX 3080 Ti"), 2u);
  EXPECT_EQ(Count(summary_), 2u);

  SetAdapterStandIn(AdapterStandIn::Missing);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Pass(&unnamed), 0);
  EXPECT_EQ(Count("GPU: , OS: " + os_), 1u);
  EXPECT_EQ(IdentityRecords(), 9u);
}

// Renders of two devices at once, each thread's first pass racing its
// device's others: one read per device. Under ThreadSanitizer this also
// holds the flag and the texts to their lock.
TEST_F(DeviceIdentityTest, ThreadedFirstPassesReadEachDeviceOnce) {
  KernelList devices[2] = {};
  std::atomic<int> waiting{8};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      --waiting;
      while (waiting.load() > 0) std::this_thread::yield();
      for (int i = 0; i < 25; ++i) EXPECT_EQ(Pass(&devices[t % 2]), 0);
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(Count("GPU Description: NVIDIA GeForce RTX 3080 Ti"), 2u);
  EXPECT_EQ(Count(summary_), 2u);
  EXPECT_EQ(IdentityRecords(), 8u);
  EXPECT_EQ(ReadGPUStatusText().gpuName, "RTX 3080");
}

}  // namespace
