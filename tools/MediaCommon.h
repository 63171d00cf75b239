// What the media reader and writer share: FFmpeg's objects with owners,
// error text, frame-number patterns and opening an input. Not for callers of MediaIO.h.
#ifndef TREMOR_TOOLS_MEDIACOMMON_H
#define TREMOR_TOOLS_MEDIACOMMON_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

namespace media {

struct FormatCloser {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsFree {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using InputPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;

std::string AvError(int code);

// A printf frame-number pattern such as "a.%04d.png".
bool IsPattern(const std::string& path);
std::string FrameName(const std::string& pattern, int64_t number);
// The existing files of a pattern by their number: the files of its folder
// whose name the pattern gives for a number written in that name.
std::map<int64_t, std::string> PatternFiles(const std::string& pattern);

FramePtr NewFrame(AVPixelFormat fmt, int w, int h);

// A same-size conversion that sws_scale_frame runs in slices on threads of
// its own; null when swscale cannot convert between the two.
SwsPtr NewScaler(int w, int h, AVPixelFormat src, AVPixelFormat dst, int flags);

// Opens a path or a pattern with its stream information read.
InputPtr OpenInput(const std::string& input);

// Whether `input` can be opened again from its start: regular files, not
// pipes, FIFOs or network streams.
bool Rereadable(const std::string& input);

// Whether `muxer` writes a stream of `par`'s codec (a trial header in memory:
// some refuse only there, FLAC in .mp4 among them).
bool MuxerTakes(const AVOutputFormat* muxer, const AVCodecParameters* par);

// A source's audio re-encoded with `codec` at `rate` (0: the source's),
// packets in TimeBase(): for a container that cannot take its codec, or -c:a.
class AudioReencoder {
 public:
  using Sink = std::function<void(AVPacket*)>;
  // Fills `encoded` with the AAC stream's parameters. Throws MediaError.
  AudioReencoder(const AVCodecParameters* source, const std::string& codec, int rate, AVCodecParameters* encoded);
  ~AudioReencoder();
  AVRational TimeBase() const;
  // A source packet, times in `timeBase`; encoded packets go to `sink`.
  void Add(const AVPacket* packet, AVRational timeBase, const Sink& sink);
  void Finish(const Sink& sink);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace media

#endif
