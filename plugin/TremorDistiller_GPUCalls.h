// Every OpenCL and CUDA call the effect makes goes through these tables, so a
// test can put a failing or recording function in any row. By default the rows
// hold the real functions: OpenCL's, and CUDA's through the driver API
// (TremorDistiller_CudaDriver.cpp), null in a build without CUDA.
#ifndef TREMORDISTILLER_GPUCALLS_H
#define TREMORDISTILLER_GPUCALLS_H

#include <cstddef>

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 120
#endif
#include <CL/cl.h>

#include "TremorDistiller_CudaLaunch.h"

struct OpenCLCalls {
  decltype(&::clCreateProgramWithSource) createProgramWithSource;
  decltype(&::clBuildProgram) buildProgram;
  decltype(&::clGetProgramBuildInfo) getProgramBuildInfo;
  decltype(&::clGetDeviceInfo) getDeviceInfo;
  decltype(&::clReleaseProgram) releaseProgram;
  decltype(&::clCreateKernel) createKernel;
  decltype(&::clReleaseKernel) releaseKernel;
  decltype(&::clSetKernelArg) setKernelArg;
  decltype(&::clCreateBuffer) createBuffer;
  decltype(&::clEnqueueNDRangeKernel) enqueueNDRangeKernel;
  decltype(&::clReleaseMemObject) releaseMemObject;
};

// CUDA calls as plain C++ signatures (error codes as int), in the runtime's
// shape: errors are read back with peekAtLastError.
struct CudaCalls {
  int (*malloc)(void** devicePtr, size_t size);
  int (*memcpyHostToDevice)(void* dst, const void* src, size_t size);
  int (*free)(void* devicePtr);
  int (*peekAtLastError)();
  const char* (*getErrorString)(int error);
  decltype(&LaunchMainKernel) launchMain;
  decltype(&LaunchResizeKernel) launchResize;
  decltype(&LaunchStackKernel) launchStack;
};

OpenCLCalls& GetOpenCLCalls();
CudaCalls& GetCudaCalls();

// The real CUDA rows: through the driver where the build made a CUDA image,
// else all null, so the pass reports a build without CUDA.
CudaCalls CudaRuntimeCalls();

#endif
