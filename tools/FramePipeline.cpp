#include "FramePipeline.h"

#include <stdexcept>

namespace render {

// Decoded frames are small and quick to make: two keep the converter fed.
FrameSource::FrameSource(media::Reader& reader, int64_t from, int64_t until, size_t ahead, bool convert,
                         SparePixels* spares)
    : reader_(reader), from_(from), until_(until), convert_(convert), spares_(spares), decoded_(2), converted_(ahead) {
  decoder_ = std::thread([this] { DecodeLoop(); });
  try {
    converter_ = std::thread([this] { ConvertLoop(); });
  } catch (...) {
    decoded_.Cancel();  // a thread the system could not start (short of memory)
    decoder_.join();
    throw;
  }
}

FrameSource::~FrameSource() {
  decoded_.Cancel();
  converted_.Cancel();
  decoder_.join();
  converter_.join();
}

void FrameSource::DecodeLoop() {
  for (int64_t index = 0; index <= until_; ++index) {
    Decoded d;
    d.index = index;
    try {
      d.end = !reader_.Decode(d.frame);
    } catch (...) {
      d.error = std::current_exception();
    }
    if (d.end || d.error) {
      decoded_.Push(std::move(d));
      break;
    }
    if (index >= from_ && !decoded_.Push(std::move(d))) return;
  }
  decoded_.Close();
}

void FrameSource::ConvertLoop() {
  Decoded d;
  while (decoded_.Pop(d)) {
    InputFrame f;
    f.index = d.index;
    f.error = d.error;
    f.end = d.end;
    if (!convert_) {
      f.decoded = std::move(d.frame);
    } else if (!f.end && !f.error) {
      try {
        if (spares_) f.picture.rgba = spares_->Take();
        reader_.Convert(d.frame, f.picture);
      } catch (...) {
        f.error = std::current_exception();
      }
    }
    const bool last = f.end || f.error;
    if (!converted_.Push(std::move(f)) || last) break;
  }
  converted_.Close();
}

InputFrame FrameSource::Next() {
  InputFrame f;
  if (!converted_.Pop(f)) throw std::logic_error("input frame asked for past " + std::to_string(until_));
  return f;
}

FrameSink::FrameSink(media::Writer& writer, size_t capacity, SparePixels* spares)
    : writer_(writer), spares_(spares), queue_(capacity) {
  thread_ = std::thread([this] { WriteLoop(); });
}

FrameSink::~FrameSink() {
  queue_.Cancel();
  if (thread_.joinable()) thread_.join();
}

void FrameSink::WriteLoop() {
  std::pair<media::Picture, int64_t> item;
  while (queue_.Pop(item)) {
    try {
      writer_.Write(item.first, item.second);
      if (spares_) spares_->Give(std::move(item.first.rgba));
    } catch (...) {
      {
        std::lock_guard<std::mutex> lock(errorMutex_);
        error_ = std::current_exception();
      }
      queue_.Cancel();  // a writer that failed takes nothing more
      return;
    }
  }
}

void FrameSink::ThrowIfFailed() {
  std::lock_guard<std::mutex> lock(errorMutex_);
  if (error_) std::rethrow_exception(error_);
}

void FrameSink::Write(media::Picture picture, int64_t frameNumber) {
  ThrowIfFailed();
  if (!queue_.Push({std::move(picture), frameNumber})) ThrowIfFailed();
}

void FrameSink::Flush() {
  queue_.Close();
  if (thread_.joinable()) thread_.join();
  ThrowIfFailed();
}

}  // namespace render
