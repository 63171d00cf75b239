// The plain arithmetic of pre-render and smart render, apart from the host so
// it can be checked on numbers alone.
#ifndef TREMORDISTILLER_SMARTRENDER_H
#define TREMORDISTILLER_SMARTRENDER_H

#include "AE_Effect.h"

// Time of frame i of the stack: current_time less i steps of `offset` frames,
// in single precision and cut toward zero, as the host is asked for it.
A_long FrameCheckoutTime(A_long current_time, A_long time_step, A_long i, float offset);

// dst grows to hold src; an empty dst becomes src, an empty src changes nothing.
void UnionLRect(const PF_LRect& src, PF_LRect& dst);

// The stack length the render works with: "Frames" cut to an int, kept within
// what the frame origin arrays hold.
A_long StackLength(double framesValue);

// A frame the host could not deliver takes the picture of its newer neighbour.
// Returns true when frames[i] was replaced.
bool ReplaceMissingFrame(PF_EffectWorld** frames, A_long i);

#endif
