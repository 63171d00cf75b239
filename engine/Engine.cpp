#include "Engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <set>

#include "DeviceFrameStack.h"
#include "TremorDistiller_Schedule.h"

namespace engine {

size_t PixelBytes(FrameDepth depth) { return depth == FRAME_DEPTH_U8 ? 4 : depth == FRAME_DEPTH_U16 ? 8 : 16; }

// ---- The device ----

struct OpenedDevice::Kernels {
  explicit Kernels(const Device& d) : kernels(d) {}
  DeviceKernels kernels;
};

OpenedDevice::OpenedDevice(const std::string& text) : device_(OpenDevice(text)) {
  engine_.device = &device_;
  try {
    kernels_ = std::make_unique<Kernels>(device_);
  } catch (...) {
    CloseDevice(device_);
    throw;
  }
  if (kernels_->kernels.status != 0) {
    const std::string why = "the effect's kernels did not build on " + device_.name + " (status " +
                            std::to_string(kernels_->kernels.status) + ")";
    kernels_.reset();
    CloseDevice(device_);
    throw DeviceError(why);
  }
  const KernelList* list = &kernels_->kernels.list;
  const Device* device = &device_;
  engine_.stackKernel = StackKernelReady(static_cast<GPUFramework>(device_.kind->framework), list);
  engine_.frameStackHost = [device, list](const FrameStackJob& job) {
    return MakeDeviceFrameStackHost(*device, list, job);
  };
}

OpenedDevice::~OpenedDevice() {
  kernels_.reset();  // kernels go before their device
  CloseDevice(device_);
}

// ---- Held frames ----

// A frame on the device, or on its way there. `exists` false: the clip has
// no such frame. Renders hold the record while they use the buffer.
struct Engine::Held {
  std::shared_ptr<void> buffer;
  bool ready = false, exists = false, outOfMemory = false;
  std::string error;
  uint64_t lastUse = 0;
};

namespace {

// An integer picture as float B, G, R, A, divided as the hosts' conversion
// divides: the pass-by-pass kernels read float frames only.
std::vector<float> FloatPixels(const SourcePicture& p) {
  const size_t n = static_cast<size_t>(p.width) * p.height * 4;
  std::vector<float> out(n);
  if (p.depth == FRAME_DEPTH_U8) {
    for (size_t i = 0; i < n; ++i) out[i] = p.pixels[i] / 255.0f;
  } else if (p.depth == FRAME_DEPTH_U16) {
    const auto* v = reinterpret_cast<const uint16_t*>(p.pixels.data());
    for (size_t i = 0; i < n; ++i) out[i] = v[i] / 65535.0f;
  } else {
    std::memcpy(out.data(), p.pixels.data(), n * sizeof(float));
  }
  return out;
}

std::string Size(int w, int h) { return std::to_string(w) + "x" + std::to_string(h); }

std::string Bytes(uint64_t n) {
  char text[32];
  const char* unit = n >= (uint64_t{1} << 30) ? "GiB" : n >= (uint64_t{1} << 20) ? "MiB" : "KiB";
  const double scale = n >= (uint64_t{1} << 30)   ? double(uint64_t{1} << 30)
                       : n >= (uint64_t{1} << 20) ? 1048576.0
                                                  : 1024.0;
  std::snprintf(text, sizeof text, "%.1f %s", n / scale, unit);
  return text;
}

}  // namespace

Engine::Engine(const EngineDevice& device, ClipSource& source, const Settings& settings)
    : device_(device),
      source_(source),
      settings_(settings),
      fused_(device.stackKernel && StackRunsFused(settings.controls)) {}

Engine::~Engine() {
  held_.clear();
  for (auto& [bytes, buffers] : spare_)
    for (void* b : buffers) device_.device->kind->release(*device_.device, b);
}

std::shared_ptr<void> Engine::Buffer(size_t bytes) {
  void* b = nullptr;
  {
    std::lock_guard<std::mutex> lock(spareMutex_);
    auto& spares = spare_[bytes];
    if (!spares.empty()) b = spares.back(), spares.pop_back();
  }
  if (!b) b = device_.device->kind->allocate(*device_.device, bytes);
  return std::shared_ptr<void>(b, [this, bytes](void* gone) {
    std::lock_guard<std::mutex> lock(spareMutex_);
    spare_[bytes].push_back(gone);
  });
}

void Engine::ForgetBefore(int64_t k) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = held_.begin(); it != held_.end() && it->first < k;)
    it = it->second->ready ? held_.erase(it) : std::next(it);
}

