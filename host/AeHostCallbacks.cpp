// The in_data and extra callbacks of the stand-in After Effects host:
// parameters during set-up, layer checkouts during pre-render and smart render.
// Each is recorded in the call log and can fail on demand; nothing thrown here
// may reach the module.
#include <cmath>
#include <cstring>

#include "AeHostInternal.h"

namespace aehost {

namespace {

A_long HostTime(const Impl& h, A_long whatTime, A_u_long scale) {
  if (scale == 0 || scale == h.options.timeScale) return whatTime;
  const long double t = static_cast<long double>(whatTime) * h.options.timeScale / scale;
  return static_cast<A_long>(std::floor(t));
}

// ---- in_data->inter ----

PF_Err CheckoutParam(PF_ProgPtr ref, PF_ParamIndex index, A_long time, A_long step, A_u_long scale,
                     PF_ParamDef* param) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkout_param");
  PF_Err err = t.code;
  if (!t.fired) {
    if (!c || !param) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else if (index == 0) {
      // The input layer: its size at that time, no pixels before a render.
      *param = PF_ParamDef{};
      param->param_type = PF_Param_LAYER;
      if (auto key = h->FrameKeyAt(HostTime(*h, time, scale))) {
        auto frame = h->FrameByKey(*key);
        param->u.ld.width = frame->width;
        param->u.ld.height = frame->height;
      }
    } else {
      std::lock_guard<std::mutex> lock(h->paramsMutex);
      if (index < 0 || index > static_cast<PF_ParamIndex>(h->params.size()))
        err = PF_Err_BAD_CALLBACK_PARAM;
      else
        *param = h->params[index - 1].value;
    }
  }
  if (h)
    h->Record(kCallback, "", "checkout_param", Args("index=", index, " time=", time, " step=", step, " scale=", scale),
              err, RenderIdOf(c));
  return err;
}

PF_Err CheckinParam(PF_ProgPtr ref, PF_ParamDef* param) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkin_param");
  const PF_Err err = t.fired ? t.code : (c && param ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (h) h->Record(kCallback, "", "checkin_param", Args("id=", param ? param->uu.id : 0), err, RenderIdOf(c));
  return err;
}

PF_Err AddParam(PF_ProgPtr ref, PF_ParamIndex index, PF_ParamDefPtr def) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("add_param");
  PF_Err err = t.code;
  PF_ParamIndex given = 0;
  if (!t.fired) {
    if (!c || !def) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      // The host copies what it needs now: the effect's name buffers may be
      // gone once add_param returns.
      ParamInfo info;
      info.requestedIndex = index;
      info.def = *def;
      info.def.name[sizeof info.def.name - 1] = '\0';
      if (def->param_type == PF_Param_POPUP && def->u.pd.u.namesptr) {
        info.names = std::make_shared<const std::string>(def->u.pd.u.namesptr);
        info.def.u.pd.u.namesptr = info.names->c_str();
      } else if (def->param_type == PF_Param_CHECKBOX && def->u.bd.u.nameptr) {
        info.names = std::make_shared<const std::string>(def->u.bd.u.nameptr);
        info.def.u.bd.u.nameptr = info.names->c_str();
      }
      info.value = info.def;
      std::lock_guard<std::mutex> lock(h->paramsMutex);
      info.index = given = static_cast<PF_ParamIndex>(h->params.size()) + 1;
      h->params.push_back(std::move(info));
    }
  }
  if (h)
    h->Record(kCallback, "", "add_param",
              Args("index=", index, " type=", def ? def->param_type : -1, " id=", def ? def->uu.id : 0,
                   " name=", def ? std::string(def->name, strnlen(def->name, sizeof def->name)) : std::string(),
                   " given=", given),
              err, RenderIdOf(c));
  return err;
}

PF_Err RegisterUI(PF_ProgPtr ref, PF_CustomUIInfo* info) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("register_ui");
  PF_Err err = t.code;
  if (!t.fired) {
    if (!c || !info) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      std::lock_guard<std::mutex> lock(h->paramsMutex);
      h->customUI = *info;
    }
  }
  if (h) h->Record(kCallback, "", "register_ui", Args("events=", info ? info->events : 0), err, RenderIdOf(c));
  return err;
}

// ---- Pre-render and smart render callbacks ----

