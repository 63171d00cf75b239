#include "MemoryBudget.h"

#include <algorithm>
#include <cmath>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "Device.h"
#include "RenderJob.h"

namespace render {
namespace {

// What an encoder keeps per pixel of the picture, with the options of
// OutputFormats.h: peak memory of FFmpeg encoding testsrc2 at 640x360 and
// 1920x1080 less the same run to the null muxer, rounded up (x264 keeps its
// look-ahead, FFV1 its slice contexts).
struct EncoderCost {
  const char* codec;
  uint64_t bytesPerPixel;
};
constexpr EncoderCost kEncoderCosts[] = {
    {"libx264", 280}, {"ffv1", 180}, {"exr", 140}, {"prores_ks", 80}, {"png", 16},
};
constexpr uint64_t kUnknownEncoderBytesPerPixel = 280;

// The decoder's own pictures (its references and frame threads) per pixel.
constexpr uint64_t kDecoderBytesPerPixel = 24;

uint64_t EncoderBytesPerPixel(const char* codec) {
  if (!codec) return 0;
  for (const EncoderCost& c : kEncoderCosts)
    if (std::strcmp(c.codec, codec) == 0) return c.bytesPerPixel;
  return kUnknownEncoderBytesPerPixel;
}

uint64_t DepthBytes(FrameDepth depth) { return depth == FRAME_DEPTH_U8 ? 4 : depth == FRAME_DEPTH_U16 ? 8 : 16; }

// Everything but the frames held on the device; the clip's decoded frames
// in reach are kept (a frame let go on the device is fetched again from them).
uint64_t Surroundings(const EngineWork& w) {
  const uint64_t pixels = static_cast<uint64_t>(w.width) * static_cast<uint64_t>(w.height);
  const uint64_t out = pixels * 16;  // a float B, G, R, A frame
  const uint64_t source = pixels * DepthBytes(w.sourceDepth);
  const auto jobs = static_cast<uint64_t>(std::max(1, w.jobs));
  const uint64_t queued = std::max<uint64_t>(2, jobs);
  // Each render: its output buffer and scratch on the device (two where the
  // stack takes several launches, four pass by pass), a float copy of a
  // frame on its way there, and its picture for the writer.
  const uint64_t scratch = w.fused ? 2 : 4;
  const uint64_t floatCopy = w.fused || w.sourceDepth == FRAME_DEPTH_PASS ? 0 : 1;
  const uint64_t renders = jobs * (1 + scratch + floatCopy + 1) * out;
  // The writer's queue, the frame it encodes and its conversion, and the encoder.
  const uint64_t writer = (queued + 2) * out + EncoderBytesPerPixel(w.codec) * pixels;
  // The clip: converted frames waiting and their spare memory, and decoded
  // frames from the oldest in reach to a few ahead.
  const uint64_t clip = (2 * queued + 3) * source + (static_cast<uint64_t>(w.reach) + queued + 2) * w.decodedBytes +
                        kDecoderBytesPerPixel * pixels;
  return renders + writer + clip;
}

}  // namespace

std::string SizeText(uint64_t bytes) {
  char text[32];
  if (bytes >= (uint64_t{1} << 30))
    std::snprintf(text, sizeof text, "%.1f GiB", bytes / double(uint64_t{1} << 30));
  else if (bytes >= (uint64_t{1} << 20))
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / double(1 << 20));
  else
    std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
  return text;
}

uint64_t ParseMemorySize(const std::string& text) {
  const char* begin = text.c_str();
  if (text.empty() || !(std::isdigit(static_cast<unsigned char>(*begin)) || *begin == '.')) return 0;
  char* end = nullptr;
  const double number = std::strtod(begin, &end);
  std::string unit(end);
  if (!unit.empty() && (unit.back() == 'B' || unit.back() == 'b')) unit.pop_back();
  if (unit.size() == 2 && (unit[1] == 'i' || unit[1] == 'I')) unit.pop_back();  // KiB, MiB, GiB, TiB
  static const std::string units = "KMGT";
  double scale = 1;
  if (unit.size() == 1) {
    const auto at = units.find(static_cast<char>(std::toupper(static_cast<unsigned char>(unit[0]))));
    if (at == std::string::npos) return 0;
    scale = std::ldexp(1.0, 10 * static_cast<int>(at + 1));
  } else if (!unit.empty()) {
    return 0;
  }
  const double bytes = number * scale;
  if (!std::isfinite(bytes) || bytes < 1 || bytes >= 18e18) return 0;
  return static_cast<uint64_t>(bytes);
}

uint64_t DefaultBudgetLimit() { return AvailableHostMemory() / 4 * 3; }

MemoryPlan PlanEngineMemory(const EngineWork& w, uint64_t memory) {
  const uint64_t pixels = static_cast<uint64_t>(w.width) * static_cast<uint64_t>(w.height);
  const uint64_t held = pixels * (w.fused ? DepthBytes(w.sourceDepth) : 16);
  const uint64_t around = Surroundings(w);
  MemoryPlan plan;
  plan.needed = around + static_cast<uint64_t>(std::max<int64_t>(1, w.stackFrames)) * held;
  plan.everything = around + static_cast<uint64_t>(std::max(w.reach, w.stackFrames)) * held;
  // By default no more than the work can use, nor than the process may
  // take: three quarters of it, or all of it where one stack needs more.
  plan.budget = memory ? memory : std::min(plan.everything, DefaultBudgetLimit());
  if (!memory && plan.budget < plan.needed) plan.budget = std::min(plan.needed, AvailableHostMemory());
  if (plan.budget < plan.needed)
    throw Failure("a stack of " + std::to_string(w.stackFrames) + " frames of " + std::to_string(w.width) + "x" +
                  std::to_string(w.height) + " needs a memory budget of " + SizeText(plan.needed) + " (" +
                  SizeText(held) + " a frame on the device, " + SizeText(around) +
                  " for the clip's decoded frames, the output frames and the encoder); it is " + SizeText(plan.budget) +
                  " (--memory)");
  plan.heldBytes = std::min(plan.budget, plan.everything) - around;
  return plan;
}

}  // namespace render
