// Writing: the formats of OutputFormats.h, videos with the input's audio copied in.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/pixdesc.h>
}

#include "MediaCommon.h"
#include "MediaIO.h"
#include "MediaPixels.h"

namespace media {
namespace {

bool EndsWith(const std::string& s, const std::string& tail) {
  if (s.size() < tail.size()) return false;
  for (size_t i = 0; i < tail.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - tail.size() + i])) != tail[i]) return false;
  return true;
}

const OutputFormat* LastSequence() {
  const OutputFormat* last = nullptr;
  for (const auto& f : kOutputFormats)
    if (f.sequence) last = &f;
  return last;
}

}  // namespace

std::string ExtensionList(bool sequence, const char* separator, bool withDescription) {
  std::string list;
  for (const auto& f : kOutputFormats) {
    if (f.sequence != sequence) continue;
    if (!list.empty()) list += separator;
    list += f.extension;
    if (withDescription) list += std::string(" (") + f.description + ")";
  }
  return list;
}

const OutputFormat& OutputFormatFor(const std::string& output) {
  for (const auto& f : kOutputFormats) {
    if (!EndsWith(output, f.extension)) continue;
    if (f.sequence && !IsPattern(output))
      throw MediaError("output '" + output + "' needs a frame number pattern like out.%04d" + f.extension);
    return f;
  }
  const auto dot = output.find_last_of('.');
  const auto slash = output.find_last_of('/');
  const bool none = dot == std::string::npos || (slash != std::string::npos && dot < slash);
  const std::string ext = none ? "" : output.substr(dot);
  throw MediaError("unknown output extension '" + ext + "' (use " + ExtensionList(false, ", ", false) + ", or a " +
                   ExtensionList(true, "/", false) + " pattern like out.%04d" + LastSequence()->extension + ")");
}

struct Writer::Impl {
  std::string output;
  const OutputFormat* format = nullptr;  // &chosen
  OutputFormat chosen{};                 // the row with the user's encoder choices
  EncoderChoice choice;
  std::string codecName, pixelName, options;  // what `chosen` points to
  AVRational rate{25, 1};
  CodecPtr enc;
  AVFormatContext* mux = nullptr;  // videos only
  AVStream* video = nullptr;
  SwsPtr sws;
  FramePtr planes16;  // 16-bit planar staging for swscale
  FramePtr frame;
  PacketPtr pkt{av_packet_alloc()};
  std::vector<std::string> files;
  bool started = false, finished = false;
  int64_t first = 0, last = -1;
  int64_t firstNumber = 0;  // of the input sequence, which a sequence output keeps
  // A video timed by the input's timestamps: the encoder counts in the
  // input's time base from the first written picture's pts.
  AVRational inputTimeBase{0, 1};
  bool timed = false;
  int64_t firstPts = 0, lastPts = 0;
  Colour colour;  // the input's, carried to the output
  AVCodecParameters* reencoded = nullptr;

  // Audio stream copy.
  InputPtr audioIn;
  int audioInIndex = -1;
  AVStream* audioOut = nullptr;
  PacketPtr audioPkt{av_packet_alloc()};
  bool audioPending = false, audioDone = false;
  std::unique_ptr<AudioReencoder> reencoder;  // where the container cannot take the source's codec
  std::string note;
  int64_t audioOffset = 0;  // input time base: where the first written frame sits

  ~Impl() {
    avcodec_parameters_free(&reencoded);
    if (mux) {
      if (mux->pb) avio_closep(&mux->pb);
      avformat_free_context(mux);
    }
  }
  void Choose(const OutputFormat& row, const EncoderChoice& c);
  void OpenAudioSource(const std::string& source);
  void OpenEncoder(int w, int h);
  void OpenColourConversion(int w, int h);
  void OpenFile();
  void Fill(const Picture& p);
  void WritePacket();
  void Drain();
  void PumpAudio(int64_t untilIn);
  void PumpAudioTo(int64_t pts);
  void WriteAudio(AVPacket* packet, AVRational timeBase);
};

