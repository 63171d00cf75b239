#include "MediaPixels.h"

namespace media {
namespace {

// FFmpeg's planar RGB formats hold G, B, R, A: the plane of R, G, B and A.
constexpr int kPlaneOf[4] = {2, 0, 1, 3};

template <typename T>
T* Row(const AVFrame& f, int plane, int y) {
  return reinterpret_cast<T*>(f.data[plane] + static_cast<ptrdiff_t>(y) * f.linesize[plane]);
}

}  // namespace

// Selects rather than early returns, so that the loops calling it vectorise.
uint16_t ToU16(float v) {
  v = v > 0.0f ? v : 0.0f;  // NaN too
  v = v < 1.0f ? v : 1.0f;
  return static_cast<uint16_t>(v * 65535.0f + 0.5f);
}

// Rows are made in a small buffer and appended, so the picture's memory is
// written once (not cleared first).
void FloatPlanesToPicture(const AVFrame& f, bool gray, bool alpha, Picture& p) {
  const int w = p.width;
  std::vector<float> line(static_cast<size_t>(w) * 4, 1.0f);
  for (int y = 0; y < p.height; ++y) {
    for (int c = 0; c < (alpha ? 4 : 3); ++c) {
      const float* in = Row<const float>(f, gray ? 0 : kPlaneOf[c], y);
      for (int x = 0; x < w; ++x) line[4 * x + c] = in[x];
    }
    p.rgba.insert(p.rgba.end(), line.begin(), line.end());
  }
}

void PackedToPicture(const AVFrame& f, bool sixteen, Picture& p) {
  const int n = p.width * 4;
  std::vector<float> line(static_cast<size_t>(n));
  for (int y = 0; y < p.height; ++y) {
    if (sixteen) {
      const uint16_t* in = Row<const uint16_t>(f, 0, y);
      for (int i = 0; i < n; ++i) line[i] = in[i] / 65535.0f;
    } else {
      const uint8_t* in = Row<const uint8_t>(f, 0, y);
      for (int i = 0; i < n; ++i) line[i] = in[i] / 255.0f;
    }
    p.rgba.insert(p.rgba.end(), line.begin(), line.end());
  }
}

// Integers clamp and round here so the levels are exact before any Y'CbCr conversion.
void PictureToFrame(const Picture& p, PixelLayout layout, AVFrame& out) {
  const int w = p.width;
  for (int y = 0; y < p.height; ++y) {
    const float* in = &p.rgba[static_cast<size_t>(y) * w * 4];
    switch (layout) {
      case PixelLayout::PlanarFloat:
        for (int c = 0; c < 4; ++c) {
          float* row = Row<float>(out, kPlaneOf[c], y);
          for (int x = 0; x < w; ++x) row[x] = in[4 * x + c];
        }
        break;
      case PixelLayout::PlanarU16:
      case PixelLayout::Scaled:  // 16-bit planes that swscale converts from; alpha where there is a plane
        for (int c = 0; c < (out.data[3] ? 4 : 3); ++c) {
          uint16_t* row = Row<uint16_t>(out, kPlaneOf[c], y);
          for (int x = 0; x < w; ++x) row[x] = ToU16(in[4 * x + c]);
        }
        break;
      case PixelLayout::PackedU16BE: {
        uint8_t* row = Row<uint8_t>(out, 0, y);
        for (int i = 0; i < w * 4; ++i) {
          const uint16_t v = ToU16(in[i]);
          row[2 * i] = static_cast<uint8_t>(v >> 8);
          row[2 * i + 1] = static_cast<uint8_t>(v & 0xff);
        }
        break;
      }
    }
  }
}

}  // namespace media