std::vector<int64_t> Engine::StackFrames(int64_t k) const {
  return StackSourceFrames(k, settings_.controls.numFrames, settings_.offset, source_.FrameCount());
}

std::shared_ptr<Engine::Held> Engine::Hold(int64_t k, const std::vector<int64_t>& stack) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto found = held_.find(k);
  if (found != held_.end()) {
    std::shared_ptr<Held> h = found->second;
    arrived_.wait(lock, [&] { return h->ready; });
    if (h->outOfMemory) throw OutOfMemory(h->error);
    if (!h->error.empty()) throw EngineError(h->error);
    h->lastUse = ++clock_;
    return h;
  }
  // Room first: the budget holds the frames, not the frames and a stack more.
  LetGo(stack, 1);
  auto h = std::make_shared<Held>();
  held_[k] = h;
  lock.unlock();

  // Fetched and uploaded outside the lock: other frames may come meanwhile.
  std::string error;
  bool outOfMemory = false;
  try {
    SourcePicture picture;
    if (source_.Fetch(k, picture)) {
      h->exists = true;
      if (picture.width <= 0 || picture.height <= 0 ||
          picture.pixels.size() < static_cast<size_t>(picture.width) * picture.height * PixelBytes(picture.depth))
        throw EngineError("frame " + std::to_string(k) + " came without its pixels");
      std::vector<float> floats;
      const void* bytes = picture.pixels.data();
      FrameDepth depth = picture.depth;
      if (!fused_ && depth != FRAME_DEPTH_PASS) {
        floats = FloatPixels(picture);
        bytes = floats.data();
        depth = FRAME_DEPTH_PASS;
      }
      const size_t size = static_cast<size_t>(picture.width) * picture.height * PixelBytes(depth);
      {
        std::lock_guard<std::mutex> geometry(mutex_);
        if (width_ == 0) width_ = picture.width, height_ = picture.height, depth_ = depth;
        if (picture.width != width_ || picture.height != height_)
          throw EngineError("frame " + std::to_string(k) + " is " + Size(picture.width, picture.height) +
                            ", unlike the clip's " + Size(width_, height_));
        if (depth != depth_) throw EngineError("frame " + std::to_string(k) + " changes the clip's pixel depth");
      }
      h->buffer = Buffer(size);
      device_.device->kind->upload(*device_.device, h->buffer.get(), bytes, size);
      source_.Recycle(std::move(picture));
    }
  } catch (const DeviceMemoryError& e) {
    error = e.what(), outOfMemory = true;
  } catch (const std::bad_alloc&) {
    error = "out of memory holding frame " + std::to_string(k), outOfMemory = true;
  } catch (const std::exception& e) {
    error = e.what();
  }
  lock.lock();
  if (!error.empty()) held_.erase(k);  // a later render may try again
  h->error = error;
  h->outOfMemory = outOfMemory;
  h->ready = true;
  h->lastUse = ++clock_;
  ++fetches_;
  arrived_.notify_all();
  if (outOfMemory) throw OutOfMemory(error);
  if (!error.empty()) throw EngineError(error);
  return h;
}

void Engine::Evict(int64_t keep) {
  std::lock_guard<std::mutex> lock(mutex_);
  LetGo({keep}, 0);
}

void Engine::LetGo(const std::vector<int64_t>& keep, size_t room) {
  const uint64_t frameBytes = static_cast<uint64_t>(width_) * height_ * PixelBytes(depth_);
  const uint64_t stack = static_cast<uint64_t>(std::max(1, settings_.controls.numFrames));
  const uint64_t limit = std::max<uint64_t>(stack, frameBytes ? settings_.cacheBytes / frameBytes : stack);
  while (held_.size() + room > limit) {
    // The least recently used frame no render is using or about to use.
    auto victim = held_.end();
    for (auto it = held_.begin(); it != held_.end(); ++it)
      if (it->second->ready && it->second.use_count() == 1 &&
          std::find(keep.begin(), keep.end(), it->first) == keep.end() &&
          (victim == held_.end() || it->second->lastUse < victim->second->lastUse))
        victim = it;
    if (victim == held_.end()) return;
    held_.erase(victim);
  }
}