PF_Err CheckoutLayer(PF_ProgPtr ref, PF_ParamIndex index, A_long checkoutIdx, const PF_RenderRequest* req,
                     A_long whatTime, A_long step, A_u_long scale, PF_CheckoutResult* result) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkout_layer");
  PF_Err err = t.code;
  std::string frameText = "none";
  if (!t.fired) {
    RenderJob* job = c ? c->job : nullptr;
    bool layerParam = index == 0;
    if (job && index > 0) {
      std::lock_guard<std::mutex> lock(h->paramsMutex);
      layerParam = index <= static_cast<PF_ParamIndex>(h->params.size()) &&
                   h->params[index - 1].def.param_type == PF_Param_LAYER;
    }
    if (!job || !req || !result || !layerParam || scale == 0) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      std::lock_guard<std::mutex> lock(job->mutex);
      if (job->bookings.count(checkoutIdx)) {
        err = PF_Err_BAD_CALLBACK_PARAM;  // a checkout index is booked once per render
      } else {
        Booking b;
        b.rec.checkoutIdx = checkoutIdx;
        b.rec.layer = index;
        b.rec.whatTime = whatTime;
        b.rec.timeScale = scale;
        *result = PF_CheckoutResult{};
        // Only the input layer has frames; a layer parameter with no layer books nothing.
        const std::optional<A_long> key = index == 0 ? h->FrameKeyAt(HostTime(*h, whatTime, scale)) : std::nullopt;
        if (key) {
          b.frame = h->FrameByKey(*key);
          b.rec.hasFrame = b.frame != nullptr;
        }
        if (b.rec.hasFrame) {
          b.rec.frameTime = *key;
          // The whole frame whatever the request: the host makes no sub-rectangles.
          result->result_rect = PF_LRect{0, 0, b.frame->width, b.frame->height};
          result->max_result_rect = result->result_rect;
          result->par = PF_RationalScale{1, 1};
          result->ref_width = b.frame->width;
          result->ref_height = b.frame->height;
          frameText = std::to_string(*key);
        }
        const bool pin = b.rec.hasFrame;
        const A_long pinTime = b.rec.frameTime;
        job->bookings[checkoutIdx] = std::move(b);
        if (pin) h->Pin(pinTime);
      }
    }
  }
  if (h)
    h->Record(kCallback, "", "checkout_layer",
              Args("layer=", index, " idx=", checkoutIdx, " time=", whatTime, " step=", step, " scale=", scale,
                   " frame=", frameText),
              err, RenderIdOf(c));
  return err;
}

PF_Err CheckoutLayerPixels(PF_ProgPtr ref, A_long checkoutIdx, PF_EffectWorld** pixels) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkout_layer_pixels");
  PF_Err err = t.code;
  PF_EffectWorld* given = nullptr;
  bool uploaded = false;
  if (!t.fired) {
    RenderJob* job = c ? c->job : nullptr;
    bool forcedNull = false;
    if (h) {
      std::lock_guard<std::mutex> lock(h->injectMutex);
      forcedNull = h->nullCheckouts.count(checkoutIdx) > 0;
    }
    if (!job || !pixels) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      std::unique_lock<std::mutex> lock(job->mutex);
      auto it = job->bookings.find(checkoutIdx);
      if (it == job->bookings.end()) {
        err = PF_Err_BAD_CALLBACK_PARAM;
      } else if (it->second.frame && !forcedNull) {
        auto frame = it->second.frame;
        const A_long key = it->second.rec.frameTime;
        lock.unlock();  // uploads may take a while; other callbacks of the render go on
        try {
          auto world = h->CachedWorld(job->gpu, key, frame, &uploaded);
          lock.lock();
          job->uploads += uploaded;
          it->second.world = world;
          ++it->second.rec.pixelCheckouts;
          given = &world->world;
        } catch (const std::exception&) {
          err = PF_Err_OUT_OF_MEMORY;
        }
      } else {
        ++it->second.rec.pixelCheckouts;  // nothing there: a null world and no error
      }
    }
  }
  if (pixels) *pixels = given;
  if (h)
    h->Record(kCallback, "", "checkout_layer_pixels",
              Args("idx=", checkoutIdx, " world=", Ptr(given), " upload=", int(uploaded)), err, RenderIdOf(c));
  return err;
}

PF_Err CheckinLayerPixels(PF_ProgPtr ref, A_long checkoutIdx) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkin_layer_pixels");
  PF_Err err = t.code;
  if (!t.fired) {
    RenderJob* job = c ? c->job : nullptr;
    if (!job) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      std::lock_guard<std::mutex> lock(job->mutex);
      auto it = job->bookings.find(checkoutIdx);
      if (it == job->bookings.end())
        err = PF_Err_BAD_CALLBACK_PARAM;
      else
        ++it->second.rec.checkins;  // also for a checkout never fetched, as the real host allows
    }
  }
  if (h) h->Record(kCallback, "", "checkin_layer_pixels", Args("idx=", checkoutIdx), err, RenderIdOf(c));
  return err;
}

PF_Err CheckoutOutput(PF_ProgPtr ref, PF_EffectWorld** output) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("checkout_output");
  PF_Err err = t.code;
  PF_EffectWorld* given = nullptr;
  if (!t.fired) {
    RenderJob* job = c ? c->job : nullptr;
    if (!job || !output) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      try {
        std::lock_guard<std::mutex> lock(job->mutex);
        if (!job->output) {
          const PF_PixelFormat format = job->gpu ? PF_PixelFormat_GPU_BGRA128 : h->SoftwareFormat();
          job->output = h->NewWorld(job->gpu, job->width, job->height, format, true, false);
        }
        given = &job->output->world;
      } catch (const std::exception&) {
        err = PF_Err_OUT_OF_MEMORY;
      }
    }
  }
  if (output) *output = given;
  if (h) h->Record(kCallback, "", "checkout_output", Args("world=", Ptr(given)), err, RenderIdOf(c));
  return err;
}

}  // namespace

PF_PreRenderCallbacks kPreRenderCallbacks = {CheckoutLayer};
PF_SmartRenderCallbacks kSmartRenderCallbacks = {CheckoutLayerPixels, CheckinLayerPixels, CheckoutOutput};

PF_InteractCallbacks InteractCallbacks() {
  return PF_InteractCallbacks{CheckoutParam, CheckinParam, AddParam, RegisterUI};
}

}  // namespace aehost
