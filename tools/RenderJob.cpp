#include "RenderJob.h"

#include <unistd.h>

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <mutex>
#include <thread>
#include <vector>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavutil/parseutils.h>
}

#include "Engine.h"
#include "MediaCommon.h"
#include "FramePipeline.h"
#include "MediaIO.h"
#include "MemoryBudget.h"
#include "OutputStaging.h"
#include "PrHost.h"
#include "RenderDevice.h"
#include "RenderProgress.h"
#include "SequentialClip.h"
#include "TremorDistiller_Controls.h"
#include "TremorDistiller_Schedule.h"
#include "UISnapshot.h"
#include "Windows.h"  // the platform layer's temporary folder, as the module sees it

namespace fs = std::filesystem;

namespace render {
namespace {

constexpr char kModuleName[] = "TremorDistiller.so";

// Records a user's render keeps of the stand-in hosts' calls: enough for a
// frame's worth when something goes wrong, never a feature film's.
constexpr size_t kRecordLimit = 4096;

std::atomic<int> gSignal{0};
std::mutex gStagedMutex;
std::vector<fs::path> gStaged;  // what a second signal removes before leaving
bool gPublished = false;        // under gStagedMutex: the output is in place, let the run end

void CheckInterrupt() {
  if (gSignal) throw Interrupted{};
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

Failure SetUpFailure(PF_Err err) {
  return Failure("the effect could not be set up (code " + std::to_string(err) + "); see the effect's log at " +
                 LogPath());
}

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

PF_ParamIndex ParamIndex(aehost::AeHost& host, A_long diskId) {
  const PF_ParamIndex index = host.FindParam(diskId);
  if (index < 0) throw Failure("the effect module has no control with Disk ID " + std::to_string(diskId));
  return index;
}

double SliderValue(aehost::AeHost& host, A_long diskId) {
  return host.ParamValue(ParamIndex(host, diskId)).u.fs_d.value;
}

// The input as the render loop consumes it: frames handed to the host so
// far, and the frame size every frame must keep.
struct Feed {
  explicit Feed(FrameSource& s) : source(s) {}
  FrameSource& source;
  int64_t read = 0;
  bool eof = false;
  int width = 0, height = 0;
  std::map<int64_t, int64_t> pts;  // of the frames handed over and not yet written, by index
  // Where the frames in reach do not all fit the memory budget as the host
  // holds them (float, and a device copy), they wait decoded and the host
  // gets only those the stacks under way check out.
  media::Reader* reader = nullptr;  // set when frames wait decoded
  std::map<int64_t, media::DecodedFrame> decoded;
  std::set<int64_t> inHost;
};

// A finished output frame, whichever host rendered it.
struct Rendered {
  int32_t result = 0;
  bool hasOutput = false;
  aehost::Image output;
};

// Where input frames go and output frames come from: the After Effects host
// by times, or the Premiere host's GPU filter by frame numbers. The effect's
// controls live in `params` either way.
struct ClipHost {
  aehost::AeHost* params = nullptr;
  aehost::AeHost* ae = nullptr;  // null on Premiere
  std::unique_ptr<prhost::PrHost> premiere;
  PrPixelFormat format = PrPixelFormat_GPU_BGRA_4444_32f;

  // Frame numbers the host's time line can hold.
  int64_t MaxFrame() const {
    if (premiere) return INT64_MAX / premiere->Options().ticksPerFrame - 1;
    return INT_MAX / std::max<A_long>(1, ae->Options().timeStep) - 1;
  }
  void Add(int64_t k, aehost::Image image) {
    if (premiere)
      premiere->AddFrame(k, std::move(image));
    else
      ae->AddFrame(ae->FrameTime(static_cast<int>(k)), std::move(image));
  }
  void Remove(int64_t k) {
    if (premiere)
      premiere->RemoveFrame(k);
    else
      ae->RemoveFrame(ae->FrameTime(static_cast<int>(k)));
  }
  void RemoveBefore(int64_t k) {
    if (premiere)
      premiere->RemoveFramesBefore(k);
    else
      ae->RemoveFramesBefore(ae->FrameTime(static_cast<int>(k)));
  }
};

// Input frame `index` as the host takes it; its time kept for its output frame.
aehost::Image HostImage(Feed& feed, int64_t index, media::Picture& picture) {
  if (feed.width <= 0) feed.width = picture.width, feed.height = picture.height;
  if (picture.width != feed.width || picture.height != feed.height)
    throw Failure("frame " + std::to_string(index) + " is " + std::to_string(picture.width) + "x" +
                  std::to_string(picture.height) + ", unlike the clip's " + std::to_string(feed.width) + "x" +
                  std::to_string(feed.height));
  feed.pts.emplace(index, picture.pts);
  aehost::Image image;
  image.width = picture.width;
  image.height = picture.height;
  image.rgba = std::move(picture.rgba);
  return image;
}

// Hands input frames up to `until` to the host. The source skips the frames
// before the first output's window, which it only decodes (a chunk late in a
// clip passes many of them).
void FeedFrames(ClipHost& host, Feed& feed, int64_t until) {
  const int64_t maxFrame = host.MaxFrame();
  while (!feed.eof && feed.read <= until) {
    CheckInterrupt();
    InputFrame frame = feed.source.Next();
    if (frame.error) std::rethrow_exception(frame.error);
    feed.read = frame.index;
    if (frame.end) {
      CheckInterrupt();  // a signal may have cut a read short
      feed.eof = true;
      return;
    }
    if (feed.read > maxFrame) throw Failure("the clip is too long for the host's time line");
    if (feed.reader)
      feed.decoded[feed.read] = std::move(frame.decoded);
    else
      host.Add(feed.read, HostImage(feed, feed.read, frame.picture));
    ++feed.read;
  }
}

// The input frames output frame k's stack checks out: the times worked out
// as the effect does (in float), each mapped to the frame that covers it. On
// Premiere whole steps, and the host holds the clip's first and last frames
// for times outside it.
void AddStackFrames(const ClipHost& host, int64_t k, int frames, double offset, const Feed& feed,
                    std::set<int64_t>& out) {
  if (host.premiere) {
    for (int i = 0; i < frames; ++i) {
      int64_t index = std::max<int64_t>(0, k - i * static_cast<int64_t>(offset));
      if (feed.eof) index = std::min(index, feed.read - 1);
      out.insert(index);
    }
    return;
  }
  const A_long step = host.ae->Options().timeStep;
  const float off = static_cast<float>(offset);
  for (int i = 0; i < frames; ++i) {
    const float back = static_cast<float>(step * i) * off;
    const auto t = static_cast<A_long>(static_cast<float>(static_cast<A_long>(k) * step) - back);
    const int64_t index = t >= 0 ? t / step : -((static_cast<int64_t>(step) - 1 - t) / step);
    if (index >= 0) out.insert(index);
  }
}

// Gives the host the frames outputs first..last check out, converted from
// their decoded form. Of the others it holds it keeps what `capacity` frames
// allow, the newest: the oldest leave the stacks' reach first.
void HandStackFrames(ClipHost& host, Feed& feed, int64_t first, int64_t last, int frames, double offset,
                     uint64_t capacity) {
  std::set<int64_t> needed;
  for (int64_t k = first; k <= last; ++k) AddStackFrames(host, k, frames, offset, feed, needed);
  uint64_t held = feed.inHost.size();
  for (const int64_t index : needed) held += feed.inHost.count(index) ? 0 : 1;
  for (auto it = feed.inHost.begin(); it != feed.inHost.end() && held > capacity;) {
    if (needed.count(*it)) {
      ++it;
      continue;
    }
    host.Remove(*it);
    it = feed.inHost.erase(it);
    --held;
  }
  for (const int64_t index : needed) {
    const auto d = feed.decoded.find(index);
    if (feed.inHost.count(index) || d == feed.decoded.end()) continue;
    CheckInterrupt();
    media::Picture picture;
    feed.reader->Convert(d->second, picture);
    host.Add(index, HostImage(feed, index, picture));
    feed.inHost.insert(index);
  }
}

std::string Size(uint64_t bytes) {
  char text[32];
  if (bytes >= (uint64_t{1} << 30))
    std::snprintf(text, sizeof text, "%.1f GiB", bytes / double(uint64_t{1} << 30));
  else
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / double(1 << 20));
  return text;
}

// A frame the effect asked for that lies inside the clip must have been in the
// host; otherwise the window is too small and the output would silently
// differ from a whole render.
[[noreturn]] void NotLoaded(int64_t index, int64_t k) {
  throw Failure("internal error: input frame " + std::to_string(index) + " was not loaded for output frame " +
                std::to_string(k));
}

void CheckWindow(aehost::AeHost& host, const aehost::RenderResult& r, int64_t k, const Feed& feed) {
  const auto& opts = host.Options();
  for (const auto& c : r.checkouts) {
    if (c.hasFrame || c.timeScale == 0) continue;
    const double t = static_cast<double>(c.whatTime) * opts.timeScale / c.timeScale;
    const auto index = static_cast<int64_t>(std::floor(t / opts.timeStep));
    if (index >= 0 && (index < feed.read || !feed.eof)) NotLoaded(index, k);
  }
}

// The Premiere host gives the nearest frame it holds: each must be the one
// the request named, or the clip's end that the request lies beyond.
void CheckWindow(prhost::PrHost& host, const prhost::PrRenderResult& r, int64_t k, const Feed& feed) {
  const PrTime p = host.Options().ticksPerFrame;
  for (size_t q = 0; q < r.requested.size() && q + 1 < r.delivered.size(); ++q) {
    const PrTime t = r.requested[q];
    int64_t index = std::max<int64_t>(0, t >= 0 ? t / p : -((-t + p - 1) / p));
    if (feed.eof) index = std::min(index, feed.read - 1);
    if (r.delivered[q + 1] != index) NotLoaded(index, k);
  }
}

std::vector<Rendered> RenderBatch(ClipHost& host, int64_t first, int64_t last, int jobs, const Feed& feed) {
  std::vector<Rendered> out;
  if (host.premiere) {
    std::vector<prhost::PrRenderRequest> requests;
    for (int64_t k = first; k <= last; ++k) requests.push_back({k, host.format, 0, 0, 1});
    auto results = host.premiere->RenderMany(requests, jobs);
    for (size_t j = 0; j < results.size(); ++j) {
      if (results[j].result == 0) CheckWindow(*host.premiere, results[j], first + static_cast<int64_t>(j), feed);
      out.push_back({results[j].result, results[j].hasOutput, std::move(results[j].output)});
    }
    return out;
  }
  std::vector<A_long> times;
  for (int64_t k = first; k <= last; ++k) times.push_back(host.ae->FrameTime(static_cast<int>(k)));
  std::vector<aehost::RenderResult> results;
  if (times.size() > 1)
    results = host.ae->RenderMany(times, jobs);
  else
    results.push_back(host.ae->Render(times[0]));
  for (size_t j = 0; j < results.size(); ++j) {
    if (results[j].result == 0) CheckWindow(*host.ae, results[j], first + static_cast<int64_t>(j), feed);
    out.push_back({results[j].result, results[j].hasOutput, std::move(results[j].output)});
  }
  return out;
}

// Renders output frames first..last, `jobs` at once, and queues them for writing.
void RenderFrames(ClipHost& host, int64_t first, int64_t last, int jobs, Feed& feed, FrameSink& sink) {
  std::vector<Rendered> results = RenderBatch(host, first, last, jobs, feed);
  for (size_t j = 0; j < results.size(); ++j) {
    const int64_t k = first + static_cast<int64_t>(j);
    auto& r = results[j];
    if (r.result != 0)
      throw Failure("render of frame " + std::to_string(k) + " failed with code " + std::to_string(r.result) +
                    "; see the effect's log at " + LogPath());
    if (!r.hasOutput || r.output.rgba.empty())
      throw Failure("render of frame " + std::to_string(k) + " gave no picture; see the effect's log at " + LogPath());
    media::Picture out;
    out.width = r.output.width;
    out.height = r.output.height;
    out.rgba = std::move(r.output.rgba);
    // An output frame takes its input frame's time.
    const auto at = feed.pts.find(k);
    if (at != feed.pts.end()) out.pts = at->second;
    feed.pts.erase(feed.pts.begin(), feed.pts.upper_bound(k));
    sink.Write(std::move(out), k);
  }
}

}  // namespace

const media::OutputFormat& CheckCommand(const Options& o) {
  const bool toStdout = o.output == "-";
  const media::OutputFormat& format = media::OutputFormatFor(toStdout ? "standard-output." + o.format : o.output);
  if (toStdout) return format;
  if (format.sequence) {
    // FFmpeg writes at most 19 digits of a frame number.
    std::smatch width;
    if (std::regex_search(o.output, width, std::regex("%0?([0-9]+)d")) && std::stoi(width[1].str().substr(0, 4)) > 18)
      throw Failure("output pattern '" + o.output + "' asks for " + width[1].str() + " digits; at most 18 fit");
  }
  const fs::path output(o.output);
  const fs::path outDir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  if (!fs::is_directory(outDir)) throw Failure("output folder " + outDir.string() + " does not exist");
  if (!o.uiSnapshot.empty()) {
    const fs::path snapshot(o.uiSnapshot);
    std::string ext = snapshot.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    if (ext != ".png") throw Failure("--ui-snapshot " + o.uiSnapshot + " must name a .png file");
    const fs::path dir = snapshot.parent_path().empty() ? fs::path(".") : snapshot.parent_path();
    if (!fs::is_directory(dir)) throw Failure("--ui-snapshot folder " + dir.string() + " does not exist");
  }
  return format;
}

namespace {

// Microseconds in `text`: seconds or [HH:]MM:SS[.ms]; 0 for none.
int64_t Micros(const std::string& text, const char* flag) {
  int64_t us = 0;
  if (!text.empty() && (av_parse_time(&us, text.c_str(), 1) < 0 || us < 0))
    throw Failure(std::string(flag) + " " + text + " is not a time (seconds, or [HH:]MM:SS[.ms])");
  return us;
}

// The first frame at or after `us`, at the clip's frame rate.
int64_t FrameAt(int64_t us, const media::InputInfo& info) {
  const double fps = static_cast<double>(info.frameRate.num) / info.frameRate.den;
  return static_cast<int64_t>(std::ceil(us / 1e6 * fps - 1e-6));
}

}  // namespace

Options ResolveRange(const Options& given, const media::InputInfo& info) {
  Options o = given;
  const int64_t first = info.isSequence ? info.firstNumber : 0;
  const std::string unit = info.isSequence ? "file" : "frame";
  if (o.start >= 0 && o.start < first)
    throw Failure("--start " + std::to_string(o.start) + " is before the sequence's first file (" +
                  std::to_string(first) + ")");
  o.start = o.start >= 0 ? o.start - first : 0;
  if (o.end >= 0) o.end = std::max<int64_t>(o.end - first, -2);  // -2: before the clip, nothing to render
  const int64_t seek = Micros(given.seek, "-ss");
  if (!given.seek.empty()) o.start = FrameAt(seek, info);
  if (!given.duration.empty()) o.end = FrameAt(seek + Micros(given.duration, "-t"), info) - 1;
  if (!given.until.empty()) o.end = FrameAt(Micros(given.until, "-to"), info) - 1;
  if (info.frameCount >= 0 && o.start >= info.frameCount)
    throw Failure((given.seek.empty() ? "--start " + std::to_string(o.start + first) : "-ss " + given.seek) +
                  " is past the clip's last " + unit + " (" + std::to_string(info.frameCount - 1 + first) + ")");
  if (o.end != -1 && o.end < o.start) throw Failure("the range holds no frame of the clip");
  return o;
}

void CheckOverwrite(const Options& o, const media::InputInfo& info) {
  if (o.overwrite) return;
  std::vector<std::string> written;
  if (o.output != "-") {
    if (!media::IsPattern(o.output)) {
      written.push_back(o.output);
    } else {
      const int64_t first = info.firstNumber + o.start;
      const int64_t last = o.end >= 0 ? info.firstNumber + o.end : INT64_MAX;
      for (const auto& [n, file] : media::PatternFiles(o.output))
        if (n >= first && n <= last) written.push_back(file);
    }
  }
  if (!o.uiSnapshot.empty()) written.push_back(o.uiSnapshot);
  for (const std::string& file : written) {
    std::error_code ec;
    if (!fs::exists(file, ec)) continue;
    throw Failure(o.keep ? "'" + file + "' exists; kept (-n)"
                         : "'" + file + "' exists: give -y to replace it, or -n to keep it");
  }
}

namespace {

std::string PastTheEnd(int64_t start, int64_t lastFrame) {
  return "--start " + std::to_string(start) + " is past the clip's last frame (" + std::to_string(lastFrame) + ")";
}

// Hands the device to the module and sets the user's controls; returns what
// the summary calls the device.
std::string SetUpEffect(ClipHost& clip, aehost::AeHost& host, const Options& o) {
  if (o.host == "premiere") {
    // The Premiere host runs the module's EffectMain side itself, and keeps
    // the controls there.
    prhost::PrHostOptions options;
    options.effect.recordLimit = kRecordLimit;
    options.device = ResolveDevice(o.device).device;
    options.poisonNewFrames = false;  // a test aid; a real host leaves new frames as they come
    try {
      clip.premiere = std::make_unique<prhost::PrHost>(FindModule(), options);
    } catch (const aehost::HostError& e) {
      throw Failure(std::string(e.what()) + "; see the effect's log at " + LogPath());
    }
    clip.params = &clip.premiere->Effect();
    clip.format = o.precision == "half" ? PrPixelFormat_GPU_BGRA_4444_16f : PrPixelFormat_GPU_BGRA_4444_32f;
    for (const auto& [id, value] : o.effect) clip.premiere->SetParam(id, value);
    return clip.premiere->DeviceName() + ", Premiere GPU filter in " + o.precision;
  }
  clip.params = clip.ae = &host;
  // The module's global set-up ran before any device library was loaded, as
  // in the host tests; the other order crashed the module's logging on a GPU machine.
  if (const PF_Err err = host.SetupDevice(ResolveDevice(o.device))) throw SetUpFailure(err);
  if (!host.GpuReady() && !o.quiet)
    std::fprintf(stderr, "tremor-render: the effect declined %s; rendering in software\n", host.DeviceName().c_str());
  for (const auto& [id, value] : o.effect) host.SetParamValue(ParamIndex(host, id), value);
  return host.GpuReady() ? host.DeviceName() : "the effect's software path";
}

// ---- The engine path ----

// A control's value as the module holds it, through its registered row.
double ControlValue(aehost::AeHost& host, int32_t diskId) {
  const PF_ParamDef def = host.ParamValue(ParamIndex(host, diskId));
  switch (def.param_type) {
    case PF_Param_FLOAT_SLIDER: return def.u.fs_d.value;
    case PF_Param_POPUP: return def.u.pd.value;
    case PF_Param_CHECKBOX: return def.u.bd.value;
    default: throw Failure("the effect module's control " + std::to_string(diskId) + " has an unknown type");
  }
}

// The first input frame any output frame from `k` on needs: the oldest
// time k's stack asks for (later stacks ask for none older), or the clip's
// start, whose frame stands in for anything before it.
int64_t FirstNeeded(int64_t k, const KernelData& kd, float offset) {
  const auto now = static_cast<int32_t>(k * kStackTimeStep);
  int64_t first = k;
  for (int32_t i = 1; i < kd.numFrames; ++i) {
    const int32_t t = FrameCheckoutTime(now, kStackTimeStep, i, offset);
    first = std::min<int64_t>(first, t >= 0 ? t / kStackTimeStep : 0);
  }
  return first;
}

// The engine's float B, G, R, A as the writer's picture, in place.
media::Picture WriterPicture(std::vector<float>&& bgra, int width, int height, int64_t pts) {
  for (size_t i = 0; i + 3 < bgra.size(); i += 4) std::swap(bgra[i], bgra[i + 2]);
  media::Picture p;
  p.width = width;
  p.height = height;
  p.rgba = std::move(bgra);
  p.pts = pts;
  return p;
}

// Output frames first..last through the engine, `jobs` at once; those the
// clip has. Returns the frames rendered, each handed to `deliver` in order.
template <typename Deliver>
int64_t RenderBatchOnEngine(engine::Engine& eng, SequentialClip& clip, int64_t first, int64_t last, int jobs,
                            SparePixels& spares, Deliver deliver) {
  int64_t end = first;
  while (end <= last && clip.Has(end)) ++end;
  const int64_t count = end - first;
  std::vector<std::vector<float>> out(static_cast<size_t>(count));
  std::vector<std::exception_ptr> errors(out.size());
  auto renderOne = [&](size_t j) {
    try {
      out[j] = spares.Take();
      eng.Render(first + static_cast<int64_t>(j), out[j]);
    } catch (...) {
      errors[j] = std::current_exception();
    }
  };
  std::vector<std::thread> threads;
  for (size_t j = 1; j < out.size() && jobs > 1; ++j) threads.emplace_back(renderOne, j);
  for (size_t j = 0; j < out.size(); ++j)
    if (j == 0 || jobs <= 1) renderOne(j);
  for (auto& t : threads) t.join();
  for (size_t j = 0; j < out.size(); ++j) {
    if (errors[j]) std::rethrow_exception(errors[j]);
    deliver(first + static_cast<int64_t>(j), std::move(out[j]));
  }
  return count;
}

// Engine settings from the module's controls, as the user set them.
engine::Settings EngineSettings(aehost::AeHost& host, const Options& o) {
  for (const auto& [id, value] : o.effect) host.SetParamValue(ParamIndex(host, id), value);
  engine::Settings settings;
  FillKernelData([&](int32_t id) { return ControlValue(host, id); }, settings.controls, &settings.offset);
  return settings;
}

// The memory budget shared out for this render, from the clip's first frame
// as it comes (its size, depth, and what it takes decoded). Throws Failure
// where one stack does not fit; an empty clip is left to the render to name.
MemoryPlan PlanMemory(SequentialClip& clip, int64_t first, const engine::Settings& s, bool stackKernel,
                      const Options& o, int64_t clipFrames, const media::OutputFormat* format) {
  engine::SourcePicture picture;
  if (!clip.Fetch(first, picture)) return MemoryPlan{o.memory, o.memory ? o.memory : s.cacheBytes, 0, 0};
  EngineWork w;
  w.width = picture.width;
  w.height = picture.height;
  w.sourceDepth = picture.depth;
  w.decodedBytes = clip.DecodedBytes();
  w.fused = stackKernel && StackRunsFused(s.controls);
  w.jobs = o.jobs;
  w.codec = format ? format->codec : nullptr;
  clip.Recycle(std::move(picture));
  // Stacks away from the clip's ends, where no frame repeats for want of frames.
  std::set<int64_t> stacks;
  for (int j = 0; j < o.jobs; ++j)
    for (const int64_t f : StackSourceFrames(10000 + j, s.controls.numFrames, s.offset, -1)) stacks.insert(f);
  w.stackFrames = static_cast<int64_t>(stacks.size());
  w.reach = *stacks.rbegin() - *stacks.begin() + 1;
  if (clipFrames >= 0) w.reach = std::min(w.reach, clipFrames);
  return PlanEngineMemory(w, o.memory);
}

struct EngineRun {
  engine::Engine& eng;
  SequentialClip& clip;
  const KernelData& controls;
  float offset;
};

// Renders o.start..last through the engine into `sink` (none: the null
// output); returns the frames rendered.
int64_t RenderOnEngine(EngineRun& run, const Options& o, int64_t last, int width, int height, FrameSink* sink,
                       SparePixels& spares, Progress& progress) {
  int64_t next = o.start;
  while (next <= last) {
    CheckInterrupt();
    const int64_t batchLast = std::min(last, next + o.jobs - 1);
    const int64_t done = RenderBatchOnEngine(
        run.eng, run.clip, next, batchLast, o.jobs, spares, [&](int64_t k, std::vector<float>&& pixels) {
          if (sink)
            sink->Write(WriterPicture(std::move(pixels), width, height, run.clip.Pts(k)), k);
          else
            spares.Give(std::move(pixels));
        });
    next += done;
    if (done == 0) break;  // the clip ended first
    const int64_t needed = FirstNeeded(next, run.controls, run.offset);
    run.eng.ForgetBefore(needed);
    run.clip.ForgetBefore(needed);
    progress.Update(next - o.start);
  }
  return next - o.start;
}

}  // namespace

std::string LogPath() {
  char tmp[4096] = {};  // the platform's temporary folder, as the module asks for it
  if (GetTempPathA(sizeof tmp, tmp) == 0) return "(no temporary folder)";
  return (fs::path(tmp) / "Harbour Lantern Lab" / "com.hll.tremordistiller.log").string();
}

std::unique_ptr<aehost::AeHost> LoadEffect() {
  aehost::HostOptions options;
  options.recordLimit = kRecordLimit;
  auto host = std::make_unique<aehost::AeHost>(FindModule(), options);
  if (const PF_Err err = host->SetUp(nullptr)) throw SetUpFailure(err);
  return host;
}

void CatchInterrupts() {
  // The signals go to one thread of ours, which may do what a handler may not:
  // the first asks the render to stop at the next frame, a second (or a
  // render that has not stopped two seconds later: an open or read blocked
  // on a pipe cannot see the request) removes what is staged and ends the
  // process. Threads started later (the device's, the codecs') inherit the
  // blocked mask.
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&set, sig);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([set] {
    for (;;) {
      int sig = 0;
      if (sigwait(&set, &sig) != 0) continue;
      if (gSignal.exchange(sig) == 0) {
        const timespec grace{2, 0};
        if (sigtimedwait(&set, nullptr, &grace) < 0 && errno != EAGAIN) continue;
      }
      {
        std::lock_guard<std::mutex> lock(gStagedMutex);
        if (gPublished) continue;
        std::error_code ec;
        for (const fs::path& p : gStaged) fs::remove_all(p, ec);
      }
      std::fputs("\ntremor-render: interrupted; nothing written\n", stderr);
      std::_Exit(128 + gSignal.load());
    }
  }).detach();
}

