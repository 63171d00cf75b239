// A clip read front to back, as the engine's source: frames are decoded on
// one thread and converted on another, a few ahead of the render, and handed
// over by number. A frame handed over is kept only in its decoded form (a few
// MB at 1080p), converted again should the engine ask for it once more.
#ifndef TREMOR_TOOLS_SEQUENTIALCLIP_H
#define TREMOR_TOOLS_SEQUENTIALCLIP_H

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Engine.h"
#include "MediaIO.h"

namespace render {

class SequentialClip : public engine::ClipSource {
 public:
  // Frames before `from` are decoded only; `ahead` converted frames wait at most.
  SequentialClip(media::Reader& reader, int64_t from, size_t ahead);
  ~SequentialClip() override;  // stops both threads
  SequentialClip(const SequentialClip&) = delete;
  SequentialClip& operator=(const SequentialClip&) = delete;

  int64_t FrameCount() const override;
  // Waits for frame k; throws the reader's error where reading stopped before it.
  bool Fetch(int64_t k, engine::SourcePicture& picture) override;
  void Recycle(engine::SourcePicture&& picture) override;
  // No stack will ask for the frames before k again.
  void ForgetBefore(int64_t k);
  // Frame k's presentation time, media::kNoTime where it has none.
  int64_t Pts(int64_t k);
  // Waits until frame k has been read or the clip has ended; false past its end.
  bool Has(int64_t k);
  // The most memory one decoded frame has taken so far.
  size_t DecodedBytes() const;

 private:
  void CheckSize(int64_t k, const engine::SourcePicture& picture) const;
  void DecodeLoop();
  void ConvertLoop();
  void Stop();
  bool Wanted(int64_t k) const;  // under mutex_
  bool ToConvert() const;        // under mutex_: convertNext_ may be converted now

  media::Reader& reader_;
  const int64_t from_;
  const size_t ahead_;
  std::mutex convertMutex_;  // the reader converts on one thread at a time
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int64_t, media::DecodedFrame> decoded_;
  std::map<int64_t, media::CompactPicture> converted_;
  std::map<int64_t, int64_t> pts_;
  std::vector<std::vector<uint8_t>> spare_;  // pixel memory to convert into
  int64_t decodedUpTo_ = 0;                  // frames read so far
  int64_t convertNext_ = 0;                  // the next frame the converter may take
  int64_t asked_ = -1;                       // the newest frame asked for
  int64_t forgotten_ = 0;                    // frames before this are gone
  int64_t converting_ = -1;                  // the frame the converter is on
  size_t decodedBytes_ = 0;
  bool ended_ = false, stopping_ = false;
  std::exception_ptr error_;
  std::thread decoder_, converter_;
};

}  // namespace render

#endif
