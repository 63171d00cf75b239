#include "MediaIO.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace media {
namespace {

std::string AvError(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

bool IsPattern(const std::string& path) { return av_filename_number_test(path.c_str()) != 0; }

std::string FrameName(const std::string& pattern, int64_t number) {
  char buf[4096];
  if (av_get_frame_filename2(buf, sizeof buf, pattern.c_str(), static_cast<int>(number), 0) < 0)
    throw MediaError("cannot name frame " + std::to_string(number) + " from pattern '" + pattern + "'");
  return buf;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool EndsWith(const std::string& s, const std::string& tail) {
  if (s.size() < tail.size()) return false;
  for (size_t i = 0; i < tail.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - tail.size() + i])) != tail[i]) return false;
  return true;
}

uint16_t ToU16(float v) {
  if (!(v > 0.0f)) return 0;  // NaN too
  if (v >= 1.0f) return 65535;
  return static_cast<uint16_t>(v * 65535.0f + 0.5f);
}

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

FramePtr NewFrame(AVPixelFormat fmt, int w, int h) {
  FramePtr f(av_frame_alloc());
  if (!f) throw MediaError("out of memory for a frame");
  f->format = fmt;
  f->width = w;
  f->height = h;
  if (av_frame_get_buffer(f.get(), 0) < 0) throw MediaError("out of memory for a frame");
  return f;
}

// Opens a path or a printf pattern; for a pattern the first existing number
// becomes start_number, since the demuxer only looks a few numbers ahead.
InputPtr OpenInput(const std::string& input) {
  AVDictionary* opts = nullptr;
  const AVInputFormat* fmt = nullptr;
  if (IsPattern(input)) {
    fmt = av_find_input_format("image2");
    int first = -1;
    for (int n = 0; n <= 99999 && first < 0; ++n)
      if (Exists(FrameName(input, n))) first = n;
    if (first < 0) throw MediaError("cannot open input '" + input + "': " + AvError(AVERROR(ENOENT)));
    av_dict_set_int(&opts, "start_number", first, 0);
  }
  AVFormatContext* raw = nullptr;
  const int r = avformat_open_input(&raw, input.c_str(), fmt, &opts);
  av_dict_free(&opts);
  if (r < 0) throw MediaError("cannot open input '" + input + "': " + AvError(r));
  InputPtr ctx(raw);
  const int s = avformat_find_stream_info(ctx.get(), nullptr);
  if (s < 0) throw MediaError("cannot open input '" + input + "': " + AvError(s));
  return ctx;
}

}  // namespace

void QuietLibraries() { av_log_set_level(AV_LOG_ERROR); }

// ---------------------------------------------------------------- Reader

struct Reader::Impl {
  std::string name;
  InputPtr fmt;
  CodecPtr dec;
  int stream = -1;
  PacketPtr pkt{av_packet_alloc()};
  FramePtr frame{av_frame_alloc()};
  SwsPtr sws;
  AVPixelFormat swsSrc = AV_PIX_FMT_NONE, swsDst = AV_PIX_FMT_NONE;
  int swsW = 0, swsH = 0, swsSpace = -1, swsRange = -1;
  FramePtr staging;
  InputInfo info;
  int64_t index = 0;
  bool flushed = false;

  [[noreturn]] void Corrupt() const {
    throw MediaError("corrupt frame " + std::to_string(index) + " in '" + name + "'");
  }
  void Convert(const AVFrame& f, Picture& p);
  bool Decode(Picture* picture);  // nullptr: decode only
};