namespace {

// Image files keep no colour tags here: input that is not BT.709 or sRGB
// would come out looking like it, so it is refused.
void CheckSequenceCarries(const Colour& c, const std::string& output) {
  const bool primaries = c.primaries == AVCOL_PRI_BT709 || c.primaries == AVCOL_PRI_UNSPECIFIED || c.primaries <= 0;
  const bool transfer = c.transfer == AVCOL_TRC_BT709 || c.transfer == AVCOL_TRC_IEC61966_2_1 ||
                        c.transfer == AVCOL_TRC_UNSPECIFIED || c.transfer == AVCOL_TRC_GAMMA22 || c.transfer <= 0;
  if (primaries && transfer) return;
  const char* p = av_color_primaries_name(static_cast<AVColorPrimaries>(c.primaries));
  const char* t = av_color_transfer_name(static_cast<AVColorTransferCharacteristic>(c.transfer));
  throw MediaError("'" + output + "' cannot record the input's colour (primaries " + (p ? p : "?") + ", transfer " +
                   (t ? t : "?") + "): write " + ExtensionList(false, ", ", false) + " instead");
}

}  // namespace

Writer::Writer(const std::string& output, const OutputFormat& row, const InputInfo& info,
               const std::string& audioSource, const EncoderChoice& choice)
    : impl_(new Impl) {
  Impl& m = *impl_;
  m.output = output;
  m.Choose(row, choice);
  const OutputFormat& format = *m.format;
  if (info.frameRate.num > 0 && info.frameRate.den > 0) m.rate = AVRational{info.frameRate.num, info.frameRate.den};
  m.inputTimeBase = AVRational{info.timeBase.num, info.timeBase.den};
  m.firstNumber = info.firstNumber;
  m.colour = info.colour;
  if (format.sequence) {
    CheckSequenceCarries(info.colour, output);
    if (!audioSource.empty() && !choice.noAudio)
      m.note = "the input's audio is not written: an image sequence holds pictures only";
    return;
  }
  const int r = avformat_alloc_output_context2(&m.mux, nullptr, format.muxer, output.c_str());
  if (r < 0 || !m.mux) throw MediaError("cannot create output '" + output + "': " + AvError(r));
  // The same render gives the same file: no random ids (Matroska's segment
  // id) and no library version in the container.
  m.mux->flags |= AVFMT_FLAG_BITEXACT;
  if (audioSource.empty() || IsPattern(audioSource) || choice.noAudio) return;
  // The audio is read again from the start: a pipe cannot give it twice.
  if (!Rereadable(audioSource)) {
    m.note = "the input's audio is not written: a pipe can be read only once (give a file to keep it)";
    return;
  }
  m.OpenAudioSource(audioSource);
}

Writer::~Writer() = default;

