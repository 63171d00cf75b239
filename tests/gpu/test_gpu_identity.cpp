#include <Windows.h>
#include <d3d9.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

#include "LogsController.h"
#include "TremorDistiller_GPURecords.h"

namespace fs = std::filesystem;

namespace {

// ---- ShortGPUName ---------------------------------------------------------------

TEST(ShortGPUName, SampleDescriptions) {
  const std::pair<const char*, const char*> cases[] = {
      {"NVIDIA GeForce RTX 3080 Ti", "RTX 3080"},
      {"NVIDIA GeForce GTX 1080", "GTX 1080"},
      {"AMD Radeon RX 6800 XT", "RX 6800"},
      {"NVIDIA GeForce 940MX", "GeForce 940MX"},
      {"AMD Radeon 780M Graphics", "Radeon 780M"},
      {"GTX1080", "GTX 1080"},
      {"NVIDIA Quadro K2200", "NVIDIA Quadro K2200"},
      {"Intel(R) UHD Graphics 630", "Intel(R) UHD Graphics 630"},
      {"", ""},
      // Any white space between word and digits becomes one blank.
      {"NVIDIA GeForce RTX\t \t4090 Laptop GPU", "RTX 4090"},
      {"AMD Radeon RX Vega 56", "AMD Radeon RX Vega 56"},
      {"NVIDIA RTX A6000", "NVIDIA RTX A6000"},
      {"nvidia geforce gtx 1080", "nvidia geforce gtx 1080"},  // case matters
      {"AMD Navi 31", "Navi 31"},
      {"AMD Radeon RX 7900 XTX (Navi 31)", "Navi 31"},  // the last match wins
  };
  for (const auto& [description, expected] : cases) {
    EXPECT_EQ(ShortGPUName(description), expected) << '"' << description << '"';
  }
}

// ---- OpenCLErrorText ------------------------------------------------------------

TEST(OpenCLErrorText, SampleCodes) {
  const std::pair<int32_t, const char*> cases[] = {
      {-11, "Code: 0xFFFFFFF5 (Build program failure)"},
      {0, "Code: 0x0 (Success)"},
      {-20, "Code: 0xFFFFFFEC (Unknown error)"},
      {1, "Code: 0x1 (Unknown error)"},
      {-68, "Code: 0xFFFFFFBC (Invalid device partition count)"},
      {-30, "Code: 0xFFFFFFE2 (Invalid value)"},
      {255, "Code: 0xFF (Unknown error)"},
      {INT32_MIN, "Code: 0x80000000 (Unknown error)"},
  };
  for (const auto& [code, expected] : cases) {
    EXPECT_EQ(OpenCLErrorText(code), expected) << code;
  }
}

TEST(OpenCLErrorText, EveryTableCodeHasItsOwnTextAndNeighboursHaveNone) {
  std::set<std::string> texts;
  for (int32_t code = 0; code >= -68; --code) {
    if (code <= -20 && code >= -29) continue;
    texts.insert(OpenCLErrorText(code).substr(OpenCLErrorText(code).find(" (")));
  }
  EXPECT_EQ(texts.size(), 59u) << "two codes share a text";
  EXPECT_EQ(texts.count(" (Unknown error)"), 0u);
  for (int32_t code : {-20, -25, -29, -69, 1}) {
    const std::string text = OpenCLErrorText(code);
    EXPECT_EQ(text.substr(text.find(" (")), " (Unknown error)") << code;
  }
}

// ---- Version stand-in -----------------------------------------------------------

// "6.1.0-18-amd64" -> {6, 1}, independently of the stand-in's own parsing.
std::pair<DWORD, DWORD> KernelMajorMinor() {
  struct utsname name {};
  EXPECT_EQ(uname(&name), 0);
  std::cmatch match;
  EXPECT_TRUE(std::regex_search(name.release, match, std::regex(R"(^(\d+)\.(\d+))"))) << name.release;
  return {static_cast<DWORD>(std::stoul(match[1])), static_cast<DWORD>(std::stoul(match[2]))};
}

std::string ExpectedOsVersion() {
  const auto [major, minor] = KernelMajorMinor();
  return std::to_string(major) + "." + std::to_string(minor);
}

TEST(GetVersionExA, FillsEitherRecordSizeAndRefusesOthers) {
  const auto [major, minor] = KernelMajorMinor();
  for (DWORD size : {156u, 148u, 0u, 157u}) {
    OSVERSIONINFOEXA info;
    std::memset(&info, 0xAB, sizeof(info));
    info.dwOSVersionInfoSize = size;
    const bool known = size == 156 || size == 148;
    EXPECT_EQ(GetVersionExA(reinterpret_cast<LPOSVERSIONINFOA>(&info)) != 0, known) << size;
    EXPECT_EQ(info.dwMajorVersion, known ? major : 0xABABABABu) << size;
    EXPECT_EQ(info.dwMinorVersion, known ? minor : 0xABABABABu) << size;
    // The short record leaves the extended fields alone.
    EXPECT_EQ(info.wServicePackMajor, size == 156 ? 0 : 0xABAB) << size;
  }
}

// ---- Direct3D 9 stand-in and FillGPUIdentity --------------------------------------

D3DADAPTER_IDENTIFIER9 Identifier(const char* driver, const char* description, const char* deviceName) {
  D3DADAPTER_IDENTIFIER9 id = {};
  std::strcpy(id.Driver, driver);
  std::strcpy(id.Description, description);
  std::strcpy(id.DeviceName, deviceName);
  return id;
}

void WriteFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

// Each test gets its own TMPDIR with its log, a debugger capture, and the
// Direct3D stand-in back on the system lookup afterwards.
class GPUIdentityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TMPDIR");
    if (tmp != nullptr) savedTmpDir_ = tmp;
    root_ = fs::temp_directory_path() / ("td-gpu-id-" + std::to_string(::getpid()) + "-" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / kLogFolderName);  // no "Folder ... Creating..." line
    setenv("TMPDIR", root_.c_str(), 1);
    GetLogPaths() = LogPaths{};
    ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
    SetDebugOutputSink(&GPUIdentityTest::Collect, &debug_);
  }

  void TearDown() override {
    EXPECT_EQ(Direct3D9ObjectsAlive(), 0u) << "a Direct3D object was not released";
    SetAdapterIdentifierOverride(nullptr);
    SetDebugOutputSink(nullptr, nullptr);
    GetLogPaths() = LogPaths{};
    if (savedTmpDir_) {
      setenv("TMPDIR", savedTmpDir_->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
    fs::remove_all(root_);
  }

  // The records as sites composed them: prefix and line feed removed.
  std::vector<std::string> Records() const {
    std::vector<std::string> records;
    for (const std::string& line : debug_) {
      EXPECT_EQ(line.rfind("HLL :: ", 0), 0u) << line;
      EXPECT_EQ(line.back(), '\n') << line;
      records.push_back(line.substr(7, line.size() - 8));
    }
    return records;
  }

  fs::path root_;
  std::vector<std::string> debug_;

 private:
  static void Collect(const char* text, void* user) { static_cast<std::vector<std::string>*>(user)->push_back(text); }
  std::optional<std::string> savedTmpDir_;
};

TEST_F(GPUIdentityTest, AdapterIsLoggedAndNamedShort) {
  const D3DADAPTER_IDENTIFIER9 id = Identifier("nvldumdx.dll", "NVIDIA GeForce RTX 3080 Ti", "\\\\.\\DISPLAY1");
  SetAdapterIdentifierOverride(&id);
  GPUStatusText text;
  FillGPUIdentity(text);

  const std::string summary = "GPU: RTX 3080, OS: " + ExpectedOsVersion();
  EXPECT_EQ(Records(), (std::vector<std::string>{"GPU DeviceName: \\\\.\\DISPLAY1", "GPU Driver: nvldumdx.dll",
                                                 "GPU Description: NVIDIA GeForce RTX 3080 Ti", summary}));
  EXPECT_EQ(text.gpuName, "RTX 3080");
  EXPECT_EQ(text.osVersion, ExpectedOsVersion());
  EXPECT_TRUE(text.frameworkName.empty() && text.noticeLine1.empty() && text.noticeLine2.empty());
}

TEST_F(GPUIdentityTest, NoDirect3DStillLogsTheOsEveryTime) {
  SetAdapterStandIn(AdapterStandIn::Missing);
  GPUStatusText text;
  FillGPUIdentity(text);
  FillGPUIdentity(text);

  const std::string summary = "GPU: , OS: " + ExpectedOsVersion();
  EXPECT_EQ(Records(), (std::vector<std::string>{summary, summary}));
  EXPECT_EQ(text.gpuName, "");
  EXPECT_EQ(text.osVersion, ExpectedOsVersion());
}

TEST_F(GPUIdentityTest, UnreadableIdentifierKeepsTheOldName) {
  SetAdapterStandIn(AdapterStandIn::Unreadable);
  GPUStatusText text;
  text.gpuName = "RTX 3080";
  FillGPUIdentity(text);

  EXPECT_EQ(Records(), std::vector<std::string>{"GPU: RTX 3080, OS: " + ExpectedOsVersion()});
  EXPECT_EQ(text.gpuName, "RTX 3080");
}

// Adapter 0 is the lowest bus location; over-long values are cut to fit.
TEST_F(GPUIdentityTest, DriverTreeGivesAdaptersInBusOrder) {
  const fs::path proc = root_ / "proc";
  const fs::path gpus = proc / "driver/nvidia/gpus";
  WriteFile(gpus / "0000:41:00.0/information",
            "Model: " + std::string(600, 'M') + "\nBus Location: " + std::string(40, 'B') + "\n");
  WriteFile(gpus / "0000:01:00.0/information",
            "Model: \t\t NVIDIA GeForce RTX 4090\nIRQ:   \t\t 128\nBus Location: \t 0000:01:00.0\n");
  WriteFile(proc / "driver/nvidia/version", "NVRM version: Kernel Module  550.54.15 " + std::string(600, 'V') +
                                                "\nGCC version:  gcc version 12.2.0\n");
  SetAdapterSourceRoot(proc.c_str());

  IDirect3D9* d3d = Direct3DCreate9(D3D_SDK_VERSION);
  ASSERT_NE(d3d, nullptr);
  D3DADAPTER_IDENTIFIER9 id;
  std::memset(&id, 'x', sizeof(id));
  ASSERT_TRUE(SUCCEEDED(d3d->GetAdapterIdentifier(0, 0, &id)));
  EXPECT_STREQ(id.Description, "NVIDIA GeForce RTX 4090");
  EXPECT_STREQ(id.DeviceName, "0000:01:00.0");
  EXPECT_EQ(std::string(id.Driver), ("NVRM version: Kernel Module  550.54.15 " + std::string(600, 'V')).substr(0, 511));
  ASSERT_TRUE(SUCCEEDED(d3d->GetAdapterIdentifier(1, 0, &id)));
  EXPECT_EQ(std::string(id.Description), std::string(511, 'M'));
  EXPECT_EQ(std::string(id.DeviceName), std::string(31, 'B'));
  EXPECT_TRUE(FAILED(d3d->GetAdapterIdentifier(2, 0, &id)));
  EXPECT_TRUE(FAILED(d3d->GetAdapterIdentifier(0, 0, nullptr)));
  d3d->Release();

  GPUStatusText text;
  FillGPUIdentity(text);
  ASSERT_EQ(Records().size(), 4u);
  EXPECT_EQ(Records()[2], "GPU Description: NVIDIA GeForce RTX 4090");
  EXPECT_EQ(text.gpuName, "RTX 4090");
}

TEST_F(GPUIdentityTest, NoDriverTreeOrWrongSdkGivesNoObject) {
  SetAdapterSourceRoot((root_ / "absent").c_str());
  EXPECT_EQ(Direct3DCreate9(D3D_SDK_VERSION), nullptr);
  fs::create_directories(root_ / "empty/driver/nvidia/gpus");
  SetAdapterSourceRoot((root_ / "empty").c_str());
  EXPECT_EQ(Direct3DCreate9(D3D_SDK_VERSION), nullptr);

  const D3DADAPTER_IDENTIFIER9 id = Identifier("d", "NVIDIA GeForce GTX 1080", "n");
  SetAdapterIdentifierOverride(&id);
  EXPECT_EQ(Direct3DCreate9(31), nullptr);
}

// The one test that depends on the machine: both outcomes are checked.
TEST_F(GPUIdentityTest, SystemLookupFollowsThisMachine) {
  SetAdapterStandIn(AdapterStandIn::System);
  bool haveGpu = false;
  std::error_code error;
  for (fs::directory_iterator it("/proc/driver/nvidia/gpus", error), end; !error && it != end; it.increment(error)) {
    haveGpu = haveGpu || fs::exists(it->path() / "information");
  }

  IDirect3D9* d3d = Direct3DCreate9(D3D_SDK_VERSION);
  ASSERT_EQ(d3d != nullptr, haveGpu);
  if (d3d != nullptr) {
    D3DADAPTER_IDENTIFIER9 id = {};
    EXPECT_TRUE(SUCCEEDED(d3d->GetAdapterIdentifier(0, 0, &id)));
    d3d->Release();
    EXPECT_NE(std::string(id.Description), "");
    EXPECT_NE(std::string(id.DeviceName), "");
    std::cout << "[ adapter  ] " << id.Description << " at " << id.DeviceName << ", " << id.Driver << "\n";
  }
}

}  // namespace