Reader::Reader(const std::string& input) : impl_(new Impl) {
  Impl& m = *impl_;
  m.name = input;
  m.fmt = OpenInput(input);
  const AVCodec* codec = nullptr;
  m.stream = av_find_best_stream(m.fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (m.stream < 0 || !codec) throw MediaError("'" + input + "' has no video stream");
  AVStream* st = m.fmt->streams[m.stream];
  m.dec.reset(avcodec_alloc_context3(codec));
  if (avcodec_parameters_to_context(m.dec.get(), st->codecpar) < 0)
    throw MediaError("cannot open input '" + input + "': bad codec parameters");
  m.dec->thread_count = 0;  // automatic
  // Frame threads can lose a picture's decode error; one file is one picture.
  const AVCodecDescriptor* cd = avcodec_descriptor_get(codec->id);
  if (IsPattern(input) || (cd && (cd->props & AV_CODEC_PROP_INTRA_ONLY))) m.dec->thread_type = FF_THREAD_SLICE;
  const int r = avcodec_open2(m.dec.get(), codec, nullptr);
  if (r < 0) throw MediaError("cannot open input '" + input + "': " + AvError(r));

  InputInfo& info = m.info;
  info.width = st->codecpar->width;
  info.height = st->codecpar->height;
  info.isSequence = IsPattern(input);
  AVRational rate = st->avg_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = st->r_frame_rate;
  if (rate.num <= 0 || rate.den <= 0) rate = AVRational{25, 1};
  info.frameRate = {rate.num, rate.den};
  info.timeBase = {st->time_base.num, st->time_base.den};
  if (st->nb_frames > 0)
    info.frameCount = st->nb_frames;
  else if (info.isSequence && st->duration > 0)
    info.frameCount = st->duration;  // image2 counts in frames
  for (unsigned i = 0; i < m.fmt->nb_streams; ++i)
    if (m.fmt->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) info.hasAudio = true;
}

Reader::~Reader() = default;

const InputInfo& Reader::Info() const { return impl_->info; }

void Reader::Impl::Convert(const AVFrame& f, Picture& p) {
  const int w = f.width, h = f.height;
  p.width = w;
  p.height = h;
  p.rgba.assign(static_cast<size_t>(w) * h * 4, 1.0f);
  const auto fmt = static_cast<AVPixelFormat>(f.format);

  // Float sources are copied as they are: swscale would clip or requantise.
  if (fmt == AV_PIX_FMT_GBRPF32LE || fmt == AV_PIX_FMT_GBRAPF32LE || fmt == AV_PIX_FMT_GRAYF32LE) {
    const bool gray = fmt == AV_PIX_FMT_GRAYF32LE;
    const bool alpha = fmt == AV_PIX_FMT_GBRAPF32LE;
    for (int y = 0; y < h; ++y) {
      auto row = [&](int plane) { return reinterpret_cast<const float*>(f.data[plane] + y * f.linesize[plane]); };
      const float* g = row(0);
      const float* b = gray ? g : row(1);
      const float* r = gray ? g : row(2);
      const float* a = alpha ? row(3) : nullptr;
      float* out = &p.rgba[static_cast<size_t>(y) * w * 4];
      for (int x = 0; x < w; ++x) {
        out[4 * x + 0] = r[x];
        out[4 * x + 1] = g[x];
        out[4 * x + 2] = b[x];
        if (a) out[4 * x + 3] = a[x];
      }
    }
    return;
  }

  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(fmt);
  if (!desc) Corrupt();
  const bool isFloat = desc->flags & AV_PIX_FMT_FLAG_FLOAT;
  int depth = 0;
  for (int c = 0; c < desc->nb_components; ++c) depth = std::max(depth, desc->comp[c].depth);
  // 8-bit R'G'B' or grey stays 8-bit so that v/255 comes out exactly; Y'CbCr
  // goes to 16 bits to keep the matrix's precision.
  const bool rgbLike = (desc->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) || desc->nb_components <= 2;
  const AVPixelFormat dst =
      isFloat ? AV_PIX_FMT_GBRAPF32 : (depth <= 8 && rgbLike ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGBA64);

  int range = f.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
  if (fmt == AV_PIX_FMT_YUVJ420P || fmt == AV_PIX_FMT_YUVJ422P || fmt == AV_PIX_FMT_YUVJ444P ||
      fmt == AV_PIX_FMT_YUVJ440P || fmt == AV_PIX_FMT_YUVJ411P)
    range = 1;
  if (!sws || swsSrc != fmt || swsDst != dst || swsW != w || swsH != h || swsSpace != f.colorspace ||
      swsRange != range) {
    sws.reset(sws_getContext(w, h, fmt, w, h, dst, SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_BITEXACT,
                             nullptr, nullptr, nullptr));
    if (!sws) throw MediaError("cannot convert pixel format " + std::string(desc->name) + " in '" + name + "'");
    if (!rgbLike) {
      const int* coeffs = sws_getCoefficients(f.colorspace);
      sws_setColorspaceDetails(sws.get(), coeffs, range, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16,
                               1 << 16);
    }
    swsSrc = fmt;
    swsDst = dst;
    swsW = w;
    swsH = h;
    swsSpace = f.colorspace;
    swsRange = range;
    staging = NewFrame(dst, w, h);
  }
  sws_scale(sws.get(), f.data, f.linesize, 0, h, staging->data, staging->linesize);

  for (int y = 0; y < h; ++y) {
    float* out = &p.rgba[static_cast<size_t>(y) * w * 4];
    if (dst == AV_PIX_FMT_RGBA) {
      const uint8_t* in = staging->data[0] + y * staging->linesize[0];
      for (int i = 0; i < w * 4; ++i) out[i] = in[i] / 255.0f;
    } else if (dst == AV_PIX_FMT_RGBA64) {
      const auto* in = reinterpret_cast<const uint16_t*>(staging->data[0] + y * staging->linesize[0]);
      for (int i = 0; i < w * 4; ++i) out[i] = in[i] / 65535.0f;
    } else {
      auto row = [&](int plane) {
        return reinterpret_cast<const float*>(staging->data[plane] + y * staging->linesize[plane]);
      };
      for (int x = 0; x < w; ++x) {
        out[4 * x + 0] = row(2)[x];
        out[4 * x + 1] = row(0)[x];
        out[4 * x + 2] = row(1)[x];
        out[4 * x + 3] = row(3)[x];
      }
    }
  }
}

bool Reader::Next(Picture& picture) { return impl_->Decode(&picture); }

bool Reader::Skip() { return impl_->Decode(nullptr); }

bool Reader::Impl::Decode(Picture* picture) {
  Impl& m = *this;
  for (;;) {
    int r = avcodec_receive_frame(m.dec.get(), m.frame.get());
    if (r == 0) {
      if (picture) m.Convert(*m.frame, *picture);
      av_frame_unref(m.frame.get());
      ++m.index;
      return true;
    }
    if (r == AVERROR_EOF) return false;
    if (r != AVERROR(EAGAIN)) m.Corrupt();
    if (m.flushed) return false;
    r = av_read_frame(m.fmt.get(), m.pkt.get());
    if (r == AVERROR_EOF) {
      avcodec_send_packet(m.dec.get(), nullptr);
      m.flushed = true;
      continue;
    }
    if (r < 0) m.Corrupt();
    if (m.pkt->stream_index != m.stream) {
      av_packet_unref(m.pkt.get());
      continue;
    }
    r = avcodec_send_packet(m.dec.get(), m.pkt.get());
    av_packet_unref(m.pkt.get());
    if (r < 0 && r != AVERROR(EAGAIN)) m.Corrupt();
  }
}

// ---------------------------------------------------------------- Output kind

OutputKind OutputKindFor(const std::string& output) {
  if (EndsWith(output, ".mp4")) return OutputKind::Mp4;
  if (EndsWith(output, ".mov")) return OutputKind::Mov;
  if (EndsWith(output, ".mkv")) return OutputKind::Mkv;
  const bool png = EndsWith(output, ".png"), exr = EndsWith(output, ".exr");
  if ((png || exr) && IsPattern(output)) return png ? OutputKind::PngSequence : OutputKind::ExrSequence;
  if (png || exr)
    throw MediaError("output '" + output + "' needs a frame number pattern like out.%04d" + (png ? ".png" : ".exr"));
  const auto dot = output.find_last_of('.');
  const auto slash = output.find_last_of('/');
  const std::string ext = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? "" : output.substr(dot);
  throw MediaError("unknown output extension '" + ext +
                   "' (use .mp4, .mov, .mkv, or a .png/.exr pattern like out.%04d.exr)");
}

// ---------------------------------------------------------------- Writer

struct Writer::Impl {
  std::string output;
  OutputKind kind;
  AVRational rate{25, 1};
  CodecPtr enc;
  AVPixelFormat encFmt = AV_PIX_FMT_NONE;
  AVFormatContext* mux = nullptr;  // videos only
  AVStream* video = nullptr;
  SwsPtr sws;
  FramePtr rgba64;  // integer staging for swscale
  FramePtr frame;
  PacketPtr pkt{av_packet_alloc()};
  std::vector<std::string> files;
  bool started = false, finished = false, headerWritten = false;
  int64_t first = 0, last = -1;

  // Audio stream copy.
  InputPtr audioIn;
  int audioInIndex = -1;
  AVStream* audioOut = nullptr;
  PacketPtr audioPkt{av_packet_alloc()};
  bool audioPending = false, audioDone = false;
  int64_t audioOffset = 0;  // input time base: where the first written frame sits

  ~Impl() {
    if (mux) {
      if (mux->pb) avio_closep(&mux->pb);
      avformat_free_context(mux);
    }
  }
  bool IsVideo() const { return kind == OutputKind::Mp4 || kind == OutputKind::Mov || kind == OutputKind::Mkv; }
  void OpenEncoder(int w, int h);
  void Fill(const Picture& p);
  void Drain();
  void PumpAudio(int64_t untilIn);
};

Writer::Writer(const std::string& output, OutputKind kind, const InputInfo& info, const std::string& audioSource)
    : impl_(new Impl) {
  Impl& m = *impl_;
  m.output = output;
  m.kind = kind;
  if (info.frameRate.num > 0 && info.frameRate.den > 0) m.rate = AVRational{info.frameRate.num, info.frameRate.den};
  if (!m.IsVideo()) return;

  const char* muxName = kind == OutputKind::Mp4 ? "mp4" : kind == OutputKind::Mov ? "mov" : "matroska";
  const int r = avformat_alloc_output_context2(&m.mux, nullptr, muxName, output.c_str());
  if (r < 0 || !m.mux) throw MediaError("cannot create output '" + output + "': " + AvError(r));

  if (!audioSource.empty() && !IsPattern(audioSource)) {
    m.audioIn = OpenInput(audioSource);
    const int a = av_find_best_stream(m.audioIn.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (a >= 0) {
      const AVCodecParameters* par = m.audioIn->streams[a]->codecpar;
      // The container may not hold this codec (e.g. PCM in .mp4): then no audio.
      if (avformat_query_codec(m.mux->oformat, par->codec_id, FF_COMPLIANCE_NORMAL) == 1) m.audioInIndex = a;
    }
    if (m.audioInIndex < 0) m.audioIn.reset();
  }
}

Writer::~Writer() = default;

void Writer::Impl::OpenEncoder(int w, int h) {
  const char* codecName = nullptr;
  switch (kind) {
    case OutputKind::Mp4: codecName = "libx264"; encFmt = AV_PIX_FMT_YUV420P; break;
    case OutputKind::Mov: codecName = "prores_ks"; encFmt = AV_PIX_FMT_YUVA444P10LE; break;
    case OutputKind::Mkv: codecName = "ffv1"; encFmt = AV_PIX_FMT_GBRAP16LE; break;
    case OutputKind::PngSequence: codecName = "png"; encFmt = AV_PIX_FMT_RGBA64BE; break;
    case OutputKind::ExrSequence: codecName = "exr"; encFmt = AV_PIX_FMT_GBRAPF32LE; break;
  }
  const AVCodec* codec = avcodec_find_encoder_by_name(codecName);
  if (!codec) throw MediaError(std::string("this FFmpeg has no ") + codecName + " encoder for '" + output + "'");
  if (encFmt == AV_PIX_FMT_YUV420P && (w % 2 || h % 2))
    throw MediaError("'" + output + "': H.264 needs an even width and height, not " + std::to_string(w) + "x" +
                     std::to_string(h));
  enc.reset(avcodec_alloc_context3(codec));
  enc->width = w;
  enc->height = h;
  enc->pix_fmt = encFmt;
  enc->time_base = av_inv_q(rate);
  enc->framerate = rate;
  AVDictionary* opts = nullptr;
  if (kind == OutputKind::Mp4 || kind == OutputKind::Mov) {
    enc->color_primaries = AVCOL_PRI_BT709;
    enc->color_trc = AVCOL_TRC_BT709;
    enc->colorspace = AVCOL_SPC_BT709;
    enc->color_range = AVCOL_RANGE_MPEG;
  }
  if (kind == OutputKind::Mp4) av_dict_set(&opts, "crf", "18", 0);
  if (kind == OutputKind::Mov) av_dict_set(&opts, "profile", "4444", 0);
  if (kind == OutputKind::Mkv) {
    av_dict_set(&opts, "level", "3", 0);
    av_dict_set(&opts, "slicecrc", "1", 0);
  }
  if (kind == OutputKind::ExrSequence) av_dict_set(&opts, "compression", "zip16", 0);
  if (mux && (mux->oformat->flags & AVFMT_GLOBALHEADER)) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  int r = avcodec_open2(enc.get(), codec, &opts);
  av_dict_free(&opts);
  if (r < 0) throw MediaError("cannot open the " + std::string(codecName) + " encoder for '" + output + "': " + AvError(r));

  frame = NewFrame(encFmt, w, h);
  // Some encoders (ProRes) tag from the frame, not the context.
  frame->color_primaries = enc->color_primaries;
  frame->color_trc = enc->color_trc;
  frame->colorspace = enc->colorspace;
  frame->color_range = enc->color_range;
  if (kind == OutputKind::Mp4 || kind == OutputKind::Mov) {
    rgba64 = NewFrame(AV_PIX_FMT_RGBA64, w, h);
    sws.reset(sws_getContext(w, h, AV_PIX_FMT_RGBA64, w, h, encFmt,
                             SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP | SWS_BITEXACT, nullptr, nullptr,
                             nullptr));
    if (!sws) throw MediaError("cannot convert to " + std::string(av_get_pix_fmt_name(encFmt)));
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(sws.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
  }

  if (!mux) return;
  video = avformat_new_stream(mux, nullptr);
  video->time_base = enc->time_base;
  video->avg_frame_rate = rate;
  avcodec_parameters_from_context(video->codecpar, enc.get());
  if (audioIn) {
    const AVStream* in = audioIn->streams[audioInIndex];
    audioOut = avformat_new_stream(mux, nullptr);
    avcodec_parameters_copy(audioOut->codecpar, in->codecpar);
    audioOut->codecpar->codec_tag = 0;
    audioOut->time_base = in->time_base;
    audioOffset = av_rescale_q(first, enc->time_base, in->time_base) +
                  (in->start_time == AV_NOPTS_VALUE ? 0 : in->start_time);
  }
  files.push_back(output);
  r = avio_open(&mux->pb, output.c_str(), AVIO_FLAG_WRITE);
  if (r < 0) throw MediaError("cannot write '" + output + "': " + AvError(r));
  r = avformat_write_header(mux, nullptr);
  if (r < 0) throw MediaError("cannot write '" + output + "': " + AvError(r));
  headerWritten = true;
}

// Float to the encoder's layout; integers clamp to 0..1 and round here so the
// levels are exact before any Y'CbCr conversion.
void Writer::Impl::Fill(const Picture& p) {
  if (av_frame_make_writable(frame.get()) < 0) throw MediaError("out of memory for a frame");
  const int w = p.width, h = p.height;
  for (int y = 0; y < h; ++y) {
    const float* in = &p.rgba[static_cast<size_t>(y) * w * 4];
    if (kind == OutputKind::ExrSequence) {
      auto row = [&](int plane) { return reinterpret_cast<float*>(frame->data[plane] + y * frame->linesize[plane]); };
      for (int x = 0; x < w; ++x) {
        row(2)[x] = in[4 * x + 0];
        row(0)[x] = in[4 * x + 1];
        row(1)[x] = in[4 * x + 2];
        row(3)[x] = in[4 * x + 3];
      }
    } else if (kind == OutputKind::Mkv) {
      auto row = [&](int plane) {
        return reinterpret_cast<uint16_t*>(frame->data[plane] + y * frame->linesize[plane]);
      };
      for (int x = 0; x < w; ++x) {
        row(2)[x] = ToU16(in[4 * x + 0]);
        row(0)[x] = ToU16(in[4 * x + 1]);
        row(1)[x] = ToU16(in[4 * x + 2]);
        row(3)[x] = ToU16(in[4 * x + 3]);
      }
    } else if (kind == OutputKind::PngSequence) {
      uint8_t* out = frame->data[0] + y * frame->linesize[0];
      for (int i = 0; i < w * 4; ++i) {
        const uint16_t v = ToU16(in[i]);
        out[2 * i] = static_cast<uint8_t>(v >> 8);
        out[2 * i + 1] = static_cast<uint8_t>(v & 0xff);
      }
    } else {
      auto* out = reinterpret_cast<uint16_t*>(rgba64->data[0] + y * rgba64->linesize[0]);
      for (int i = 0; i < w * 4; ++i) out[i] = ToU16(in[i]);
    }
  }
  if (sws) sws_scale(sws.get(), rgba64->data, rgba64->linesize, 0, h, frame->data, frame->linesize);
}

void Writer::Impl::PumpAudio(int64_t untilIn) {
  if (!audioIn || audioDone) return;
  const AVStream* in = audioIn->streams[audioInIndex];
  for (;;) {
    if (!audioPending) {
      const int r = av_read_frame(audioIn.get(), audioPkt.get());
      if (r < 0) {
        audioDone = true;  // end of the audio, or a damaged tail: keep what was copied
        return;
      }
      if (audioPkt->stream_index != audioInIndex || audioPkt->pts == AV_NOPTS_VALUE) {
        av_packet_unref(audioPkt.get());
        continue;
      }
      audioPending = true;
    }
    const int64_t pts = audioPkt->pts - audioOffset;
    if (untilIn != AV_NOPTS_VALUE && pts >= untilIn) return;  // keep it for later
    audioPending = false;
    if (pts < 0) {  // before the first written frame
      av_packet_unref(audioPkt.get());
      continue;
    }
    audioPkt->pts = pts;
    if (audioPkt->dts != AV_NOPTS_VALUE) audioPkt->dts -= audioOffset;
    audioPkt->stream_index = audioOut->index;
    audioPkt->pos = -1;
    av_packet_rescale_ts(audioPkt.get(), in->time_base, audioOut->time_base);
    const int r = av_interleaved_write_frame(mux, audioPkt.get());
    if (r < 0) throw MediaError("cannot write audio to '" + output + "': " + AvError(r));
  }
}

void Writer::Impl::Drain() {
  for (;;) {
    const int r = avcodec_receive_packet(enc.get(), pkt.get());
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
    if (r < 0) throw MediaError("cannot encode '" + output + "': " + AvError(r));
    if (mux) {
      pkt->stream_index = video->index;
      av_packet_rescale_ts(pkt.get(), enc->time_base, video->time_base);
      const int w = av_interleaved_write_frame(mux, pkt.get());
      if (w < 0) throw MediaError("cannot write '" + output + "': " + AvError(w));
    } else {
      const std::string name = FrameName(output, pkt->pts + first);
      files.push_back(name);
      FILE* file = std::fopen(name.c_str(), "wb");
      const bool ok = file && std::fwrite(pkt->data, 1, pkt->size, file) == static_cast<size_t>(pkt->size);
      if (file && std::fclose(file) != 0) throw MediaError("cannot write '" + name + "'");
      av_packet_unref(pkt.get());
      if (!ok) throw MediaError("cannot write '" + name + "': " + std::strerror(errno));
    }
  }
}

void Writer::Write(const Picture& picture, int64_t frameNumber) {
  Impl& m = *impl_;
  if (m.finished) throw MediaError("'" + m.output + "' is already finished");
  if (picture.width <= 0 || picture.height <= 0 ||
      picture.rgba.size() != static_cast<size_t>(picture.width) * picture.height * 4)
    throw MediaError("picture for '" + m.output + "' has inconsistent size");
  if (!m.started) {
    m.first = frameNumber;
    m.OpenEncoder(picture.width, picture.height);
    m.started = true;
  } else if (picture.width != m.enc->width || picture.height != m.enc->height) {
    throw MediaError("frame " + std::to_string(frameNumber) + " for '" + m.output + "' changes size");
  } else if (m.IsVideo() && frameNumber <= m.last) {
    throw MediaError("frame " + std::to_string(frameNumber) + " for '" + m.output + "' is out of order");
  }
  m.Fill(picture);
  m.frame->pts = frameNumber - m.first;
  const int r = avcodec_send_frame(m.enc.get(), m.frame.get());
  if (r < 0) throw MediaError("cannot encode frame " + std::to_string(frameNumber) + " of '" + m.output + "': " + AvError(r));
  m.last = frameNumber;
  m.Drain();
  if (m.audioIn)
    m.PumpAudio(av_rescale_q(frameNumber + 1 - m.first, m.enc->time_base, m.audioIn->streams[m.audioInIndex]->time_base));
}

void Writer::Finish() {
  Impl& m = *impl_;
  if (m.finished) return;
  m.finished = true;
  if (!m.started) {
    if (m.IsVideo()) throw MediaError("no frames to write to '" + m.output + "'");
    return;
  }
  avcodec_send_frame(m.enc.get(), nullptr);
  m.Drain();
  if (!m.mux) return;
  if (m.audioIn)
    m.PumpAudio(av_rescale_q(m.last + 1 - m.first, m.enc->time_base, m.audioIn->streams[m.audioInIndex]->time_base));
  int r = av_write_trailer(m.mux);
  if (r < 0) throw MediaError("cannot finish '" + m.output + "': " + AvError(r));
  r = avio_closep(&m.mux->pb);
  if (r < 0) throw MediaError("cannot finish '" + m.output + "': " + AvError(r));
}

std::vector<std::string> Writer::Files() const { return impl_->files; }

}  // namespace media
