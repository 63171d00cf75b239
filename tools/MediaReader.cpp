// Reading: any video FFmpeg decodes, or an image sequence pattern, as float RGBA.
#include <algorithm>
#include <cstring>
#include <cmath>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "MediaCommon.h"
#include "MediaIO.h"
#include "MediaPixels.h"

namespace media {

struct DecodedFrame::Impl {
  FramePtr frame{av_frame_alloc()};
  int64_t index = 0;  // 0-based, in the input
};

DecodedFrame::DecodedFrame() : impl_(new Impl) {}
DecodedFrame::~DecodedFrame() = default;
DecodedFrame::DecodedFrame(DecodedFrame&&) noexcept = default;
DecodedFrame& DecodedFrame::operator=(DecodedFrame&&) noexcept = default;

size_t DecodedFrame::Bytes() const {
  size_t bytes = 0;
  for (const AVBufferRef* b : impl_->frame->buf)
    if (b) bytes += b->size;
  return bytes;
}

struct Reader::Impl {
  std::string name;
  InputInfo info;
  // Decoding; Decode's thread only.
  InputPtr fmt;
  CodecPtr dec;
  int stream = -1;
  PacketPtr pkt{av_packet_alloc()};
  int64_t index = 0;
  bool flushed = false;
  // Conversion; Convert's thread only.
  SwsPtr sws;
  AVPixelFormat swsSrc = AV_PIX_FMT_NONE, swsDst = AV_PIX_FMT_NONE;
  int swsW = 0, swsH = 0, swsSpace = -1, swsRange = -1;
  FramePtr staging;
  int quarterTurns = 0;  // clockwise, to show the picture upright (a phone's display matrix)
  std::vector<uint8_t> unturned;

