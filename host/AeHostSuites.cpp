// The suites and callbacks of the stand-in After Effects host, over real
// memory and the host's device, each recorded in the call log and each able to
// fail on demand. Nothing thrown here may reach the module: every entry
// catches and answers with a host error code.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>

#include "AeHostInternal.h"

#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif

namespace aehost {

namespace {

thread_local CommandContext* tContext = nullptr;
std::mutex gHostsMutex;
std::vector<Impl*> gHosts;

// Handles outlive the command that made them and may come back on any thread,
// so their registry is process-wide; each block knows its host.
std::mutex gHandlesMutex;
std::unordered_set<HandleBlock*> gHandles;

constexpr auto kSuite = CallRecord::Kind::Suite;
constexpr auto kCallback = CallRecord::Kind::Callback;

uint64_t RenderIdOf(const CommandContext* c) { return c && c->job ? c->job->id : 0; }
uint64_t ThreadRenderId() { return RenderIdOf(tContext); }

CommandContext* FromRef(PF_ProgPtr ref) {
  auto* c = static_cast<CommandContext*>(ref);
  return c && c->magic == CommandContext::kMagic ? c : nullptr;
}

std::string Ptr(const void* p) {
  if (!p) return "null";
  std::ostringstream s;
  s << p;
  return s.str();
}

size_t BytesPerPixel(PF_PixelFormat format) {
  if (format == PF_PixelFormat_ARGB32) return 4;
  if (format == PF_PixelFormat_ARGB64) return 8;
  return 16;
}

HandleBlock* FindHandle(PF_Handle handle) {
  auto* block = reinterpret_cast<HandleBlock*>(handle);
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  return gHandles.count(block) ? block : nullptr;
}

// Records through the thread's host when there is one; suites without
// effect_ref may be called where no host is current.
void RecordHere(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result) {
  if (Impl* h = CurrentHost()) h->Record(kind, suite, op, args, result, ThreadRenderId());
}

Trigger CheckHere(const char* op) {
  Impl* h = CurrentHost();
  return h ? h->Check(op) : Trigger{};
}

A_long HostTime(const Impl& h, A_long whatTime, A_u_long scale) {
  if (scale == 0 || scale == h.options.timeScale) return whatTime;
  const long double t = static_cast<long double>(whatTime) * h.options.timeScale / scale;
  return static_cast<A_long>(std::floor(t));
}

// ---- PF Handle Suite, version 2 ----

PF_Handle HostNewHandle(A_u_longlong size) {
  const Trigger t = CheckHere("host_new_handle");
  if (t.fired) {
    RecordHere(kSuite, kPFHandleSuite, "host_new_handle", Args("size=", size, " handle=null"), t.code);
    return nullptr;
  }
  auto* block = new HandleBlock;
  block->ptr = std::calloc(size ? size : 1, 1);
  block->size = size;
  block->owner = CurrentHost();
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    gHandles.insert(block);
  }
  const PF_Handle handle = &block->ptr;
  RecordHere(kSuite, kPFHandleSuite, "host_new_handle", Args("size=", size, " handle=", Ptr(handle)), 0);
  return handle;
}

void* HostLockHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  const Trigger t = CheckHere("host_lock_handle");
  if (!block || t.fired) {
    RecordHere(kSuite, kPFHandleSuite, "host_lock_handle", Args("handle=", Ptr(handle), " ptr=null"),
               block ? t.code : PF_Err_BAD_CALLBACK_PARAM);
    return nullptr;
  }
  ++block->locks;
  RecordHere(kSuite, kPFHandleSuite, "host_lock_handle", Args("handle=", Ptr(handle), " ptr=", Ptr(block->ptr)), 0);
  return block->ptr;
}

void HostUnlockHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  if (block && block->locks > 0) --block->locks;
  RecordHere(kSuite, kPFHandleSuite, "host_unlock_handle", Args("handle=", Ptr(handle)),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
}

void HostDisposeHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  if (block) {
    {
      std::lock_guard<std::mutex> lock(gHandlesMutex);
      gHandles.erase(block);
    }
    std::free(block->ptr);
    delete block;
  }
  RecordHere(kSuite, kPFHandleSuite, "host_dispose_handle", Args("handle=", Ptr(handle)),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
}

A_u_longlong HostGetHandleSize(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  const A_u_longlong size = block ? block->size : 0;
  RecordHere(kSuite, kPFHandleSuite, "host_get_handle_size", Args("handle=", Ptr(handle), " size=", size),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  return size;
}

const PF_HandleSuite2 kHandleSuite = {HostNewHandle, HostLockHandle, HostUnlockHandle, HostDisposeHandle,
                                      HostGetHandleSize};

// ---- Pixel formats of worlds: PF World Suite 2 and PF Pixel Format Suite 1 ----

PF_Err WorldFormat(const char* suite, const char* op, const PF_EffectWorld* world, PF_PixelFormat* format) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere(op);
  PF_Err err = t.code;
  if (!t.fired) {
    const WorldRecord* rec = h ? h->FindWorld(world) : nullptr;
    if (!rec || !format)
      err = PF_Err_BAD_CALLBACK_PARAM;
    else
      *format = rec->format;
  }
  RecordHere(kSuite, suite, op,
             Args("world=", Ptr(world), " format=", err || !format ? std::string("?") : FormatName(*format)), err);
  return err;
}

PF_Err WorldGetPixelFormat(const PF_EffectWorld* world, PF_PixelFormat* format) {
  return WorldFormat(kPFWorldSuite, "PF_GetPixelFormat", world, format);
}

const PF_WorldSuite2 kWorldSuite = {WorldGetPixelFormat};

PF_Err ClearSupportedPixelFormats(PF_ProgPtr) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere("ClearSupportedPixelFormats");
  if (h && !t.fired) {
    std::lock_guard<std::mutex> lock(h->paramsMutex);
    h->formats.clear();
  }
  RecordHere(kSuite, kPFPixelFormatSuite, "ClearSupportedPixelFormats", "", t.code);
  return t.code;
}

PF_Err AddSupportedPixelFormat(PF_ProgPtr, PF_PixelFormat format) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere("AddSupportedPixelFormat");
  if (h && !t.fired) {
    std::lock_guard<std::mutex> lock(h->paramsMutex);
    h->formats.push_back(format);
  }
  RecordHere(kSuite, kPFPixelFormatSuite, "AddSupportedPixelFormat", Args("format=", FormatName(format)), t.code);
  return t.code;
}

PF_Err PixelFormatGetPixelFormat(const PF_EffectWorld* world, PF_PixelFormat* format) {
  return WorldFormat(kPFPixelFormatSuite, "GetPixelFormat", world, format);
}

const PF_PixelFormatSuite1 kPixelFormatSuite = {ClearSupportedPixelFormats, AddSupportedPixelFormat,
                                                PixelFormatGetPixelFormat};

// ---- sprintf and strcpy: as the C library's, recorded ----

A_long FormatInto(const char* op, const char* suite, char* buffer, const char* format, va_list ap) {
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, format, ap);
  std::string text(n > 0 ? n : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  RecordHere(suite ? kSuite : kCallback, suite ? suite : "", op, Args("text=", text), 0);
  return n;
}

A_long SuiteSprintf(char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const A_long n = FormatInto("sprintf", kPFANSISuite, buffer, format, ap);
  va_end(ap);
  return n;
}

A_long UtilSprintf(char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const A_long n = FormatInto("ansi.sprintf", nullptr, buffer, format, ap);
  va_end(ap);
  return n;
}

char* UtilStrcpy(char* dest, const char* src) {
  std::strcpy(dest, src);
  RecordHere(kCallback, "", "ansi.strcpy", Args("text=", src), 0);
  return dest;
}

const PF_ANSICallbacksSuite1 kANSISuite = {SuiteSprintf};

// ---- PF GPU Device Suite, version 1 ----

bool DeviceIndexOk(const Impl& h, A_u_long index) { return h.deviceKind != GpuKind::None && index == 0; }

