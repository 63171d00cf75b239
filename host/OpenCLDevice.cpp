#include "OpenCLDevice.h"

#include <stdexcept>

namespace {

std::string PlatformString(cl_platform_id p, cl_platform_info what) {
  size_t size = 0;
  clGetPlatformInfo(p, what, 0, nullptr, &size);
  std::string s(size, '\0');
  clGetPlatformInfo(p, what, size, s.data(), nullptr);
  while (!s.empty() && s.back() == '\0') s.pop_back();
  return s;
}

std::string DeviceString(cl_device_id d, cl_device_info what) {
  size_t size = 0;
  clGetDeviceInfo(d, what, 0, nullptr, &size);
  std::string s(size, '\0');
  clGetDeviceInfo(d, what, size, s.data(), nullptr);
  while (!s.empty() && s.back() == '\0') s.pop_back();
  return s;
}

std::vector<cl_platform_id> Platforms() {
  cl_uint n = 0;
  if (clGetPlatformIDs(0, nullptr, &n) != CL_SUCCESS || n == 0) return {};
  std::vector<cl_platform_id> p(n);
  clGetPlatformIDs(n, p.data(), nullptr);
  return p;
}

std::vector<cl_device_id> Devices(cl_platform_id p) {
  cl_uint n = 0;
  if (clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, 0, nullptr, &n) != CL_SUCCESS || n == 0) return {};
  std::vector<cl_device_id> d(n);
  clGetDeviceIDs(p, CL_DEVICE_TYPE_ALL, n, d.data(), nullptr);
  return d;
}

void Check(cl_int err, const char* call) {
  if (err != CL_SUCCESS) throw std::runtime_error(std::string(call) + " failed with " + std::to_string(err));
}

}  // namespace

std::vector<OpenCLDeviceInfo> ListOpenCLDevices() {
  std::vector<OpenCLDeviceInfo> out;
  const auto platforms = Platforms();
  for (size_t pi = 0; pi < platforms.size(); ++pi) {
    const auto devices = Devices(platforms[pi]);
    for (size_t di = 0; di < devices.size(); ++di) {
      cl_device_type type = 0;
      clGetDeviceInfo(devices[di], CL_DEVICE_TYPE, sizeof type, &type, nullptr);
      out.push_back({static_cast<int>(pi), static_cast<int>(di), PlatformString(platforms[pi], CL_PLATFORM_NAME),
                     DeviceString(devices[di], CL_DEVICE_NAME), (type & CL_DEVICE_TYPE_GPU) != 0});
    }
  }
  return out;
}

bool OpenOpenCLDevice(int platformIndex, int deviceIndex, OpenCLDevice& out, std::string& error) {
  const auto all = ListOpenCLDevices();
  const OpenCLDeviceInfo* pick = nullptr;
  for (const auto& d : all) {
    if (platformIndex >= 0) {
      if (d.platformIndex == platformIndex && d.deviceIndex == deviceIndex) pick = &d;
    } else if (d.isGpu && (!pick || !pick->isGpu)) {
      pick = &d;
    } else if (!pick) {
      pick = &d;
    }
  }
  if (!pick) {
    error = all.empty() ? "no OpenCL device found (is an ICD such as pocl-opencl-icd installed, and POCL_CACHE_DIR "
                          "writable?)"
                        : "no OpenCL device " + std::to_string(platformIndex) + "." + std::to_string(deviceIndex);
    return false;
  }
  OpenCLDevice dev;
  dev.platform = Platforms()[pick->platformIndex];
  dev.device = Devices(dev.platform)[pick->deviceIndex];
  dev.platformName = pick->platformName;
  dev.deviceName = pick->deviceName;
  cl_int err = CL_SUCCESS;
  dev.context = clCreateContext(nullptr, 1, &dev.device, nullptr, nullptr, &err);
  if (err != CL_SUCCESS) {
    error = "clCreateContext failed with " + std::to_string(err);
    return false;
  }
  dev.queue = clCreateCommandQueue(dev.context, dev.device, 0, &err);
  if (err != CL_SUCCESS) {
    clReleaseContext(dev.context);
    error = "clCreateCommandQueue failed with " + std::to_string(err);
    return false;
  }
  out = dev;
  return true;
}

void CloseOpenCLDevice(OpenCLDevice& device) {
  if (device.queue) {
    clFinish(device.queue);
    clReleaseCommandQueue(device.queue);
  }
  if (device.context) clReleaseContext(device.context);
  device = OpenCLDevice{};
}

cl_mem CreateOpenCLBuffer(const OpenCLDevice& device, size_t bytes) {
  cl_int err = CL_SUCCESS;
  cl_mem m = clCreateBuffer(device.context, CL_MEM_READ_WRITE, bytes, nullptr, &err);
  Check(err, "clCreateBuffer");
  return m;
}

void UploadOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, const void* data, size_t bytes) {
  Check(clEnqueueWriteBuffer(device.queue, buffer, CL_TRUE, 0, bytes, data, 0, nullptr, nullptr),
        "clEnqueueWriteBuffer");
}

void DownloadOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, void* data, size_t bytes) {
  Check(clEnqueueReadBuffer(device.queue, buffer, CL_TRUE, 0, bytes, data, 0, nullptr, nullptr),
        "clEnqueueReadBuffer");
}

void ClearOpenCLBuffer(const OpenCLDevice& device, cl_mem buffer, size_t bytes) {
  const cl_uchar zero = 0;
  Check(clEnqueueFillBuffer(device.queue, buffer, &zero, 1, 0, bytes, 0, nullptr, nullptr), "clEnqueueFillBuffer");
}
