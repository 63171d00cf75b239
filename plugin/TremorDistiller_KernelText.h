// The OpenCL program as the module ships it: the kernel unit preprocessed at
// build time into one NUL-terminated text, compiled on the host's device at
// set-up behind a prefix that switches the 16-bit pixel paths on.
#ifndef TREMORDISTILLER_KERNELTEXT_H
#define TREMORDISTILLER_KERNELTEXT_H

#include <cstddef>

extern const char kTremorDistillerKernelText[];

inline constexpr char kOpenCLSourcePrefix[] = "#define GF_OPENCL_SUPPORTS_16F 1\n";
inline constexpr size_t kOpenCLSourcePrefixLength = sizeof(kOpenCLSourcePrefix) - 1;
static_assert(kOpenCLSourcePrefixLength == 33, "prefix length is part of the program build");

inline constexpr char kOpenCLBuildOptions[] = "-cl-single-precision-constant -cl-fast-relaxed-math";

// In the order of the kernel list's slots.
inline constexpr const char* kKernelNames[3] = {"MainKernel", "ResizeKernel", "StackKernel"};

#endif
