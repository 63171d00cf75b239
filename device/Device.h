// The devices the stand-in hosts render on, whatever their kind: what a host
// lends the effect (device, context, queue) and the memory it allocates for
// frames. One table of operations per kind (OpenCLDevice.cpp, CudaDevice.cpp),
// registered in Device.cpp, serves the hosts, the renderer, tests and benchmarks.
//
// A device is named by text: "auto", a kind ("opencl", "cuda") for its default
// device, or a kind and an address ("opencl:0.1", "cuda:0").
#ifndef TREMOR_HOST_DEVICE_H
#define TREMOR_HOST_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// A device that cannot be named, found or opened; the message is one line.
class DeviceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A buffer the device (on a CPU device, the process) could not give.
class DeviceMemoryError : public DeviceError {
 public:
  DeviceMemoryError(const std::string& deviceName, size_t bytes);
};

struct DeviceKind;

// One device present on the machine.
struct DeviceListing {
  const DeviceKind* kind;
  std::string address;  // as it follows "kind:"
  std::string name;     // for people: the device's name, with its platform where there is one
  bool isGpu;
};

// An open device. Handles are null where the kind has none.
struct Device {
  const DeviceKind* kind = nullptr;
  std::string name;
  void* platform = nullptr;
  void* device = nullptr;
  void* context = nullptr;
  void* queue = nullptr;  // in order
  int ordinal = 0;        // the kind's own device number (CUDA's)
};

struct DeviceKind {
  const char* name;         // "opencl", "cuda"
  const char* label;        // for people: "OpenCL", "CUDA"
  const char* addressForm;  // for messages: "PLATFORM.DEVICE", "N"
  int32_t framework;        // the effect's numbering: 0 CUDA, 1 OpenCL
  std::vector<DeviceListing> (*list)();
  bool (*addressValid)(const std::string& address);
  // address "" opens the kind's default device. Throws DeviceError.
  Device (*open)(const std::string& address);
  void (*close)(Device& device);
  // Memory; failures throw std::runtime_error naming the call. An
  // allocation either has its memory or throws DeviceMemoryError: nothing
  // is left to be allocated later, where a failure could not be reported.
  void* (*allocate)(const Device& device, size_t bytes);
  void (*release)(const Device& device, void* buffer);
  void (*upload)(const Device& device, void* buffer, const void* data, size_t bytes);
  void (*download)(const Device& device, void* buffer, void* data, size_t bytes);  // waits
  void (*fill)(const Device& device, void* buffer, uint8_t byte, size_t bytes);
  void (*copy)(const Device& device, void* dst, const void* src, size_t bytes);  // on the device
  // The buffer's bytes in host memory for reading and writing, until unmap;
  // on a CPU device that is the buffer itself, so nothing is copied. Null
  // rows where the kind has no such view (upload and download then).
  void* (*map)(const Device& device, void* buffer, size_t bytes);
  void (*unmap)(const Device& device, void* buffer, void* mapped);
  // Makes the device current on the calling thread where the kind keeps one per thread.
  void (*bindThread)(const Device& device);
  void (*finish)(const Device& device);  // waits for queued work
};

// The kinds this build has, in the order "auto" prefers them.
const std::vector<const DeviceKind*>& DeviceKinds();
const DeviceKind* FindDeviceKind(const std::string& name);  // null when not built

// Every device of every kind.
std::vector<DeviceListing> ListDevices();
// One line per device: "opencl:0.0<TAB>name", or "no devices found".
std::string DescribeDevices();

// Checks only the form of a device text, touching no device. Throws DeviceError.
void CheckDeviceText(const std::string& text);
// The device a text names, checked to exist: "auto" becomes the first GPU of
// the kinds in order, else the first device of any kind. Throws DeviceError.
DeviceListing ResolveDeviceText(const std::string& text);

// Opens what a text names. Throws DeviceError.
Device OpenDevice(const std::string& text);
void CloseDevice(Device& device);

// Bytes the process can still take: the least of what the system has
// available (MemAvailable, else half its memory), what its cgroup's
// memory.max leaves, and what RLIMIT_AS leaves of its address space. Frames
// in host memory, and a CPU device's buffers, come out of it.
uint64_t AvailableHostMemory();

// A device buffer's bytes in host memory while the object lives: the buffer's
// own memory through the kind's map row (a CPU device: nothing is copied),
// else a staging copy kept per thread, so a frame-sized copy is not made and
// faulted in again for every frame. With `read` the copy starts as the
// buffer; Publish puts what was written into the buffer.
class DeviceBytes {
 public:
  DeviceBytes(const Device& device, void* buffer, size_t bytes, bool read);
  ~DeviceBytes();
  DeviceBytes(const DeviceBytes&) = delete;
  DeviceBytes& operator=(const DeviceBytes&) = delete;
  uint8_t* data() const { return base_; }
  void Publish();

 private:
  const Device& device_;
  void* buffer_;
  size_t bytes_;
  void* mapped_ = nullptr;
  uint8_t* base_ = nullptr;
};

// Device memory owned by a scope.
struct DeviceBufferDeleter {
  const Device* device;
  void operator()(void* buffer) const {
    if (buffer) device->kind->release(*device, buffer);
  }
};
using DeviceBuffer = std::unique_ptr<void, DeviceBufferDeleter>;
DeviceBuffer AllocateDeviceBuffer(const Device& device, size_t bytes);

#endif
