// The one place that knows which device kinds this build has.
#include "Device.h"

#include <cstdlib>
#include <filesystem>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <fstream>
#include <sstream>

extern const DeviceKind kOpenCLDeviceKind;
extern const DeviceKind kReferenceDeviceKind;
#ifdef TD_HAVE_CUDA
extern const DeviceKind kCudaDeviceKind;
#endif

const std::vector<const DeviceKind*>& DeviceKinds() {
  static const std::vector<const DeviceKind*> kinds = {
#ifdef TD_HAVE_CUDA
      &kCudaDeviceKind,
#endif
      &kOpenCLDeviceKind,
      &kReferenceDeviceKind,  // last: "auto" takes it only where nothing else is
  };
  return kinds;
}

const DeviceKind* FindDeviceKind(const std::string& name) {
  for (const DeviceKind* kind : DeviceKinds())
    if (name == kind->name) return kind;
  return nullptr;
}

std::vector<DeviceListing> ListDevices() {
  std::vector<DeviceListing> all;
  for (const DeviceKind* kind : DeviceKinds())
    for (DeviceListing& d : kind->list()) all.push_back(std::move(d));
  return all;
}

std::string DescribeDevices() {
  std::ostringstream s;
  for (const DeviceListing& d : ListDevices()) s << d.kind->name << ":" << d.address << "\t" << d.name << "\n";
  if (s.str().empty()) s << "no devices found\n";
  return s.str();
}

namespace {

struct DeviceText {
  const DeviceKind* kind;  // null for "auto"
  std::string address;
  bool hasAddress;
};

DeviceText ParseDeviceText(const std::string& text) {
  const auto colon = text.find(':');
  const std::string kindName = text.substr(0, colon);
  DeviceText t{nullptr, colon == std::string::npos ? "" : text.substr(colon + 1), colon != std::string::npos};
  if (kindName == "auto" && !t.hasAddress) return t;
  t.kind = FindDeviceKind(kindName);
  if (t.kind && (!t.hasAddress || t.kind->addressValid(t.address))) return t;
  std::string expected = "auto";
  const auto& kinds = DeviceKinds();
  for (size_t i = 0; i < kinds.size(); ++i)
    expected +=
        std::string(i + 1 == kinds.size() ? " or " : ", ") + kinds[i]->name + "[:" + kinds[i]->addressForm + "]";
  throw DeviceError("expected " + expected);
}

// PoCL lists no device at all when it cannot write its kernel cache: the
// likelier cause then, and the way out.
std::string WhyNoOpenCL() {
#if defined(_WIN32)
  return " (is an OpenCL driver installed?)";
#else
  namespace fs = std::filesystem;
  const char* set = std::getenv("POCL_CACHE_DIR");
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  const fs::path cache = set   ? fs::path(set)
                         : xdg ? fs::path(xdg) / "pocl"
                               : fs::path(home ? home : "") / ".cache/pocl";
  fs::path p = cache;
  std::error_code ec;
  while (!p.empty() && p != p.parent_path() && !fs::exists(p, ec)) p = p.parent_path();
  if (fs::is_directory(p, ec) && ::access(p.c_str(), W_OK) == 0) return " (is PoCL installed?)";
  return " (PoCL cannot write its kernel cache " + cache.string() + ": set POCL_CACHE_DIR to a writable folder)";
#endif
}

}  // namespace

void CheckDeviceText(const std::string& text) { ParseDeviceText(text); }

DeviceListing ResolveDeviceText(const std::string& text) {
  const DeviceText t = ParseDeviceText(text);
  const std::vector<DeviceListing> devices = t.kind ? t.kind->list() : ListDevices();
  const DeviceListing* pick = nullptr;
  for (const DeviceListing& d : devices) {
    if (t.hasAddress ? d.address == t.address : (d.isGpu && (!pick || !pick->isGpu)) || !pick) pick = &d;
  }
  if (pick) return *pick;
  if (t.hasAddress) throw DeviceError("no device " + text);
  std::string kinds;
  for (const DeviceKind* kind : DeviceKinds())
    if (!t.kind || kind == t.kind) kinds += std::string(kinds.empty() ? "" : " or ") + kind->label;
  const bool openclSearched = !t.kind || std::string(t.kind->name) == "opencl";
  throw DeviceError("no " + kinds + " device found" + (openclSearched ? WhyNoOpenCL() : ""));
}

Device OpenDevice(const std::string& text) {
  const DeviceListing d = ResolveDeviceText(text);
  return d.kind->open(d.address);
}

void CloseDevice(Device& device) {
  if (device.kind) device.kind->close(device);
  device = Device{};
}

DeviceBuffer AllocateDeviceBuffer(const Device& device, size_t bytes) {
  return DeviceBuffer(device.kind->allocate(device, bytes), DeviceBufferDeleter{&device});
}

uint64_t AvailableHostMemory() {
#if defined(_WIN32)
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof(status);
  return GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
#else
  std::ifstream in("/proc/meminfo");
  std::string key, unit;
  uint64_t kb = 0;
  while (in >> key >> kb >> unit)
    if (key == "MemAvailable:") return kb * 1024;
  return static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<uint64_t>(sysconf(_SC_PAGE_SIZE)) / 2;
#endif
}

DeviceBytes::DeviceBytes(const Device& device, void* buffer, size_t bytes, bool read)
    : device_(device), buffer_(buffer), bytes_(bytes) {
  if (device.kind->map && bytes) {
    base_ = static_cast<uint8_t*>(mapped_ = device.kind->map(device, buffer, bytes));
    return;
  }
  thread_local std::vector<uint8_t> staging;
  if (staging.size() < bytes) staging.resize(bytes);
  base_ = staging.data();
  if (read && bytes) device.kind->download(device, buffer, base_, bytes);
}

DeviceBytes::~DeviceBytes() {
  if (mapped_) device_.kind->unmap(device_, buffer_, mapped_);
}

void DeviceBytes::Publish() {
  if (!mapped_ && bytes_) device_.kind->upload(device_, buffer_, base_, bytes_);
}
