// The effect as an MLT filter, tremor_distiller, for melt, Kdenlive and
// Shotcut. Each frame is rendered through the engine by its position in the
// clip, so the picture is the same after a seek, when parked and when the
// consumer renders frames on several threads at once. The frames a stack
// needs come from a producer of the filter's own for the clip's file, never
// from the playback's producer, which the editor is moving itself.
#include <framework/mlt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Engine.h"
#include "LogsController.h"
#include "MltControls.h"
#include "TremorDistiller_Controls.h"

namespace {

constexpr char kService[] = "tremor_distiller";

// One line per kind of trouble for the whole process: editors make many
// instances, and one broken device would otherwise fill the log.
void LogOnce(mlt_filter filter, const std::string& line) {
  static std::mutex mutex;
  static std::set<std::string> said;
  std::lock_guard<std::mutex> lock(mutex);
  if (said.insert(line).second) mlt_log_error(MLT_FILTER_SERVICE(filter), "%s\n", line.c_str());
}

// One device for every instance: opening it builds the effect's kernels,
// seconds on PoCL. It is never closed: MLT closes services at exit in an
// order we do not control, after the OpenCL runtime may have gone.
const engine::EngineDevice& SharedDevice() {
  static std::mutex mutex;
  static engine::OpenedDevice* device = nullptr;
  static std::string error;
  std::lock_guard<std::mutex> lock(mutex);
  if (!device && error.empty()) {
    const char* text = std::getenv("TREMOR_DISTILLER_DEVICE");
    try {
      device = new engine::OpenedDevice(text && *text ? text : "auto");
    } catch (const std::exception& e) {
      error = std::string("cannot use the device: ") + e.what();
    }
  }
  if (!device) throw engine::EngineError(error);
  return device->Get();
}

// The filter's own producer for the clip. MLT producers are not
// thread-safe: one fetch at a time.
struct PrivateClip {
  explicit PrivateClip(mlt_producer p) : producer(p) {}
  ~PrivateClip() { mlt_producer_close(producer); }
  mlt_producer producer;
  std::mutex mutex;
  int64_t next = 0;  // the frame the producer reads next without seeking
};

using TextProperties = std::vector<std::pair<std::string, std::string>>;

// What the consumer asks of every frame (scaling, deinterlacing), so the
// private frames are made as the playback's are.
TextProperties ConsumerRequest(mlt_frame frame) {
  TextProperties out;
  mlt_properties props = MLT_FRAME_PROPERTIES(frame);
  for (int i = 0, n = mlt_properties_count(props); i < n; ++i) {
    const char* name = mlt_properties_get_name(props, i);
    const char* value = mlt_properties_get_value(props, i);
    if (name && value && (!std::strncmp(name, "consumer", 8) || !std::strncmp(name, "rescale.", 8)))
      out.emplace_back(name, value);
  }
  return out;
}

// Rows first..last of a picture `height` rows high, split across MLT's
// slice threads: each job converts rows of its own.
template <typename Rows>
void SplitRows(int height, Rows rows) {
  struct Job {
    int height;
    Rows* rows;
  } job{height, &rows};
  mlt_slices_run_normal(
      0,
      [](int, int index, int jobs, void* cookie) {
        auto* j = static_cast<Job*>(cookie);
        int first = 0;
        const int count = mlt_slices_size_slice(jobs, index, j->height, &first);
        (*j->rows)(first, first + count);
        return 0;
      },
      &job);
}

// R, G, B, A bytes to B, G, R, A or back, in place: one 32-bit word a
// pixel, which the compiler vectorises.
void SwapRedBlue(uint8_t* pixels, size_t first, size_t last) {
  for (size_t p = first; p < last; ++p) {
    uint32_t v;
    std::memcpy(&v, pixels + 4 * p, 4);
    v = (v & 0xFF00FF00u) | ((v >> 16) & 0xFFu) | ((v & 0xFFu) << 16);
    std::memcpy(pixels + 4 * p, &v, 4);
  }
}

// The clip through the private producer, at the size the consumer asks for,
// as the engine's 8-bit B, G, R, A pictures.
class MltClip : public engine::ClipSource {
 public:
  MltClip(std::shared_ptr<PrivateClip> clip, int width, int height, TextProperties request)
      : clip_(std::move(clip)), width_(width), height_(height), request_(std::move(request)) {}

