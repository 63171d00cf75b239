// tremor-render: renders a clip through the built effect module, loaded by the
// stand-in After Effects host; the effect's code is never linked in here.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "AeHost.h"
#include "MediaIO.h"
#include "RenderDevice.h"
#include "RenderProgress.h"
#include "TremorDistiller_Parameters.h"  // Disk IDs only: the effect's code is not linked

#ifndef TD_VERSION
#define TD_VERSION "unknown"
#endif

namespace fs = std::filesystem;

namespace {

constexpr char kModuleName[] = "TremorDistiller.so";

// The effect's controls on the command line, found by Disk ID. Ranges,
// defaults and choices are the module's own, read from what it registers.
struct EffectOption {
  const char* flag;
  ParamDiskId id;
  const char* help;
};
constexpr EffectOption kEffectOptions[] = {
    {"--frames", PARAM_FRAMES, "Frames in the stack"},
    {"--frames-offset", PARAM_FRAMES_OFFSET, "Frames between stacked frames; fractions allowed, negative looks ahead"},
    {"--frames-fade", PARAM_FRAMES_FADE, "Fade of older frames, percent"},
    {"--blending-mode", PARAM_BLENDING_MODE, "How each difference joins the accumulation"},
    {"--difference-algorithm", PARAM_DIFFERENCE_ALGORITHM, "How neighbouring frames are compared"},
    {"--output", PARAM_OUTPUT, "What is delivered"},
    {"--motion-amplification", PARAM_MOTION_AMPLIFICATION, "Push the accumulation along the motion"},
    {"--chromatic-aberration", PARAM_CHROMATIC_ABERRATION, "Split the accumulation by colour"},
    {"--normalize", PARAM_NORMALIZE, "Normalize the delivered picture"},
};
constexpr size_t kEffectOptionCount = std::size(kEffectOptions);

volatile std::sig_atomic_t gSignal = 0;
void OnSignal(int sig) { gSignal = sig; }

// Any failure that ends the run; the message is the one line the user sees.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Interrupted {};

void CheckInterrupt() {
  if (gSignal) throw Interrupted{};
}

struct Options {
  std::string input, output;
  // Effect controls the user gave, by their kEffectOptions row: host values
  // (popups count from 1). Controls not given keep the module's defaults.
  std::vector<std::pair<ParamDiskId, double>> effect;
  std::string device = "auto";
  bool listDevices = false, version = false, quiet = false;
  int64_t start = 0, end = -1;
  int jobs = 1;
};

// Where the module writes its log: its folder under the temporary directory,
// which the module finds the same way.
std::string LogPath() {
  std::error_code ec;
  const fs::path tmp = fs::temp_directory_path(ec);
  return ((ec ? fs::path("/tmp") : tmp) / "Harbour Lantern Lab" / "com.hll.tremordistiller.log").string();
}

// TD_MODULE_PATH, then beside the executable (build tree), then the install
// prefix's lib folder relative to the executable, then the configured prefix.
std::string FindModule() {
  if (const char* env = std::getenv("TD_MODULE_PATH"); env && *env) {
    if (!fs::exists(env)) throw Failure(std::string("TD_MODULE_PATH names no file: ") + env);
    return env;
  }
  std::vector<fs::path> candidates;
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    candidates.push_back(exe.parent_path() / kModuleName);
    candidates.push_back(exe.parent_path().parent_path() / "lib" / "tremor-distiller" / kModuleName);
  }
#ifdef TD_INSTALL_MODULE_DIR
  candidates.push_back(fs::path(TD_INSTALL_MODULE_DIR) / kModuleName);
#endif
  for (const auto& c : candidates)
    if (fs::exists(c, ec)) return c.string();
  throw Failure(std::string("cannot find the effect module ") + kModuleName + "; set TD_MODULE_PATH");
}

// Loads the module and runs its global and parameter set-up: the controls'
// ranges and defaults come from there.
std::unique_ptr<aehost::AeHost> LoadEffect() {
  auto host = std::make_unique<aehost::AeHost>(FindModule());
  if (const PF_Err err = host->SetUp(nullptr))
    throw Failure("the effect could not be set up (code " + std::to_string(err) + "); see the effect's log at " +
                  LogPath());
  return host;
}

