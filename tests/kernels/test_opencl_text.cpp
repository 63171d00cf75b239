// The embedded OpenCL program: complete, self-contained, and accepted by a real
// OpenCL compiler (PoCL here) with the prefix and options the module uses.
#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
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
  // The six pixel access functions and the store-and-load each test the switch once.
  EXPECT_EQ(Count(text, "\n#if GF_OPENCL_SUPPORTS_16F\n"), 7u);
  EXPECT_EQ(Count(text, "#define GF_OPENCL_SUPPORTS_16F"), 0u);
  EXPECT_GT(Count(text, "#line "), 0u);
  EXPECT_EQ(Count(text, "#line 0 "), 0u);
  // Line directives name files relative to the source tree, not the build machine.
  EXPECT_EQ(Count(text, "\"/"), 0u);
  EXPECT_NE(text.find("#line 1 \"plugin/TremorDistiller_Kernel.cl\""), std::string::npos);
}

// Built as the module builds it, with the prefix that switches the 16-bit
// branches on, and without it (32-bit access only).
TEST(PoclProgram, BuildsCleanlyWithEveryKernelWithAndWithoutTheHalfPrefix) {
  setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
  cl_uint n = 0;
  if (clGetPlatformIDs(0, nullptr, &n) != CL_SUCCESS || n == 0) GTEST_SKIP() << "no OpenCL platform";
  std::vector<cl_platform_id> platforms(n);
  clGetPlatformIDs(n, platforms.data(), nullptr);
  cl_device_id device = nullptr;
  for (cl_platform_id p : platforms)
    if (clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, 1, &device, nullptr) == CL_SUCCESS) break;
  ASSERT_NE(device, nullptr) << "OpenCL platform without a device (is POCL_CACHE_DIR writable?)";
  cl_int err = 0;
  cl_context context = clCreateContext(nullptr, 1, &device, nullptr, nullptr, &err);
  ASSERT_EQ(err, CL_SUCCESS);
  const char* strings[2] = {kOpenCLSourcePrefix, kTremorDistillerKernelText};
  const size_t lengths[2] = {kOpenCLSourcePrefixLength, std::strlen(kTremorDistillerKernelText)};
  for (int first : {0, 1}) {
    SCOPED_TRACE(first == 0 ? "with prefix" : "without prefix");
    cl_program program = clCreateProgramWithSource(context, 2 - first, strings + first, lengths + first, &err);
    ASSERT_EQ(err, CL_SUCCESS);
    err = clBuildProgram(program, 1, &device, kOpenCLBuildOptions, nullptr, nullptr);
    size_t size = 0;
    clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &size);
    std::string log(size, '\0');
    clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, size, log.data(), nullptr);
    EXPECT_EQ(err, CL_SUCCESS) << log;
    EXPECT_LE(size, 1u) << "any log of two bytes or more becomes an error line at every device set-up: " << log;
    // MainKernel: eleven arguments plus the read-only accumulation and the pass's weight;
    // StackKernel: sixteen frames, eight more and the chunk's record.
    const std::pair<const char*, cl_uint> kernels[] = {
        {kKernelNames[0], 13u}, {kKernelNames[1], 11u}, {kKernelNames[2], 25u}};
    for (const auto& [name, expectedArgs] : kernels) {
      cl_uint args = 0;
      if (cl_kernel k = clCreateKernel(program, name, &err)) {
        clGetKernelInfo(k, CL_KERNEL_NUM_ARGS, sizeof args, &args, nullptr);
        clReleaseKernel(k);
      }
      EXPECT_EQ(args, expectedArgs) << name;
    }
    clReleaseProgram(program);
  }
  clReleaseContext(context);
}

}  // namespace
