// tremor-frames: renders one frame of the effect from still pictures through
// the stand-in After Effects host, on both platforms. It needs no FFmpeg, so
// the Windows build of it runs under Wine beside the Windows module, and the
// native build of the same source gives the render to compare with.
//
//   tremor-frames MODULE OUTPUT.f32 FRAME.png... [--set DISKID=VALUE]... [--device SPEC]
//
// The frames are the input layer, oldest first; the newest is rendered.
// OUTPUT gets the rendered RGBA as little-endian 32-bit floats, rows top to
// bottom; standard output tells what the host saw of the module.
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "AeHost.h"
#include "TremorDistiller.h"

namespace {

using aehost::AeHost;
using aehost::HostError;
using aehost::Image;

struct Args {
  std::string module, output, device = "opencl";
  std::vector<std::string> frames;
  std::vector<std::pair<A_long, double>> settings;
};

Args ParseArgs(int argc, char** argv) {
  Args a;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if ((arg == "--set" || arg == "--device") && i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
    if (arg == "--device") {
      a.device = argv[++i];
    } else if (arg == "--set") {
      const std::string s = argv[++i];
      const size_t eq = s.find('=');
      char *end = nullptr, *valueEnd = nullptr;
      const long id = eq == std::string::npos ? 0 : std::strtol(s.c_str(), &end, 10);
      const double value = eq == std::string::npos ? 0.0 : std::strtod(s.c_str() + eq + 1, &valueEnd);
      if (eq == std::string::npos || end != s.c_str() + eq || eq + 1 == s.size() || *valueEnd != '\0')
        throw std::invalid_argument("--set takes DISKID=VALUE with a number, not " + s);
      a.settings.emplace_back(static_cast<A_long>(id), value);
    } else if (arg.size() > 1 && arg[0] == '-') {
      throw std::invalid_argument("unknown option " + arg);
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() < 3) throw std::invalid_argument("usage: tremor-frames MODULE OUTPUT.f32 FRAME.png...");
  a.module = positional[0];
  a.output = positional[1];
  a.frames.assign(positional.begin() + 2, positional.end());
  return a;
}

// 8-bit v as v/255, 16-bit as v/65535; alpha 1 where the file has none.
Image ReadPicture(const std::string& path) {
  int w = 0, h = 0, channels = 0;
  const bool wide = stbi_is_16_bit(path.c_str());
  void* data = wide ? static_cast<void*>(stbi_load_16(path.c_str(), &w, &h, &channels, 4))
                    : static_cast<void*>(stbi_load(path.c_str(), &w, &h, &channels, 4));
  if (!data) throw std::runtime_error("cannot read " + path + ": " + stbi_failure_reason());
  Image image(w, h);
  const size_t n = image.rgba.size();
  for (size_t i = 0; i < n; ++i)
    image.rgba[i] =
        wide ? static_cast<const stbi_us*>(data)[i] / 65535.0f : static_cast<const stbi_uc*>(data)[i] / 255.0f;
  stbi_image_free(data);
  return image;
}

// Through a temporary name, so a failed write leaves nothing under OUTPUT.
void WriteFloats(const std::string& path, const Image& image) {
  const std::string part = path + ".part";
  std::FILE* f = std::fopen(part.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot write " + part);
  const size_t n = image.rgba.size();
  const bool ok = std::fwrite(image.rgba.data(), sizeof(float), n, f) == n;
  if (std::fclose(f) != 0 || !ok) {
    std::remove(part.c_str());
    throw std::runtime_error("cannot write " + part);
  }
  std::remove(path.c_str());  // rename does not replace on Windows
  if (std::rename(part.c_str(), path.c_str()) != 0) {
    std::remove(part.c_str());
    throw std::runtime_error("cannot write " + path);
  }
}

int Run(const Args& a) {
  AeHost host(a.module);
  std::cout << "property list: " << host.PiPL().size() << " bytes, entry " << host.PluginDataRecord().entryPoint
            << "\n";
  aehost::DeviceOptions device;
  device.device = a.device;
  if (const PF_Err err = host.SetUp(&device)) throw std::runtime_error("set-up failed with " + std::to_string(err));
  const auto* global = static_cast<const GlobalData*>(*host.GlobalData());
  if (const AboutImage* about = global->aboutImage)
    std::cout << "about picture: " << about->width << "x" << about->height << "\n";
  std::cout << "device: " << host.DeviceName() << (host.GpuReady() ? "" : " (not set up)") << "\n";

  for (const auto& [id, value] : a.settings) {
    const PF_ParamIndex index = host.FindParam(id);
    if (index < 0) throw std::invalid_argument("no parameter has Disk ID " + std::to_string(id));
    host.SetParamValue(index, value);
  }
  for (size_t k = 0; k < a.frames.size(); ++k)
    host.AddFrame(host.FrameTime(static_cast<int>(k)), ReadPicture(a.frames[k]));

  const aehost::RenderResult r = host.Render(host.FrameTime(static_cast<int>(a.frames.size()) - 1));
  if (r.result || !r.hasOutput) throw std::runtime_error("render failed with " + std::to_string(r.result));
  std::cout << "rendered: " << r.output.width << "x" << r.output.height << " by " << aehost::CommandName(r.render.cmd)
            << "\n";
  WriteFloats(a.output, r.output);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(ParseArgs(argc, argv));
  } catch (const std::exception& e) {
    std::cerr << "tremor-frames: " << e.what() << "\n";
    return 2;
  }
}
