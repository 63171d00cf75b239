#include <d3d9.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

#include "GpuTestSupport.h"
#include "LogsController.h"
#include "TremorDistiller_GPURecords.h"

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

}  // namespace