void RemoveOnSecondSignal(const fs::path& staged, bool add) {
  std::lock_guard<std::mutex> lock(gStagedMutex);
  if (add)
    gStaged.push_back(staged);
  else
    gStaged.erase(std::remove(gStaged.begin(), gStaged.end(), staged), gStaged.end());
}

std::unique_lock<std::mutex> HoldSecondSignal() { return std::unique_lock<std::mutex>(gStagedMutex); }

void MarkPublished(const std::unique_lock<std::mutex>& /*held*/) { gPublished = true; }

int CaughtSignal() { return gSignal.load(); }

namespace {

void Summary(const Options& o, const Progress& progress, int64_t done, const std::string& deviceName) {
  if (o.quiet) return;
  const double s = progress.Seconds();
  std::fprintf(stderr, "tremor-render: %lld frames in %.1f s (%.1f fps) on %s\n", static_cast<long long>(done), s,
               s > 0 ? done / s : 0.0, deviceName.c_str());
}

// The render on the engine: the module only lends its controls (and draws
// the UI snapshot); frames go straight from the clip to the device.
// What a chunk's stacks read before its first frame, for whoever splits a
// render: the frames it needs, in the clip's numbers, and the pre-roll.
int PrintReach(aehost::AeHost& host, const Options& o, const media::InputInfo& info) {
  const engine::Settings settings = EngineSettings(host, o);
  const int64_t first = FirstNeeded(o.start, settings.controls, settings.offset);
  const int64_t number = info.isSequence ? info.firstNumber : 0;
  const double fps = static_cast<double>(info.frameRate.num) / info.frameRate.den;
  std::printf("first %lld\nneeded-from %lld\npre-roll-frames %lld\npre-roll-seconds %.6f\n",
              static_cast<long long>(o.start + number), static_cast<long long>(first + number),
              static_cast<long long>(o.start - first), (o.start - first) / fps);
  return 0;
}

// Opening the device builds the kernels: a minute or more on PoCL the first
// time, before any frame can show progress; its cache serves later runs.
std::unique_ptr<engine::OpenedDevice> OpenEngineDevice(const Options& o) {
  const std::string deviceText = ResolveDevice(o.device).device;
  SlowStepNotice notice("tremor-render: compiling GPU kernels (first run only)", std::chrono::milliseconds(700),
                        o.quiet);
  return std::make_unique<engine::OpenedDevice>(deviceText);
}

int RunEngine(aehost::AeHost& host, const Options& o, media::Reader& reader, const media::OutputFormat* format) {
  const bool null = format == nullptr;
  const media::InputInfo info = reader.Info();
  const engine::Settings settings = EngineSettings(host, o);
  const auto device = OpenEngineDevice(o);
  int64_t last = o.end >= 0 ? o.end : INT64_MAX;
  if (info.frameCount >= 0) last = std::min(last, info.frameCount - 1);
  last = std::min(last, kLastStackFrame);

  std::unique_ptr<Staging> staging, snapshot;
  const bool toStdout = !null && o.output == "-";  // streamed: nothing to stage or publish
  if (!null && !toStdout) staging = std::make_unique<Staging>(o.output, format->sequence);
  if (!o.uiSnapshot.empty()) snapshot = std::make_unique<Staging>(o.uiSnapshot, false);
  try {
    std::unique_ptr<media::Writer> writer;
    if (!null)
      writer = std::make_unique<media::Writer>(toStdout ? "pipe:1" : staging->WriterTarget().string(), *format, info,
                                               info.hasAudio ? o.input : std::string(), o.encoder);
    Progress progress(last == INT64_MAX ? -1 : last - o.start + 1, o.quiet, ::isatty(STDERR_FILENO));
    const auto queued = static_cast<size_t>(std::max(2, o.jobs));
    SparePixels spares(queued * 2);
    const int64_t first = FirstNeeded(o.start, settings.controls, settings.offset);
    SequentialClip clip(reader, first, queued);
    engine::Settings planned = settings;
    const MemoryPlan memory = PlanMemory(clip, first, settings, device->Get().stackKernel, o, info.frameCount, format);
    planned.cacheBytes = memory.heldBytes;
    engine::Engine eng(device->Get(), clip, planned);
    std::unique_ptr<FrameSink> sink;
    if (writer) sink = std::make_unique<FrameSink>(*writer, queued, &spares);
    EngineRun run{eng, clip, settings.controls, settings.offset};
    int64_t done = 0;
    try {
      try {
        done = RenderOnEngine(run, o, last, info.width, info.height, sink.get(), spares, progress);
      } catch (const engine::OutOfMemory& e) {
        throw Failure(std::string(e.what()) + "; the memory budget is " + SizeText(memory.budget) + " (--memory)");
      } catch (const engine::EngineError& e) {
        const std::string what = e.what();
        throw Failure(what.rfind("a stack of ", 0) == 0 ? what + " (--memory)"
                                                        : what + "; see the effect's log at " + LogPath());
      }
      if (done == 0 && o.start == 0) throw Failure(o.input + " has no frames");
      if (done == 0) throw Failure(PastTheEnd(o.start, clip.FrameCount() - 1));
    } catch (const Interrupted&) {
      throw;
    } catch (...) {
      if (sink) sink->Flush();  // the frames before the failure were written first: their errors come first
      throw;
    }
    std::vector<std::string> files;
    if (sink) {
      sink->Flush();
      writer->Finish();
      if (!o.quiet && !writer->Note().empty()) std::fprintf(stderr, "tremor-render: %s\n", writer->Note().c_str());
      files = writer->Files();
      writer.reset();
    }
    if (snapshot) {
      // The panel as a host shows it once the effect has the device.
      if (const PF_Err err = host.SetupDevice(ResolveDevice(o.device))) throw SetUpFailure(err);
      media::WritePng(snapshot->WriterTarget().string(), DrawUISnapshot(host));
    }
    if (staging)
      PublishTogether(*staging, snapshot.get(), files);
    else if (snapshot)
      snapshot->Commit({});
    progress.Finish();
    Summary(o, progress, done, device->Name() + " (engine)");
    return 0;
  } catch (const media::MediaError& e) {
    const std::string message = staging ? staging->Public(e.what()) : e.what();
    throw media::MediaError(snapshot ? snapshot->Public(message) : message);
  }
}

}  // namespace

