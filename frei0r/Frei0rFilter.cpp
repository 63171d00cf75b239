// The effect as a frei0r filter, for FFmpeg, MLT and the editors built on it.
// Each instance opens its own device (TREMOR_DISTILLER_DEVICE, else "auto":
// a GPU if there is one, else PoCL), keeps the frames its stacks reach on it,
// each uploaded once, and renders every frame's stack through the effect's
// one frame-stack loop. A device that cannot be used is reported once on
// standard error and the frames pass through unchanged: a filter must not
// bring its host down.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "Device.h"
#include "DeviceFrameStack.h"
#include "Frei0rControls.h"
#include "Frei0rStack.h"
#include "LogsController.h"
extern "C" {  // the header declares the entry points for C callers
#include "frei0r.h"
}

namespace {

constexpr size_t kPixelBytes = 16;     // B, G, R, A floats on the device
constexpr size_t kBytePixelBytes = 4;  // B, G, R, A bytes, for StackKernel

// A frame the history holds, as floats or, where StackKernel reads the
// stack, as the bytes it came in.
struct HeldFrame {
  DeviceBuffer buffer;
  FrameDepth depth;
};

// One line per kind of trouble for the whole process: hosts make many
// instances, and one broken device would otherwise fill the terminal.
void ReportOnce(const std::string& line, bool passThrough = true) {
  static std::mutex mutex;
  static std::vector<std::string> said;
  std::lock_guard<std::mutex> lock(mutex);
  if (std::find(said.begin(), said.end(), line) != said.end()) return;
  said.push_back(line);
  std::fprintf(stderr, "tremor_distiller: %s%s\n", line.c_str(), passThrough ? "; frames pass through unchanged" : "");
}

struct Instance {
  unsigned int width, height;
  std::vector<double> values = DefaultControlValues();
  std::unique_ptr<Device> device;
  std::unique_ptr<DeviceKernels> kernels;
  FrameClock clock;
  std::map<int64_t, HeldFrame> history;  // by frame number
  std::vector<HeldFrame> spare;
  DeviceBuffer output;
  size_t capacity = 0;  // frames the history may hold
  bool failed = false;

  size_t FrameBytes() const { return static_cast<size_t>(width) * height * kPixelBytes; }

  void Open() {
    const char* text = std::getenv("TREMOR_DISTILLER_DEVICE");
    device = std::make_unique<Device>(OpenDevice(text && *text ? text : "auto"));
    kernels = std::make_unique<DeviceKernels>(*device);
    if (kernels->status != 0)
      throw std::runtime_error("the effect's kernels did not build on " + device->name + " (status " +
                               std::to_string(kernels->status) + ")");
    output = AllocateDeviceBuffer(*device, FrameBytes());
    // Half of what the system can give now: hosts run several instances.
    capacity = std::max<size_t>(2, AvailableHostMemory() / 2 / FrameBytes());
  }

  ~Instance() {
    // Device memory and kernels go before the device they belong to.
    history.clear();
    spare.clear();
    output.reset();
    kernels.reset();
    if (device) CloseDevice(*device);
  }

  size_t Pixels() const { return static_cast<size_t>(width) * height; }
  size_t HeldBytes(FrameDepth depth) const {
    return Pixels() * (depth == FRAME_DEPTH_U8 ? kBytePixelBytes : kPixelBytes);
  }

  // R, G, B, A bytes as a held frame of `depth`: bytes swapped into B, G, R,
  // A, or floats divided as the hosts divide.
  HeldFrame Upload(const uint8_t* rgba, FrameDepth depth) {
    HeldFrame held{DeviceBuffer(nullptr, DeviceBufferDeleter{device.get()}), depth};
    for (size_t i = 0; i < spare.size(); ++i)
      if (spare[i].depth == depth) {
        held.buffer = std::move(spare[i].buffer);
        spare.erase(spare.begin() + static_cast<ptrdiff_t>(i));
        break;
      }
    if (!held.buffer) held.buffer = AllocateDeviceBuffer(*device, HeldBytes(depth));
    DeviceBytes bytes(*device, held.buffer.get(), HeldBytes(depth), false);
    if (depth == FRAME_DEPTH_U8) {
      uint8_t* bgra = bytes.data();
      for (size_t p = 0; p < Pixels(); ++p, rgba += 4, bgra += 4)
        bgra[0] = rgba[2], bgra[1] = rgba[1], bgra[2] = rgba[0], bgra[3] = rgba[3];
    } else {
      auto* bgra = reinterpret_cast<float*>(bytes.data());
      for (size_t p = 0; p < Pixels(); ++p, rgba += 4, bgra += 4)
        bgra[0] = rgba[2] / 255.0f, bgra[1] = rgba[1] / 255.0f, bgra[2] = rgba[0] / 255.0f, bgra[3] = rgba[3] / 255.0f;
    }
    bytes.Publish();
    return held;
  }

