// tremor-render: renders a clip on the engine, or through the built effect
// module loaded by a stand-in host (--host). The module is loaded either way:
// its registered controls give the options their ranges and defaults.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "AeHost.h"
#include "LogsController.h"
#include "MediaCommon.h"
#include "MediaIO.h"
#include "RenderDevice.h"
#include "RenderJob.h"
#include "RenderOptions.h"

#ifndef TD_VERSION
#define TD_VERSION "unknown"
#endif

namespace {

std::string FirstLine(std::string s) {
  const auto nl = s.find('\n');
  if (nl != std::string::npos) s.erase(nl);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\r')) s.pop_back();
  return s;
}

int Fail(const std::string& message, int code = 1) {
  std::fprintf(stderr, "tremor-render: %s\n", FirstLine(message).c_str());
  return code;
}

// The output as given after -o or after INPUT, FFmpeg's way; "" when it is
// usable, else why not.
std::string SettleOutput(render::Options& o) {
  if (o.printReach && o.output.empty() && o.outputArgument.empty() && o.inputOption.empty()) o.format = "null";
  if (!o.inputOption.empty()) {
    if (!o.outputArgument.empty()) return "two inputs given: -i " + o.inputOption + " and " + o.input;
    o.outputArgument = o.input;
    o.input = o.inputOption;
  }
  if (!o.outputArgument.empty()) {
    if (!o.output.empty() && o.output != o.outputArgument)
      return "two outputs given: -o " + o.output + " and " + o.outputArgument;
    o.output = o.outputArgument;
  }
  if (o.format == "null") {
    if (o.output.empty()) o.output = "-";
    if (o.output != "-") return "-f null writes nothing: give '-' as its output";
    if (o.host != "engine") return "-f null renders on the engine only";
  }
  if (!o.format.empty() && o.format != "null") {
    if (o.output != "-") return "-f " + o.format + " is for '-' (standard output): a file's extension names its format";
    if (o.host != "engine") return "standard output is written on the engine only";
  }
  if (o.input.empty() || o.output.empty()) return "INPUT and -o OUTPUT are required (see --help)";
  if (o.input == "-") o.input = "pipe:0";  // FFmpeg's spelling of standard input
  // No host hands the module the CPU reference.
  if (o.device.rfind("reference", 0) == 0 && o.host != "engine") return "--device reference renders on the engine only";
  return "";
}

// What the run writes (the output, its sequence's files, the UI snapshot) is
// published by renaming over what is there: never over the input, over a
// folder, or over one another. "" when all is well, else why not.
std::string CheckWrittenFiles(render::Options& o) {
  try {
    if (o.format.empty()) o.output = media::LocalOutputName(o.output);
    if (!o.uiSnapshot.empty()) o.uiSnapshot = media::LocalOutputName(o.uiSnapshot);
  } catch (const std::exception& e) {
    return e.what();
  }
  namespace fs = std::filesystem;
  const std::vector<std::pair<std::string, std::string>> written = {{o.format.empty() ? o.output : "", "output"},
                                                                    {o.uiSnapshot, "--ui-snapshot"}};
  for (const auto& [path, what] : written) {
    if (path.empty()) continue;
    const std::string shared = media::FileSharedByInputAndOutput(o.input, path);
    if (!shared.empty())
      return what + " '" + path + "' " +
             (shared == path ? "is the input" : "would overwrite the input file '" + shared + "'");
    std::error_code ec;
    if (!media::IsPattern(path) && fs::is_directory(path, ec)) return what + " '" + path + "' is a folder";
  }
  if (o.uiSnapshot.empty() || !o.format.empty()) return "";
  std::error_code ec;
  if (media::IsPattern(o.output) ? media::IsFrameOf(o.output, o.uiSnapshot)
                                 : fs::weakly_canonical(o.output, ec) == fs::weakly_canonical(o.uiSnapshot, ec))
    return "--ui-snapshot '" + o.uiSnapshot + "' is one of the output's files";
  return "";
}

// Where the effect's log cannot be written, the module says so on std::cerr
// at every record; tremor-render says it once (after parsing, unless -q) and
// keeps the rest off the terminal. "" when the log can be written.
std::string QuietenUnwritableLog() {
  namespace fs = std::filesystem;
  const fs::path log = render::LogPath();
  std::error_code ec;
  if (log.is_absolute()) fs::create_directories(log.parent_path(), ec);
  if (log.is_absolute() && std::ofstream(log, std::ios::app).is_open()) return "";
  static std::streambuf* const nowhere = [] {
    static std::ofstream closed;  // never opened: it takes nothing
    return closed.rdbuf();
  }();
  std::cerr.rdbuf(nowhere);
  if (!log.is_absolute()) return "the effect's log cannot be written: no usable temporary folder (TMPDIR)";
  return "the effect's log cannot be written at " + log.string() + "; rendering without it";
}

// The options against one another and the files the run writes, before
// anything is opened; "" when all is well, else the one line for exit 2.
std::string CheckCommandLine(render::Options& o) {
  if (const std::string why = SettleOutput(o); !why.empty()) return why;
  if (o.end >= 0 && o.end < o.start) return "--end must not be before --start";
  if (o.overwrite && o.keep) return "-y and -n say opposite things: give one";
  if ((o.start >= 0 || o.end >= 0) && !(o.seek.empty() && o.duration.empty() && o.until.empty()))
    return "give the range in frames (--start, --end) or in time (-ss, -t, -to), not both";
  if (!o.duration.empty() && !o.until.empty()) return "-t and -to both end the render: give one";
  // After Effects hands the effect 128-bit frames only.
  if (o.precision != "float" && o.host != "premiere") return "--precision half needs --host premiere";
  try {
    render::CheckDeviceSyntax(o.device);
    if (const std::string why = CheckWrittenFiles(o); !why.empty()) return why;
    if (o.format != "null") render::CheckCommand(o);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  media::QuietLibraries();
  render::Options o;
  // The module comes first: its controls give the effect options their
  // ranges and defaults, and its global set-up must precede any device library.
  CLI::App app{"Renders a clip through the Tremor Distiller effect.", "tremor-render"};
  std::unique_ptr<aehost::AeHost> host;
  std::string moduleError;
  std::vector<render::EffectInput> effect;
  // The engine logs where the module does; the module's set-up, which comes
  // next, starts the file afresh.
  const std::string logNotice = QuietenUnwritableLog();
  LoggerInit(kLogFileStem, kLogFolderName);
  try {
    host = render::LoadEffect();
    render::AddEffectOptions(app, *host, effect);
  } catch (const std::exception& e) {
    // --version and --list-devices work without the module; a render then
    // stops with this message, whatever else was on the command line.
    moduleError = e.what();
    app.allow_extras();
  }
  render::AddRunOptions(app, o);
  try {
    std::vector<std::string> args = render::ReadFfmpegSpellings(argc, argv);
    std::vector<char*> spelled;
    for (std::string& a : args) spelled.push_back(a.data());
    app.parse(static_cast<int>(spelled.size()), spelled.data());
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return Fail(std::string(e.what()) + " (see --help)", 2);
  }

  o.effect = render::GivenEffectValues(effect);
  if (!logNotice.empty() && !o.quiet && !o.version) std::fprintf(stderr, "tremor-render: %s\n", logNotice.c_str());
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
  if (const std::string why = CheckCommandLine(o); !why.empty()) return Fail(why, 2);
  if (!host) return Fail(moduleError);

  render::CatchInterrupts();
  try {
    return render::Run(*host, o);
  } catch (const render::Interrupted&) {
    // The bar, where one is drawn, gives way to the message; ^C stays on its own line.
    std::fputs(::isatty(STDERR_FILENO) && !o.quiet ? "\r\033[K" : "\n", stderr);
    std::fprintf(stderr, "tremor-render: interrupted; nothing written\n");
    return 128 + render::CaughtSignal();
  } catch (const std::exception& e) {
    std::fputs(::isatty(STDERR_FILENO) && !o.quiet ? "\r\033[K" : "", stderr);
    return Fail(e.what());
  }
}
