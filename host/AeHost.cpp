// The stand-in After Effects host: the command sequence, parameters and the
// input layer. Loading, suites, worlds, the frame cache, the call log and
// renders each have their own unit.
#include <cstring>

#include "AeHostInternal.h"

namespace aehost {

// ---- Commands ----

PF_Err Impl::Send(PF_Cmd cmd, A_long time, void* extra, RenderJob* job, PF_ParamDef** params, PF_LayerDef* output,
                  CommandRecord* record) {
  CommandContext ctx;
  ctx.host = this;
  ctx.job = job;
  PF_InData in{};
  PF_OutData out{};
  in.inter = InteractCallbacks();
  in.utils = &kUtilCallbacks;
  in.effect_ref = &ctx;
  in.version = PF_SpecVersion{options.versionMajor, options.versionMinor};
  in.appl_id = options.applId;
  in.current_time = time;
  in.time_step = options.timeStep;
  in.time_scale = options.timeScale;
  in.field = 0;  // whole frames
  if (job) {
    in.width = job->width;
    in.height = job->height;
  } else {
    std::optional<A_long> key = FrameKeyAt(time);
    std::lock_guard<std::mutex> lock(framesMutex);
    const auto it = key ? frames.find(*key) : frames.begin();
    if (it != frames.end()) {
      in.width = it->second->width;
      in.height = it->second->height;
    }
  }
  in.downsample_x = in.downsample_y = PF_RationalScale{1, 1};
  in.global_data = globalData;
  in.pica_basicP = const_cast<SPBasicSuite*>(&kBasicSuite);
  out.global_data = globalData;
  if (options.beforeCommand) options.beforeCommand(cmd, in, out);

  PF_Err err;
  {
    ContextScope scope(&ctx);
    const size_t at = BeginCommand(cmd, Args("time=", time), job ? job->id : 0);
    err = effectMain(cmd, &in, &out, params, output, extra);
    EndCommand(at, err);
  }
  CommandRecord rec;
  rec.cmd = cmd;
  rec.result = err;
  rec.renderId = job ? job->id : 0;
  rec.time = time;
  rec.my_version = out.my_version;
  rec.out_flags = out.out_flags;
  rec.out_flags2 = out.out_flags2;
  rec.num_params = out.num_params;
  rec.return_msg.assign(out.return_msg, strnlen(out.return_msg, sizeof out.return_msg));
  {
    std::lock_guard<std::mutex> lock(logMutex);
    commands.push_back(rec);
    TrimRecords();
  }
  // Renders run side by side and may not change global data.
  if (!job) globalData = out.global_data;
  if (record) *record = rec;
  return err;
}

std::vector<PF_ParamDef> Impl::ParamArray(const PF_EffectWorld* layer) const {
  std::lock_guard<std::mutex> lock(paramsMutex);
  std::vector<PF_ParamDef> defs(params.size() + 1);
  defs[0].param_type = PF_Param_LAYER;
  if (layer) defs[0].u.ld = *layer;
  for (size_t i = 0; i < params.size(); ++i) defs[i + 1] = params[i].value;
  return defs;
}

PF_Err AeHost::SendCommand(PF_Cmd cmd, void* extra, A_long time) {
  auto defs = impl_->ParamArray(nullptr);
  auto ptrs = Pointers(defs);
  return impl_->Send(cmd, time, extra, nullptr, ptrs.data(), nullptr, nullptr);
}

PF_Err AeHost::GlobalSetup() {
  const PF_Err err = SendCommand(PF_Cmd_GLOBAL_SETUP);
  impl_->globalSetupSent = true;
  const auto rec = LastCommand(PF_Cmd_GLOBAL_SETUP);
  impl_->globalOutFlags = rec->out_flags;
  impl_->globalOutFlags2 = rec->out_flags2;
  return err;
}

PF_Err AeHost::ParamsSetup() {
  {
    std::lock_guard<std::mutex> lock(impl_->paramsMutex);
    impl_->params.clear();  // a second set-up registers afresh
    impl_->customUI.reset();
  }
  return SendCommand(PF_Cmd_PARAMS_SETUP);
}

PF_Err AeHost::About() { return SendCommand(PF_Cmd_ABOUT); }

PF_Err AeHost::SetupDevice(const DeviceOptions& device) {
  Impl& h = *impl_;
  if (h.device.kind) throw HostError("a device is already set up");
  // The real host offers devices only to effects that render on the GPU.
  if (!(h.globalOutFlags2 & PF_OutFlag2_SUPPORTS_GPU_RENDER_F32)) return PF_Err_NONE;
  try {
    h.device = OpenDevice(device.device);
  } catch (const DeviceError& e) {
    throw HostError(e.what());
  }
  h.whatGpu = device.whatGpu >= 0 ? device.whatGpu : AeFrameworkOf(h.device);
  PF_GPUDeviceSetupInput input{h.whatGpu, 0};
  PF_GPUDeviceSetupOutput output{nullptr};
  PF_GPUDeviceSetupExtra extra{&input, &output};
  const PF_Err err = SendCommand(PF_Cmd_GPU_DEVICE_SETUP, &extra);
  h.deviceSetupSent = true;
  h.gpuReady = err == PF_Err_NONE;
  h.gpuData = output.gpu_data;
  return err;
}

PF_Err AeHost::SetdownDevice() {
  Impl& h = *impl_;
  PF_Err err = PF_Err_NONE;
  if (h.deviceSetupSent) {
    PF_GPUDeviceSetdownInput input{h.gpuData, h.whatGpu, 0};
    PF_GPUDeviceSetdownExtra extra{&input};
    err = SendCommand(PF_Cmd_GPU_DEVICE_SETDOWN, &extra);
  }
  h.ReleaseDevice();
  h.deviceSetupSent = h.gpuReady = false;
  h.gpuData = nullptr;
  return err;
}

void Impl::ReleaseDevice() {
  {
    std::lock_guard<std::mutex> lock(cacheMutex);
    gpuCache.clear();
  }
  decltype(effectWorlds) left;  // freed outside the lock: a world's release takes it
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    left.swap(effectWorlds);
  }
  left.clear();
  decltype(spareBuffers) spares;
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    spares.swap(spareBuffers);
  }
  for (const auto& spare : spares) device.kind->release(device, spare.second);
  CloseDevice(device);
}