PF_Err GetDeviceInfo(PF_ProgPtr ref, A_u_long deviceIndex, PF_GPUDeviceInfo* info) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("GetDeviceInfo");
  PF_Err err = t.code;
  if (!t.fired) {
    if (!c || !info || !DeviceIndexOk(*h, deviceIndex)) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      *info = PF_GPUDeviceInfo{};
      info->compatibleB = 1;
      if (h->deviceKind == GpuKind::OpenCL) {
        info->device_framework = PF_GPU_Framework_OPENCL;
        info->platformPV = h->cl.platform;
        info->devicePV = h->cl.device;
        info->contextPV = h->cl.context;
        info->command_queuePV = h->cl.queue;
      } else {
        // The runtime's current device and default stream; no driver context.
        info->device_framework = PF_GPU_Framework_CUDA;
        info->devicePV = reinterpret_cast<void*>(static_cast<intptr_t>(h->cudaIndex));
      }
    }
  }
  if (h) h->Record(kSuite, kPFGPUDeviceSuite, "GetDeviceInfo", Args("device=", deviceIndex), err, RenderIdOf(c));
  return err;
}

PF_Err CreateGPUWorld(PF_ProgPtr ref, A_u_long deviceIndex, A_long width, A_long height, PF_RationalScale par,
                      PF_Field field, PF_PixelFormat format, PF_Boolean clear, PF_EffectWorld** world) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("CreateGPUWorld");
  PF_Err err = t.code;
  const PF_EffectWorld* made = nullptr;
  if (world) *world = nullptr;
  if (!t.fired) {
    if (!c || !world || !DeviceIndexOk(*h, deviceIndex) || format != PF_PixelFormat_GPU_BGRA128 || width <= 0 ||
        height <= 0) {
      err = PF_Err_BAD_CALLBACK_PARAM;
    } else {
      try {
        auto rec = h->NewWorld(true, width, height, format, clear != 0, !clear && h->options.poisonUnclearedWorlds);
        rec->effectOwned = true;
        rec->renderId = RenderIdOf(c);
        rec->world.pix_aspect_ratio = par;
        {
          std::lock_guard<std::mutex> lock(h->worldsMutex);
          h->effectWorlds[rec.get()] = rec;
        }
        *world = &rec->world;
        made = *world;
      } catch (const std::exception&) {
        err = PF_Err_OUT_OF_MEMORY;
      }
    }
  }
  if (h)
    h->Record(kSuite, kPFGPUDeviceSuite, "CreateGPUWorld",
              Args("device=", deviceIndex, " width=", width, " height=", height, " field=", field,
                   " format=", FormatName(format), " clear=", int(clear), " world=", Ptr(made)),
              err, RenderIdOf(c));
  return err;
}

PF_Err DisposeGPUWorld(PF_ProgPtr ref, PF_EffectWorld* world) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("DisposeGPUWorld");
  PF_Err err = t.code;
  if (!t.fired) {
    std::shared_ptr<WorldRecord> gone;  // freed outside the lock
    if (c && world) {
      std::lock_guard<std::mutex> lock(h->worldsMutex);
      auto it = h->effectWorlds.find(static_cast<const WorldRecord*>(world->platform_ref));
      if (it != h->effectWorlds.end() && &it->second->world == world) {
        gone = it->second;
        h->effectWorlds.erase(it);
      }
    }
    if (!gone) err = PF_Err_BAD_CALLBACK_PARAM;
  }
  if (h) h->Record(kSuite, kPFGPUDeviceSuite, "DisposeGPUWorld", Args("world=", Ptr(world)), err, RenderIdOf(c));
  return err;
}

