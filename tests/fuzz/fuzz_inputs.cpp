// What tremor-render and the stand-in host read from outside, fed any bytes:
// the property list beside a module, a media file of any container (corrupt,
// truncated PNG, EXR, TIFF, ...) and the command line. Each may refuse with
// its one-line error; none may crash, hang or touch stray memory. One binary,
// the first byte picks the reader, so one corpus covers all three.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AeHost.h"
#include "MediaIO.h"
#include "RenderDevice.h"
#include "RenderOptions.h"

namespace {

void PropertyList(FuzzedDataProvider& in) {
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  try {
    aehost::ParsePiPL(bytes);
  } catch (const aehost::HostError&) {
  }
}

void MediaFile(FuzzedDataProvider& in) {
  static const char* const kExtensions[] = {".mp4", ".mkv", ".mov", ".png", ".exr", ".tif", ".avi", ".y4m"};
  static const std::string dir = [] {
    char tmpl[] = "/tmp/fuzz-inputs-XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  const std::string path = dir + "/in" + kExtensions[in.ConsumeIntegralInRange(0, 7)];
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  try {
    media::Reader reader(path);
    media::Picture picture;
    for (int i = 0; i < 4 && reader.Next(picture); ++i) {
    }
  } catch (const media::MediaError&) {
  }
}

// tremor-render's options as main sets them up, with the module's controls.
void CommandLine(FuzzedDataProvider& in) {
  static const std::unique_ptr<aehost::AeHost> host = render::LoadEffect();
  std::vector<std::string> args{"tremor-render"};
  while (in.remaining_bytes() > 0 && args.size() < 12) args.push_back(in.ConsumeRandomLengthString(24));
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  CLI::App app{"fuzz", "tremor-render"};
  render::Options o;
  std::vector<render::EffectInput> effect;
  render::AddEffectOptions(app, *host, effect);
  render::AddRunOptions(app, o);
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    o.effect = render::GivenEffectValues(effect);
    render::CheckDeviceSyntax(o.device);
  } catch (const CLI::Error&) {
  } catch (const std::exception&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  media::QuietLibraries();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0: PropertyList(in); break;
    case 1: MediaFile(in); break;
    default: CommandLine(in); break;
  }
  return 0;
}