void Writer::Impl::OpenAudioSource(const std::string& source) {
  audioIn = OpenInput(source);
  const int a = av_find_best_stream(audioIn.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  if (a < 0) {
    audioIn.reset();
    return;
  }
  audioInIndex = a;
  const AVCodecParameters* par = audioIn->streams[a]->codecpar;
  const bool copy = choice.audioCodec.empty() || choice.audioCodec == "copy";
  if (copy && MuxerTakes(mux->oformat, par)) return;
  // PCM in .mp4, FLAC in .mp4 or Opus in .mov: the container's usual codec.
  const std::string codec = copy ? format->audioCodec : choice.audioCodec;
  reencoded = avcodec_parameters_alloc();
  reencoder = std::make_unique<AudioReencoder>(par, codec, copy ? format->audioRate : 0, reencoded);
  const AVCodecDescriptor* d = avcodec_descriptor_get(par->codec_id);
  if (copy)
    note = std::string("the input's ") + (d ? d->name : "audio") + " audio cannot go in " + format->extension +
           ": re-encoded as " + codec;
}

// The row, with the codec, pixel format and options the user chose.
void Writer::Impl::Choose(const OutputFormat& row, const EncoderChoice& c) {
  chosen = row;
  choice = c;
  format = &chosen;
  if (!c.codec.empty() && c.codec != row.codec) {
    const AVCodec* codec = avcodec_find_encoder_by_name(c.codec.c_str());
    if (!codec || codec->type != AVMEDIA_TYPE_VIDEO) throw MediaError("this FFmpeg has no video encoder " + c.codec);
    if (row.muxer &&
        avformat_query_codec(av_guess_format(row.muxer, nullptr, nullptr), codec->id, FF_COMPLIANCE_NORMAL) == 0)
      throw MediaError(std::string(row.extension) + " cannot hold " + c.codec + " video (-c:v)");
    codecName = c.codec;
    chosen.codec = chosen.description = codecName.c_str();
    // The row's options are for its own encoder; x265 prints a log of its own unless told.
    chosen.codecOptions = c.codec == "libx265" ? "x265-params=log-level=error" : "";
    // The row's pixel format where the encoder takes it, else the nearest to 16-bit RGBA.
    const AVPixelFormat rowFormat = av_get_pix_fmt(row.pixelFormat);
    bool takes = !codec->pix_fmts;
    for (const AVPixelFormat* f = codec->pix_fmts; f && *f != AV_PIX_FMT_NONE; ++f) takes |= *f == rowFormat;
    if (!takes)
      pixelName =
          av_get_pix_fmt_name(avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, AV_PIX_FMT_RGBA64, 1, nullptr));
  }
  if (!c.pixelFormat.empty()) {
    if (av_get_pix_fmt(c.pixelFormat.c_str()) == AV_PIX_FMT_NONE)
      throw MediaError("this FFmpeg has no pixel format " + c.pixelFormat);
    pixelName = c.pixelFormat;
  }
  if (!pixelName.empty() && pixelName != row.pixelFormat) {
    chosen.pixelFormat = pixelName.c_str();
    chosen.layout = PixelLayout::Scaled;
  }
  options = chosen.codecOptions;
  for (const auto& [key, value] : {std::pair{"crf", c.crf}, {"preset", c.preset}, {"b", c.bitrate}})
    if (!value.empty()) options += (options.empty() ? "" : ":") + std::string(key) + "=" + value;
  chosen.codecOptions = options.c_str();
}