  int64_t FrameCount() const override { return mlt_producer_get_length(clip_->producer); }

  // Render threads ask for frames a little out of order: the file is read
  // forward, the frames passed on the way kept, rather than sought back to
  // (a seek decodes from the last key frame).
  bool Fetch(int64_t k, engine::SourcePicture& picture) override {
    if (k >= FrameCount()) return false;
    std::lock_guard<std::mutex> lock(clip_->mutex);
    if (const auto it = passed_.find(k); it != passed_.end()) {
      picture = std::move(it->second);
      passed_.erase(it);
      return true;
    }
    for (int64_t j = clip_->next; j < k && k - clip_->next <= kReadAhead; ++j) Read(j, passed_[j]);
    while (passed_.size() > kReadAhead) passed_.erase(passed_.begin());
    Read(k, picture);
    return true;
  }

  // Fresh memory costs a page fault every 4 KiB: pictures come back for reuse.
  void Recycle(engine::SourcePicture&& picture) override {
    std::lock_guard<std::mutex> lock(spareMutex_);
    if (spare_.size() < 4) spare_.push_back(std::move(picture.pixels));
  }

 private:
  static constexpr int64_t kReadAhead = 8;

  // Frame k from the file, under the clip's lock.
  void Read(int64_t k, engine::SourcePicture& picture) {
    mlt_producer_seek(clip_->producer, static_cast<mlt_position>(k));
    mlt_frame frame = nullptr;
    if (mlt_service_get_frame(MLT_PRODUCER_SERVICE(clip_->producer), &frame, 0) || !frame)
      throw engine::EngineError("frame " + std::to_string(k) + " of the clip cannot be read");
    for (const auto& [name, value] : request_)
      mlt_properties_set(MLT_FRAME_PROPERTIES(frame), name.c_str(), value.c_str());
    mlt_image_format format = mlt_image_rgba;
    int w = width_, h = height_;
    uint8_t* rgba = nullptr;
    const int err = mlt_frame_get_image(frame, &rgba, &format, &w, &h, 0);
    if (err || !rgba || format != mlt_image_rgba || w != width_ || h != height_) {
      mlt_frame_close(frame);
      throw engine::EngineError("frame " + std::to_string(k) + " of the clip did not come as " +
                                std::to_string(width_) + "x" + std::to_string(height_) + " RGBA");
    }
    picture.width = w, picture.height = h, picture.depth = FRAME_DEPTH_U8;
    {
      std::lock_guard<std::mutex> spare(spareMutex_);
      if (!spare_.empty()) picture.pixels = std::move(spare_.back()), spare_.pop_back();
    }
    picture.pixels.resize(static_cast<size_t>(w) * h * 4);
    uint8_t* bgra = picture.pixels.data();
    SplitRows(h, [&](int first, int last) {
      const size_t from = static_cast<size_t>(first) * w, to = static_cast<size_t>(last) * w;
      std::memcpy(bgra + 4 * from, rgba + 4 * from, 4 * (to - from));
      SwapRedBlue(bgra, from, to);
    });
    mlt_frame_close(frame);
    clip_->next = k + 1;
  }

