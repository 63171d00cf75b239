// Audio re-encoded, for a container that cannot take the source's codec
// (FLAC in .mp4, Opus in .mov) or as the user asks: decoded, resampled to
// the encoder's sample format and rate and encoded, with the source's times.
#include <cstdlib>
#include <string>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "MediaCommon.h"
#include "MediaIO.h"

namespace media {

bool MuxerTakes(const AVOutputFormat* muxer, const AVCodecParameters* par) {
  AVFormatContext* probe = nullptr;
  if (avformat_alloc_output_context2(&probe, muxer, nullptr, nullptr) < 0 || !probe) return false;
  bool taken = false;
  if (AVStream* s = avformat_new_stream(probe, nullptr); s && avcodec_parameters_copy(s->codecpar, par) >= 0) {
    s->codecpar->codec_tag = 0;
    s->time_base = AVRational{1, par->sample_rate > 0 ? par->sample_rate : 48000};
    if (avio_open_dyn_buf(&probe->pb) >= 0) {
      taken = avformat_write_header(probe, nullptr) >= 0;
      uint8_t* bytes = nullptr;
      avio_close_dyn_buf(probe->pb, &bytes);
      av_free(bytes);
      probe->pb = nullptr;
    }
  }
  avformat_free_context(probe);
  return taken;
}

struct AudioReencoder::Impl {
  CodecPtr dec, enc;
  SwrContext* swr = nullptr;
  AVAudioFifo* fifo = nullptr;
  FramePtr decoded{av_frame_alloc()}, chunk{av_frame_alloc()};
  PacketPtr out{av_packet_alloc()};
  int64_t next = AV_NOPTS_VALUE;  // the next chunk's first sample, in 1/sample_rate
  ~Impl() {
    swr_free(&swr);
    if (fifo) av_audio_fifo_free(fifo);
  }
  void Encode(const AVFrame* frame, const Sink& sink);
  void Chunks(bool all, const Sink& sink);
  void Resample(const AVFrame* frame);
};

namespace {

// The encoder's first sample format, and `rate` (else the source's) where it
// takes it, else the nearest it does.
void ChooseSamples(const AVCodec* encoder, int rate, AVCodecContext* enc) {
  enc->sample_fmt = encoder->sample_fmts ? encoder->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
  enc->sample_rate = rate;
  if (!encoder->supported_samplerates) return;
  int best = encoder->supported_samplerates[0];
  for (const int* r = encoder->supported_samplerates; *r; ++r)
    if (std::abs(*r - rate) < std::abs(best - rate)) best = *r;
  enc->sample_rate = best;
}

}  // namespace

AudioReencoder::AudioReencoder(const AVCodecParameters* source, const std::string& codec, int rate,
                               AVCodecParameters* encoded)
    : impl_(new Impl) {
  Impl& m = *impl_;
  const AVCodec* decoder = avcodec_find_decoder(source->codec_id);
  const AVCodec* encoder = avcodec_find_encoder_by_name(codec.c_str());
  if (!encoder || encoder->type != AVMEDIA_TYPE_AUDIO) throw MediaError("this FFmpeg has no audio encoder " + codec);
  if (!decoder) throw MediaError("this FFmpeg cannot decode the input's audio to re-encode it");
  m.dec.reset(avcodec_alloc_context3(decoder));
  m.enc.reset(avcodec_alloc_context3(encoder));
  if (!m.dec || !m.enc || avcodec_parameters_to_context(m.dec.get(), source) < 0 ||
      avcodec_open2(m.dec.get(), decoder, nullptr) < 0)
    throw MediaError("cannot decode the input's audio to re-encode it");
  ChooseSamples(encoder, rate > 0 ? rate : m.dec->sample_rate, m.enc.get());
  av_channel_layout_default(&m.enc->ch_layout, m.dec->ch_layout.nb_channels);
  if (!(encoder->capabilities & AV_CODEC_CAP_LOSSLESS)) m.enc->bit_rate = 64000 * m.dec->ch_layout.nb_channels;
  m.enc->time_base = AVRational{1, m.enc->sample_rate};
  m.enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
  if (avcodec_open2(m.enc.get(), encoder, nullptr) < 0 ||
      swr_alloc_set_opts2(&m.swr, &m.enc->ch_layout, m.enc->sample_fmt, m.enc->sample_rate, &m.dec->ch_layout,
                          m.dec->sample_fmt, m.dec->sample_rate, 0, nullptr) < 0 ||
      swr_init(m.swr) < 0 || !(m.fifo = av_audio_fifo_alloc(m.enc->sample_fmt, m.enc->ch_layout.nb_channels, 4096)))
    throw MediaError("cannot set up the " + codec + " encoder for the input's audio");
  avcodec_parameters_from_context(encoded, m.enc.get());
}

AudioReencoder::~AudioReencoder() = default;

AVRational AudioReencoder::TimeBase() const { return impl_->enc->time_base; }

void AudioReencoder::Impl::Encode(const AVFrame* frame, const Sink& sink) {
  if (avcodec_send_frame(enc.get(), frame) < 0) throw MediaError("cannot encode the audio");
  while (avcodec_receive_packet(enc.get(), out.get()) == 0) {
    sink(out.get());
    av_packet_unref(out.get());
  }
}

// Whole encoder frames from the FIFO; with `all`, the short last one too.
void AudioReencoder::Impl::Chunks(bool all, const Sink& sink) {
  const int size = enc->frame_size > 0 ? enc->frame_size : 1024;  // PCM takes any
  while (av_audio_fifo_size(fifo) >= size || (all && av_audio_fifo_size(fifo) > 0)) {
    av_frame_unref(chunk.get());
    chunk->nb_samples = std::min(size, av_audio_fifo_size(fifo));
    chunk->format = enc->sample_fmt;
    chunk->sample_rate = enc->sample_rate;
    av_channel_layout_copy(&chunk->ch_layout, &enc->ch_layout);
    if (av_frame_get_buffer(chunk.get(), 0) < 0) throw MediaError("out of memory for audio");
    av_audio_fifo_read(fifo, reinterpret_cast<void**>(chunk->data), chunk->nb_samples);
    chunk->pts = next;
    next += chunk->nb_samples;
    Encode(chunk.get(), sink);
  }
}

void AudioReencoder::Add(const AVPacket* packet, AVRational timeBase, const Sink& sink) {
  Impl& m = *impl_;
  if (m.next == AV_NOPTS_VALUE) m.next = av_rescale_q(packet->pts, timeBase, m.enc->time_base);
  if (avcodec_send_packet(m.dec.get(), packet) < 0) return;  // a damaged packet: its samples are skipped
  while (avcodec_receive_frame(m.dec.get(), m.decoded.get()) == 0) {
    m.Resample(m.decoded.get());
    av_frame_unref(m.decoded.get());
  }
  m.Chunks(false, sink);
}

// `frame`'s samples (none: what the resampler still holds) into the FIFO.
void AudioReencoder::Impl::Resample(const AVFrame* frame) {
  uint8_t** planes = nullptr;
  const int most = swr_get_out_samples(swr, frame ? frame->nb_samples : 0);
  if (most <= 0) return;
  if (av_samples_alloc_array_and_samples(&planes, nullptr, enc->ch_layout.nb_channels, most, enc->sample_fmt, 0) < 0)
    throw MediaError("out of memory for audio");
  const int n = swr_convert(swr, planes, most, frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr,
                            frame ? frame->nb_samples : 0);
  if (n > 0) av_audio_fifo_write(fifo, reinterpret_cast<void**>(planes), n);
  av_freep(&planes[0]);
  av_freep(&planes);
}

void AudioReencoder::Finish(const Sink& sink) {
  Impl& m = *impl_;
  if (m.next == AV_NOPTS_VALUE) return;
  m.Resample(nullptr);
  m.Chunks(true, sink);
  m.Encode(nullptr, sink);
}

}  // namespace media
