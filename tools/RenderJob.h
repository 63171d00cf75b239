// One render of tremor-render: a clip in, on the engine or through the loaded
// module, an output out, published whole or not at all.
#ifndef TREMOR_TOOLS_RENDERJOB_H
#define TREMOR_TOOLS_RENDERJOB_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "AeHost.h"
#include "TremorDistiller_Parameters.h"  // the Disk IDs

namespace render {

// Any failure that ends the run; the message is the one line the user sees.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// A SIGINT or SIGTERM stopped the render.
struct Interrupted {};

struct Options {
  std::string input, output;
  // Effect controls the user gave: host values (popups count from 1).
  // Controls not given keep the module's defaults.
  std::vector<std::pair<ParamDiskId, double>> effect;
  std::string device = "auto";
  bool listDevices = false, version = false, quiet = false;
  int64_t start = 0, end = -1;
  int jobs = 1;
  // "engine" (our own, the default), or a module path through a stand-in
  // host: "aftereffects", or "premiere" in "float" (128-bit) or "half" frames.
  std::string host = "engine", precision = "float";
  std::string outputArgument;  // an output given after INPUT, FFmpeg's way
  std::string format;  // -f: "null" renders and discards, else by the output's extension
  uint64_t memory = 0;  // bytes the render may take beyond kFixedOverhead; 0: the default
  std::string uiSnapshot;  // a PNG of the effect's custom UI after the render; "" for none
};

// Where the module writes its log: its folder under the temporary directory,
// which the module finds the same way.
std::string LogPath();

// Loads the module and runs its global and parameter set-up: the controls'
// ranges and defaults come from there.
std::unique_ptr<aehost::AeHost> LoadEffect();

// From here on SIGINT and SIGTERM stop the render at the next frame; a second
// one ends the process at once.
void CatchInterrupts();
int CaughtSignal();  // 0 while none came
// What a second signal removes before the process ends.
void RemoveOnSecondSignal(const std::filesystem::path& staged, bool add);

// Renders `o.input` to `o.output`; 0 when done. Throws Failure, MediaError,
// DeviceError or Interrupted, having removed what it wrote.
int Run(aehost::AeHost& host, const Options& o);

}  // namespace render

#endif