// The output is staged under a hidden temporary name in its own folder, so a
// rename publishes it whole and a failure leaves nothing behind.
class Staging {
 public:
  Staging(const fs::path& output, bool sequence) : output_(output), sequence_(sequence) {
    const fs::path dir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
    const std::string pid = std::to_string(::getpid());
    if (sequence_) {
      temp_ = dir / (".tremor-render.tmp-" + pid);
      std::error_code ec;
      fs::create_directory(temp_, ec);
      if (ec) throw Failure("cannot create a folder in " + dir.string() + ": " + ec.message());
      target_ = temp_ / output.filename();
    } else {
      temp_ = dir / ("." + output.stem().string() + ".tmp-" + pid + output.extension().string());
      target_ = temp_;
    }
  }
  ~Staging() { Discard(); }
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;

  const fs::path& WriterTarget() const { return target_; }

  void Commit(const std::vector<std::string>& files) {
    std::error_code ec;
    if (sequence_) {
      for (const auto& f : files) {
        fs::rename(f, output_.parent_path() / fs::path(f).filename(), ec);
        if (ec) throw Failure("cannot rename " + f + ": " + ec.message());
      }
    } else {
      fs::rename(temp_, output_, ec);
      if (ec) throw Failure("cannot rename " + temp_.string() + " to " + output_.string() + ": " + ec.message());
    }
    Discard();
  }

  void Discard() {
    if (temp_.empty()) return;
    std::error_code ec;
    fs::remove_all(temp_, ec);
    temp_.clear();
  }

 private:
  fs::path output_, temp_, target_;
  bool sequence_;
};

// Input frames an output frame may check out, around its own index. The
// effect asks for time - i * step * offset (i < frames) in float, cut toward
// zero; one frame of margin each way absorbs that rounding.
struct Window {
  int64_t back = 0, ahead = 0;
};
Window NeededFrames(int frames, double offset) {
  const double reach = std::ceil(std::fabs(offset) * (frames - 1));
  Window w;
  if (offset > 0) w.back = static_cast<int64_t>(reach) + 1;
  if (offset < 0) w.ahead = static_cast<int64_t>(reach) + 1;
  if (offset != std::trunc(offset)) ++w.back;  // a fractional offset falls between frames
  return w;
}

void SetParam(aehost::AeHost& host, A_long diskId, double value) {
  const PF_ParamIndex index = host.FindParam(diskId);
  if (index < 0) throw Failure("the effect module has no control with Disk ID " + std::to_string(diskId));
  host.SetParamValue(index, value);
}

double SliderValue(aehost::AeHost& host, A_long diskId) {
  const PF_ParamIndex index = host.FindParam(diskId);
  if (index < 0) throw Failure("the effect module has no control with Disk ID " + std::to_string(diskId));
  return host.ParamValue(index).u.fs_d.value;
}

// A frame the effect asked for that lies inside the clip must have been in the
// host; otherwise the window above is too small and the output would silently
// differ from a whole render.
void CheckWindow(aehost::AeHost& host, const aehost::RenderResult& r, int64_t k, int64_t read, bool eof) {
  const auto& opts = host.Options();
  for (const auto& c : r.checkouts) {
    if (c.hasFrame || c.timeScale == 0) continue;
    const double t = static_cast<double>(c.whatTime) * opts.timeScale / c.timeScale;
    const auto index = static_cast<int64_t>(std::floor(t / opts.timeStep));
    if (index >= 0 && (index < read || !eof))
      throw Failure("internal error: input frame " + std::to_string(index) + " was not loaded for output frame " +
                    std::to_string(k));
  }
}

