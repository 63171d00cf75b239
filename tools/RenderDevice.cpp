#include "RenderDevice.h"

namespace render {

void CheckDeviceSyntax(const std::string& text) {
  try {
    CheckDeviceText(text);
  } catch (const DeviceError& e) {
    throw DeviceError("bad --device '" + text + "': " + e.what());
  }
}

aehost::DeviceOptions ResolveDevice(const std::string& text) {
  CheckDeviceSyntax(text);
  try {
    const ::DeviceListing d = ResolveDeviceText(text);
    aehost::DeviceOptions options;
    options.device = std::string(d.kind->name) + ":" + d.address;
    return options;
  } catch (const DeviceError& e) {
    const std::string why = e.what();
    throw DeviceError(why.rfind("no device ", 0) == 0 ? why + " (see --list-devices)" : why);
  }
}

std::string DeviceListing() { return DescribeDevices(); }

}  // namespace render
