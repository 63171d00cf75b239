// One render of tremor-render: a clip in, on the engine or through the loaded
// module, an output out, published whole or not at all.
#ifndef TREMOR_TOOLS_RENDERJOB_H
#define TREMOR_TOOLS_RENDERJOB_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "AeHost.h"
#include "MediaIO.h"
#include "OutputFormats.h"
#include "TremorDistiller_Parameters.h"  // the Disk IDs

namespace render {

// Any failure that ends the run; the message is the one line the user sees.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// A SIGINT, SIGTERM, SIGHUP or SIGQUIT stopped the render.
struct Interrupted {};

struct Options {
  std::string input, output;
  // Effect controls the user gave: host values (popups count from 1).
  // Controls not given keep the module's defaults.
  std::vector<std::pair<ParamDiskId, double>> effect;
  std::string device = "auto";
  bool listDevices = false, version = false, quiet = false;
  int64_t start = -1, end = -1;  // as typed; -1: not given (ResolveRange makes them 0-based frames)
  int jobs = 1;
  // "engine" (our own, the default), or a module path through a stand-in
  // host: "aftereffects", or "premiere" in "float" (128-bit) or "half" frames.
  std::string host = "engine", precision = "float";
  std::string outputArgument;  // an output given after INPUT, FFmpeg's way
  std::string inputOption;     // -i INPUT: then a lone positional is the output
  std::string format;          // -f: "null" renders and discards, else by the output's extension
  uint64_t memory = 0;         // bytes the render may take beyond kFixedOverhead; 0: the default
  std::string uiSnapshot;      // a PNG of the effect's custom UI after the render; "" for none
  // FFmpeg's habits. Existing outputs: replaced with -y, kept with -n, else the run stops.
  bool overwrite = false, keep = false;
  bool printReach = false;            // print what --start's stacks read before it, and stop
  std::string seek, duration, until;  // -ss, -t, -to: seconds or [HH:]MM:SS[.ms]
  media::EncoderChoice encoder;       // -c:v, -crf, -preset, -pix_fmt, -b:v, -an, -c:a
};

// `o` with its range as output frames (0-based) of `info`'s clip: a
// sequence's --start and --end are file numbers, -ss, -t and -to times.
// Throws Failure for a range outside the clip.
Options ResolveRange(const Options& o, const media::InputInfo& info);

// Where the module writes its log: its folder under the temporary directory,
// which the module finds the same way.
std::string LogPath();

// Loads the module and runs its global and parameter set-up: the controls'
// ranges and defaults come from there.
std::unique_ptr<aehost::AeHost> LoadEffect();

// From here on SIGINT, SIGTERM, SIGHUP and SIGQUIT stop the render at the next
// frame; a second one, or the render still running two seconds later (blocked
// on its input, say), ends the process at once. SIGPIPE is ignored: a reader
// of standard error going away does not end the render.
void CatchInterrupts();
int CaughtSignal();  // 0 while none came
// What a second signal removes before the process ends.
void RemoveOnSecondSignal(const std::filesystem::path& staged, bool add);
// While held, a signal that would end the process waits (files being put in
// place); RemoveOnSecondSignal must not be called meanwhile.
std::unique_lock<std::mutex> HoldSecondSignal();
// The output is in place: a signal from now on lets the run end as it is.
void MarkPublished(const std::unique_lock<std::mutex>& held);

// The checks of the output and snapshot names that need no input or device,
// in the order users meet them; throws Failure.
const media::OutputFormat& CheckCommand(const Options& o);

// Renders `o.input` to `o.output`; 0 when done. Throws Failure, MediaError,
// DeviceError or Interrupted, having removed what it wrote.
int Run(aehost::AeHost& host, const Options& o);

}  // namespace render

#endif
