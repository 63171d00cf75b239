// The render engine tremor-render runs on: output frame N of a clip,
// rendered by its position. It asks the clip for exactly the frames N's stack
// needs (the effect's own schedule), keeps a bounded set of them on the
// device in the depth they came in, and runs the effect's frame-stack loop
// over them. It keeps no history: frame N is the same whatever was rendered
// before it, and on any thread.
#ifndef TREMOR_ENGINE_ENGINE_H
#define TREMOR_ENGINE_ENGINE_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "Device.h"
#include "Kernel_Data.h"
#include "TremorDistiller_FrameStack.h"

namespace engine {

// A failed render or fetch; the message is one line for the user.
struct EngineError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Memory the device or the process could not give.
struct OutOfMemory : EngineError {
  using EngineError::EngineError;
};

// One input frame as a clip hands it over: B, G, R, A in memory order, rows
// top to bottom without padding, in the depth the source has.
struct SourcePicture {
  int width = 0;
  int height = 0;
  FrameDepth depth = FRAME_DEPTH_U8;
  std::vector<uint8_t> pixels;
};

size_t PixelBytes(FrameDepth depth);

// Where frames come from: anything that can hand over frame k by its number.
class ClipSource {
 public:
  virtual ~ClipSource() = default;
  // Frames in the clip; -1 while not known (frames past the end then show
  // up as a Fetch that returns false).
  virtual int64_t FrameCount() const = 0;
  // Frame k (k >= 0); false when the clip has no frame k. Called from any
  // thread, never twice at once for the same k.
  virtual bool Fetch(int64_t k, SourcePicture& picture) = 0;
  // A fetched picture's memory, handed back once its frame is on the device,
  // for a source that reuses it (fresh memory costs a page fault every 4 KiB).
  virtual void Recycle(SourcePicture&& /*picture*/) {}
};

// What the engine needs of a device beyond its memory: the effect's
// frame-stack loop operations on it, and whether StackKernel runs there.
struct EngineDevice {
  const Device* device = nullptr;
  std::function<FrameStackHost(const FrameStackJob&)> frameStackHost;
  bool stackKernel = false;
};

// A device opened for the engine, with the effect's kernels built on it. A
// device whose StackKernel cannot be made still renders, pass by pass.
class OpenedDevice {
 public:
  explicit OpenedDevice(const std::string& text);  // as OpenDevice; throws DeviceError
  ~OpenedDevice();
  OpenedDevice(const OpenedDevice&) = delete;
  OpenedDevice& operator=(const OpenedDevice&) = delete;
  const EngineDevice& Get() const { return engine_; }
  const std::string& Name() const { return device_.name; }

 private:
  Device device_;
  struct Kernels;
  std::unique_ptr<Kernels> kernels_;
  EngineDevice engine_;
};

struct Settings {
  KernelData controls{};  // as filled from the effect's controls
  float offset = 1.0f;    // "Frames offset"
  // Device memory the held frames may take; at least one stack is always held.
  uint64_t cacheBytes = uint64_t{1} << 30;
};

class Engine {
 public:
  Engine(const EngineDevice& device, ClipSource& source, const Settings& settings);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Output frame k as float B, G, R, A, width * height * 4 values, at the
  // size of the clip's frames (all alike). Throws EngineError.
  void Render(int64_t k, std::vector<float>& out);

  // The input frames of output frame k's stack, newest first.
  std::vector<int64_t> StackFrames(int64_t k) const;

  int Width();  // 0 until a frame has been held
  int Height();
  // Frames fetched from the source so far (each held frame once).
  uint64_t Fetches() const;
  // Device bytes one held frame takes.
  uint64_t HeldFrameBytes();
  // No output frame will be asked for whose stack reaches before input
  // frame k: the frames before it can go (a front end rendering in order).
  void ForgetBefore(int64_t k);

 private:
  struct Held;
  void RenderStack(int64_t k, std::vector<float>& out);
  // Frame k on the device; `stack`, the frames of its render, stay.
  std::shared_ptr<Held> Hold(int64_t k, const std::vector<int64_t>& stack);
  // Device buffers of one size come back for reuse: fresh ones cost a page
  // fault every 4 KiB on a CPU device, every frame.
  std::shared_ptr<void> Buffer(size_t bytes);
  void Evict(int64_t keep);
  // Lets the least recently used frames go until `room` more fit; under mutex_.
  void LetGo(const std::vector<int64_t>& keep, size_t room);
  void CheckStackFits();

  const EngineDevice& device_;
  ClipSource& source_;
  const Settings settings_;
  const bool fused_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::map<int64_t, std::shared_ptr<Held>> held_;
  std::mutex spareMutex_;
  std::map<size_t, std::vector<void*>> spare_;  // by size
  uint64_t clock_ = 0, fetches_ = 0;
  int width_ = 0, height_ = 0;
  FrameDepth depth_ = FRAME_DEPTH_U8;
  int64_t clipFrames_ = -1;
};

}  // namespace engine

#endif