  std::map<int64_t, engine::SourcePicture> passed_;  // read on the way to a later frame
  std::mutex spareMutex_;
  std::vector<std::vector<uint8_t>> spare_;
  std::shared_ptr<PrivateClip> clip_;
  const int width_, height_;
  const TextProperties request_;
};

// An engine for one clip, size and set of control values.
struct Rendering {
  std::string key;
  std::unique_ptr<MltClip> clip;
  std::unique_ptr<engine::Engine> engine;
};

struct Instance {
  std::mutex mutex;
  std::string resource;  // of `clip`
  std::shared_ptr<PrivateClip> clip;
  std::shared_ptr<Rendering> rendering;
};

// The controls at `position`, in the units the effect reads; a value the
// control cannot take is logged and replaced by its default or its limit.
std::vector<double> ControlValues(mlt_filter filter, mlt_position position, mlt_position length) {
  mlt_properties props = MLT_FILTER_PROPERTIES(filter);
  std::vector<double> values;
  mlt_service_lock(MLT_FILTER_SERVICE(filter));
  for (const MltProperty& p : MltProperties()) {
    const char* name = p.name.c_str();
    double v = DefaultValue(p);
    if (mlt_properties_get(props, name)) {
      if (p.row->kind == ParamKind::FloatSlider) {
        v = std::clamp(mlt_properties_anim_get_double(props, name, position, length), double(*p.row->min),
                       double(*p.row->max));
      } else if (p.row->kind == ParamKind::Checkbox) {
        v = mlt_properties_anim_get_int(props, name, position, length) != 0;
      } else {
        const char* word = mlt_properties_anim_get(props, name, position, length);
        if (const int n = ChoiceNumber(p, word ? word : ""))
          v = n;
        else
          LogOnce(filter, p.name + " has no choice \"" + (word ? word : "") + "\"; it stays " + DefaultText(p));
      }
    }
    values.push_back(v);
  }
  mlt_service_unlock(MLT_FILTER_SERVICE(filter));
  return values;
}

// Settings the private producer takes from the playback's, where they change
// which pictures the file gives.
void CopyClipSettings(mlt_properties from, mlt_properties to) {
  for (int i = 0, n = mlt_properties_count(from); i < n; ++i) {
    const char* name = mlt_properties_get_name(from, i);
    const char* value = mlt_properties_get_value(from, i);
    if (name && value && (!std::strncmp(name, "force_", 6) || !std::strcmp(name, "video_index")))
      mlt_properties_set(to, name, value);
  }
}

// The private producer for the clip `frame` came from, made on first use.
std::shared_ptr<PrivateClip> ClipOf(mlt_filter filter, Instance& instance, mlt_frame frame) {
  mlt_producer original = mlt_frame_get_original_producer(frame);
  // A cut of a clip (an in point, a playlist entry) names no file itself.
  if (original && mlt_producer_is_cut(original)) original = mlt_producer_cut_parent(original);
  const char* resource = original ? mlt_properties_get(MLT_PRODUCER_PROPERTIES(original), "resource") : nullptr;
  if (!resource || !*resource) throw engine::EngineError("the frame comes from no clip with a file");
  if (instance.clip && instance.resource == resource) return instance.clip;
  mlt_producer producer = mlt_factory_producer(mlt_service_profile(MLT_FILTER_SERVICE(filter)), nullptr, resource);
  if (!producer) throw engine::EngineError(std::string("cannot open the clip ") + resource);
  CopyClipSettings(MLT_PRODUCER_PROPERTIES(original), MLT_PRODUCER_PROPERTIES(producer));
  instance.resource = resource;
  instance.clip = std::make_shared<PrivateClip>(producer);
  return instance.clip;
}

std::string Key(const std::string& resource, int width, int height, const std::vector<double>& values,
                const TextProperties& request) {
  std::string key = resource + "\n" + std::to_string(width) + "x" + std::to_string(height);
  char number[40];
  for (const double v : values) std::snprintf(number, sizeof number, " %a", v), key += number;
  for (const auto& [name, value] : request) key += "\n" + name + "=" + value;
  return key;
}

// The engine for this frame: the instance's, or a new one when the clip, the
// size or a control has changed. Renders under way keep the one they have.
std::shared_ptr<Rendering> RenderingFor(mlt_filter filter, mlt_frame frame, int width, int height) {
  auto& instance = *static_cast<Instance*>(filter->child);
  const std::vector<double> values =
      ControlValues(filter, mlt_filter_get_position(filter, frame), mlt_filter_get_length2(filter, frame));
  const TextProperties request = ConsumerRequest(frame);
  const engine::EngineDevice& device = SharedDevice();
  std::lock_guard<std::mutex> lock(instance.mutex);
  std::shared_ptr<PrivateClip> clip = ClipOf(filter, instance, frame);
  const std::string key = Key(instance.resource, width, height, values, request);
  if (instance.rendering && instance.rendering->key == key) return instance.rendering;
  auto rendering = std::make_shared<Rendering>();
  rendering->key = key;
  engine::Settings settings;
  const auto& properties = MltProperties();
  FillKernelData(
      [&](int32_t diskId) {
        for (size_t i = 0; i < properties.size(); ++i)
          if (properties[i].row->diskId == diskId) return values[i];
        return 0.0;
      },
      settings.controls, &settings.offset);
  rendering->clip = std::make_unique<MltClip>(clip, width, height, request);
  rendering->engine = std::make_unique<engine::Engine>(device, *rendering->clip, settings);
  instance.rendering = rendering;
  return rendering;
}

// Floats as bytes, rounded as lround would: v * 255 + 0.5 in float floors
// as it does in double for 0..255. Apart from the lambda that calls it, so
// that the compiler sees the two arrays apart and vectorises.
void ToBytes(const float* __restrict in, uint8_t* __restrict out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    float v = in[i] > 0.0f ? in[i] : 0.0f;  // NaN too
    v = v < 1.0f ? v : 1.0f;
    out[i] = static_cast<uint8_t>(static_cast<int32_t>(v * 255.0f + 0.5f));
  }
}

