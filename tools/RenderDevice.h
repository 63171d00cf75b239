// Which device tremor-render hands to the host, from --device text.
#ifndef TREMOR_TOOLS_RENDERDEVICE_H
#define TREMOR_TOOLS_RENDERDEVICE_H

#include <string>

#include "AeHost.h"
#include "Device.h"

namespace render {

// A --device value that names nothing usable; the message is one line.
using DeviceError = ::DeviceError;

// "auto", "opencl", "opencl:P.D", "cuda", "cuda:N". Checks that the device
// exists; auto takes CUDA if present, else an OpenCL GPU, else any OpenCL
// device (PoCL on the CPU). Throws DeviceError.
aehost::DeviceOptions ResolveDevice(const std::string& text);

// Checks only the form of a --device value, loading no device library.
// Throws DeviceError.
void CheckDeviceSyntax(const std::string& text);

// One line per device, as --device spells it, then its name.
std::string DeviceListing();

}  // namespace render

#endif
