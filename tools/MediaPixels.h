// Pixel loops between FFmpeg's frames and float RGBA pictures: no scaling or
// colour maths here, only layout and the integer scale (v/255, v/65535).
#ifndef TREMOR_TOOLS_MEDIAPIXELS_H
#define TREMOR_TOOLS_MEDIAPIXELS_H

#include <cstdint>

extern "C" {
#include <libavutil/frame.h>
}

#include "MediaIO.h"

namespace media {

// 0..1 to 16 bits, rounded; below 0 and NaN give 0, above 1 gives 65535.
uint16_t ToU16(float v);

// Float G, B, R(, A) planes, or one grey plane, appended to `p`'s rows (alpha
// 1 when the frame has none); `p` has its size and no pixels yet.
void FloatPlanesToPicture(const AVFrame& f, bool gray, bool alpha, Picture& p);

// Packed 8-bit RGBA (v/255) or native 16-bit RGBA64 (v/65535), appended as above.
void PackedToPicture(const AVFrame& f, bool sixteen, Picture& p);

// `p` into a frame of the layout's pixel format; for Scaled, into the 16-bit
// G, B, R, A planes that swscale converts from.
void PictureToFrame(const Picture& p, PixelLayout layout, AVFrame& out);

}  // namespace media

#endif
