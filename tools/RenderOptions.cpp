#include "RenderOptions.h"

#include <algorithm>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <limits>

#include "MemoryBudget.h"
#include "OutputFormats.h"

namespace render {
namespace {

// The effect's controls that have a command-line spelling, in table order.
// Ranges, defaults and choices are the module's own, read from what it registers.
std::vector<const ParamRecord*> EffectOptionRows() {
  std::vector<const ParamRecord*> rows;
  for (const ParamRecord& r : ParamTable())
    if (r.option) rows.push_back(&r);
  return rows;
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

// CLI11's own range message prints doubles with six decimals. Frames takes
// whole numbers only: the effect would cut 10.5 frames to 10.
CLI::Validator InRange(double lo, double hi, bool whole) {
  const std::string range = Number(lo) + ".." + Number(hi);
  return CLI::Validator(
      [lo, hi, range, whole](std::string& text) -> std::string {
        double v = 0;
        if (!CLI::detail::lexical_cast(text, v)) return "value " + text + " is not a number";
        if (!(v >= lo && v <= hi)) return "value " + text + " is outside " + range;
        if (whole && v != std::trunc(v)) return "value " + text + " is not a whole number";
        return {};
      },
      range);
}

// A popup's choices as the command line spells them: "Add|Screen" gives add, screen.
std::vector<std::string> ChoiceWords(const char* names) {
  std::vector<std::string> words;
  std::string word;
  for (const char* c = names ? names : "";; ++c) {
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

}  // namespace

void AddEffectOptions(CLI::App& app, aehost::AeHost& host, std::vector<EffectInput>& in) {
  const std::vector<const ParamRecord*> rows = EffectOptionRows();
  in.assign(rows.size(), EffectInput{});  // CLI11 keeps pointers into it from here on
  // Groups by name only: CLI11 2.1's option groups are nameless subcommands,
  // and an empty argument before an unknown option sent its parser into an
  // endless loop looking for one.
  for (size_t i = 0; i < rows.size(); ++i) {
    const ParamRecord& row = *rows[i];
    const PF_ParamIndex index = host.FindParam(row.diskId);
    if (index < 0) throw Failure("the effect module has no control with Disk ID " + std::to_string(row.diskId));
    const PF_ParamDef def = host.Params()[index - 1].def;
    EffectInput& e = in[i];
    if (def.param_type == PF_Param_CHECKBOX) {
      e.option = app.add_flag(row.option, e.flag, row.optionHelp);
    } else if (def.param_type == PF_Param_POPUP) {
      e.words = ChoiceWords(def.u.pd.u.namesptr);
      e.option = app.add_option(row.option, e.choice, row.optionHelp);
      e.option->check(CLI::IsMember(e.words, CLI::ignore_case));
      const int first = def.u.pd.dephault - 1;
      if (first >= 0 && first < static_cast<int>(e.words.size())) e.option->default_str(e.words[first]);
    } else {
      e.option = app.add_option(row.option, e.number, row.optionHelp);
      e.option->check(InRange(def.u.fs_d.valid_min, def.u.fs_d.valid_max, row.diskId == PARAM_FRAMES));
      e.option->default_str(Number(def.u.fs_d.dephault));
    }
    e.option->group("Effect");
  }
}

namespace {

// FFmpeg's names with more than one letter after a single dash (or a colon)
// are not options to CLI11: they are read as these.
constexpr std::pair<const char*, const char*> kFfmpegSpellings[] = {
    {"-ss", "--ss"},         {"-to", "--to"},   {"-c:v", "--vcodec"},    {"-codec:v", "--vcodec"},
    {"-vcodec", "--vcodec"}, {"-crf", "--crf"}, {"-preset", "--preset"}, {"-pix_fmt", "--pix_fmt"},
    {"-b:v", "--vb"},        {"-an", "--an"},   {"-c:a", "--acodec"},    {"-codec:a", "--acodec"},
    {"-acodec", "--acodec"},
};

void AddFfmpegOptions(CLI::App& app, Options& o) {
  const char* group = "Output (FFmpeg's options, as FFmpeg spells them)";
  auto add = [&](const char* name, std::string& value, const char* help, const char* type) {
    app.add_option(name, value, help)->type_name(type)->group(group);
  };
  app.add_option("-i", o.inputOption, "The input, as INPUT (then a name after it is the output)")
      ->type_name("INPUT")
      ->group(group);
  app.add_flag("-y", o.overwrite, "Replace output files that exist (without -y or -n, the run stops)")->group(group);
  app.add_flag("-n", o.keep, "Keep output files that exist, and stop")->group(group);
  add("--ss", o.seek, "-ss: start at this time of the input, in seconds or [HH:]MM:SS[.ms]", "TIME");
  add("-t", o.duration, "-t: render this long", "TIME");
  add("--to", o.until, "-to: stop before this time of the input", "TIME");
  add("--vcodec", o.encoder.codec, "-c:v: video encoder (default: the extension's)", "CODEC");
  add("--crf", o.encoder.crf, "-crf: the encoder's constant quality", "N");
  add("--preset", o.encoder.preset, "-preset: the encoder's speed preset", "NAME");
  add("--pix_fmt", o.encoder.pixelFormat, "-pix_fmt: the encoder's pixel format", "FORMAT");
  add("--vb", o.encoder.bitrate, "-b:v: video bit rate, e.g. 8M", "RATE");
  app.add_flag("--an", o.encoder.noAudio, "-an: no audio")->group(group);
  add("--acodec", o.encoder.audioCodec,
      "-c:a: audio encoder, or copy (the default where the container takes the input's audio; else its usual codec)",
      "CODEC");
}

}  // namespace

std::vector<std::string> ReadFfmpegSpellings(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--") break;
    for (const auto& [ffmpeg, ours] : kFfmpegSpellings)
      if (args[i] == ffmpeg) args[i] = ours;
  }
  return args;
}

void AddRunOptions(CLI::App& app, Options& o) {
  app.add_option("INPUT", o.input, "Video file, or an image sequence pattern such as shots/a.%04d.png");
  const std::string outputs = "Output, by extension: " + media::ExtensionList(false, ", ", true) +
                              ", or a pattern ending in " + media::ExtensionList(true, " or ", true);
  app.add_option("-o", o.output, outputs)->type_name("OUTPUT");
  // FFmpeg's spelling for timing a render without an encoder: -f null -
  app.add_option("OUTPUT", o.outputArgument, "The output, as after -o; '-' with -f null")->type_name("");
  std::vector<std::string> formats{"null"};
  for (const auto& f : media::kOutputFormats)
    if (!f.sequence) formats.emplace_back(f.extension + 1);
  app.add_option("-f", o.format,
                 "Output format: null renders and discards every frame; mkv, webm (or another extension) with "
                 "'-' writes to standard output")
      ->check(CLI::IsMember(formats))
      ->type_name("FORMAT");
  AddFfmpegOptions(app, o);

  app.add_option("--device", o.device,
                 "auto, opencl[:PLATFORM.DEVICE], cuda[:N], or reference (the CPU reference, on the engine)")
      ->capture_default_str()
      ->group("Run");
  app.add_flag("--list-devices", o.listDevices, "List devices and exit")->group("Run");
  // Frame numbers as a clip can have them; also keeps batch ends from overflowing.
  const CLI::Range frame(int64_t{0}, int64_t{std::numeric_limits<int32_t>::max()});
  app.add_option("--start", o.start, "First output frame: 0-based for a video, the file number for a sequence")
      ->check(frame)
      ->group("Run");
  app.add_option("--end", o.end, "Last output frame, inclusive, counted as --start")->check(frame)->group("Run");
  app.add_flag("--print-reach", o.printReach,
               "Print the frames --start's stacks read before it (a chunk's pre-roll) and stop; renders nothing")
      ->group("Run");
  app.add_option("--jobs", o.jobs, "Frames rendered at once")
      ->check(CLI::Range(1, 64))
      ->capture_default_str()
      ->group("Run");
  app.add_option("--host", o.host,
                 "Who renders: engine (ours), or the module through a host: aftereffects, or premiere (its GPU "
                 "filter; whole-frame offsets)")
      ->check(CLI::IsMember({"engine", "aftereffects", "premiere"}))
      ->capture_default_str()
      ->group("Run");
  app.add_option("--precision", o.precision, "Frames on the premiere host: float (128-bit) or half")
      ->check(CLI::IsMember({"float", "half"}))
      ->capture_default_str()
      ->group("Run");
  app.add_option("--memory", o.memory,
                 "Memory for the render beyond about 256 MiB the process takes anyway (on the engine: frames on "
                 "the host and the device, queues, the encoder; on the module paths: the frames the host holds), "
                 "e.g. 600M or 1.5G (default: what the work needs, at most 3/4 of what the process may take)")
      ->transform(CLI::Validator(
          [](std::string& text) -> std::string {
            const uint64_t bytes = ParseMemorySize(text);
            if (bytes == 0) return "'" + text + "' is not a size above 0 such as 600M or 1.5G";
            text = std::to_string(bytes);
            return {};
          },
          ""))
      ->type_name("SIZE")
      ->group("Run");
  app.add_option("--ui-snapshot", o.uiSnapshot,
                 "After the render, write the effect's controls as the user sees them (the picture and the GPU "
                 "line; the composition panel's notice below, if raised) to this .png")
      ->type_name("PATH")
      ->group("Run");
  app.add_flag("-q,--quiet", o.quiet, "No progress or summary")->group("Run");
  app.add_flag("--version", o.version, "Print the version and exit")->group("Run");
}

std::vector<std::pair<ParamDiskId, double>> GivenEffectValues(const std::vector<EffectInput>& in) {
  std::vector<std::pair<ParamDiskId, double>> values;
  for (size_t i = 0; i < in.size(); ++i) {
    const EffectInput& e = in[i];
    if (!e.option || e.option->count() == 0) continue;
    double value = e.number;
    if (!e.words.empty()) {
      value = static_cast<double>(std::find(e.words.begin(), e.words.end(), CLI::detail::to_lower(e.choice)) -
                                  e.words.begin()) +
              1;
    } else if (e.option->get_expected_max() == 0) {
      value = e.flag ? 1.0 : 0.0;
    }
    values.emplace_back(static_cast<ParamDiskId>(EffectOptionRows()[i]->diskId), value);
  }
  return values;
}

}  // namespace render
