// UI events of the stand-in After Effects host: PF_Cmd_EVENT for one panel,
// the custom UI suite that hands out the panel's Drawbot reference, and the
// canvas it draws on.
#include "AeHostInternal.h"

namespace aehost {

namespace {

constexpr A_u_long kContextMagic = 0x55494358;  // "UICX"

// ---- PF Effect Custom UI Suite 1 ----

PF_Err GetDrawingReference(const PF_ContextH contextH, DRAWBOT_DrawRef* ref) {
  const Trigger t = CheckHere("PF_GetDrawingReference");
  const PF_Context* context = contextH ? *contextH : nullptr;
  const auto* ui = context && context->magic == kContextMagic ? reinterpret_cast<const UIContext*>(context) : nullptr;
  const PF_Err err = t.fired ? t.code : (ui && ref ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  // An injected null gives no reference and no error, as a host without one may.
  if (ref) *ref = err || t.fired ? nullptr : reinterpret_cast<DRAWBOT_DrawRef>(ui->target);
  RecordHere(kSuite, kPFEffectCustomUISuite, "PF_GetDrawingReference",
             Args("window=", context ? context->w_type : PF_Window_NONE), err);
  return err;
}

}  // namespace

const PF_EffectCustomUISuite1 kCustomUISuite = {GetDrawingReference};

UIEventResult AeHost::SendEvent(const UIEvent& event) {
  LoadDrawbotFont();
  UIEventResult r;
  const A_long width = event.width > 0 ? event.width : event.frame.right;
  const A_long height = event.height > 0 ? event.height : event.frame.bottom;
  if (width <= 0 || height <= 0) throw HostError(Args("a panel of ", width, "x", height, " has nothing to draw on"));
  r.canvas = Image(width, height);
  const DRAWBOT_ColorRGBA& bg = event.background;
  for (size_t i = 0; i < r.canvas.rgba.size(); i += 4) {
    r.canvas.rgba[i + 0] = bg.red;
    r.canvas.rgba[i + 1] = bg.green;
    r.canvas.rgba[i + 2] = bg.blue;
    r.canvas.rgba[i + 3] = bg.alpha;
  }

  DrawTarget target;
  target.canvas = &r.canvas;
  UIContext ui;
  ui.context.magic = kContextMagic;
  ui.context.w_type = event.window;
  ui.target = &target;
  PF_EventExtra extra{};
  extra.contextH = &ui.self;
  extra.e_type = event.type;
  extra.effect_win.area = event.window == PF_Window_EFFECT ? event.area : PF_EA_NONE;
  extra.effect_win.current_frame = event.frame;
  extra.evt_out_flags = event.outFlags;

  auto defs = impl_->ParamArray(nullptr);
  auto ptrs = Pointers(defs);
  r.result =
      impl_->Send(PF_Cmd_EVENT, 0, event.nullExtra ? nullptr : &extra, nullptr, ptrs.data(), nullptr, &r.command);
  r.outFlags = extra.evt_out_flags;
  r.calls = std::move(target.calls);
  r.objectsLeft = target.liveObjects;
  return r;
}

}  // namespace aehost