PF_Err GetGPUWorldData(PF_ProgPtr ref, PF_EffectWorld* world, void** pixels) {
  CommandContext* c = FromRef(ref);
  Impl* h = c ? c->host : CurrentHost();
  const Trigger t = CheckHere("GetGPUWorldData");
  PF_Err err = t.code;
  void* data = nullptr;
  if (!t.fired) {
    const WorldRecord* rec = c ? h->FindWorld(world) : nullptr;
    if (!rec || !rec->gpu || !pixels)
      err = PF_Err_BAD_CALLBACK_PARAM;
    else
      data = rec->clBuffer ? static_cast<void*>(rec->clBuffer) : rec->cudaBuffer;
  }
  if (pixels) *pixels = data;
  if (h)
    h->Record(kSuite, kPFGPUDeviceSuite, "GetGPUWorldData", Args("world=", Ptr(world), " data=", Ptr(data)), err,
              RenderIdOf(c));
  return err;
}

const PF_GPUDeviceSuite1 kGPUDeviceSuite = {GetDeviceInfo, CreateGPUWorld, DisposeGPUWorld, GetGPUWorldData};

// ---- The basic suite ----

const void* SuiteTable(const std::string& name, int32_t version) {
  if (name == kPFHandleSuite && version == kPFHandleSuiteVersion2) return &kHandleSuite;
  if (name == kPFWorldSuite && version == kPFWorldSuiteVersion2) return &kWorldSuite;
  if (name == kPFGPUDeviceSuite && version == kPFGPUDeviceSuiteVersion1) return &kGPUDeviceSuite;
  if (name == kPFPixelFormatSuite && version == kPFPixelFormatSuiteVersion1) return &kPixelFormatSuite;
  if (name == kPFANSISuite && version == kPFANSISuiteVersion1) return &kANSISuite;
  return nullptr;
}

constexpr SPErr kSuiteNotFound = 0x53214e46;  // the basic suite's "not found"

SPErr AcquireSuite(const char* name, int32_t version, const void** suite) {
  Impl* h = CurrentHost();
  const std::string n = name ? name : "";
  const Trigger t = CheckHere("AcquireSuite");
  SPErr err = t.fired ? t.code : kSPNoError;
  const void* table = nullptr;
  if (!t.fired) {
    table = SuiteTable(n, version);
    if (!table || (h && h->SuiteMissing(n))) {
      table = nullptr;
      err = kSuiteNotFound;
    }
  }
  if (suite) *suite = table;
  RecordHere(kSuite, "SPBasic", "AcquireSuite", Args("name=", n, " version=", version), err);
  return err;
}

SPErr ReleaseSuite(const char* name, int32_t version) {
  RecordHere(kSuite, "SPBasic", "ReleaseSuite", Args("name=", name ? name : "", " version=", version), 0);
  return kSPNoError;
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
    h->Record(kCallback, "", "checkout_param",
              Args("index=", index, " time=", time, " step=", step, " scale=", scale), err, RenderIdOf(c));
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
        job->bookings[checkoutIdx] = std::move(b);
        if (pin) h->Pin(*key);
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

// ---- Tables handed to the module ----

const SPBasicSuite kBasicSuite = {AcquireSuite, ReleaseSuite};
PF_UtilCallbacks kUtilCallbacks = {{UtilSprintf, UtilStrcpy}};
PF_PreRenderCallbacks kPreRenderCallbacks = {CheckoutLayer};
PF_SmartRenderCallbacks kSmartRenderCallbacks = {CheckoutLayerPixels, CheckinLayerPixels, CheckoutOutput};

PF_InteractCallbacks InteractCallbacks() { return PF_InteractCallbacks{CheckoutParam, CheckinParam, AddParam, RegisterUI}; }

PF_Err RecordPluginData(PF_PluginDataPtr inPtr, const A_u_char* name, const A_u_char* matchName,
                        const A_u_char* category, const A_u_char* entryPoint, A_long kind, A_long apiMajor,
                        A_long apiMinor, A_long reserved) {
  auto* data = static_cast<PluginData*>(inPtr);
  if (!data) return PF_Err_BAD_CALLBACK_PARAM;
  auto text = [](const A_u_char* s) { return s ? std::string(reinterpret_cast<const char*>(s)) : std::string(); };
  ++data->calls;
  data->name = text(name);
  data->matchName = text(matchName);
  data->category = text(category);
  data->entryPoint = text(entryPoint);
  data->kind = kind;
  data->apiMajor = apiMajor;
  data->apiMinor = apiMinor;
  data->reserved = reserved;
  return PF_Err_NONE;
}

// ---- Which host is current ----

Impl* CurrentHost() {
  if (tContext) return tContext->host;
  std::lock_guard<std::mutex> lock(gHostsMutex);
  return gHosts.empty() ? nullptr : gHosts.back();
}

CommandContext* CurrentContext() { return tContext; }
void SetCurrentContext(CommandContext* context) { tContext = context; }

void RegisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.push_back(host);
}

void UnregisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.erase(std::remove(gHosts.begin(), gHosts.end(), host), gHosts.end());
}

// ---- Impl: log, injection, handles ----

void Impl::Record(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result,
                  uint64_t renderId) {
  std::lock_guard<std::mutex> lock(logMutex);
  log.push_back(CallRecord{kind, suite, op, args, result, renderId});
}

size_t Impl::BeginCommand(PF_Cmd cmd, const std::string& args, uint64_t renderId) {
  std::lock_guard<std::mutex> lock(logMutex);
  log.push_back(CallRecord{CallRecord::Kind::Command, "", CommandName(cmd), args, 0, renderId});
  return log.size() - 1;
}

void Impl::EndCommand(size_t at, PF_Err result) {
  std::lock_guard<std::mutex> lock(logMutex);
  if (at < log.size()) log[at].result = result;  // the log may have been cleared meanwhile
}

Trigger Impl::Check(const char* op) {
  std::lock_guard<std::mutex> lock(injectMutex);
  Trigger t;
  for (auto& i : injections) {
    if (i.op != op) continue;
    ++i.calls;
    if (!t.fired && (i.nth == 0 || i.calls == i.nth)) {
      t.fired = true;
      t.null = i.null;
      t.code = i.null ? 0 : i.code;
    }
  }
  return t;
}

bool Impl::SuiteMissing(const std::string& name) {
  std::lock_guard<std::mutex> lock(injectMutex);
  return missingSuites.count(name) > 0;
}

size_t Impl::LiveHandles() const {
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  return static_cast<size_t>(std::count_if(gHandles.begin(), gHandles.end(),
                                           [this](const HandleBlock* b) { return b->owner == this; }));
}

void Impl::FreeAllHandles() {
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  for (auto it = gHandles.begin(); it != gHandles.end();) {
    if ((*it)->owner == this) {
      std::free((*it)->ptr);
      delete *it;
      it = gHandles.erase(it);
    } else {
      ++it;
    }
  }
}

// ---- Worlds and device memory ----

WorldRecord::~WorldRecord() {
  if (clBuffer) clReleaseMemObject(clBuffer);
#ifdef TD_HAVE_CUDA
  if (cudaBuffer) FreeCudaBuffer(cudaBuffer);
#endif
  if (host) {
    std::lock_guard<std::mutex> lock(host->worldsMutex);
    host->liveWorlds.erase(this);
  }
}

