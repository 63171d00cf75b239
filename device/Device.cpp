// The one place that knows which device kinds this build has.
#include "Device.h"

#include <cstdlib>
#include <filesystem>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

DeviceMemoryError::DeviceMemoryError(const std::string& deviceName, size_t bytes)
    : DeviceError([&] {
        char size[32];
        std::snprintf(size, sizeof size, "%.1f MiB", bytes / 1048576.0);
        return "out of memory: " + deviceName + " could not allocate a buffer of " + size;
      }()) {}

DeviceBuffer AllocateDeviceBuffer(const Device& device, size_t bytes) {
  return DeviceBuffer(device.kind->allocate(device, bytes), DeviceBufferDeleter{&device});
}

namespace {

#if !defined(_WIN32)
// The number after `key` in a file of lines (a whole file of one number with
// key ""); `missing` where there is none, as for "max".
uint64_t ReadNumber(const std::string& path, const std::string& key, uint64_t missing) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, key.size(), key) == 0 && line.size() > key.size()) {
      const char* digits = line.c_str() + key.size();
      while (*digits == ' ' || *digits == '\t') ++digits;
      if (*digits < '0' || *digits > '9') return missing;
      return std::strtoull(digits, nullptr, 10);
    }
  return missing;
}

// What the memory.max of this process's cgroup (v2) and of each one above
// it leaves over its memory.current.
uint64_t CgroupHeadroom() {
  std::string group;
  std::ifstream in("/proc/self/cgroup");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, 3, "0::") == 0) group = line.substr(3);
  uint64_t least = UINT64_MAX;
  for (std::string dir = "/sys/fs/cgroup" + group;; dir = dir.substr(0, dir.rfind('/'))) {
    const uint64_t max = ReadNumber(dir + "/memory.max", "", UINT64_MAX);
    const uint64_t current = ReadNumber(dir + "/memory.current", "", 0);
    if (max != UINT64_MAX) least = std::min(least, max > current ? max - current : 0);
    if (dir.size() <= std::string("/sys/fs/cgroup").size()) return least;
  }
}

// What RLIMIT_AS leaves over the address space the process has taken.
uint64_t AddressSpaceHeadroom() {
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return UINT64_MAX;
  const uint64_t used = ReadNumber("/proc/self/status", "VmSize:", 0) * 1024;
  return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}
#endif

}  // namespace

uint64_t AvailableHostMemory() {
#if defined(_WIN32)
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof(status);
  return GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
#else
  uint64_t system = ReadNumber("/proc/meminfo", "MemAvailable:", UINT64_MAX);
  if (system == UINT64_MAX)
    system = static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<uint64_t>(sysconf(_SC_PAGE_SIZE)) / 2;
  else
    system *= 1024;
  return std::min({system, CgroupHeadroom(), AddressSpaceHeadroom()});
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