void Writer::Impl::OpenEncoder(int w, int h) {
  const OutputFormat& f = *format;
  const AVCodec* codec = avcodec_find_encoder_by_name(f.codec);
  if (!codec) throw MediaError(std::string("this FFmpeg has no ") + f.codec + " encoder for '" + output + "'");
  const AVPixelFormat encFmt = av_get_pix_fmt(f.pixelFormat);
  const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(encFmt);
  if (!desc) throw MediaError(std::string("this FFmpeg has no pixel format ") + f.pixelFormat);
  if ((w % (1 << desc->log2_chroma_w)) || (h % (1 << desc->log2_chroma_h)))
    throw MediaError("'" + output + "': " + f.description + " needs an even width and height, not " +
                     std::to_string(w) + "x" + std::to_string(h));
  enc.reset(avcodec_alloc_context3(codec));
  enc->width = w;
  enc->height = h;
  enc->pix_fmt = encFmt;
  enc->time_base = timed ? inputTimeBase : av_inv_q(rate);
  enc->framerate = rate;
  if (!f.sequence) {
    // The input's primaries, transfer, matrix and range, BT.709 limited range
    // where it does not say: the code values pass through unchanged.
    const bool yCbCr = !(desc->flags & AV_PIX_FMT_FLAG_RGB) && desc->nb_components >= 3;
    auto given = [](int v, int fallback) { return v == AVCOL_PRI_UNSPECIFIED || v <= 0 ? fallback : v; };
    enc->color_primaries = static_cast<AVColorPrimaries>(given(colour.primaries, yCbCr ? AVCOL_PRI_BT709 : 2));
    enc->color_trc = static_cast<AVColorTransferCharacteristic>(given(colour.transfer, yCbCr ? AVCOL_TRC_BT709 : 2));
    const bool inputMatrix = colour.matrix != AVCOL_SPC_RGB && colour.matrix != AVCOL_SPC_UNSPECIFIED;
    enc->colorspace =
        yCbCr ? (inputMatrix ? static_cast<AVColorSpace>(colour.matrix) : AVCOL_SPC_BT709) : AVCOL_SPC_RGB;
    enc->color_range = yCbCr && colour.range != AVCOL_RANGE_JPEG ? AVCOL_RANGE_MPEG : AVCOL_RANGE_JPEG;
  }
  if (mux && (mux->oformat->flags & AVFMT_GLOBALHEADER)) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  // One thread per core, slices or whole frames as the encoder can: these
  // encoders' bytes do not depend on it. x264's do, so its row fixes a count.
  enc->thread_count = 0;
  AVDictionary* opts = nullptr;
  av_dict_parse_string(&opts, f.codecOptions, "=", ":", 0);
  const int r = avcodec_open2(enc.get(), codec, &opts);
  // An option the encoder does not have would otherwise be dropped without a word.
  const AVDictionaryEntry* unused = av_dict_get(opts, "", nullptr, AV_DICT_IGNORE_SUFFIX);
  const std::string unknown = unused ? unused->key : "";
  av_dict_free(&opts);
  if (r >= 0 && !unknown.empty())
    throw MediaError("'" + output + "': the " + f.codec + " encoder has no option " + unknown);
  const bool asked = !(choice.crf + choice.preset + choice.bitrate + choice.pixelFormat).empty();
  if (r < 0)
    throw MediaError("'" + output + "': " + f.description + " cannot encode " + std::to_string(w) + "x" +
                     std::to_string(h) + " pictures" +
                     (asked ? " with the -crf, -preset, -b:v or -pix_fmt given" : "") + " (FFmpeg's " + f.codec + ": " +
                     AvError(r) + ")");

  frame = NewFrame(encFmt, w, h);
  // Some encoders (ProRes) tag from the frame, not the context.
  frame->color_primaries = enc->color_primaries;
  frame->color_trc = enc->color_trc;
  frame->colorspace = enc->colorspace;
  frame->color_range = enc->color_range;
  if (f.layout == PixelLayout::Scaled) OpenColourConversion(w, h);
  if (mux) OpenFile();
}