// The engine's float B, G, R, A as 8-bit R, G, B, A.
void ToRgba(const float* bgra, int width, int height, uint8_t* rgba) {
  SplitRows(height, [bgra, width, rgba](int first, int last) {
    const size_t from = static_cast<size_t>(first) * width, to = static_cast<size_t>(last) * width;
    ToBytes(bgra + 4 * from, rgba + 4 * from, 4 * (to - from));
    SwapRedBlue(rgba, from, to);
  });
}

int GetImage(mlt_frame frame, uint8_t** image, mlt_image_format* format, int* width, int* height, int writable) {
  auto filter = static_cast<mlt_filter>(mlt_frame_pop_service(frame));
  mlt_profile profile = mlt_service_profile(MLT_FILTER_SERVICE(filter));
  const int w = *width > 0 ? *width : profile->width, h = *height > 0 ? *height : profile->height;
  try {
    std::shared_ptr<Rendering> rendering = RenderingFor(filter, frame, w, h);
    // The playback's own picture is never asked for: the engine reads the clip itself.
    thread_local std::vector<float> out;
    rendering->engine->Render(mlt_frame_original_position(frame), out);
    const int size = w * h * 4;
    auto* rgba = static_cast<uint8_t*>(mlt_pool_alloc(size));
    ToRgba(out.data(), w, h, rgba);
    mlt_frame_set_image(frame, rgba, size, mlt_pool_release);
    mlt_properties props = MLT_FRAME_PROPERTIES(frame);
    mlt_properties_set_int(props, "width", w);
    mlt_properties_set_int(props, "height", h);
    mlt_properties_set_int(props, "format", mlt_image_rgba);
    *image = rgba, *format = mlt_image_rgba, *width = w, *height = h;
    return 0;
  } catch (const std::exception& e) {
    LogOnce(filter, std::string(kService) + ": " + e.what() + "; frames pass through unchanged");
  }
  return mlt_frame_get_image(frame, image, format, width, height, writable);
}

mlt_frame Process(mlt_filter filter, mlt_frame frame) {
  mlt_frame_push_service(frame, filter);
  mlt_frame_push_get_image(frame, GetImage);
  return frame;
}

void Close(mlt_filter filter) {
  delete static_cast<Instance*>(filter->child);
  filter->child = nullptr;
  filter->close = nullptr;
  filter->parent.close = nullptr;
  mlt_service_close(&filter->parent);
}

mlt_filter Init(mlt_profile, mlt_service_type, const char*, char*) {
  // The effect's log, started by the first filter: MLT loads every module
  // at start-up, also where no one uses this one.
  static std::once_flag log;
  std::call_once(log, [] { LoggerInit(kLogFileStem, kLogFolderName); });
  mlt_filter filter = mlt_filter_new();
  if (!filter) return nullptr;
  filter->child = new Instance;
  filter->process = Process;
  filter->close = Close;
  for (const MltProperty& p : MltProperties())
    mlt_properties_set(MLT_FILTER_PROPERTIES(filter), p.name.c_str(), DefaultText(p).c_str());
  return filter;
}

// The metadata editors and `melt -query` read, generated from the parameter
// table at build time and installed in MLT's data folder.
mlt_properties Metadata(mlt_service_type, const char*, void* file) {
  const std::string path =
      std::string(mlt_environment("MLT_DATA")) + "/tremordistiller/" + static_cast<const char*>(file);
  return mlt_properties_parse_yaml(path.c_str());
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void mlt_register(mlt_repository repository) {
  MLT_REGISTER(mlt_service_filter_type, kService, Init);
  MLT_REGISTER_METADATA(mlt_service_filter_type, kService, Metadata, const_cast<char*>("filter_tremor_distiller.yml"));
}
