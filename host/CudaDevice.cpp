#include "CudaDevice.h"

#include <cuda_runtime_api.h>

#include <stdexcept>

namespace {
void Check(cudaError_t err, const char* call) {
  if (err != cudaSuccess) throw std::runtime_error(std::string(call) + ": " + cudaGetErrorString(err));
}
}  // namespace

int CudaDeviceCount() {
  int n = 0;
  if (cudaGetDeviceCount(&n) != cudaSuccess) {
    cudaGetLastError();  // no driver: not an error worth keeping
    return 0;
  }
  return n;
}

std::string CudaDeviceName(int index) {
  cudaDeviceProp prop{};
  if (cudaGetDeviceProperties(&prop, index) != cudaSuccess) return {};
  return prop.name;
}

bool SelectCudaDevice(int index, std::string& error) {
  const cudaError_t err = cudaSetDevice(index);
  if (err != cudaSuccess) {
    error = cudaGetErrorString(err);
    return false;
  }
  return true;
}

void* CreateCudaBuffer(size_t bytes) {
  void* p = nullptr;
  Check(cudaMalloc(&p, bytes), "cudaMalloc");
  return p;
}

void FreeCudaBuffer(void* buffer) { cudaFree(buffer); }

void UploadCudaBuffer(void* buffer, const void* data, size_t bytes) {
  Check(cudaMemcpy(buffer, data, bytes, cudaMemcpyHostToDevice), "cudaMemcpy");
}

void DownloadCudaBuffer(void* buffer, void* data, size_t bytes) {
  Check(cudaMemcpy(data, buffer, bytes, cudaMemcpyDeviceToHost), "cudaMemcpy");
}

void ClearCudaBuffer(void* buffer, size_t bytes) { Check(cudaMemset(buffer, 0, bytes), "cudaMemset"); }
