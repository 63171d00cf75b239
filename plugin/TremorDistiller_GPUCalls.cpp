#include "TremorDistiller_GPUCalls.h"

OpenCLCalls& GetOpenCLCalls() {
  static OpenCLCalls calls = {
      &::clCreateProgramWithSource, &::clBuildProgram, &::clGetProgramBuildInfo, &::clReleaseProgram,
      &::clCreateKernel,            &::clReleaseKernel, &::clSetKernelArg,       &::clCreateBuffer,
      &::clEnqueueNDRangeKernel,    &::clReleaseMemObject,
  };
  return calls;
}

CudaCalls& GetCudaCalls() {
#ifdef TD_HAVE_CUDA
  static CudaCalls calls = CudaRuntimeCalls();
#else
  static CudaCalls calls = {};
#endif
  return calls;
}