  // The history in the depth this stack is read in: a change of mode
  // converts it, exactly (a float from a byte goes back to that byte).
  void HoldAs(FrameDepth depth) {
    std::vector<uint8_t> rgba(Pixels() * 4);
    for (auto& [number, held] : history) {
      if (held.depth == depth) continue;
      {
        const DeviceBytes old(*device, held.buffer.get(), HeldBytes(held.depth), true);
        for (size_t i = 0; i < rgba.size(); ++i) {
          const size_t c = i % 4 == 3 ? i : i - i % 4 + (2 - i % 4);  // B, G, R, A from R, G, B, A
          rgba[i] = held.depth == FRAME_DEPTH_U8
                        ? old.data()[c]
                        : static_cast<uint8_t>(std::lround(reinterpret_cast<const float*>(old.data())[c] * 255.0f));
        }
      }
      held = Upload(rgba.data(), depth);
    }
  }

  // Frames leaving the history keep their memory for the next ones: fresh
  // buffers cost a page fault every 4 KiB on a CPU device.
  template <typename It>
  void Retire(It first, It last) {
    for (It it = first; it != last; ++it)
      if (spare.size() < 4) spare.push_back(std::move(it->second));
    history.erase(first, last);
  }

  void Download(uint32_t* out) {
    const DeviceBytes bytes(*device, output.get(), FrameBytes(), true);
    const auto* pixels = reinterpret_cast<const float*>(bytes.data());
    auto* target = reinterpret_cast<uint8_t*>(out);
    // lround's value for 0..255, in double where x + 0.5 is exact.
    auto to8 = [](float v) {
      return static_cast<uint8_t>(static_cast<double>(std::clamp(v, 0.0f, 1.0f) * 255.0f) + 0.5);
    };
    for (size_t p = 0, n = static_cast<size_t>(width) * height; p < n; ++p) {
      const float* bgra = pixels + 4 * p;
      uint8_t* rgba = target + 4 * p;
      rgba[0] = to8(bgra[2]), rgba[1] = to8(bgra[1]), rgba[2] = to8(bgra[0]), rgba[3] = to8(bgra[3]);
    }
  }

  void Update(double time, const uint32_t* in, uint32_t* out) {
    KernelData kd;
    FillKernelData(values, kd);
    const double offset = StackOffset(values);
    bool restarted = false;
    const int64_t now = clock.Place(time, &restarted);
    if (restarted) Retire(history.begin(), history.end());
    // Frames no stack from here on can reach leave first.
    const int64_t reach = StackReach(kd.numFrames, offset);
    Retire(history.begin(), history.lower_bound(now - reach + 1));
    if (static_cast<uint64_t>(reach) > capacity) {
      // Past the memory, the oldest frames go: a stack frame they would have
      // been takes its newer neighbour's picture, as at a clip's start.
      ReportOnce("a stack reaching " + std::to_string(reach) + " frames of " + std::to_string(width) + "x" +
                     std::to_string(height) + " does not fit in memory; the oldest " +
                     std::to_string(reach - capacity) + " take their newer neighbours' pictures",
                 false);
      while (history.size() >= capacity) Retire(history.begin(), std::next(history.begin()));
    }
    // StackKernel reads bytes itself: a quarter of the memory and traffic.
    const FrameDepth depth =
        StackKernelReady(static_cast<GPUFramework>(device->kind->framework), &kernels->list) && StackRunsFused(kd)
            ? FRAME_DEPTH_U8
            : FRAME_DEPTH_PASS;
    HoldAs(depth);
    Retire(history.lower_bound(now), history.upper_bound(now));
    history.emplace(now, Upload(reinterpret_cast<const uint8_t*>(in), depth));

    FrameStackJob job;
    const auto pitch = static_cast<int32_t>(width * kPixelBytes);
    const auto heldPitch = static_cast<int32_t>(HeldBytes(depth) / height);
    const auto w = static_cast<int32_t>(width), h = static_cast<int32_t>(height);
    void* newer = nullptr;
    for (const int64_t k : StackFrameNumbers(now, kd.numFrames, offset)) {
      const auto found = history.find(k);
      // A frame before the history's start takes its newer neighbour's picture.
      void* frame = found != history.end() ? found->second.buffer.get() : newer;
      job.frames.push_back({frame, w, h, heldPitch, 0, 0, depth});
      newer = frame;
    }
    job.output = {output.get(), w, h, pitch, 0, 0};
    job.is16f = false;
    job.kernelData = &kd;
    const FrameStackHost host = MakeDeviceFrameStackHost(*device, &kernels->list, job);
    if (const int32_t status = RenderFrameStack(job, host))
      throw std::runtime_error("a render failed with status " + std::to_string(status) +
                               "; the effect's log has the details");
    Download(out);
  }
};

}  // namespace

