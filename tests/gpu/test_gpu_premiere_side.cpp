// The Premiere side compiles the same GPU functions with its own failure code.
#define GPU_FAILURE_CODE 0x80000000
#include "TremorDistiller_AePrGPU_Functions.h"

#include <gtest/gtest.h>

#include "GpuTestSupport.h"

namespace {

TEST(GpuPremiereSide, FailuresCarryTheSuitesGeneralFailure) {
  LogCapture log;
  EXPECT_EQ(InitializeGPU(Metal, nullptr, nullptr, nullptr), static_cast<int32_t>(0x80000000));
  EXPECT_LT(GPUDispose(OpenCL, nullptr), 0);  // the sign bit is what callers test
  KernelList list{};
  EXPECT_EQ(InitializeGPU(static_cast<GPUFramework>(-1), &list, nullptr, nullptr), INT32_MIN);
}

}  // namespace