std::shared_ptr<WorldRecord> Impl::NewWorld(bool gpu, A_long width, A_long height, PF_PixelFormat format, bool clear,
                                            bool poison) {
  if (options.rowPaddingBytes < 0 || options.rowPaddingBytes % 16)
    throw HostError(Args("row padding must be a multiple of 16 bytes, not ", options.rowPaddingBytes));
  auto rec = std::make_shared<WorldRecord>();
  rec->gpu = gpu;
  rec->format = format;
  const size_t rowBytes = static_cast<size_t>(width) * (gpu ? 16 : BytesPerPixel(format)) + options.rowPaddingBytes;
  rec->bytes = rowBytes * static_cast<size_t>(height);
  const size_t allocBytes = rec->bytes ? rec->bytes : 1;
  if (gpu) {
    if (deviceKind == GpuKind::OpenCL) {
      rec->clBuffer = CreateOpenCLBuffer(cl, allocBytes);
      if (poison) {
        const cl_uchar ones = 0xFF;  // every float a NaN
        const cl_int e = clEnqueueFillBuffer(cl.queue, rec->clBuffer, &ones, 1, 0, allocBytes, 0, nullptr, nullptr);
        if (e != CL_SUCCESS) throw std::runtime_error("clEnqueueFillBuffer failed with " + std::to_string(e));
      } else if (clear) {
        ClearOpenCLBuffer(cl, rec->clBuffer, allocBytes);
      }
#ifdef TD_HAVE_CUDA
    } else if (deviceKind == GpuKind::Cuda) {
      rec->cudaBuffer = CreateCudaBuffer(allocBytes);
      if (poison) {
        const std::vector<uint8_t> ones(allocBytes, 0xFF);
        UploadCudaBuffer(rec->cudaBuffer, ones.data(), allocBytes);
      } else if (clear) {
        ClearCudaBuffer(rec->cudaBuffer, allocBytes);
      }
#endif
    } else {
      throw HostError("no device for a GPU world");
    }
  } else {
    rec->memory.assign(allocBytes, 0);
  }
  rec->world.data = gpu ? static_cast<void*>(rec.get()) : rec->memory.data();
  rec->world.rowbytes = static_cast<A_long>(rowBytes);
  rec->world.width = width;
  rec->world.height = height;
  rec->world.pix_aspect_ratio = PF_RationalScale{1, 1};
  rec->world.extent_hint = PF_LRect{0, 0, width, height};
  rec->world.platform_ref = rec.get();
  rec->host = this;
  std::lock_guard<std::mutex> lock(worldsMutex);
  liveWorlds.insert(rec.get());
  return rec;
}

const WorldRecord* Impl::FindWorld(const PF_EffectWorld* world) const {
  if (!world) return nullptr;
  const auto* rec = static_cast<const WorldRecord*>(world->platform_ref);
  std::lock_guard<std::mutex> lock(worldsMutex);
  return liveWorlds.count(rec) ? rec : nullptr;
}

namespace {

float Unit8(uint8_t v) { return v / 255.0f; }
float Unit16(uint16_t v) { return v / 32768.0f; }
uint8_t To8(float v) { return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f)); }
uint16_t To16(float v) { return static_cast<uint16_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 32768.0f)); }

}  // namespace

// GPU worlds hold B, G, R, A floats; software worlds A, R, G, B in their depth.
void Impl::UploadImage(WorldRecord& world, const Image& image) {
  const PF_EffectWorld& w = world.world;
  if (image.width != w.width || image.height != w.height) throw HostError("image and world sizes differ");
  std::vector<uint8_t> staging;
  uint8_t* base = world.gpu ? (staging.assign(world.bytes, 0), staging.data()) : world.memory.data();
  for (A_long y = 0; y < w.height; ++y) {
    uint8_t* row = base + static_cast<size_t>(y) * w.rowbytes;
    for (A_long x = 0; x < w.width; ++x) {
      const float* p = image.At(x, y);
      if (world.gpu) {
        const float bgra[4] = {p[2], p[1], p[0], p[3]};
        std::memcpy(row + x * 16, bgra, 16);
      } else if (world.format == PF_PixelFormat_ARGB32) {
        uint8_t* q = row + x * 4;
        q[0] = To8(p[3]), q[1] = To8(p[0]), q[2] = To8(p[1]), q[3] = To8(p[2]);
      } else if (world.format == PF_PixelFormat_ARGB64) {
        const uint16_t argb[4] = {To16(p[3]), To16(p[0]), To16(p[1]), To16(p[2])};
        std::memcpy(row + x * 8, argb, 8);
      } else {
        const float argb[4] = {p[3], p[0], p[1], p[2]};
        std::memcpy(row + x * 16, argb, 16);
      }
    }
  }
  if (!world.gpu || world.bytes == 0) return;
  if (world.clBuffer) UploadOpenCLBuffer(cl, world.clBuffer, staging.data(), world.bytes);
#ifdef TD_HAVE_CUDA
  if (world.cudaBuffer) UploadCudaBuffer(world.cudaBuffer, staging.data(), world.bytes);
#endif
}