extern "C" {

// The effect's log, as its global set-up starts it on the other hosts.
__attribute__((visibility("default"))) int f0r_init() {
  LoggerInit(kLogFileStem, kLogFolderName);
  return 1;
}

__attribute__((visibility("default"))) void f0r_deinit() {}

__attribute__((visibility("default"))) void f0r_get_plugin_info(f0r_plugin_info_t* info) {
  // Apart from the MLT service of the same name in editors that list both.
  info->name = "Tremor Distiller (frei0r)";
  info->author = "Harbour Lantern Lab";
  info->plugin_type = F0R_PLUGIN_TYPE_FILTER;
  info->color_model = F0R_COLOR_MODEL_RGBA8888;
  info->frei0r_version = FREI0R_MAJOR_VERSION;
  info->major_version = 1;
  info->minor_version = 0;
  info->num_params = static_cast<int>(Frei0rControls().size());
  info->explanation = "Makes movement visible: the differences of a stack of earlier frames, accumulated under a fade";
}

__attribute__((visibility("default"))) void f0r_get_param_info(f0r_param_info_t* info, int index) {
  const auto& controls = Frei0rControls();
  if (index < 0 || index >= static_cast<int>(controls.size())) return;
  info->name = controls[index].name.c_str();
  info->type = controls[index].type;
  info->explanation = controls[index].explanation.c_str();
}

__attribute__((visibility("default"))) f0r_instance_t f0r_construct(unsigned int width, unsigned int height) {
  auto instance = std::make_unique<Instance>();
  instance->width = width;
  instance->height = height;
  try {
    if (width == 0 || height == 0)
      throw std::runtime_error("a frame of " + std::to_string(width) + "x" + std::to_string(height) + " has no pixels");
    instance->Open();
  } catch (const std::bad_alloc&) {
    ReportOnce("cannot use the device: out of memory");
    instance->failed = true;
  } catch (const std::exception& e) {
    ReportOnce(std::string("cannot use the device: ") + e.what());
    instance->failed = true;
  }
  return instance.release();
}

__attribute__((visibility("default"))) void f0r_destruct(f0r_instance_t instance) {
  delete static_cast<Instance*>(instance);
}

__attribute__((visibility("default"))) void f0r_set_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  auto* self = static_cast<Instance*>(instance);
  const auto& controls = Frei0rControls();
  if (!self || !param || index < 0 || index >= static_cast<int>(controls.size())) return;
  // Booleans and doubles alike come as a double.
  const double value = *static_cast<const double*>(param);
  // melt sets every value before each frame, and may make several
  // instances: each value is named once.
  const std::string note = OutOfRangeNote(controls[index], value);
  if (!note.empty()) ReportOnce(note, false);
  self->values[index] = ControlValue(controls[index], value);
}

__attribute__((visibility("default"))) void f0r_get_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  const auto* self = static_cast<const Instance*>(instance);
  const auto& controls = Frei0rControls();
  if (!self || !param || index < 0 || index >= static_cast<int>(controls.size())) return;
  *static_cast<double*>(param) = Frei0rValue(controls[index], self->values[index]);
}

__attribute__((visibility("default"))) void f0r_update(f0r_instance_t instance, double time, const uint32_t* in,
                                                       uint32_t* out) {
  auto* self = static_cast<Instance*>(instance);
  if (!self->failed) {
    try {
      self->Update(time, in, out);
      return;
    } catch (const std::bad_alloc&) {
      ReportOnce("out of memory rendering a frame of " + std::to_string(self->width) + "x" +
                 std::to_string(self->height));
      self->failed = true;
    } catch (const std::exception& e) {
      ReportOnce(e.what());
      self->failed = true;
    }
  }
  std::memcpy(out, in, static_cast<size_t>(self->width) * self->height * 4);
}

}  // extern "C"
