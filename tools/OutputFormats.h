// What tremor-render can write, one row per output format. The writer, the
// command line's checks and its --help text all read this table, so a new
// format is one new row (plus a fill for a new pixel layout).
#ifndef TREMOR_TOOLS_OUTPUTFORMATS_H
#define TREMOR_TOOLS_OUTPUTFORMATS_H

#include <string>

namespace media {

// How float RGBA reaches the encoder's frame. Integer layouts clamp to 0..1.
enum class PixelLayout {
  Scaled,       // 16-bit RGBA through swscale to the encoder's format (Y'CbCr in the input's matrix and range)
  PlanarU16,    // G, B, R, A planes of 16 bits
  PackedU16BE,  // R, G, B, A, 16 bits big-endian
  PlanarFloat,  // G, B, R, A float planes, values as they are
};

struct OutputFormat {
  const char* extension;    // lower case, matched without regard to case
  const char* description;  // for --help and messages: "H.264"
  bool sequence;            // a printf pattern, one file per frame; else one video file
  const char* muxer;        // FFmpeg's muxer of a video; nullptr for a sequence
  const char* codec;        // FFmpeg's encoder
  const char* pixelFormat;  // the encoder's input, as FFmpeg names it
  PixelLayout layout;
  // FFmpeg dictionary text, "key=value:key=value". An encoder whose bytes
  // depend on its thread count gets a fixed one here, not one per core.
  const char* codecOptions;
  // Where the input's audio codec cannot go in: the container's usual one,
  // at this sample rate (0: the input's). nullptr: no audio (sequences).
  const char* audioCodec = nullptr;
  int audioRate = 0;
};

inline constexpr OutputFormat kOutputFormats[] = {
    {".mp4", "H.264", false, "mp4", "libx264", "yuv420p", PixelLayout::Scaled, "crf=18:threads=4", "aac"},
    {".mov", "ProRes 4444", false, "mov", "prores_ks", "yuva444p10le", PixelLayout::Scaled, "profile=4444", "aac"},
    {".mkv", "FFV1 16-bit RGBA", false, "matroska", "ffv1", "gbrap16le", PixelLayout::PlanarU16, "level=3:slicecrc=1",
     "flac"},
    {".webm", "VP9", false, "webm", "libvpx-vp9", "yuv420p", PixelLayout::Scaled, "crf=30:b=0:threads=4:row-mt=0",
     "libopus", 48000},
    {".avi", "FFV1 16-bit RGBA", false, "avi", "ffv1", "gbrap16le", PixelLayout::PlanarU16, "level=3:slicecrc=1",
     "pcm_s16le"},
    {".mxf", "MPEG-2 4:2:2", false, "mxf", "mpeg2video", "yuv422p", PixelLayout::Scaled, "b=50M:threads=1", "pcm_s16le",
     48000},
    {".png", "16-bit RGBA", true, nullptr, "png", "rgba64be", PixelLayout::PackedU16BE, ""},
    {".exr", "32-bit float RGBA", true, nullptr, "exr", "gbrapf32le", PixelLayout::PlanarFloat, "compression=zip16"},
};

// By the output's extension. Throws MediaError for an unknown extension, and
// for a sequence extension on a name without a frame number pattern.
const OutputFormat& OutputFormatFor(const std::string& output);

// The table's video (or sequence) extensions joined by `separator`, each with
// its description in brackets if asked: for messages and --help.
std::string ExtensionList(bool sequence, const char* separator, bool withDescription);

}  // namespace media

#endif
