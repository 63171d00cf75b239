// The stand-in hosts' OpenCL device: what a host owns and lends to the effect
// (device, context, in-order queue) and the buffers it allocates for frames.
#ifndef TREMOR_HOST_OPENCLDEVICE_H
#define TREMOR_HOST_OPENCLDEVICE_H

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 120
#endif
#include <CL/cl.h>

#include <cstddef>
#include <string>
#include <vector>

struct OpenCLDevice {
  cl_platform_id platform = nullptr;
  cl_device_id device = nullptr;
  cl_context context = nullptr;
  cl_command_queue queue = nullptr;  // in order
  std::string platformName;
  std::string deviceName;
};

struct OpenCLDeviceInfo {
  int platformIndex;
  int deviceIndex;
  std::string platformName;
  std::string deviceName;
  bool isGpu;
};

// Every device of every platform, in the ICD loader's order.
std::vector<OpenCLDeviceInfo> ListOpenCLDevices();

// Opens a device. platformIndex -1 picks the first GPU, else the first device
// of any kind. Returns false with a one-line reason in `error`.
bool OpenOpenCLDevice(int platformIndex, int deviceIndex, OpenCLDevice& out, std::string& error);
void CloseOpenCLDevice(OpenCLDevice& device);

// Frame buffers. Failures throw std::runtime_error naming the OpenCL call.
cl_mem CreateOpenCLBuffer(const OpenCLDevice& device, size_t bytes);
void UploadOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, const void* data, size_t bytes);
void DownloadOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, void* data, size_t bytes);  // waits
void ClearOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, size_t bytes);

#endif
