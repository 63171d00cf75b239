// Reading and writing pictures for tremor-render, through FFmpeg's libraries:
// any video they decode or an image sequence given as a printf pattern
// (PNG 8/16-bit, EXR, TIFF) in; the formats of OutputFormats.h out.
//
// Pixels are R, G, B, A floats, rows top to bottom. Values reach the caller
// unchanged: 8-bit v becomes v/255, 16-bit v/65535, float stays; Y'CbCr is
// converted with the stream's own matrix and range, no change of transfer;
// alpha is 1 where the source has none. Integer outputs clamp to 0..1.
#ifndef TREMOR_TOOLS_MEDIAIO_H
#define TREMOR_TOOLS_MEDIAIO_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "OutputFormats.h"

namespace media {

// Every failure: one line that names the problem (file, frame number, ...).
class MediaError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A time the input does not give (an image sequence's frames).
constexpr int64_t kNoTime = INT64_MIN;

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<float> rgba;  // width * height * 4
  int64_t pts = kNoTime;    // presentation time in InputInfo::timeBase, as the input gives it
};

// A frame for the render engine: B, G, R, A in memory order, rows without
// padding, in the depth the source has (8 or 16-bit integers, else float as
// Picture has it, Y'CbCr included).
enum class SampleDepth { Float, U8, U16 };
struct CompactPicture {
  int width = 0;
  int height = 0;
  SampleDepth depth = SampleDepth::U8;
  std::vector<uint8_t> pixels;
  int64_t pts = kNoTime;
};

struct Rational {
  int num = 0;
  int den = 1;
};

// How the input's code values are to be read, in FFmpeg's numbering
// (AVColorPrimaries, AVColorTransferCharacteristic, AVColorSpace,
// AVColorRange); 2 (unspecified) where the input does not say.
struct Colour {
  int primaries = 2, transfer = 2, matrix = 2, range = 0;
};

struct InputInfo {
  int width = 0;
  int height = 0;
  Rational frameRate;       // frames per second
  Rational timeBase;        // of the frame timestamps below
  int64_t frameCount = -1;  // -1 when the container does not say
  bool hasAudio = false;
  bool isSequence = false;
  int64_t firstNumber = 0;  // a sequence's first file number: frame k is file firstNumber + k
  Colour colour;
};

// What the user asked of the encoders beyond the output format's row; empty
// fields keep the row's choice.
struct EncoderChoice {
  std::string codec, pixelFormat, crf, preset, bitrate;  // video: -c:v, -pix_fmt, -crf, -preset, -b:v
  bool noAudio = false;                                  // -an
  std::string audioCodec;                                // -c:a; "copy" or "" copies where the container takes it
};

// A frame as the decoder gave it, not yet converted: Reader::Decode fills it
// on one thread, Reader::Convert may turn it into a picture on another.
class DecodedFrame {
 public:
  DecodedFrame();
  ~DecodedFrame();
  DecodedFrame(DecodedFrame&&) noexcept;
  DecodedFrame& operator=(DecodedFrame&&) noexcept;
  // The memory its pictures hold (a 1080p 8-bit 4:2:0 frame about 3 MB).
  size_t Bytes() const;

 private:
  friend class Reader;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class Reader {
 public:
  // A path to a video, or a printf pattern such as "shots/a.%04d.png".
  // Throws MediaError for a missing/unreadable file or a stream with no video.
  explicit Reader(const std::string& input);
  ~Reader();
  const InputInfo& Info() const;
  // The next frame in presentation order; false at the end. Throws MediaError
  // naming the frame number (0-based) for a corrupt frame.
  bool Next(Picture& picture);
  // Next in two halves, so that decoding and conversion can run on two
  // threads at once (one each): Decode gives the next frame (false at the
  // end); a frame no one will look at need not be converted. Both throw as Next.
  bool Decode(DecodedFrame& frame);
  // Before any Decode: skips to a key frame at or before frame k where the
  // input allows, so a late range does not decode the clip from its start.
  // Returns the index of the frame Decode gives next.
  int64_t SeekBefore(int64_t k);
  void Convert(const DecodedFrame& frame, Picture& picture);
  // The same frame for the engine: values as Convert gives them, once
  // divided (v/255, v/65535) by whoever reads the integers.
  void ConvertCompact(const DecodedFrame& frame, CompactPicture& picture);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// An existing file of the input's (named as the input names it) that the output would write
// over (a video's path, or a pattern's files), or "" when they share none.
// Compared by device and inode, so other spellings of a path and links count,
// and as FFmpeg opens the input: through "file:", "concat:" and the like.
std::string FileSharedByInputAndOutput(const std::string& input, const std::string& output);

// Whether `path` is one of the files a frame number pattern names.
bool IsFrameOf(const std::string& pattern, const std::string& path);

// The file an output name writes, "file:" taken off as FFmpeg would; throws
// MediaError for a name of another protocol.
std::string LocalOutputName(const std::string& output);

// FFmpeg's own log off: what went wrong reaches the user as our one line.
void QuietLibraries();

class Writer {
 public:
  // Writes to `output` (for a video, at that exact path, which the caller makes
  // a temporary name; for a sequence, the pattern's files). Frame rate and
  // timing follow `info`; audio of `audioSource` is copied into video outputs.
  Writer(const std::string& output, const OutputFormat& format, const InputInfo& info, const std::string& audioSource,
         const EncoderChoice& choice = {});
  ~Writer();
  // `frameNumber` is the input frame this picture belongs to: it names a
  // sequence's file (the pattern's number). A video frame is timed by the
  // picture's pts where the first picture has one (relative to it, and the
  // input's audio from that same instant), else at the average frame rate.
  void Write(const Picture& picture, int64_t frameNumber);
  // Flushes encoders and closes the file; after this the output is complete.
  void Finish();
  // Files written so far (sequence frames, or the one video), for clean-up.
  std::vector<std::string> Files() const;
  // What the user should know about the output's streams (audio re-encoded), or "".
  std::string Note() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// One picture as a 16-bit RGBA PNG at `path`, through FFmpeg's PNG encoder.
// Throws MediaError; the caller stages the path, as a failure may leave part of it.
void WritePng(const std::string& path, const Picture& picture);

}  // namespace media

#endif
