// The stand-in hosts' CUDA device: device memory for frames. Only built with a
// CUDA toolkit; CudaDeviceCount() is 0 without a driver or GPU.
#ifndef TREMOR_HOST_CUDADEVICE_H
#define TREMOR_HOST_CUDADEVICE_H

#include <cstddef>
#include <string>

int CudaDeviceCount();
std::string CudaDeviceName(int index);
bool SelectCudaDevice(int index, std::string& error);

// Failures throw std::runtime_error with the runtime's text.
void* CreateCudaBuffer(size_t bytes);
void FreeCudaBuffer(void* buffer);
void UploadCudaBuffer(void* buffer, const void* data, size_t bytes);
void DownloadCudaBuffer(void* buffer, void* data, size_t bytes);
void ClearCudaBuffer(void* buffer, size_t bytes);

#endif