int Run(aehost::AeHost& host, const Options& o) {
  const fs::path output(o.output);
  const media::OutputKind kind = media::OutputKindFor(o.output);
  const bool sequence = kind == media::OutputKind::PngSequence || kind == media::OutputKind::ExrSequence;
  if (sequence && o.output.find('%') == std::string::npos)
    throw Failure("an image sequence output needs a frame number pattern, e.g. out.%04d" + output.extension().string());
  const fs::path outDir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  if (!fs::is_directory(outDir)) throw Failure("output folder " + outDir.string() + " does not exist");
  if (o.end >= 0 && o.end < o.start) throw Failure("--end must not be before --start");

  render::CheckDeviceSyntax(o.device);
  media::Reader reader(o.input);
  const media::InputInfo info = reader.Info();
  if (info.frameCount >= 0 && o.start >= info.frameCount)
    throw Failure("--start " + std::to_string(o.start) + " is past the clip's last frame (" +
                  std::to_string(info.frameCount - 1) + ")");

  // The module's global set-up ran before any device library was loaded, as
  // in the host tests; the other order crashed the module's logging on a GPU machine.
  const PF_Err err = host.SetupDevice(render::ResolveDevice(o.device));
  if (err)
    throw Failure("the effect could not be set up (code " + std::to_string(err) + "); see the effect's log at " +
                  LogPath());
  const std::string deviceName = host.GpuReady() ? host.DeviceName() : "the effect's software path";
  if (!host.GpuReady() && !o.quiet)
    std::fprintf(stderr, "tremor-render: the effect declined %s; rendering in software\n", host.DeviceName().c_str());

  for (const auto& [id, value] : o.effect) SetParam(host, id, value);

  // Last output frame wanted; INT64_MAX runs to the end of the clip.
  int64_t last = o.end >= 0 ? o.end : INT64_MAX;
  if (info.frameCount >= 0) last = std::min(last, info.frameCount - 1);
  const int64_t total = last == INT64_MAX ? -1 : last - o.start + 1;
  // Host times are 32-bit: frame k sits at k * timeStep.
  const int64_t maxFrame = INT_MAX / std::max<A_long>(1, host.Options().timeStep) - 1;

  // "Frames" counts whole frames, as the effect reads it.
  const Window window = NeededFrames(static_cast<int>(SliderValue(host, PARAM_FRAMES)),
                                     SliderValue(host, PARAM_FRAMES_OFFSET));
  Staging staging(output, sequence);
  auto writer = std::make_unique<media::Writer>(staging.WriterTarget().string(), kind, info,
                                                info.hasAudio ? o.input : std::string());
  render::Progress progress(total, o.quiet, ::isatty(STDERR_FILENO));

  int64_t read = 0, next = o.start;
  bool eof = false;
  int width = info.width, height = info.height;
  media::Picture picture;
  while (next <= last) {
    const int64_t batchLast = std::min(last, next + o.jobs - 1);
    while (!eof && read <= batchLast + window.ahead) {
      CheckInterrupt();
      if (read > maxFrame) throw Failure("the clip is too long for the host's time line");
      // Frames older than any output still to come never reach the host, so
      // they are only decoded (a chunk late in a clip passes many of them).
      const bool wanted = read >= next - window.back;
      if (!(wanted ? reader.Next(picture) : reader.Skip())) {
        CheckInterrupt();  // a signal may have cut a read short
        eof = true;
        break;
      }
      if (wanted) {
        if (width <= 0) width = picture.width, height = picture.height;
        if (picture.width != width || picture.height != height)
          throw Failure("frame " + std::to_string(read) + " is " + std::to_string(picture.width) + "x" +
                        std::to_string(picture.height) + ", unlike the clip's " + std::to_string(width) + "x" +
                        std::to_string(height));
        aehost::Image image;
        image.width = picture.width;
        image.height = picture.height;
        image.rgba = std::move(picture.rgba);
        host.AddFrame(host.FrameTime(static_cast<int>(read)), std::move(image));
      }
      ++read;
    }
    if (read <= next) break;  // the clip ended first
    const int64_t upTo = std::min(batchLast, read - 1);
    std::vector<A_long> times;
    for (int64_t k = next; k <= upTo; ++k) times.push_back(host.FrameTime(static_cast<int>(k)));
    std::vector<aehost::RenderResult> results;
    if (times.size() > 1)
      results = host.RenderMany(times, o.jobs);
    else
      results.push_back(host.Render(times[0]));
    for (size_t j = 0; j < results.size(); ++j) {
      const int64_t k = next + static_cast<int64_t>(j);
      auto& r = results[j];
      if (r.result != 0)
        throw Failure("render of frame " + std::to_string(k) + " failed with code " + std::to_string(r.result) +
                      "; see the effect's log at " + LogPath());
      if (!r.hasOutput || r.output.rgba.empty())
        throw Failure("render of frame " + std::to_string(k) + " gave no picture; see the effect's log at " +
                      LogPath());
      CheckWindow(host, r, k, read, eof);
      media::Picture out;
      out.width = r.output.width;
      out.height = r.output.height;
      out.rgba = std::move(r.output.rgba);
      writer->Write(out, k);
    }
    next = upTo + 1;
    host.RemoveFramesBefore(host.FrameTime(static_cast<int>(std::max<int64_t>(0, next - window.back))));
    progress.Update(next - o.start);
    CheckInterrupt();
  }
  const int64_t done = next - o.start;
  if (read == 0) throw Failure(o.input + " has no frames");
  if (done <= 0)
    throw Failure("--start " + std::to_string(o.start) + " is past the clip's last frame (" +
                  std::to_string(read - 1) + ")");

  writer->Finish();
  const std::vector<std::string> files = writer->Files();
  writer.reset();
  staging.Commit(files);
  progress.Finish();
  if (!o.quiet) {
    const double s = progress.Seconds();
    std::fprintf(stderr, "tremor-render: %lld frames in %.1f s (%.1f fps) on %s\n", static_cast<long long>(done), s,
                 s > 0 ? done / s : 0.0, deviceName.c_str());
  }
  return 0;
}