Image Impl::DownloadImage(const WorldRecord& world) {
  const PF_EffectWorld& w = world.world;
  Image image(w.width, w.height);
  std::vector<uint8_t> staging;
  const uint8_t* base = world.memory.data();
  if (world.gpu) {
    staging.assign(world.bytes ? world.bytes : 1, 0);
    if (world.clBuffer && world.bytes) DownloadOpenCLBuffer(cl, world.clBuffer, staging.data(), world.bytes);
#ifdef TD_HAVE_CUDA
    if (world.cudaBuffer && world.bytes) DownloadCudaBuffer(world.cudaBuffer, staging.data(), world.bytes);
#endif
    base = staging.data();
  }
  for (A_long y = 0; y < w.height; ++y) {
    const uint8_t* row = base + static_cast<size_t>(y) * w.rowbytes;
    for (A_long x = 0; x < w.width; ++x) {
      float* p = image.At(x, y);
      if (world.gpu) {
        float bgra[4];
        std::memcpy(bgra, row + x * 16, 16);
        p[0] = bgra[2], p[1] = bgra[1], p[2] = bgra[0], p[3] = bgra[3];
      } else if (world.format == PF_PixelFormat_ARGB32) {
        const uint8_t* q = row + x * 4;
        p[0] = Unit8(q[1]), p[1] = Unit8(q[2]), p[2] = Unit8(q[3]), p[3] = Unit8(q[0]);
      } else if (world.format == PF_PixelFormat_ARGB64) {
        uint16_t argb[4];
        std::memcpy(argb, row + x * 8, 8);
        p[0] = Unit16(argb[1]), p[1] = Unit16(argb[2]), p[2] = Unit16(argb[3]), p[3] = Unit16(argb[0]);
      } else {
        float argb[4];
        std::memcpy(argb, row + x * 16, 16);
        p[0] = argb[1], p[1] = argb[2], p[2] = argb[3], p[3] = argb[0];
      }
    }
  }
  return image;
}

std::shared_ptr<WorldRecord> Impl::CachedWorld(bool gpu, A_long key, const std::shared_ptr<const Image>& frame,
                                               bool* uploaded) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  *uploaded = false;
  auto& cache = gpu ? gpuCache : softCache;
  auto it = cache.find(key);
  if (it != cache.end()) {
    it->second.lastUse = ++cacheClock;
    return it->second.world;
  }
  auto world = NewWorld(gpu, frame->width, frame->height, gpu ? PF_PixelFormat_GPU_BGRA128 : SoftwareFormat(),
                        false, false);
  UploadImage(*world, *frame);
  if (gpu) {
    ++uploads;
    *uploaded = true;
  }
  cache[key] = CacheEntry{world, ++cacheClock};
  // Over the limit: drop the least recently used frames that no render has
  // booked or holds. Renders fetch their stack newest first, so recency alone
  // would drop the frames the render under way asks for next.
  while (options.frameCacheLimit && cache.size() > options.frameCacheLimit) {
    auto victim = cache.end();
    for (auto c = cache.begin(); c != cache.end(); ++c)
      if (c->first != key && c->second.world.use_count() == 1 && !pinned.count(c->first) &&
          (victim == cache.end() || c->second.lastUse < victim->second.lastUse))
        victim = c;
    if (victim == cache.end()) break;
    cache.erase(victim);
  }
  return world;
}

void Impl::Pin(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  pinned.insert(key);
}

void Impl::Unpin(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  auto it = pinned.find(key);
  if (it != pinned.end()) pinned.erase(it);
}

void Impl::DropCached(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  gpuCache.erase(key);
  softCache.erase(key);
}

void Impl::SelectDeviceOnThisThread() {
#ifdef TD_HAVE_CUDA
  // The CUDA runtime keeps the current device per thread.
  std::string error;
  if (deviceKind == GpuKind::Cuda && !SelectCudaDevice(cudaIndex, error)) throw HostError("cudaSetDevice: " + error);
#endif
}

}  // namespace aehost
