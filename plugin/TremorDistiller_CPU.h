// The software path's pieces, apart from the host: the depth of a pixel
// format, the half-value copy of a pixel and of a row, and the row pool.
#ifndef TREMORDISTILLER_CPU_H
#define TREMORDISTILLER_CPU_H

#include <functional>

#include "AE_Effect.h"

// Bits per component of a pixel format on the given host; 0 when unknown.
int PixelFormatDepth(PF_PixelFormat format, bool premiere);

// Bytes per pixel of a depth the copy handles (8, 16, 32); 0 for any other.
int PixelSizeOfDepth(int depth);

// Output row `row`, read from the same row of the input. Pixels the input does
// not cover are written transparent black.
void HalfValueRow(int depth, const PF_EffectWorld& input, const PF_EffectWorld& output, A_long row);

// Runs rowWork for rows 0 .. rows - 1, split into contiguous bands over up to
// `threads` threads; on the calling thread when threads or rows are below 2.
void ForEachRowInParallel(A_long rows, unsigned threads, const std::function<void(A_long row)>& rowWork);

#endif
