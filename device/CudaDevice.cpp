// CUDA devices through the runtime, addressed by the runtime's device number.
// Without a driver or GPU the list is empty.
#include <cuda_runtime_api.h>

#include <cctype>
#include <string>
#include <vector>

#include "Device.h"

extern const DeviceKind kCudaDeviceKind;

namespace {

void Check(cudaError_t err, const char* call) {
  if (err != cudaSuccess) throw std::runtime_error(std::string(call) + ": " + cudaGetErrorString(err));
}

int Count() {
  int n = 0;
  if (cudaGetDeviceCount(&n) != cudaSuccess) {
    cudaGetLastError();  // no driver: not an error worth keeping
    return 0;
  }
  return n;
}

std::string Name(int index) {
  cudaDeviceProp prop{};
  return cudaGetDeviceProperties(&prop, index) == cudaSuccess ? prop.name : "";
}

std::vector<DeviceListing> List() {
  std::vector<DeviceListing> out;
  for (int i = 0, n = Count(); i < n; ++i) out.push_back({&kCudaDeviceKind, std::to_string(i), Name(i), true});
  return out;
}

bool AddressValid(const std::string& address) {
  if (address.empty() || address.size() > 6) return false;
  for (char c : address)
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

void BindThread(const Device& device) {
  // The runtime keeps the current device per thread.
  const cudaError_t err = cudaSetDevice(device.ordinal);
  if (err != cudaSuccess) throw DeviceError(std::string("cudaSetDevice: ") + cudaGetErrorString(err));
}

Device Open(const std::string& address) {
  const DeviceListing d = ResolveDeviceText(std::string("cuda") + (address.empty() ? "" : ":" + address));
  Device dev;
  dev.kind = &kCudaDeviceKind;
  dev.ordinal = std::stoi(d.address);
  dev.name = d.name;
  // The runtime's current device and default stream; no driver context.
  dev.device = reinterpret_cast<void*>(static_cast<intptr_t>(dev.ordinal));
  BindThread(dev);
  return dev;
}

void Close(Device&) {}

void* Allocate(const Device& device, size_t bytes) {
  void* p = nullptr;
  const cudaError_t err = cudaMalloc(&p, bytes);
  if (err == cudaErrorMemoryAllocation) {
    cudaGetLastError();  // not sticky: the device goes on
    throw DeviceMemoryError(device.name, bytes);
  }
  Check(err, "cudaMalloc");
  return p;
}

void Release(const Device&, void* buffer) { cudaFree(buffer); }

void Upload(const Device&, void* buffer, const void* data, size_t bytes) {
  Check(cudaMemcpy(buffer, data, bytes, cudaMemcpyHostToDevice), "cudaMemcpy");
}

void Download(const Device&, void* buffer, void* data, size_t bytes) {
  Check(cudaMemcpy(data, buffer, bytes, cudaMemcpyDeviceToHost), "cudaMemcpy");
}

void Fill(const Device&, void* buffer, uint8_t byte, size_t bytes) {
  Check(cudaMemset(buffer, byte, bytes), "cudaMemset");
}

void Copy(const Device&, void* dst, const void* src, size_t bytes) {
  Check(cudaMemcpy(dst, src, bytes, cudaMemcpyDeviceToDevice), "cudaMemcpy");
}

void Finish(const Device&) { cudaDeviceSynchronize(); }

}  // namespace

extern const DeviceKind kCudaDeviceKind = {"cuda", "CUDA", "N",      0,       List,       AddressValid,
                                           Open,   Close,  Allocate, Release, Upload,     Download,
                                           Fill,   Copy,   nullptr,  nullptr, BindThread, Finish};
