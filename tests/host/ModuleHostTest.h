// The built module in the stand-in host: a fresh host and log folder a test.
#ifndef TD_TESTS_MODULE_HOST_TEST_H
#define TD_TESTS_MODULE_HOST_TEST_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "AeHost.h"

// The module can be pointed elsewhere, e.g. on a machine the build was copied to.
inline std::string ModulePath() {
  const char* path = std::getenv("TD_MODULE_PATH");
  return path ? path : TD_MODULE_PATH;
}

class ModuleHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    tmp_ = std::string(TD_TEST_TMP_DIR) + "/" + info->test_suite_name() + "-" + info->name();
    std::filesystem::remove_all(tmp_);
    std::filesystem::create_directories(tmp_);
    setenv("TMPDIR", tmp_.c_str(), 1);  // the module's log folder, read at global set-up
  }
  // Replaces the previous host; a later global set-up starts the log afresh.
  aehost::AeHost& NewHost(aehost::HostOptions options = {}) {
    host_.reset();
    host_ = std::make_unique<aehost::AeHost>(ModulePath(), options);
    return *host_;
  }
  std::string Log() const {
    std::ifstream in(tmp_ + "/Harbour Lantern Lab/com.hll.tremordistiller.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  size_t LogCount(const std::string& needle) const {
    const std::string log = Log();
    size_t n = 0;
    for (size_t at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1)) ++n;
    return n;
  }

  std::string tmp_;
  std::unique_ptr<aehost::AeHost> host_;
};

#endif
