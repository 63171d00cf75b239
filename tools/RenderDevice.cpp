#include "RenderDevice.h"

#include <cctype>
#include <sstream>
#include <vector>

#include "OpenCLDevice.h"
#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif

namespace render {
namespace {

int CudaCount() {
#ifdef TD_HAVE_CUDA
  return CudaDeviceCount();
#else
  return 0;
#endif
}

// Whole non-negative number, nothing else; -1 otherwise.
int ParseIndex(const std::string& s) {
  if (s.empty() || s.size() > 6) return -1;
  for (char c : s)
    if (!std::isdigit(static_cast<unsigned char>(c))) return -1;
  return std::stoi(s);
}

}  // namespace

void CheckDeviceSyntax(const std::string& text) {
  const auto colon = text.find(':');
  const std::string kind = text.substr(0, colon), arg = colon == std::string::npos ? "" : text.substr(colon + 1);
  const auto dot = arg.find('.');
  bool ok = false;
  if (kind == "auto") ok = colon == std::string::npos;
  if (kind == "opencl")
    ok = colon == std::string::npos ||
         (dot != std::string::npos && ParseIndex(arg.substr(0, dot)) >= 0 && ParseIndex(arg.substr(dot + 1)) >= 0);
  if (kind == "cuda") ok = colon == std::string::npos || ParseIndex(arg) >= 0;
  if (!ok) throw DeviceError("bad --device '" + text + "': expected auto, opencl[:PLATFORM.DEVICE] or cuda[:N]");
}

aehost::DeviceOptions ResolveDevice(const std::string& text) {
  aehost::DeviceOptions d;
  const auto colon = text.find(':');
  const std::string kind = text.substr(0, colon);
  const bool hasArg = colon != std::string::npos;
  const std::string arg = hasArg ? text.substr(colon + 1) : "";

  if (kind == "auto" && !hasArg) {
    if (CudaCount() > 0) {
      d.kind = aehost::GpuKind::Cuda;
      d.deviceIndex = 0;
      return d;
    }
    if (ListOpenCLDevices().empty()) throw DeviceError("no CUDA or OpenCL device found (is PoCL installed?)");
    d.kind = aehost::GpuKind::OpenCL;
    d.platformIndex = -1;  // the host takes the first GPU, else the first device
    return d;
  }
  if (kind == "opencl") {
    const auto devices = ListOpenCLDevices();
    d.kind = aehost::GpuKind::OpenCL;
    if (!hasArg) {
      if (devices.empty()) throw DeviceError("no OpenCL device found (is PoCL installed?)");
      d.platformIndex = -1;
      return d;
    }
    const auto dot = arg.find('.');
    const int p = dot == std::string::npos ? -1 : ParseIndex(arg.substr(0, dot));
    const int i = dot == std::string::npos ? -1 : ParseIndex(arg.substr(dot + 1));
    if (p < 0 || i < 0) throw DeviceError("bad --device '" + text + "': expected opencl:PLATFORM.DEVICE, e.g. opencl:0.0");
    for (const auto& info : devices)
      if (info.platformIndex == p && info.deviceIndex == i) {
        d.platformIndex = p;
        d.deviceIndex = i;
        return d;
      }
    throw DeviceError("no device " + text + " (see --list-devices)");
  }
  if (kind == "cuda") {
#ifndef TD_HAVE_CUDA
    throw DeviceError("this build of tremor-render has no CUDA support");
#else
    const int n = hasArg ? ParseIndex(arg) : 0;
    if (n < 0) throw DeviceError("bad --device '" + text + "': expected cuda:N, e.g. cuda:0");
    if (n >= CudaCount()) throw DeviceError("no device " + text + " (see --list-devices)");
    d.kind = aehost::GpuKind::Cuda;
    d.deviceIndex = n;
    return d;
#endif
  }
  throw DeviceError("bad --device '" + text + "': expected auto, opencl[:PLATFORM.DEVICE] or cuda[:N]");
}

std::string DeviceListing() {
  std::ostringstream s;
#ifdef TD_HAVE_CUDA
  for (int i = 0; i < CudaCount(); ++i) s << "cuda:" << i << "\t" << CudaDeviceName(i) << "\n";
#endif
  for (const auto& d : ListOpenCLDevices())
    s << "opencl:" << d.platformIndex << "." << d.deviceIndex << "\t" << d.platformName << " / " << d.deviceName
      << (d.isGpu ? " (GPU)" : "") << "\n";
  if (s.str().empty()) s << "no devices found\n";
  return s.str();
}

}  // namespace render