void Engine::CheckStackFits() {
  // The frames of a stack away from the clip's ends (its time still exact in
  // float), where none repeats for want of frames.
  const std::vector<int64_t> numbers = StackSourceFrames(10000, settings_.controls.numFrames, settings_.offset, -1);
  const uint64_t count = std::set<int64_t>(numbers.begin(), numbers.end()).size();
  const uint64_t frame = HeldFrameBytes();
  if (frame * count <= settings_.cacheBytes) return;
  throw EngineError("a stack of " + std::to_string(count) + " frames of " + Size(Width(), Height()) + " needs " +
                    Bytes(frame * count) + " (" + Bytes(frame) + " a frame on the device); the memory budget is " +
                    Bytes(settings_.cacheBytes));
}

void Engine::Render(int64_t k, std::vector<float>& out) {
  try {
    RenderStack(k, out);
  } catch (const DeviceMemoryError& e) {
    throw OutOfMemory(e.what());
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("out of memory rendering frame " + std::to_string(k));
  }
}

void Engine::RenderStack(int64_t k, std::vector<float>& out) {
  if (k < 0 || k > kLastStackFrame) throw EngineError("frame " + std::to_string(k) + " is outside the time line");
  KernelData kd = settings_.controls;
  const std::vector<int64_t> numbers = StackFrames(k);

  // The stack's frames, newest first; one the clip does not have takes its
  // newer neighbour's picture, as on a host.
  std::vector<std::shared_ptr<Held>> frames;
  for (size_t i = 0; i < numbers.size(); ++i) {
    if (i == 1) CheckStackFits();
    std::shared_ptr<Held> h = Hold(numbers[i], numbers);
    if (!h->exists) {
      if (i == 0) throw EngineError("the clip has no frame " + std::to_string(k));
      h = frames.back();
    }
    frames.push_back(std::move(h));
  }

  FrameStackJob job;
  const int w = width_, h = height_;
  const auto rowBytes = static_cast<int32_t>(w * PixelBytes(depth_));
  for (const auto& f : frames) job.frames.push_back({f->buffer.get(), w, h, rowBytes, 0, 0, depth_});
  const size_t outBytes = static_cast<size_t>(w) * h * 16;
  const std::shared_ptr<void> output = Buffer(outBytes);
  // A one-frame stack leaves the output as it was given.
  if (kd.numFrames < 2) device_.device->kind->fill(*device_.device, output.get(), 0, outBytes);
  job.output = {output.get(), w, h, w * 16, 0, 0};
  job.is16f = false;
  job.kernelData = &kd;
  FrameStackHost host = device_.frameStackHost(job);
  // Scratch of the output's size from the engine's spares.
  std::vector<std::shared_ptr<void>> scratch;
  host.createScratch = [&](int32_t, int32_t, bool clear, void** out) -> int32_t {
    scratch.push_back(Buffer(outBytes));
    *out = scratch.back().get();
    if (clear) device_.device->kind->fill(*device_.device, *out, 0, outBytes);
    return 0;
  };
  host.disposeScratch = [](void*) -> int32_t { return 0; };
  if (const int32_t status = RenderFrameStack(job, host))
    throw EngineError("the render of frame " + std::to_string(k) + " failed with status " + std::to_string(status));
  out.resize(static_cast<size_t>(w) * h * 4);
  device_.device->kind->download(*device_.device, output.get(), out.data(), outBytes);
  frames.clear();
  Evict(k);
}

int Engine::Width() {
  std::lock_guard<std::mutex> lock(mutex_);
  return width_;
}

int Engine::Height() {
  std::lock_guard<std::mutex> lock(mutex_);
  return height_;
}

uint64_t Engine::Fetches() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fetches_;
}

uint64_t Engine::HeldFrameBytes() {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<uint64_t>(width_) * height_ * PixelBytes(depth_);
}

}  // namespace engine