// 16-bit full-range R'G'B' to the encoder's format: Y'CbCr in the matrix and
// range chosen above. The 16-bit values go in planes: swscale converts those
// several times quicker than packed RGBA64.
void Writer::Impl::OpenColourConversion(int w, int h) {
  // Alpha only where the encoder keeps it: a quarter less to write and convert.
  const bool alpha = (av_pix_fmt_desc_get(enc->pix_fmt)->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
  const AVPixelFormat planes = alpha ? AV_PIX_FMT_GBRAP16 : AV_PIX_FMT_GBRP16;
  planes16 = NewFrame(planes, w, h);
  sws = NewScaler(w, h, planes, enc->pix_fmt, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP | SWS_BITEXACT);
  if (!sws) throw MediaError("cannot convert to " + std::string(av_get_pix_fmt_name(enc->pix_fmt)));
  // swscale numbers its matrices as AVColorSpace does.
  if (enc->colorspace != AVCOL_SPC_RGB) {
    const int* matrix = sws_getCoefficients(enc->colorspace);
    sws_setColorspaceDetails(sws.get(), matrix, 1, matrix, enc->color_range == AVCOL_RANGE_JPEG, 0, 1 << 16, 1 << 16);
  }
}

// The video's streams and header: audio starts where the first written frame sits.
void Writer::Impl::OpenFile() {
  video = avformat_new_stream(mux, nullptr);
  video->time_base = enc->time_base;
  video->avg_frame_rate = rate;
  avcodec_parameters_from_context(video->codecpar, enc.get());
  if (audioIn) {
    const AVStream* in = audioIn->streams[audioInIndex];
    audioOut = avformat_new_stream(mux, nullptr);
    avcodec_parameters_copy(audioOut->codecpar, reencoder ? reencoded : in->codecpar);
    audioOut->codecpar->codec_tag = 0;
    audioOut->time_base = reencoder ? reencoder->TimeBase() : in->time_base;
    // Both streams keep the container's clock: the audio starts at the
    // instant of the first written picture.
    audioOffset = timed ? av_rescale_q(firstPts, inputTimeBase, in->time_base)
                        : av_rescale_q(first, enc->time_base, in->time_base) +
                              (in->start_time == AV_NOPTS_VALUE ? 0 : in->start_time);
  }
  files.push_back(output);
  int r = avio_open(&mux->pb, output.c_str(), AVIO_FLAG_WRITE);
  if (r < 0) throw MediaError("cannot write '" + output + "': " + AvError(r));
  r = avformat_write_header(mux, nullptr);
  if (r < 0) throw MediaError("cannot write '" + output + "': " + AvError(r));
}

void Writer::Impl::Fill(const Picture& p) {
  if (av_frame_make_writable(frame.get()) < 0) throw MediaError("out of memory for a frame");
  PictureToFrame(p, format->layout, sws ? *planes16 : *frame);
  if (sws && sws_scale_frame(sws.get(), frame.get(), planes16.get()) < 0)
    throw MediaError("cannot convert to " + std::string(av_get_pix_fmt_name(enc->pix_fmt)));
}

// Copies the source's audio packets that start before `untilIn` (its time base).
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
    if (reencoder) {
      reencoder->Add(audioPkt.get(), in->time_base, [&](AVPacket* p) { WriteAudio(p, reencoder->TimeBase()); });
      av_packet_unref(audioPkt.get());
    } else {
      WriteAudio(audioPkt.get(), in->time_base);
    }
  }
}

void Writer::Impl::WriteAudio(AVPacket* packet, AVRational timeBase) {
  packet->stream_index = audioOut->index;
  packet->pos = -1;
  av_packet_rescale_ts(packet, timeBase, audioOut->time_base);
  const int r = av_interleaved_write_frame(mux, packet);
  if (r < 0) throw MediaError("cannot write audio to '" + output + "': " + AvError(r));
}

// Audio up to the end of the picture at `pts` (the encoder's count): one
// frame of the average rate past it.
void Writer::Impl::PumpAudioTo(int64_t pts) {
  if (!audioIn) return;
  const int64_t end = pts + av_rescale_q(1, av_inv_q(rate), enc->time_base);
  PumpAudio(av_rescale_q(end, enc->time_base, audioIn->streams[audioInIndex]->time_base));
}

// A video's packet into the file, a sequence's into its own file.
void Writer::Impl::WritePacket() {
  if (mux) {
    pkt->stream_index = video->index;
    av_packet_rescale_ts(pkt.get(), enc->time_base, video->time_base);
    const int w = av_interleaved_write_frame(mux, pkt.get());
    if (w < 0) throw MediaError("cannot write '" + output + "': " + AvError(w));
    return;
  }
  const std::string name = FrameName(output, pkt->pts + first + firstNumber);
  files.push_back(name);
  FILE* file = std::fopen(name.c_str(), "wb");
  const bool ok = file && std::fwrite(pkt->data, 1, pkt->size, file) == static_cast<size_t>(pkt->size);
  if (file && std::fclose(file) != 0) throw MediaError("cannot write '" + name + "'");
  av_packet_unref(pkt.get());
  if (!ok) throw MediaError("cannot write '" + name + "': " + std::strerror(errno));
}

