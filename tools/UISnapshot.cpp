#include "UISnapshot.h"

#include <algorithm>
#include <string>

#include "RenderJob.h"

namespace render {
namespace {

// Room for the notice's first line at 20 points, as in a small viewer.
constexpr A_long kCompPanelWidth = 640;
constexpr A_long kCompPanelHeight = 56;
constexpr DRAWBOT_ColorRGBA kCompPanelColor{0.0f, 0.0f, 0.0f, 1.0f};

aehost::UIEventResult Draw(aehost::AeHost& host, const aehost::UIEvent& event, const char* panel) {
  aehost::UIEventResult r = host.SendEvent(event);
  if (r.result != PF_Err_NONE)
    throw Failure(std::string("the effect could not draw its ") + panel + " (code " + std::to_string(r.result) +
                  "); see the effect's log at " + LogPath());
  return r;
}

void Paste(const aehost::Image& from, media::Picture& to, int top) {
  for (int y = 0; y < from.height; ++y)
    std::copy_n(from.At(0, y), static_cast<size_t>(from.width) * 4,
                to.rgba.begin() + (static_cast<size_t>(top + y) * to.width) * 4);
}

}  // namespace

media::Picture DrawUISnapshot(aehost::AeHost& host) {
  const PF_ParamIndex about = host.FindParam(PARAM_ABOUT);
  if (about < 1) throw Failure("the effect module has no About control to draw");
  const PF_ParamDef def = host.Params()[about - 1].def;

  const A_long wide = std::max<A_long>(def.ui_width, kCompPanelWidth);
  aehost::UIEvent comp;
  comp.window = PF_Window_COMP;
  comp.frame = PF_LRect{0, 0, wide, kCompPanelHeight};
  comp.background = kCompPanelColor;
  const aehost::UIEventResult notice = Draw(host, comp, "composition panel");
  const bool withNotice = !notice.calls.empty();

  aehost::UIEvent controls;
  controls.frame = PF_LRect{0, 0, def.ui_width, def.ui_height};
  controls.width = withNotice ? wide : def.ui_width;
  const aehost::UIEventResult panel = Draw(host, controls, "controls");

  media::Picture picture;
  picture.width = panel.canvas.width;
  picture.height = panel.canvas.height + (withNotice ? notice.canvas.height : 0);
  picture.rgba.assign(static_cast<size_t>(picture.width) * picture.height * 4, 1.0f);
  Paste(panel.canvas, picture, 0);
  if (withNotice) Paste(notice.canvas, picture, panel.canvas.height);
  return picture;
}

}  // namespace render
