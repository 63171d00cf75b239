// tremor-render's command line: the effect's controls as the loaded module
// registered them, the input and output, and how to run.
#ifndef TREMOR_TOOLS_RENDEROPTIONS_H
#define TREMOR_TOOLS_RENDEROPTIONS_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "AeHost.h"
#include "RenderJob.h"

namespace render {

// What the user typed for one effect control.
struct EffectInput {
  double number = 0;
  std::string choice;
  bool flag = false;
  CLI::Option* option = nullptr;
  std::vector<std::string> words;  // a popup's choices, as typed
};

// One option per effect control, typed, ranged and defaulted as the module
// registered it. `in` receives the values; it must outlive the parse.
void AddEffectOptions(CLI::App& app, aehost::AeHost& host, std::vector<EffectInput>& in);

// INPUT, -o and the run options, into `o`.
void AddRunOptions(CLI::App& app, Options& o);

// The command line with FFmpeg's multi-letter single-dash options (-ss, -c:v,
// -pix_fmt, ...) in the spelling AddRunOptions registers.
std::vector<std::string> ReadFfmpegSpellings(int argc, char** argv);

// The controls the user gave, as host values; popups count from 1.
std::vector<std::pair<ParamDiskId, double>> GivenEffectValues(const std::vector<EffectInput>& in);

}  // namespace render

#endif
