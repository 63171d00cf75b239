// OpenCL devices: every platform's devices through the ICD loader (PoCL on the
// CPU here), addressed as PLATFORM.DEVICE in the loader's order.
#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 120
#endif
#include <CL/cl.h>

#include <cctype>
#include <string>
#include <vector>

#include "Device.h"

extern const DeviceKind kOpenCLDeviceKind;

namespace {

template <typename Object, typename Info, typename Query>
std::string InfoString(Query query, Object object, Info what) {
  size_t size = 0;
  query(object, what, 0, nullptr, &size);
  std::string s(size, '\0');
  query(object, what, size, s.data(), nullptr);
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

cl_command_queue Queue(const Device& d) { return static_cast<cl_command_queue>(d.queue); }

std::vector<DeviceListing> List() {
  std::vector<DeviceListing> out;
  const auto platforms = Platforms();
  for (size_t pi = 0; pi < platforms.size(); ++pi) {
    const auto devices = Devices(platforms[pi]);
    for (size_t di = 0; di < devices.size(); ++di) {
      cl_device_type type = 0;
      clGetDeviceInfo(devices[di], CL_DEVICE_TYPE, sizeof type, &type, nullptr);
      const bool gpu = (type & CL_DEVICE_TYPE_GPU) != 0;
      out.push_back({&kOpenCLDeviceKind, std::to_string(pi) + "." + std::to_string(di),
                     InfoString(clGetPlatformInfo, platforms[pi], CL_PLATFORM_NAME) + " / " +
                         InfoString(clGetDeviceInfo, devices[di], CL_DEVICE_NAME) + (gpu ? " (GPU)" : ""),
                     gpu});
    }
  }
  return out;
}

bool AddressValid(const std::string& address) {
  const auto dot = address.find('.');
  auto number = [](const std::string& s) {
    if (s.empty() || s.size() > 6) return false;
    for (char c : s)
      if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
  };
  return dot != std::string::npos && number(address.substr(0, dot)) && number(address.substr(dot + 1));
}

Device Open(const std::string& address) {
  const DeviceListing d = ResolveDeviceText(std::string("opencl") + (address.empty() ? "" : ":" + address));
  const auto dot = d.address.find('.');
  Device dev;
  dev.kind = &kOpenCLDeviceKind;
  cl_platform_id platform = Platforms()[std::stoi(d.address.substr(0, dot))];
  cl_device_id device = Devices(platform)[std::stoi(d.address.substr(dot + 1))];
  dev.platform = platform;
  dev.device = device;
  dev.name = InfoString(clGetDeviceInfo, device, CL_DEVICE_NAME);
  cl_int err = CL_SUCCESS;
  cl_context context = clCreateContext(nullptr, 1, &device, nullptr, nullptr, &err);
  if (err != CL_SUCCESS) throw DeviceError("clCreateContext failed with " + std::to_string(err));
  cl_command_queue queue = clCreateCommandQueue(context, device, 0, &err);
  if (err != CL_SUCCESS) {
    clReleaseContext(context);
    throw DeviceError("clCreateCommandQueue failed with " + std::to_string(err));
  }
  dev.context = context;
  dev.queue = queue;
  return dev;
}

void Close(Device& device) {
  if (device.queue) {
    clFinish(Queue(device));
    clReleaseCommandQueue(Queue(device));
  }
  if (device.context) clReleaseContext(static_cast<cl_context>(device.context));
}

// PoCL allocates a plain buffer's memory at its first use and aborts the
// process when it cannot; memory the host side may map (the device's own on
// a CPU, where it is the same memory) is allocated here, where a failure is
// an error code.
bool HostUnifiedMemory(const Device& device) {
  cl_bool unified = CL_FALSE;
  clGetDeviceInfo(static_cast<cl_device_id>(device.device), CL_DEVICE_HOST_UNIFIED_MEMORY, sizeof unified, &unified,
                  nullptr);
  return unified == CL_TRUE;
}

void* Allocate(const Device& device, size_t bytes) {
  cl_int err = CL_SUCCESS;
  const cl_mem_flags flags = CL_MEM_READ_WRITE | (HostUnifiedMemory(device) ? CL_MEM_ALLOC_HOST_PTR : 0);
  cl_mem m = clCreateBuffer(static_cast<cl_context>(device.context), flags, bytes, nullptr, &err);
  if (err == CL_OUT_OF_HOST_MEMORY || err == CL_OUT_OF_RESOURCES || err == CL_MEM_OBJECT_ALLOCATION_FAILURE ||
      err == CL_INVALID_BUFFER_SIZE)
    throw DeviceMemoryError(device.name, bytes);
  Check(err, "clCreateBuffer");
  return m;
}

void Release(const Device&, void* buffer) { clReleaseMemObject(static_cast<cl_mem>(buffer)); }

void Upload(const Device& device, void* buffer, const void* data, size_t bytes) {
  Check(clEnqueueWriteBuffer(Queue(device), static_cast<cl_mem>(buffer), CL_TRUE, 0, bytes, data, 0, nullptr, nullptr),
        "clEnqueueWriteBuffer");
}

void Download(const Device& device, void* buffer, void* data, size_t bytes) {
  Check(clEnqueueReadBuffer(Queue(device), static_cast<cl_mem>(buffer), CL_TRUE, 0, bytes, data, 0, nullptr, nullptr),
        "clEnqueueReadBuffer");
}

void Fill(const Device& device, void* buffer, uint8_t byte, size_t bytes) {
  const cl_uchar pattern = byte;
  Check(clEnqueueFillBuffer(Queue(device), static_cast<cl_mem>(buffer), &pattern, 1, 0, bytes, 0, nullptr, nullptr),
        "clEnqueueFillBuffer");
}

void Copy(const Device& device, void* dst, const void* src, size_t bytes) {
  Check(clEnqueueCopyBuffer(Queue(device), static_cast<cl_mem>(const_cast<void*>(src)), static_cast<cl_mem>(dst), 0, 0,
                            bytes, 0, nullptr, nullptr),
        "clEnqueueCopyBuffer");
}

void* Map(const Device& device, void* buffer, size_t bytes) {
  cl_int err = CL_SUCCESS;
  void* mapped = clEnqueueMapBuffer(Queue(device), static_cast<cl_mem>(buffer), CL_TRUE, CL_MAP_READ | CL_MAP_WRITE, 0,
                                    bytes, 0, nullptr, nullptr, &err);
  Check(err, "clEnqueueMapBuffer");
  return mapped;
}

void Unmap(const Device& device, void* buffer, void* mapped) {
  Check(clEnqueueUnmapMemObject(Queue(device), static_cast<cl_mem>(buffer), mapped, 0, nullptr, nullptr),
        "clEnqueueUnmapMemObject");
}

void BindThread(const Device&) {}  // OpenCL has no current device

void Finish(const Device& device) { clFinish(Queue(device)); }

}  // namespace

extern const DeviceKind kOpenCLDeviceKind = {
    "opencl", "OpenCL", "PLATFORM.DEVICE", 1,    List, AddressValid, Open,  Close,      Allocate,
    Release,  Upload,   Download,          Fill, Copy, Map,          Unmap, BindThread, Finish};