PF_Err AeHost::GlobalSetdown() {
  const PF_Err err = SendCommand(PF_Cmd_GLOBAL_SETDOWN);
  impl_->globalSetupSent = false;
  impl_->globalData = nullptr;  // the effect disposed of it
  return err;
}

PF_Err AeHost::SetUp(const DeviceOptions* device) {
  PF_Err err = GlobalSetup();
  if (!err) err = ParamsSetup();
  if (!err && device) err = SetupDevice(*device);
  return err;
}

void AeHost::SetDown() {
  try {
    if (impl_->deviceSetupSent || impl_->device.kind) SetdownDevice();
    if (impl_->globalSetupSent) GlobalSetdown();
  } catch (...) {
    // Tearing down must not throw; what failed is in the call log.
  }
}

bool AeHost::GpuReady() const { return impl_->gpuReady; }
std::string AeHost::DeviceName() const { return impl_->device.name; }
void* AeHost::GpuData() const { return impl_->gpuData; }
PF_Handle AeHost::GlobalData() const { return impl_->globalData; }

// ---- Parameters ----

std::vector<ParamInfo> AeHost::Params() const {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  return impl_->params;
}

PF_ParamIndex AeHost::FindParam(A_long id) const {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  for (const auto& p : impl_->params)
    if (p.def.uu.id == id) return p.index;
  return -1;
}

