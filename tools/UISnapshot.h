// tremor-render --ui-snapshot: the effect's custom UI after a render, as the
// user would see it, drawn by the stand-in host's Drawbot.
#ifndef TREMOR_TOOLS_UISNAPSHOT_H
#define TREMOR_TOOLS_UISNAPSHOT_H

#include "AeHost.h"
#include "MediaIO.h"

namespace render {

// The effect controls panel at the About control's registered size: the
// picture and the GPU line, or the notice. When the effect raised a notice,
// the composition panel's two lines follow below it, and the picture takes
// that panel's width. Throws Failure when the effect fails to draw.
media::Picture DrawUISnapshot(aehost::AeHost& host);

}  // namespace render

#endif