  [[noreturn]] void Corrupt(int64_t frame) const {
    // Streamed, an .mp4 or .mov whose index comes last has no frame 0 to give.
    const bool piped = frame == 0 && !Rereadable(name);
    throw MediaError("corrupt frame " + std::to_string(info.firstNumber + frame) + " in '" + name + "'" +
                     (piped ? " (a clip whose index comes last cannot be read from a pipe: give a file)" : ""));
  }
  void OpenDecoder(const std::string& input);
  void ReadInfo(bool sequence);
  const AVFrame& Scale(const AVFrame& f, AVPixelFormat dst, bool yCbCr, int64_t frame);
  // How a frame's pixels reach a picture: float planes (float and Y'CbCr
  // sources), else packed integers of 8 or 16 bits.
  struct SourceForm {
    bool rgbLike = false, floatPlanes = false, alpha = false, eight = false;
  };
  SourceForm FormOf(const AVFrame& f, int64_t frame) const;
  static bool IsFloatSource(const AVFrame& f) {
    const auto fmt = static_cast<AVPixelFormat>(f.format);
    return fmt == AV_PIX_FMT_GBRPF32LE || fmt == AV_PIX_FMT_GBRAPF32LE || fmt == AV_PIX_FMT_GRAYF32LE;
  }
  void Convert(const AVFrame& f, Picture& p, int64_t frame);
  void ConvertUnturned(const AVFrame& f, Picture& p, int64_t frame);
  // Turns a converted picture of `pixelBytes` a pixel upright.
  void TurnUpright(uint8_t* pixels, size_t pixelBytes, int& width, int& height);
  void ConvertCompact(const AVFrame& f, CompactPicture& p, int64_t frame);
  bool Decode(AVFrame& out);
  int64_t SeekBefore(int64_t k);
  FramePtr pending;  // decoded while finding where a seek landed; Decode gives it first
};

void Reader::Impl::OpenDecoder(const std::string& input) {
  const AVCodec* codec = nullptr;
  stream = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  // A song's cover art is a one-picture "video" stream, not a clip.
  auto attached = [&](unsigned i) { return (fmt->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; };
  if (stream >= 0 && attached(stream)) {
    stream = -1;
    for (unsigned i = 0; i < fmt->nb_streams && stream < 0; ++i)
      if (fmt->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !attached(i)) stream = static_cast<int>(i);
  }
  if (stream >= 0) codec = avcodec_find_decoder(fmt->streams[stream]->codecpar->codec_id);
  if (stream < 0 || !codec) throw MediaError("'" + input + "' has no video stream");
  dec.reset(avcodec_alloc_context3(codec));
  if (avcodec_parameters_to_context(dec.get(), fmt->streams[stream]->codecpar) < 0)
    throw MediaError("cannot open input '" + input + "': bad codec parameters");
  dec->thread_count = 0;  // automatic
  // Frame threads can lose a picture's decode error; one file is one picture.
  const AVCodecDescriptor* cd = avcodec_descriptor_get(codec->id);
  if (IsPattern(input) || (cd && (cd->props & AV_CODEC_PROP_INTRA_ONLY))) dec->thread_type = FF_THREAD_SLICE;
  const int r = avcodec_open2(dec.get(), codec, nullptr);
  if (r < 0) throw MediaError("cannot open input '" + input + "': " + AvError(r));
}

void Reader::Impl::ReadInfo(bool sequence) {
  const AVStream* st = fmt->streams[stream];
  info.width = st->codecpar->width;
  info.height = st->codecpar->height;
  // The display matrix turns counter-clockwise; only quarter turns occur in practice.
  if (const auto* matrix =
          reinterpret_cast<const int32_t*>(av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, nullptr))) {
    const double degrees = -av_display_rotation_get(matrix);
    quarterTurns = (static_cast<int>(std::lround(degrees / 90.0)) % 4 + 4) % 4;
  }
  if (quarterTurns % 2) std::swap(info.width, info.height);
  const AVCodecParameters* par = st->codecpar;
  info.colour = {par->color_primaries, par->color_trc, par->color_space, par->color_range};
  info.isSequence = sequence;
  if (sequence) av_opt_get_int(fmt->priv_data, "start_number", 0, &info.firstNumber);
  AVRational rate = st->avg_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = st->r_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = AVRational{25, 1};
  info.frameRate = {rate.num, rate.den};
  info.timeBase = {st->time_base.num, st->time_base.den};
  if (st->nb_frames > 0)
    info.frameCount = st->nb_frames;
  else if (sequence && st->duration > 0)
    info.frameCount = st->duration;  // image2 counts in frames
  for (unsigned i = 0; i < fmt->nb_streams; ++i)
    if (fmt->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) info.hasAudio = true;
}

Reader::Reader(const std::string& input) : impl_(new Impl) {
  impl_->name = input;
  impl_->fmt = OpenInput(input);
  impl_->OpenDecoder(input);
  impl_->ReadInfo(IsPattern(input));
}

Reader::~Reader() = default;

const InputInfo& Reader::Info() const { return impl_->info; }

// `f` through swscale into `dst`; the context is kept while the frames agree.
const AVFrame& Reader::Impl::Scale(const AVFrame& f, AVPixelFormat dst, bool yCbCr, int64_t frame) {
  const auto src = static_cast<AVPixelFormat>(f.format);
  const int w = f.width, h = f.height;
  int range = f.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
  if (src == AV_PIX_FMT_YUVJ420P || src == AV_PIX_FMT_YUVJ422P || src == AV_PIX_FMT_YUVJ444P ||
      src == AV_PIX_FMT_YUVJ440P || src == AV_PIX_FMT_YUVJ411P)
    range = 1;
  if (!sws || swsSrc != src || swsDst != dst || swsW != w || swsH != h || swsSpace != f.colorspace ||
      swsRange != range) {
    sws = NewScaler(w, h, src, dst, SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_BITEXACT);
    if (!sws)
      throw MediaError("cannot convert pixel format " + std::string(av_get_pix_fmt_name(src)) + " in '" + name + "'");
    if (yCbCr) {
      const int* coeffs = sws_getCoefficients(f.colorspace);
      sws_setColorspaceDetails(sws.get(), coeffs, range, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    }
    swsSrc = src;
    swsDst = dst;
    swsW = w;
    swsH = h;
    swsSpace = f.colorspace;
    swsRange = range;
    staging = NewFrame(dst, w, h);
  }
  if (sws_scale_frame(sws.get(), staging.get(), &f) < 0) Corrupt(frame);
  return *staging;
}

void Reader::Impl::TurnUpright(uint8_t* pixels, size_t pixelBytes, int& width, int& height) {
  if (quarterTurns == 0) return;
  const size_t w = width, h = height;
  unturned.assign(pixels, pixels + w * h * pixelBytes);
  const size_t outW = quarterTurns % 2 ? h : w;
  for (size_t y = 0; y < h; ++y)
    for (size_t x = 0; x < w; ++x) {
      size_t tx = x, ty = y;  // where source pixel (x, y) lands
      if (quarterTurns == 1) tx = h - 1 - y, ty = x;
      if (quarterTurns == 2) tx = w - 1 - x, ty = h - 1 - y;
      if (quarterTurns == 3) tx = y, ty = w - 1 - x;
      std::memcpy(pixels + (ty * outW + tx) * pixelBytes, unturned.data() + (y * w + x) * pixelBytes, pixelBytes);
    }
  if (quarterTurns % 2) std::swap(width, height);
}

void Reader::Impl::Convert(const AVFrame& f, Picture& p, int64_t frame) {
  ConvertUnturned(f, p, frame);
  TurnUpright(reinterpret_cast<uint8_t*>(p.rgba.data()), 4 * sizeof(float), p.width, p.height);
}

void Reader::Impl::ConvertUnturned(const AVFrame& f, Picture& p, int64_t frame) {
  p.width = f.width;
  p.height = f.height;
  p.pts = info.isSequence || f.best_effort_timestamp == AV_NOPTS_VALUE ? kNoTime : f.best_effort_timestamp;
  p.rgba.clear();  // the conversions append rows
  p.rgba.reserve(static_cast<size_t>(f.width) * f.height * 4);
  const auto fmt = static_cast<AVPixelFormat>(f.format);

  // Float sources are copied as they are: swscale would clip or requantise.
  if (IsFloatSource(f)) {
    FloatPlanesToPicture(f, fmt == AV_PIX_FMT_GRAYF32LE, fmt == AV_PIX_FMT_GBRAPF32LE, p);
    return;
  }
  // 8-bit R'G'B' or grey stays 8-bit so that v/255 comes out exactly; Y'CbCr
  // goes to float planes, which keeps the matrix's precision and is several
  // times quicker in swscale than packed 16-bit RGBA.
  const SourceForm form = FormOf(f, frame);
  if (form.floatPlanes) {
    FloatPlanesToPicture(Scale(f, form.alpha ? AV_PIX_FMT_GBRAPF32 : AV_PIX_FMT_GBRPF32, !form.rgbLike, frame), false,
                         form.alpha, p);
  } else {
    PackedToPicture(Scale(f, form.eight ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGBA64, false, frame), !form.eight, p);
  }
}

Reader::Impl::SourceForm Reader::Impl::FormOf(const AVFrame& f, int64_t frame) const {
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(f.format));
  if (!desc) Corrupt(frame);
  int depth = 0;
  for (int c = 0; c < desc->nb_components; ++c) depth = std::max(depth, desc->comp[c].depth);
  SourceForm form;
  form.rgbLike = (desc->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) || desc->nb_components <= 2;
  form.floatPlanes = (desc->flags & AV_PIX_FMT_FLAG_FLOAT) || !form.rgbLike;
  form.alpha = (desc->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
  form.eight = depth <= 8;
  return form;
}

void Reader::Impl::ConvertCompact(const AVFrame& f, CompactPicture& p, int64_t frame) {
  p.width = f.width;
  p.height = f.height;
  const size_t n = static_cast<size_t>(f.width) * f.height;
  const SourceForm form = FormOf(f, frame);
  if (form.floatPlanes) {
    // Float as Convert makes it, in the engine's channel order.
    thread_local Picture floats;
    Convert(f, floats, frame);
    p.width = floats.width;
    p.height = floats.height;
    p.pts = floats.pts;
    p.depth = SampleDepth::Float;
    p.pixels.resize(n * 4 * sizeof(float));
    auto* out = reinterpret_cast<float*>(p.pixels.data());
    const float* in = floats.rgba.data();
    for (size_t i = 0; i < n; ++i, in += 4, out += 4) out[0] = in[2], out[1] = in[1], out[2] = in[0], out[3] = in[3];
    return;
  }
  p.pts = info.isSequence || f.best_effort_timestamp == AV_NOPTS_VALUE ? kNoTime : f.best_effort_timestamp;
  // The packed integers Convert divides, red and blue swapped here: swscale
  // does not convert RGBA64 to BGRA64 by a plain swap.
  const bool eight = form.eight;
  const AVFrame& packed = Scale(f, eight ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGBA64, false, frame);
  p.depth = eight ? SampleDepth::U8 : SampleDepth::U16;
  p.pixels.resize(n * (eight ? 4 : 8));
  for (int y = 0; y < f.height; ++y) {
    const uint8_t* in = packed.data[0] + static_cast<ptrdiff_t>(packed.linesize[0]) * y;
    if (eight) {
      uint8_t* out = p.pixels.data() + static_cast<size_t>(f.width) * 4 * y;
      for (int x = 0; x < f.width; ++x, in += 4, out += 4)
        out[0] = in[2], out[1] = in[1], out[2] = in[0], out[3] = in[3];
    } else {
      auto* out = reinterpret_cast<uint16_t*>(p.pixels.data()) + static_cast<size_t>(f.width) * 4 * y;
      const auto* in16 = reinterpret_cast<const uint16_t*>(in);
      for (int x = 0; x < f.width; ++x, in16 += 4, out += 4)
        out[0] = in16[2], out[1] = in16[1], out[2] = in16[0], out[3] = in16[3];
    }
  }
  TurnUpright(p.pixels.data(), eight ? 4 : 8, p.width, p.height);
}

bool Reader::Next(Picture& picture) {
  DecodedFrame frame;
  if (!Decode(frame)) return false;
  Convert(frame, picture);
  return true;
}

bool Reader::Decode(DecodedFrame& frame) {
  frame.impl_->index = impl_->index;
  return impl_->Decode(*frame.impl_->frame);
}

int64_t Reader::SeekBefore(int64_t k) { return impl_->SeekBefore(k); }

// To the key frame at or before frame k, where the frame it lands on can be
// told by its time on the frame rate's grid; else (variable rate, no index)
// decoding goes on from where it is.
int64_t Reader::Impl::SeekBefore(int64_t k) {
  if (k <= 0 || index != 0 || flushed) return index;
  const AVStream* st = fmt->streams[stream];
  const int64_t start = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time;
  const AVRational frameTime = av_inv_q(AVRational{info.frameRate.num, info.frameRate.den});
  if (av_seek_frame(fmt.get(), stream, start + av_rescale_q(k, frameTime, st->time_base), AVSEEK_FLAG_BACKWARD) < 0)
    return index;
  avcodec_flush_buffers(dec.get());
  FramePtr first(av_frame_alloc());
  const bool got = Decode(*first);
  index = 0;
  const double at =
      got && first->best_effort_timestamp != AV_NOPTS_VALUE
          ? static_cast<double>(first->best_effort_timestamp - start) * av_q2d(st->time_base) / av_q2d(frameTime)
          : -1;
  const int64_t landed = std::llround(at);
  if (got && landed >= 0 && landed <= k && std::abs(at - landed) < 0.05) {
    pending = std::move(first);
    index = landed;
    return index;
  }
  // Not on the grid: from the start, as without a seek.
  av_seek_frame(fmt.get(), stream, start, AVSEEK_FLAG_BACKWARD);
  avcodec_flush_buffers(dec.get());
  flushed = false;
  return index;
}

void Reader::Convert(const DecodedFrame& frame, Picture& picture) {
  impl_->Convert(*frame.impl_->frame, picture, frame.impl_->index);
}

void Reader::ConvertCompact(const DecodedFrame& frame, CompactPicture& picture) {
  impl_->ConvertCompact(*frame.impl_->frame, picture, frame.impl_->index);
}

bool Reader::Impl::Decode(AVFrame& out) {
  av_frame_unref(&out);
  if (pending) {
    av_frame_move_ref(&out, pending.get());
    pending.reset();
    ++index;
    return true;
  }
  for (;;) {
    int r = avcodec_receive_frame(dec.get(), &out);
    if (r == 0) {
      ++index;
      return true;
    }
    if (r == AVERROR_EOF) return false;
    if (r != AVERROR(EAGAIN)) Corrupt(index);
    if (flushed) return false;
    r = av_read_frame(fmt.get(), pkt.get());
    if (r == AVERROR_EOF) {
      avcodec_send_packet(dec.get(), nullptr);
      flushed = true;
      continue;
    }
    if (r < 0) Corrupt(index);
    if (pkt->stream_index != stream) {
      av_packet_unref(pkt.get());
      continue;
    }
    r = avcodec_send_packet(dec.get(), pkt.get());
    av_packet_unref(pkt.get());
    if (r < 0 && r != AVERROR(EAGAIN)) Corrupt(index);
  }
}

}  // namespace media