void AeHost::SetParamValue(PF_ParamIndex index, double value) {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  auto& params = impl_->params;
  if (index < 1 || index > static_cast<PF_ParamIndex>(params.size()))
    throw HostError(Args("no parameter at index ", index));
  PF_ParamDef& v = params[index - 1].value;
  switch (v.param_type) {
    case PF_Param_FLOAT_SLIDER: v.u.fs_d.value = value; break;
    case PF_Param_POPUP: v.u.pd.value = static_cast<A_long>(value); break;
    case PF_Param_CHECKBOX: v.u.bd.value = value != 0.0; break;
    case PF_Param_ANGLE: v.u.ad.value = static_cast<A_long>(value * 65536.0); break;
    default: throw HostError(Args("parameter ", index, " of type ", v.param_type, " takes no plain value"));
  }
}

PF_ParamDef AeHost::ParamValue(PF_ParamIndex index) const {
  const auto defs = impl_->ParamArray(nullptr);
  if (index < 0 || index >= static_cast<PF_ParamIndex>(defs.size()))
    throw HostError(Args("no parameter at index ", index));
  return defs[index];
}

std::optional<PF_CustomUIInfo> AeHost::CustomUI() const {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  return impl_->customUI;
}

std::vector<PF_PixelFormat> AeHost::SupportedPixelFormats() const {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  return impl_->formats;
}

PF_PixelFormat Impl::SoftwareFormat() const {
  if (options.softwareFormat) return options.softwareFormat;
  if (options.applId == kApplIdPremiere) {
    std::lock_guard<std::mutex> lock(paramsMutex);
    if (!formats.empty()) return formats.front();
  }
  return PF_PixelFormat_ARGB128;
}

// ---- The input layer ----

std::optional<A_long> Impl::FrameKeyAt(A_long time) const {
  std::lock_guard<std::mutex> lock(framesMutex);
  auto it = frames.upper_bound(time);
  if (it == frames.begin()) return std::nullopt;
  --it;
  const A_long step = options.timeStep;
  const bool covered =
      step > 0 ? static_cast<int64_t>(time) < static_cast<int64_t>(it->first) + step : time == it->first;
  return covered ? std::optional<A_long>(it->first) : std::nullopt;
}

std::shared_ptr<const Image> Impl::FrameByKey(A_long key) const {
  std::lock_guard<std::mutex> lock(framesMutex);
  auto it = frames.find(key);
  return it == frames.end() ? nullptr : it->second;
}

void AeHost::AddFrame(A_long time, Image frame) {
  if (frame.width <= 0 || frame.height <= 0 || frame.rgba.size() != static_cast<size_t>(frame.width) * frame.height * 4)
    throw HostError(Args("frame at ", time, " is not ", frame.width, "x", frame.height, " RGBA floats"));
  std::shared_ptr<const Image> gone;
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    auto& slot = impl_->frames[time];
    gone = std::move(slot);
    slot = std::make_shared<Image>(std::move(frame));  // not const: its pixels may be reused once it is gone
  }
  impl_->KeepPixels(std::move(gone));
  impl_->DropCached(time);
}

A_long AeHost::FrameTime(int k) const { return k * impl_->options.timeStep; }

void AeHost::RemoveFramesBefore(A_long time) {
  std::vector<std::pair<A_long, std::shared_ptr<const Image>>> gone;
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    auto& f = impl_->frames;
    for (auto it = f.begin(); it != f.end() && it->first < time; it = f.erase(it)) gone.emplace_back(*it);
  }
  for (auto& [t, frame] : gone) {
    impl_->KeepPixels(std::move(frame));
    impl_->DropCached(t);
  }
}

void AeHost::RemoveFrame(A_long time) {
  std::shared_ptr<const Image> gone;
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    const auto it = impl_->frames.find(time);
    if (it == impl_->frames.end()) return;
    gone = std::move(it->second);
    impl_->frames.erase(it);
  }
  impl_->KeepPixels(std::move(gone));
  impl_->DropCached(time);
}

void AeHost::ClearFrames() {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames.clear();
  }
  ClearFrameCache();
}

size_t AeHost::FrameCount() const {
  std::lock_guard<std::mutex> lock(impl_->framesMutex);
  return impl_->frames.size();
}

}  // namespace aehost