namespace {

// How a module path holds the frames in the stacks' reach.
struct HostPlan {
  int frames = 0;
  double offset = 0;
  Window window;
  uint64_t frameBytes = 0, budget = 0;
  size_t queued = 2;
  bool fits = true;  // every frame in reach held as the host takes it; else they wait decoded
  int jobs = 1;
};

HostPlan PlanHostRender(const ClipHost& clip, const media::InputInfo& info, const Options& o) {
  HostPlan p;
  // "Frames" counts whole frames, as the effect reads it.
  p.frames = static_cast<int>(SliderValue(*clip.params, PARAM_FRAMES));
  p.offset = SliderValue(*clip.params, PARAM_FRAMES_OFFSET);
  if (clip.premiere && p.offset != std::trunc(p.offset)) {
    // As Premiere does: its filter asks for frames in whole steps.
    if (!o.quiet)
      std::fprintf(stderr, "tremor-render: the premiere host steps whole frames; --frames-offset %g counts as %g\n",
                   p.offset, std::trunc(p.offset) + 0.0);  // + 0.0: -0.5 counts as 0, not -0
    p.offset = std::trunc(p.offset);
  }
  p.window = NeededFrames(p.frames, p.offset);
  // A frame the host holds costs its float pixels and their device copy.
  p.frameBytes = uint64_t{16} * static_cast<uint64_t>(info.width) * static_cast<uint64_t>(info.height) * 2;
  p.budget = o.memory ? o.memory : AvailableHostMemory() / 4 * 3;
  p.queued = static_cast<size_t>(std::max(2, o.jobs));
  const uint64_t reach =
      static_cast<uint64_t>(p.window.back + p.window.ahead) + static_cast<uint64_t>(o.jobs) + p.queued;
  p.fits = p.frameBytes == 0 || reach <= p.budget / p.frameBytes;
  p.jobs = o.jobs;
  if (!p.fits) {
    const uint64_t stacks = p.budget / (p.frameBytes * static_cast<uint64_t>(p.frames));
    if (stacks == 0)
      throw Failure("a stack of " + std::to_string(p.frames) + " frames of " + std::to_string(info.width) + "x" +
                    std::to_string(info.height) + " needs " + Size(p.frameBytes * static_cast<uint64_t>(p.frames)) +
                    " (" + Size(p.frameBytes) + " a frame, with its device copy); the memory budget is " +
                    Size(p.budget) + " (--memory)");
    p.jobs = static_cast<int>(std::min<uint64_t>(static_cast<uint64_t>(o.jobs), stacks));
  }
  return p;
}

// Output frames o.start..last through the module path into `sink`; returns
// the frames rendered.
int64_t RenderOnHost(ClipHost& clip, Feed& feed, FrameSink& sink, const HostPlan& p, const Options& o, int64_t last,
                     Progress& progress) {
  int64_t next = o.start;
  while (next <= last) {
    const int64_t batchLast = std::min(last, next + p.jobs - 1);
    FeedFrames(clip, feed, batchLast + p.window.ahead);
    if (feed.read <= next) break;  // the clip ended first
    const int64_t upTo = std::min(batchLast, feed.read - 1);
    if (feed.reader) HandStackFrames(clip, feed, next, upTo, p.frames, p.offset, p.budget / p.frameBytes);
    RenderFrames(clip, next, upTo, p.jobs, feed, sink);
    next = upTo + 1;
    const int64_t keep = std::max<int64_t>(0, next - p.window.back);
    clip.RemoveBefore(keep);
    feed.decoded.erase(feed.decoded.begin(), feed.decoded.lower_bound(keep));
    feed.inHost.erase(feed.inHost.begin(), feed.inHost.lower_bound(keep));
    progress.Update(next - o.start);
    CheckInterrupt();
  }
  if (feed.read == 0) throw Failure(o.input + " has no frames");
  if (next == o.start) throw Failure(PastTheEnd(o.start, feed.read - 1));
  return next - o.start;
}

int RunModule(aehost::AeHost& host, const Options& o, media::Reader& reader, const media::OutputFormat& format) {
  const media::InputInfo info = reader.Info();
  ClipHost clip;
  const std::string deviceName = SetUpEffect(clip, host, o);

  // Last output frame wanted; INT64_MAX runs to the end of the clip.
  int64_t last = o.end >= 0 ? o.end : INT64_MAX;
  if (info.frameCount >= 0) last = std::min(last, info.frameCount - 1);
  const HostPlan plan = PlanHostRender(clip, info, o);
  Staging staging(o.output, format.sequence);
  // Reserved now, so an unwritable folder stops the run before the render.
  std::unique_ptr<Staging> snapshot;
  if (!o.uiSnapshot.empty()) snapshot = std::make_unique<Staging>(o.uiSnapshot, false);
  try {
    auto writer = std::make_unique<media::Writer>(staging.WriterTarget().string(), format, info,
                                                  info.hasAudio ? o.input : std::string(), o.encoder);
    Progress progress(last == INT64_MAX ? -1 : last - o.start + 1, o.quiet, ::isatty(STDERR_FILENO));

    // A batch of renders waits on neither side: `jobs` frames queued each way.
    const int64_t lastInput = last > INT64_MAX - plan.window.ahead ? INT64_MAX : last + plan.window.ahead;
    SparePixels spares(2);
    FrameSource source(reader, o.start - plan.window.back, lastInput, plan.queued, plan.fits, &spares);
    Feed feed(source);
    if (!plan.fits) feed.reader = &reader;
    feed.width = info.width;
    feed.height = info.height;
    FrameSink sink(*writer, plan.queued, &spares);
    int64_t done = 0;
    try {
      done = RenderOnHost(clip, feed, sink, plan, o, last, progress);
    } catch (const Interrupted&) {
      throw;
    } catch (...) {
      // The frames before the failure were written first: their errors come first.
      sink.Flush();
      throw;
    }
    sink.Flush();
    writer->Finish();
    if (!o.quiet && !writer->Note().empty()) std::fprintf(stderr, "tremor-render: %s\n", writer->Note().c_str());
    const std::vector<std::string> files = writer->Files();
    writer.reset();
    // The panel as the render left it: the GPU at work, or the notice.
    if (snapshot) media::WritePng(snapshot->WriterTarget().string(), DrawUISnapshot(host));
    PublishTogether(staging, snapshot.get(), files);
    progress.Finish();
    Summary(o, progress, done, deviceName);
    return 0;
  } catch (const media::MediaError& e) {
    // The user's output, not the hidden temporary.
    throw media::MediaError(snapshot ? snapshot->Public(staging.Public(e.what())) : staging.Public(e.what()));
  }
}

// The range and the output checked against the input, then the render.
int RunChecked(aehost::AeHost& host, const Options& given) {
  const media::OutputFormat* chosen = given.format == "null" ? nullptr : &CheckCommand(given);
  if (given.output == "-" && given.format != "null" && given.host != "engine")
    throw Failure("standard output is written on the engine only");
  media::Reader reader(given.input);
  const media::InputInfo info = reader.Info();
  const Options o = ResolveRange(given, info);
  if (o.printReach) return PrintReach(host, o, info);
  CheckOverwrite(o, info);
  return o.host == "engine" ? RunEngine(host, o, reader, chosen) : RunModule(host, o, reader, *chosen);
}

}  // namespace

// Memory the process could not have, wherever it was asked for: its one line.
int Run(aehost::AeHost& host, const Options& o) {
  const std::string hint =
      o.memory ? "; the memory budget is " + SizeText(o.memory) + " (--memory)" : " (see --memory)";
  try {
    return RunChecked(host, o);
  } catch (const std::bad_alloc&) {
    throw Failure("out of memory" + hint);
  } catch (const std::system_error& e) {
    if (e.code() != std::errc::resource_unavailable_try_again) throw;
    throw Failure("out of memory: a thread could not be started" + hint);
  }
}

}  // namespace render