void Writer::Impl::Drain() {
  for (;;) {
    const int r = avcodec_receive_packet(enc.get(), pkt.get());
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
    if (r < 0) throw MediaError("cannot encode '" + output + "': " + AvError(r));
    WritePacket();
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
    m.timed = m.mux && picture.pts != kNoTime && m.inputTimeBase.num > 0 && m.inputTimeBase.den > 0;
    m.firstPts = picture.pts;
    m.OpenEncoder(picture.width, picture.height);
    m.started = true;
  } else if (picture.width != m.enc->width || picture.height != m.enc->height) {
    throw MediaError("frame " + std::to_string(frameNumber) + " for '" + m.output + "' changes size");
  } else if (!m.format->sequence && frameNumber <= m.last) {
    throw MediaError("frame " + std::to_string(frameNumber) + " for '" + m.output + "' is out of order");
  }
  m.Fill(picture);
  m.frame->pts = frameNumber - m.first;
  if (m.timed) {
    // A picture without a time, or one not after the last, keeps the order.
    const int64_t pts = picture.pts == kNoTime ? kNoTime : picture.pts - m.firstPts;
    m.frame->pts = m.last < m.first ? 0 : (pts != kNoTime && pts > m.lastPts ? pts : m.lastPts + 1);
    m.lastPts = m.frame->pts;
  }
  const int r = avcodec_send_frame(m.enc.get(), m.frame.get());
  if (r < 0)
    throw MediaError("cannot encode frame " + std::to_string(frameNumber) + " of '" + m.output + "': " + AvError(r));
  m.last = frameNumber;
  m.Drain();
  m.PumpAudioTo(m.frame->pts);
}

void Writer::Finish() {
  Impl& m = *impl_;
  if (m.finished) return;
  m.finished = true;
  if (!m.started) {
    if (!m.format->sequence) throw MediaError("no frames to write to '" + m.output + "'");
    return;
  }
  avcodec_send_frame(m.enc.get(), nullptr);
  m.Drain();
  if (!m.mux) return;
  m.PumpAudioTo(m.timed ? m.lastPts : m.last - m.first);
  if (m.reencoder) m.reencoder->Finish([&](AVPacket* p) { m.WriteAudio(p, m.reencoder->TimeBase()); });
  int r = av_write_trailer(m.mux);
  if (r < 0) throw MediaError("cannot finish '" + m.output + "': " + AvError(r));
  r = avio_closep(&m.mux->pb);
  if (r < 0) throw MediaError("cannot finish '" + m.output + "': " + AvError(r));
}

std::vector<std::string> Writer::Files() const { return impl_->files; }

std::string Writer::Note() const { return impl_->note; }

void WritePng(const std::string& path, const Picture& picture) {
  const OutputFormat& png = OutputFormatFor("x.%d.png");  // the sequences' PNG row: same encoder and layout
  const AVCodec* codec = avcodec_find_encoder_by_name(png.codec);
  if (!codec) throw MediaError(std::string("this FFmpeg has no ") + png.codec + " encoder for '" + path + "'");
  CodecPtr enc(avcodec_alloc_context3(codec));
  enc->width = picture.width;
  enc->height = picture.height;
  enc->pix_fmt = av_get_pix_fmt(png.pixelFormat);
  enc->time_base = AVRational{1, 1};
  int r = avcodec_open2(enc.get(), codec, nullptr);
  if (r < 0) throw MediaError("cannot open the png encoder for '" + path + "': " + AvError(r));
  FramePtr frame = NewFrame(enc->pix_fmt, picture.width, picture.height);
  PictureToFrame(picture, png.layout, *frame);
  frame->pts = 0;
  PacketPtr pkt(av_packet_alloc());
  r = avcodec_send_frame(enc.get(), frame.get());
  if (r >= 0) r = avcodec_send_frame(enc.get(), nullptr);
  if (r >= 0) r = avcodec_receive_packet(enc.get(), pkt.get());
  if (r < 0) throw MediaError("cannot encode '" + path + "': " + AvError(r));
  FILE* file = std::fopen(path.c_str(), "wb");
  const bool ok = file && std::fwrite(pkt->data, 1, pkt->size, file) == static_cast<size_t>(pkt->size);
  const int error = errno;
  if ((file && std::fclose(file) != 0) || !ok) throw MediaError("cannot write '" + path + "': " + std::strerror(error));
}

}  // namespace media
