// The embedded OpenCL program: complete, self-contained, and accepted by a real
// OpenCL compiler (PoCL here) with the prefix and options the module uses.
#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "TremorDistiller_KernelText.h"

namespace {

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(OpenCLText, IsSelfContainedWithTheHalfSwitchLeftOpen) {
  const std::string text = kTremorDistillerKernelText;
  EXPECT_EQ(Count(text, "#include"), 0u);
  EXPECT_EQ(Count(text, "GF_KERNEL"), 0u) << "vocabulary macros must be expanded";
  // The six pixel access functions each test the switch once.
  EXPECT_EQ(Count(text, "\n#if GF_OPENCL_SUPPORTS_16F\n"), 6u);
  EXPECT_EQ(Count(text, "#define GF_OPENCL_SUPPORTS_16F"), 0u);
  EXPECT_GT(Count(text, "#line "), 0u);
  EXPECT_EQ(Count(text, "#line 0 "), 0u);
  // Line directives name files relative to the source tree, not the build machine.
  EXPECT_EQ(Count(text, "\"/"), 0u);
  EXPECT_NE(text.find("#line 1 \"plugin/TremorDistiller_Kernel.cl\""), std::string::npos);
  EXPECT_EQ(std::strlen(kOpenCLSourcePrefix), 33u);
  EXPECT_EQ(kOpenCLSourcePrefix[32], '\n');
}

class PoclProgram : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
    cl_uint n = 0;
    if (clGetPlatformIDs(0, nullptr, &n) != CL_SUCCESS || n == 0) GTEST_SKIP() << "no OpenCL platform";
    std::vector<cl_platform_id> platforms(n);
    clGetPlatformIDs(n, platforms.data(), nullptr);
    for (cl_platform_id p : platforms)
      if (clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, 1, &device_, nullptr) == CL_SUCCESS) break;
    ASSERT_NE(device_, nullptr) << "OpenCL platform without a device (is POCL_CACHE_DIR writable?)";
    cl_int err = 0;
    context_ = clCreateContext(nullptr, 1, &device_, nullptr, nullptr, &err);
    ASSERT_EQ(err, CL_SUCCESS);
  }
  void TearDown() override {
    if (program_) clReleaseProgram(program_);
    if (context_) clReleaseContext(context_);
  }

  cl_int Build(bool withPrefix) {
    const char* strings[2] = {kOpenCLSourcePrefix, kTremorDistillerKernelText};
    const size_t lengths[2] = {kOpenCLSourcePrefixLength, std::strlen(kTremorDistillerKernelText)};
    cl_int err = 0;
    program_ = withPrefix ? clCreateProgramWithSource(context_, 2, strings, lengths, &err)
                          : clCreateProgramWithSource(context_, 1, strings + 1, lengths + 1, &err);
    if (err != CL_SUCCESS) return err;
    err = clBuildProgram(program_, 1, &device_, kOpenCLBuildOptions, nullptr, nullptr);
    if (err != CL_SUCCESS) {
      size_t size = 0;
      clGetProgramBuildInfo(program_, device_, CL_PROGRAM_BUILD_LOG, 0, nullptr, &size);
      std::string log(size, '\0');
      clGetProgramBuildInfo(program_, device_, CL_PROGRAM_BUILD_LOG, size, log.data(), nullptr);
      ADD_FAILURE() << log;
    }
    return err;
  }

  size_t BuildLogSize() {
    size_t size = 0;
    clGetProgramBuildInfo(program_, device_, CL_PROGRAM_BUILD_LOG, 0, nullptr, &size);
    return size;
  }

  cl_uint KernelArgCount(const char* name) {
    cl_int err = 0;
    cl_kernel k = clCreateKernel(program_, name, &err);
    EXPECT_EQ(err, CL_SUCCESS) << name;
    if (err != CL_SUCCESS) return 0;
    cl_uint args = 0;
    clGetKernelInfo(k, CL_KERNEL_NUM_ARGS, sizeof args, &args, nullptr);
    clReleaseKernel(k);
    return args;
  }

  cl_device_id device_ = nullptr;
  cl_context context_ = nullptr;
  cl_program program_ = nullptr;
};

TEST_F(PoclProgram, BuildsWithPrefixAndOptionsAndHasBothKernels) {
  ASSERT_EQ(Build(true), CL_SUCCESS);
  // Any log of two bytes or more becomes an error line at every device set-up.
  EXPECT_LE(BuildLogSize(), 1u) << "the kernels compile with warnings";
  EXPECT_EQ(KernelArgCount(kKernelNames[0]), 12u);  // eleven plus the read-only accumulation
  EXPECT_EQ(KernelArgCount(kKernelNames[1]), 11u);
}

TEST_F(PoclProgram, BuildsWithoutPrefixWithThirtyTwoBitAccessOnly) {
  ASSERT_EQ(Build(false), CL_SUCCESS);
  EXPECT_EQ(KernelArgCount(kKernelNames[0]), 12u);
}

}  // namespace
