#include "TremorDistiller_GPUCalls.h"

OpenCLCalls& GetOpenCLCalls() {
  static OpenCLCalls calls = {
      &::clCreateProgramWithSource,
      &::clBuildProgram,
      &::clGetProgramBuildInfo,
      &::clGetDeviceInfo,
      &::clReleaseProgram,
      &::clCreateKernel,
      &::clReleaseKernel,
      &::clSetKernelArg,
      &::clCreateBuffer,
      &::clEnqueueNDRangeKernel,
      &::clReleaseMemObject,
  };
  return calls;
}

CudaCalls& GetCudaCalls() {
  static CudaCalls calls = CudaRuntimeCalls();
  return calls;
}
