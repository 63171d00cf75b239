#include "SequentialClip.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace render {
namespace {

FrameDepth EngineDepth(media::SampleDepth d) {
  return d == media::SampleDepth::U8    ? FRAME_DEPTH_U8
         : d == media::SampleDepth::U16 ? FRAME_DEPTH_U16
                                        : FRAME_DEPTH_PASS;
}

void ToSource(media::CompactPicture&& from, engine::SourcePicture& to) {
  to.width = from.width;
  to.height = from.height;
  to.depth = EngineDepth(from.depth);
  to.pixels = std::move(from.pixels);
}

}  // namespace

SequentialClip::SequentialClip(media::Reader& reader, int64_t from, size_t ahead)
    : reader_(reader), from_(std::max<int64_t>(0, from)), ahead_(std::max<size_t>(1, ahead)) {
  convertNext_ = from_;
  decodedUpTo_ = reader_.SeekBefore(from_);
  try {
    decoder_ = std::thread([this] { DecodeLoop(); });
    converter_ = std::thread([this] { ConvertLoop(); });
  } catch (...) {
    Stop();  // a thread the system could not start (short of memory)
    throw;
  }
}

SequentialClip::~SequentialClip() { Stop(); }

void SequentialClip::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (decoder_.joinable()) decoder_.join();
  if (converter_.joinable()) converter_.join();
}

bool SequentialClip::Wanted(int64_t k) const { return k <= std::max(asked_, from_) + static_cast<int64_t>(ahead_); }

void SequentialClip::DecodeLoop() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [&] { return stopping_ || decodedUpTo_ < from_ || Wanted(decodedUpTo_); });
      if (stopping_) return;
    }
    media::DecodedFrame frame;
    bool got = false;
    std::exception_ptr error;
    try {
      got = reader_.Decode(frame);
    } catch (...) {
      error = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!got) {
      error_ = error;
      ended_ = true;
      changed_.notify_all();
      return;
    }
    const int64_t k = decodedUpTo_++;
    decodedBytes_ = std::max(decodedBytes_, frame.Bytes());
    // Frames before the first stack's reach are only decoded: later frames need them.
    if (k >= from_ && k >= forgotten_) decoded_.emplace(k, std::move(frame));
    changed_.notify_all();
  }
}

bool SequentialClip::ToConvert() const {
  return decoded_.count(convertNext_) && Wanted(convertNext_) && converted_.size() < ahead_;
}

void SequentialClip::ConvertLoop() {
  for (;;) {
    int64_t k = 0;
    const media::DecodedFrame* frame = nullptr;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      // Only frames after the newest asked for: older ones are converted by
      // whoever fetches them, so no more than `ahead` converted frames wait
      // (a chunk's first stack asks for hundreds of frames, newest first).
      changed_.wait(lock, [&] {
        convertNext_ = std::max({convertNext_, asked_ + 1, forgotten_});
        return stopping_ || (ended_ && convertNext_ >= decodedUpTo_) || ToConvert();
      });
      if (stopping_ || (ended_ && convertNext_ >= decodedUpTo_)) return;
      k = convertNext_++;
      frame = &decoded_.find(k)->second;
      converting_ = k;
    }
    media::CompactPicture picture;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!spare_.empty()) picture.pixels = std::move(spare_.back()), spare_.pop_back();
    }
    std::exception_ptr error;
    try {
      std::lock_guard<std::mutex> convert(convertMutex_);
      reader_.ConvertCompact(*frame, picture);
    } catch (...) {
      error = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    converting_ = -1;
    if (error) {
      // Nothing after a frame that cannot be read: the clip ends there.
      error_ = error;
      ended_ = true;
      decodedUpTo_ = std::min(decodedUpTo_, k);
      changed_.notify_all();
      return;
    }
    pts_[k] = picture.pts;
    converted_.emplace(k, std::move(picture));
    changed_.notify_all();
  }
}

int64_t SequentialClip::FrameCount() const {
  const int64_t known = reader_.Info().frameCount;
  std::lock_guard<std::mutex> lock(mutex_);
  if (ended_) return decodedUpTo_;
  return known;
}

bool SequentialClip::Has(int64_t k) {
  std::unique_lock<std::mutex> lock(mutex_);
  asked_ = std::max(asked_, k);
  changed_.notify_all();
  changed_.wait(lock, [&] { return decodedUpTo_ > k || ended_ || stopping_; });
  if (decodedUpTo_ > k) return true;
  if (error_) std::rethrow_exception(error_);
  return false;
}

bool SequentialClip::Fetch(int64_t k, engine::SourcePicture& picture) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (k < from_ || k < forgotten_)
    throw std::logic_error("frame " + std::to_string(k) + " was asked for after it was let go");
  asked_ = std::max(asked_, k);
  changed_.notify_all();
  changed_.wait(lock, [&] {
    return stopping_ || converted_.count(k) || (decoded_.count(k) && converting_ != k) || (ended_ && k >= decodedUpTo_);
  });
  if (auto it = converted_.find(k); it != converted_.end()) {
    ToSource(std::move(it->second), picture);
    converted_.erase(it);
    CheckSize(k, picture);
    changed_.notify_all();
    return true;
  }
  if (auto it = decoded_.find(k); it != decoded_.end()) {
    // Not converted ahead (older than the newest asked for), or handed over
    // once already: converted here from its decoded form.
    const media::DecodedFrame* frame = &it->second;
    media::CompactPicture again;
    if (!spare_.empty()) again.pixels = std::move(spare_.back()), spare_.pop_back();
    lock.unlock();
    {
      std::lock_guard<std::mutex> convert(convertMutex_);
      reader_.ConvertCompact(*frame, again);
    }
    lock.lock();
    pts_[k] = again.pts;
    ToSource(std::move(again), picture);
    CheckSize(k, picture);
    return true;
  }
  if (error_) std::rethrow_exception(error_);
  return false;
}

// Named as the user knows the frame: a sequence's by its file number.
void SequentialClip::CheckSize(int64_t k, const engine::SourcePicture& picture) const {
  const media::InputInfo& info = reader_.Info();
  if (picture.width == info.width && picture.height == info.height) return;
  auto size = [](int w, int h) { return std::to_string(w) + "x" + std::to_string(h); };
  throw media::MediaError((info.isSequence ? "file " : "frame ") + std::to_string(k + info.firstNumber) + " is " +
                          size(picture.width, picture.height) + ", unlike the clip's " + size(info.width, info.height));
}

void SequentialClip::Recycle(engine::SourcePicture&& picture) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (spare_.size() < ahead_ + 1) spare_.push_back(std::move(picture.pixels));
}

void SequentialClip::ForgetBefore(int64_t k) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (k <= forgotten_) return;
  forgotten_ = k;
  decoded_.erase(decoded_.begin(), decoded_.lower_bound(std::min(k, converting_ < 0 ? k : converting_)));
  converted_.erase(converted_.begin(), converted_.lower_bound(k));
  pts_.erase(pts_.begin(), pts_.lower_bound(k));
  changed_.notify_all();
}

size_t SequentialClip::DecodedBytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return decodedBytes_;
}

int64_t SequentialClip::Pts(int64_t k) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = pts_.find(k);
  return it == pts_.end() ? media::kNoTime : it->second;
}

}  // namespace render
