// The CPU reference as a device kind: its buffers are host memory, and what
// renders on it is the kernel source compiled as C++ (reference/), the
// effect's CPUReference framework. No host hands that framework to the
// module, so the module paths decline it; the engine and tests render on it.
#include <cstring>
#include <new>
#include <vector>

#include "Device.h"

extern const DeviceKind kReferenceDeviceKind;

namespace {

std::vector<DeviceListing> List() { return {{&kReferenceDeviceKind, "0", "CPU reference", false}}; }

bool AddressValid(const std::string& address) { return address == "0"; }

Device Open(const std::string&) {
  Device d;
  d.kind = &kReferenceDeviceKind;
  d.name = "CPU reference";
  return d;
}

void Close(Device&) {}

void* Allocate(const Device& device, size_t bytes) {
  auto* p = new (std::nothrow) uint8_t[bytes]();
  if (!p) throw DeviceMemoryError(device.name, bytes);
  return p;
}
void Release(const Device&, void* buffer) { delete[] static_cast<uint8_t*>(buffer); }
void Upload(const Device&, void* buffer, const void* data, size_t bytes) { std::memcpy(buffer, data, bytes); }
void Download(const Device&, void* buffer, void* data, size_t bytes) { std::memcpy(data, buffer, bytes); }
void Fill(const Device&, void* buffer, uint8_t byte, size_t bytes) { std::memset(buffer, byte, bytes); }
void Copy(const Device&, void* dst, const void* src, size_t bytes) { std::memcpy(dst, src, bytes); }
void* Map(const Device&, void* buffer, size_t) { return buffer; }
void Unmap(const Device&, void*, void*) {}
void BindThread(const Device&) {}
void Finish(const Device&) {}

}  // namespace

extern const DeviceKind kReferenceDeviceKind = {
    "reference", "CPU reference", "0",      3,    List, AddressValid, Open,  Close,      Allocate,
    Release,     Upload,          Download, Fill, Copy, Map,          Unmap, BindThread, Finish};
