// The render's neighbours on threads of their own: input frames decoded on
// one thread and converted to float RGBA on another, output frames converted
// and encoded on a third, each joined to the render by a short queue, so the
// render thread only renders and memory stays a few frames per queue.
#ifndef TREMOR_TOOLS_FRAMEPIPELINE_H
#define TREMOR_TOOLS_FRAMEPIPELINE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "MediaIO.h"

namespace render {

// A bounded first-in first-out hand-over between two threads. Close ends it
// after what is queued; Cancel drops what is queued and wakes both ends.
template <typename T>
class Channel {
 public:
  explicit Channel(size_t capacity) : capacity_(capacity < 1 ? 1 : capacity) {}
  // Waits for room; false once cancelled.
  bool Push(T item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return cancelled_ || items_.size() < capacity_; });
    if (cancelled_) return false;
    items_.push_back(std::move(item));
    changed_.notify_all();
    return true;
  }
  // Waits for an item; false once cancelled, or closed and empty.
  bool Pop(T& item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return cancelled_ || closed_ || !items_.empty(); });
    if (cancelled_ || items_.empty()) return false;
    item = std::move(items_.front());
    items_.pop_front();
    changed_.notify_all();
    return true;
  }
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }
  void Cancel() {
    std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = true;
    items_.clear();
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
  const size_t capacity_;
  bool closed_ = false, cancelled_ = false;
};

// Pixel memory of written frames handed back to the converter: frame-sized
// buffers that keep their pages, where fresh ones cost a page fault every 4 KiB.
class SparePixels {
 public:
  explicit SparePixels(size_t capacity) : capacity_(capacity) {}
  void Give(std::vector<float> pixels) {  // kept while there is room
    std::lock_guard<std::mutex> lock(mutex_);
    if (spare_.size() < capacity_) spare_.push_back(std::move(pixels));
  }
  std::vector<float> Take() {  // empty when none is spare
    std::lock_guard<std::mutex> lock(mutex_);
    if (spare_.empty()) return {};
    std::vector<float> pixels = std::move(spare_.back());
    spare_.pop_back();
    return pixels;
  }

 private:
  std::mutex mutex_;
  std::vector<std::vector<float>> spare_;
  const size_t capacity_;
};

// One input frame as the render takes it, in the clip's order.
struct InputFrame {
  int64_t index = 0;  // 0-based; at the end, the clip's frame count
  media::Picture picture;
  media::DecodedFrame decoded;  // instead of the picture, from a source that does not convert
  std::exception_ptr error;     // reading this frame failed: nothing comes after it
  bool end = false;
};

// Reads frames 0..until of `reader` ahead of the render, up to `ahead`
// converted frames waiting; frames before `from` are decoded only (no one
// looks at them, but later frames need them).
class FrameSource {
 public:
  // With `convert` false the frames come as decoded, for the caller to
  // convert (Reader::Convert, on one thread at a time) when it needs them.
  // Converted pictures take their memory from `spares` where it has some.
  FrameSource(media::Reader& reader, int64_t from, int64_t until, size_t ahead, bool convert = true,
              SparePixels* spares = nullptr);
  ~FrameSource();  // stops both threads
  FrameSource(const FrameSource&) = delete;
  FrameSource& operator=(const FrameSource&) = delete;
  // The next frame from `from` on; waits for it.
  InputFrame Next();

 private:
  struct Decoded {
    int64_t index = 0;
    media::DecodedFrame frame;
    std::exception_ptr error;
    bool end = false;
  };
  void DecodeLoop();
  void ConvertLoop();

  media::Reader& reader_;
  const int64_t from_, until_;
  const bool convert_;
  SparePixels* spares_;
  Channel<Decoded> decoded_;
  Channel<InputFrame> converted_;
  std::thread decoder_, converter_;
};

// Writes rendered frames, in the order given, on a thread of its own.
class FrameSink {
 public:
  // Written pictures give their memory to `spares`, where there is one.
  FrameSink(media::Writer& writer, size_t capacity, SparePixels* spares = nullptr);
  ~FrameSink();  // drops what is queued and stops the thread
  FrameSink(const FrameSink&) = delete;
  FrameSink& operator=(const FrameSink&) = delete;
  // Queues a frame; throws the writer's error once it has failed.
  void Write(media::Picture picture, int64_t frameNumber);
  // Waits until every queued frame is written, then throws the writer's
  // error if it failed. Nothing may be queued after this.
  void Flush();

 private:
  void WriteLoop();
  void ThrowIfFailed();

  media::Writer& writer_;
  SparePixels* spares_;
  Channel<std::pair<media::Picture, int64_t>> queue_;
  std::mutex errorMutex_;
  std::exception_ptr error_;
  std::thread thread_;
};

}  // namespace render

#endif
