// The plain arithmetic of pre-render and smart render, apart from the host so
// it can be checked on numbers alone.
#ifndef TREMORDISTILLER_SMARTRENDER_H
#define TREMORDISTILLER_SMARTRENDER_H

#include "AE_Effect.h"
#include "TremorDistiller_Schedule.h"

// dst grows to hold src; an empty dst becomes src, an empty src changes nothing.
void UnionLRect(const PF_LRect& src, PF_LRect& dst);

#endif