std::string FirstLine(std::string s) {
  const auto nl = s.find('\n');
  if (nl != std::string::npos) s.erase(nl);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\r')) s.pop_back();
  return s;
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

// CLI11's own range message prints doubles with six decimals.
CLI::Validator InRange(double lo, double hi) {
  const std::string range = Number(lo) + ".." + Number(hi);
  return CLI::Validator(
      [lo, hi, range](std::string& text) -> std::string {
        double v = 0;
        if (!CLI::detail::lexical_cast(text, v)) return "value " + text + " is not a number";
        if (!(v >= lo && v <= hi)) return "value " + text + " is outside " + range;
        return {};
      },
      range);
}

// A popup's choices as the command line spells them: "Add|Screen" gives add, screen.
std::vector<std::string> ChoiceWords(const char* names) {
  std::vector<std::string> words;
  std::string word;
  for (const char* c = names ? names : ""; ; ++c) {
    if (*c == '|' || *c == '\0') {
      words.push_back(CLI::detail::to_lower(word));
      word.clear();
      if (*c == '\0') break;
    } else {
      word += *c;
    }
  }
  return words;
}

// What the user typed for the effect's controls, by kEffectOptions row.
struct EffectInput {
  double number[kEffectOptionCount] = {};
  std::string choice[kEffectOptionCount];
  bool flag[kEffectOptionCount] = {};
  CLI::Option* option[kEffectOptionCount] = {};
  std::vector<std::string> words[kEffectOptionCount];
};

// One command-line option per control, typed, ranged and defaulted as the
// module registered it.
void AddEffectOptions(CLI::App& app, aehost::AeHost& host, EffectInput& in) {
  auto* group = app.add_option_group("Effect");
  for (size_t i = 0; i < kEffectOptionCount; ++i) {
    const EffectOption& row = kEffectOptions[i];
    const PF_ParamIndex index = host.FindParam(row.id);
    if (index < 0) throw Failure("the effect module has no control with Disk ID " + std::to_string(row.id));
    const PF_ParamDef def = host.Params()[index - 1].def;
    if (def.param_type == PF_Param_CHECKBOX) {
      in.option[i] = group->add_flag(row.flag, in.flag[i], row.help);
    } else if (def.param_type == PF_Param_POPUP) {
      in.words[i] = ChoiceWords(def.u.pd.u.namesptr);
      CLI::Option* opt = group->add_option(row.flag, in.choice[i], row.help);
      opt->check(CLI::IsMember(in.words[i], CLI::ignore_case));
      const int first = def.u.pd.dephault - 1;
      if (first >= 0 && first < static_cast<int>(in.words[i].size())) opt->default_str(in.words[i][first]);
      in.option[i] = opt;
    } else {
      CLI::Option* opt = group->add_option(row.flag, in.number[i], row.help);
      opt->check(InRange(def.u.fs_d.valid_min, def.u.fs_d.valid_max));
      opt->default_str(Number(def.u.fs_d.dephault));
      in.option[i] = opt;
    }
  }
}

// The controls the user gave, as host values; popups count from 1.
std::vector<std::pair<ParamDiskId, double>> GivenEffectValues(const EffectInput& in) {
  std::vector<std::pair<ParamDiskId, double>> values;
  for (size_t i = 0; i < kEffectOptionCount; ++i) {
    if (!in.option[i] || in.option[i]->count() == 0) continue;
    double value = in.number[i];
    if (!in.words[i].empty()) {
      const auto& w = in.words[i];
      value = static_cast<double>(std::find(w.begin(), w.end(), CLI::detail::to_lower(in.choice[i])) - w.begin()) + 1;
    } else if (in.option[i]->get_expected_max() == 0) {
      value = in.flag[i] ? 1.0 : 0.0;
    }
    values.emplace_back(kEffectOptions[i].id, value);
  }
  return values;
}

int Fail(const std::string& message, int code = 1) {
  std::fprintf(stderr, "tremor-render: %s\n", FirstLine(message).c_str());
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  media::QuietLibraries();
  Options o;
  // The module comes first: its controls give the effect options their
  // ranges and defaults, and its global set-up must precede any device library.
  CLI::App app{"Renders a clip through the Tremor Distiller effect.", "tremor-render"};
  std::unique_ptr<aehost::AeHost> host;
  std::string moduleError;
  EffectInput effect;
  try {
    host = LoadEffect();
    AddEffectOptions(app, *host, effect);
  } catch (const std::exception& e) {
    // --version and --list-devices work without the module; a render then
    // stops with this message, whatever else was on the command line.
    moduleError = e.what();
    app.allow_extras();
  }
  app.add_option("INPUT", o.input, "Video file, or an image sequence pattern such as shots/a.%04d.png");
  app.add_option("-o", o.output, "Output: .mp4, .mov, .mkv, or a pattern ending in .png or .exr")->type_name("OUTPUT");

  auto* run = app.add_option_group("Run");
  run->add_option("--device", o.device, "auto, opencl[:PLATFORM.DEVICE] or cuda[:N]")->capture_default_str();
  run->add_flag("--list-devices", o.listDevices, "List devices and exit");
  run->add_option("--start", o.start, "First output frame (0-based)")->check(CLI::NonNegativeNumber);
  run->add_option("--end", o.end, "Last output frame, inclusive")->check(CLI::NonNegativeNumber);
  run->add_option("--jobs", o.jobs, "Frames rendered at once")->check(CLI::Range(1, 64))->capture_default_str();
  run->add_flag("-q,--quiet", o.quiet, "No progress or summary");
  run->add_flag("--version", o.version, "Print the version and exit");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return Fail(std::string(e.what()) + " (see --help)", 2);
  }

  o.effect = GivenEffectValues(effect);
  if (o.version) {
    std::printf("tremor-render %s\n", TD_VERSION);
    return 0;
  }
  try {
    if (o.listDevices) {
      std::fputs(render::DeviceListing().c_str(), stdout);
      return 0;
    }
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
  if (o.input.empty() || o.output.empty()) return Fail("INPUT and -o OUTPUT are required (see --help)", 2);
  if (!host) return Fail(moduleError);

  // SA_RESETHAND: a second Ctrl-C ends the process at once.
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sa.sa_flags = SA_RESETHAND | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  try {
    return Run(*host, o);
  } catch (const Interrupted&) {
    // The bar, where one is drawn, gives way to the message; ^C stays on its own line.
    std::fputs(::isatty(STDERR_FILENO) && !o.quiet ? "\r\033[K" : "\n", stderr);
    std::fprintf(stderr, "tremor-render: interrupted; nothing written\n");
    return 128 + gSignal;
  } catch (const std::exception& e) {
    std::fputs(::isatty(STDERR_FILENO) && !o.quiet ? "\r\033[K" : "", stderr);
    return Fail(e.what());
  }
}
