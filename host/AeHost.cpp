// The stand-in After Effects host: loading, the command sequence, parameters,
// the input layer and renders. Suites and callbacks are in AeHostSuites.cpp.
#include <dlfcn.h>

#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "AeHostInternal.h"

#ifdef TD_HAVE_CUDA
#include "CudaDevice.h"
#endif

namespace aehost {

namespace {

constexpr const char* kCommandNames[] = {
    "PF_Cmd_ABOUT", "PF_Cmd_GLOBAL_SETUP", "PF_Cmd_UNUSED_0", "PF_Cmd_GLOBAL_SETDOWN", "PF_Cmd_PARAMS_SETUP",
    "PF_Cmd_SEQUENCE_SETUP", "PF_Cmd_SEQUENCE_RESETUP", "PF_Cmd_SEQUENCE_FLATTEN", "PF_Cmd_SEQUENCE_SETDOWN",
    "PF_Cmd_DO_DIALOG", "PF_Cmd_FRAME_SETUP", "PF_Cmd_RENDER", "PF_Cmd_FRAME_SETDOWN",
    "PF_Cmd_USER_CHANGED_PARAM", "PF_Cmd_UPDATE_PARAMS_UI", "PF_Cmd_EVENT", "PF_Cmd_GET_EXTERNAL_DEPENDENCIES",
    "PF_Cmd_COMPLETELY_GENERAL", "PF_Cmd_QUERY_DYNAMIC_FLAGS", "PF_Cmd_AUDIO_RENDER", "PF_Cmd_AUDIO_SETUP",
    "PF_Cmd_AUDIO_SETDOWN", "PF_Cmd_ARBITRARY_CALLBACK", "PF_Cmd_SMART_PRE_RENDER", "PF_Cmd_SMART_RENDER",
    "PF_Cmd_RESERVED1", "PF_Cmd_RESERVED2", "PF_Cmd_RESERVED3", "PF_Cmd_GET_FLATTENED_SEQUENCE_DATA",
    "PF_Cmd_TRANSLATE_PARAMS_TO_PREFS", "PF_Cmd_RESERVED4", "PF_Cmd_SMART_RENDER_GPU", "PF_Cmd_GPU_DEVICE_SETUP",
    "PF_Cmd_GPU_DEVICE_SETDOWN"};
static_assert(sizeof kCommandNames / sizeof *kCommandNames == PF_Cmd_NUM_CMDS, "one name per command");

constexpr PF_ChannelMask kChannelsARGB = 0xF;

uint32_t ReadU32(const std::vector<uint8_t>& b, size_t at) {
  return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
         static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// Codes stand with their bytes reversed in the list.
std::string ReadCode(const std::vector<uint8_t>& b, size_t at) {
  return std::string{static_cast<char>(b[at + 3]), static_cast<char>(b[at + 2]), static_cast<char>(b[at + 1]),
                     static_cast<char>(b[at])};
}

// Makes the thread's current command context for the length of a call.
class ContextScope {
 public:
  explicit ContextScope(CommandContext* c) : saved_(CurrentContext()) { SetCurrentContext(c); }
  ~ContextScope() { SetCurrentContext(saved_); }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  CommandContext* saved_;
};

std::vector<PF_ParamDef*> Pointers(std::vector<PF_ParamDef>& defs) {
  std::vector<PF_ParamDef*> p;
  for (auto& d : defs) p.push_back(&d);
  return p;
}

}  // namespace

const char* CommandName(PF_Cmd cmd) {
  return cmd >= 0 && cmd < PF_Cmd_NUM_CMDS ? kCommandNames[cmd] : "PF_Cmd_UNKNOWN";
}

std::string FormatName(PF_PixelFormat format) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>((format >> (8 * i)) & 0xFF);
    if (c < 0x20 || c > 0x7E) return Args("0x", std::hex, format);
    s += c;
  }
  return s;
}

std::vector<PiPLProperty> ParsePiPL(const std::vector<uint8_t>& bytes) {
  auto need = [&](size_t at, size_t n) {
    if (at + n > bytes.size()) throw HostError(Args("property list truncated at byte ", at));
  };
  need(0, 10);
  const uint32_t count = ReadU32(bytes, 6);
  std::vector<PiPLProperty> props;
  size_t at = 10;
  for (uint32_t i = 0; i < count; ++i) {
    need(at, 16);
    PiPLProperty p;
    p.vendor = ReadCode(bytes, at);
    p.key = ReadCode(bytes, at + 4);
    p.id = static_cast<A_long>(ReadU32(bytes, at + 8));
    const uint32_t length = ReadU32(bytes, at + 12);
    at += 16;
    need(at, length);
    p.data.assign(bytes.begin() + at, bytes.begin() + at + length);
    at += (length + 3) / 4 * 4;
    props.push_back(std::move(p));
  }
  if (at != bytes.size()) throw HostError(Args("property list has ", bytes.size() - at, " bytes past its end"));
  return props;
}

// ---- Loading ----

AeHost::AeHost(const std::string& modulePath, HostOptions options) : impl_(std::make_unique<Impl>()) {
  Impl& h = *impl_;
  h.options = std::move(options);
  h.path = modulePath;
  if (h.options.rowPaddingBytes < 0 || h.options.rowPaddingBytes % 16)
    throw HostError(Args("row padding must be a multiple of 16 bytes, not ", h.options.rowPaddingBytes));

  h.dl = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!h.dl) {
    const char* why = dlerror();
    throw HostError("cannot load module " + modulePath + ": " + (why ? why : "unknown error"));
  }
  struct Unload {
    void* dl;
    bool armed = true;
    ~Unload() {
      if (armed) dlclose(dl);
    }
  } unloadOnThrow{h.dl};

  // The property list names the entry point, as the host finds it.
  const std::filesystem::path piplPath = std::filesystem::path(modulePath).replace_extension(".pipl");
  std::ifstream in(piplPath, std::ios::binary);
  if (!in) throw HostError("no property list beside the module: " + piplPath.string());
  h.pipl.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  std::string entry = "EffectMain";
  for (const auto& p : ParsePiPL(h.pipl)) {
    if (p.key == "kind" && (p.data.size() != 4 || ReadCode(p.data, 0) != "eFKT"))
      throw HostError("property list of " + modulePath + " is not an effect's");
    if (p.key == "8664") {
      const char* name = reinterpret_cast<const char*>(p.data.data());
      entry.assign(name, strnlen(name, p.data.size()));
    }
  }

  auto resolve = [&](const std::string& name) {
    void* s = dlsym(h.dl, name.c_str());
    if (!s) throw HostError("module " + modulePath + " has no export " + name);
    return s;
  };
  h.effectMain = reinterpret_cast<PF_EffectMainFunc>(resolve(entry));
  h.pluginDataEntry = reinterpret_cast<PF_PluginDataEntryFunc>(resolve("PluginDataEntryFunction"));
  h.nvOptimus = static_cast<const int32_t*>(resolve("NvOptimusEnablementCuda"));

  CommandContext ctx;
  ctx.host = &h;
  {
    ContextScope scope(&ctx);
    const bool premiere = h.options.applId == kApplIdPremiere;
    h.pluginData.result = h.pluginDataEntry(&h.pluginData, RecordPluginData, const_cast<SPBasicSuite*>(&kBasicSuite),
                                            premiere ? "Premiere Pro" : "AfterEffects",
                                            Args(h.options.versionMajor, ".", h.options.versionMinor).c_str());
  }
  h.Record(CallRecord::Kind::EffectCall, "", "PluginDataEntryFunction", Args("calls=", h.pluginData.calls),
           h.pluginData.result, 0);
  RegisterHost(&h);
  unloadOnThrow.armed = false;
}

AeHost::~AeHost() {
  Impl& h = *impl_;
  SetDown();
  {
    std::lock_guard<std::mutex> lock(h.cacheMutex);
    h.gpuCache.clear();
    h.softCache.clear();
  }
  decltype(h.effectWorlds) left;
  {
    std::lock_guard<std::mutex> lock(h.worldsMutex);
    left.swap(h.effectWorlds);
  }
  left.clear();
  if (h.deviceKind == GpuKind::OpenCL) CloseOpenCLDevice(h.cl);
  h.FreeAllHandles();
  UnregisterHost(&h);
  if (h.options.unloadOnDestroy && h.dl) dlclose(h.dl);
}

const std::string& AeHost::ModulePath() const { return impl_->path; }
const std::vector<uint8_t>& AeHost::PiPL() const { return impl_->pipl; }
const PluginData& AeHost::PluginDataRecord() const { return impl_->pluginData; }
int32_t AeHost::NvOptimusEnablementCuda() const { return *impl_->nvOptimus; }
HostOptions& AeHost::Options() { return impl_->options; }
const SPBasicSuite* AeHost::BasicSuite() const { return &kBasicSuite; }

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
  if (h.deviceKind != GpuKind::None) throw HostError("a device is already set up");
  // The real host offers devices only to effects that render on the GPU.
  if (!(h.globalOutFlags2 & PF_OutFlag2_SUPPORTS_GPU_RENDER_F32)) return PF_Err_NONE;
  std::string error;
  if (device.kind == GpuKind::OpenCL) {
    if (!OpenOpenCLDevice(device.platformIndex, device.deviceIndex, h.cl, error)) throw HostError(error);
    h.deviceName = h.cl.deviceName;
  } else if (device.kind == GpuKind::Cuda) {
#ifdef TD_HAVE_CUDA
    if (device.deviceIndex >= CudaDeviceCount())
      throw HostError(Args("no CUDA device ", device.deviceIndex, " (", CudaDeviceCount(), " present)"));
    if (!SelectCudaDevice(device.deviceIndex, error)) throw HostError("cudaSetDevice: " + error);
    h.cudaIndex = device.deviceIndex;
    h.deviceName = CudaDeviceName(device.deviceIndex);
#else
    throw HostError("this host was built without CUDA");
#endif
  } else {
    throw HostError("no device kind given");
  }
  h.deviceKind = device.kind;
  h.whatGpu = device.whatGpu >= 0 ? device.whatGpu
                                  : (device.kind == GpuKind::OpenCL ? PF_GPU_Framework_OPENCL : PF_GPU_Framework_CUDA);
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
  {
    std::lock_guard<std::mutex> lock(h.cacheMutex);
    h.gpuCache.clear();
  }
  decltype(h.effectWorlds) left;
  {
    std::lock_guard<std::mutex> lock(h.worldsMutex);
    left.swap(h.effectWorlds);
  }
  left.clear();
  if (h.deviceKind == GpuKind::OpenCL) CloseOpenCLDevice(h.cl);
  h.deviceKind = GpuKind::None;
  h.deviceName.clear();
  h.deviceSetupSent = h.gpuReady = false;
  h.gpuData = nullptr;
  return err;
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
    if (impl_->deviceSetupSent || impl_->deviceKind != GpuKind::None) SetdownDevice();
    if (impl_->globalSetupSent) GlobalSetdown();
  } catch (...) {
    // Tearing down must not throw; what failed is in the call log.
  }
}

bool AeHost::GpuReady() const { return impl_->gpuReady; }
GpuKind AeHost::DeviceKind() const { return impl_->deviceKind; }
std::string AeHost::DeviceName() const { return impl_->deviceName; }
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

void AeHost::SetParamDef(PF_ParamIndex index, const PF_ParamDef& value) {
  std::lock_guard<std::mutex> lock(impl_->paramsMutex);
  auto& params = impl_->params;
  if (index < 1 || index > static_cast<PF_ParamIndex>(params.size()))
    throw HostError(Args("no parameter at index ", index));
  params[index - 1].value = value;
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
  const bool covered = step > 0 ? static_cast<int64_t>(time) < static_cast<int64_t>(it->first) + step
                                : time == it->first;
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
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames[time] = std::make_shared<const Image>(std::move(frame));
  }
  impl_->DropCached(time);
}

A_long AeHost::FrameTime(int k) const { return k * impl_->options.timeStep; }

void AeHost::RemoveFrame(A_long time) {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames.erase(time);
  }
  impl_->DropCached(time);
}

void AeHost::RemoveFramesBefore(A_long time) {
  std::vector<A_long> gone;
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    auto& f = impl_->frames;
    for (auto it = f.begin(); it != f.end() && it->first < time; it = f.erase(it)) gone.push_back(it->first);
  }
  for (A_long t : gone) impl_->DropCached(t);
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

std::optional<A_long> AeHost::FrameAt(A_long time) const { return impl_->FrameKeyAt(time); }

// ---- Rendering ----

RenderResult Impl::RenderOne(A_long time, RenderPath path) {
  RenderJob job;
  job.id = nextRenderId++;
  job.time = time;
  {
    const std::optional<A_long> key = FrameKeyAt(time);
    std::lock_guard<std::mutex> lock(framesMutex);
    if (frames.empty()) throw HostError("the input layer has no frames");
    const auto& frame = key ? frames.at(*key) : frames.begin()->second;
    job.width = frame->width;
    job.height = frame->height;
  }
  // Booked frames may be evicted again once the render is over, however it ends.
  struct Unpinner {
    Impl& host;
    RenderJob& job;
    ~Unpinner() {
      for (const auto& [idx, b] : job.bookings)
        if (b.rec.hasFrame) host.Unpin(b.rec.frameTime);
    }
  } unpin{*this, job};
  RenderResult r;
  r.renderId = job.id;
  r.time = time;

  const bool smart = (globalOutFlags2 & PF_OutFlag2_SUPPORTS_SMART_RENDER) != 0;
  if (path == RenderPath::Render || (path == RenderPath::Auto && !smart)) {
    // The plain render: the input layer's pixels come as parameter 0.
    std::shared_ptr<WorldRecord> input;
    bool uploaded = false;
    if (const auto key = FrameKeyAt(time)) input = CachedWorld(false, *key, FrameByKey(*key), &uploaded);
    auto output = NewWorld(false, job.width, job.height, SoftwareFormat(), true, false);
    auto defs = ParamArray(input ? &input->world : nullptr);
    auto ptrs = Pointers(defs);
    r.result = Send(PF_Cmd_RENDER, time, nullptr, &job, ptrs.data(), &output->world, &r.render);
    r.hasOutput = true;
    r.output = DownloadImage(*output);
    return r;
  }
  if (path == RenderPath::SmartGPU && deviceKind == GpuKind::None)
    throw HostError("a GPU render needs a device set up");
  const bool deviceOffered = path == RenderPath::SmartGPU || (path == RenderPath::Auto && gpuReady);
  if (deviceOffered) SelectDeviceOnThisThread();

  PF_PreRenderInput preIn{};
  preIn.output_request.rect = PF_LRect{0, 0, job.width, job.height};
  preIn.output_request.channel_mask = kChannelsARGB;
  preIn.bitdepth = 32;
  if (deviceOffered) {
    preIn.gpu_data = gpuData;
    preIn.what_gpu = whatGpu;
  }
  PF_PreRenderOutput preOut{};
  PF_PreRenderExtra preExtra{&preIn, &preOut, &kPreRenderCallbacks};
  auto defs = ParamArray(nullptr);
  auto ptrs = Pointers(defs);
  PF_Err err = Send(PF_Cmd_SMART_PRE_RENDER, time, &preExtra, &job, ptrs.data(), nullptr, &r.preRender);
  r.resultRect = preOut.result_rect;
  r.maxResultRect = preOut.max_result_rect;
  r.outputFlags = preOut.flags;

  if (!err) {
    job.gpu = path == RenderPath::SmartGPU ||
              (deviceOffered && (preOut.flags & PF_RenderOutputFlag_GPU_RENDER_POSSIBLE) != 0);
    PF_SmartRenderInput in{};
    in.output_request = preIn.output_request;
    in.bitdepth = 32;
    in.pre_render_data = preOut.pre_render_data;
    if (job.gpu) {
      in.gpu_data = gpuData;
      in.what_gpu = whatGpu;
    }
    PF_SmartRenderExtra extra{&in, &kSmartRenderCallbacks};
    err = Send(job.gpu ? PF_Cmd_SMART_RENDER_GPU : PF_Cmd_SMART_RENDER, time, &extra, &job, ptrs.data(), nullptr,
               &r.render);
  }
  // The host frees the effect's pre-render data once it is done with it.
  if (preOut.delete_pre_render_data_func) {
    CommandContext ctx;
    ctx.host = this;
    ctx.job = &job;
    {
      ContextScope scope(&ctx);
      preOut.delete_pre_render_data_func(preOut.pre_render_data);
    }
    r.preRenderDataDeleted = true;
    Record(CallRecord::Kind::EffectCall, "", "delete_pre_render_data_func",
           Args("data=", preOut.pre_render_data ? "set" : "null"), 0, job.id);
  }
  r.result = err;
  if (job.output) {
    r.hasOutput = true;
    r.output = DownloadImage(*job.output);
  }
  for (auto& [idx, b] : job.bookings) {
    r.checkouts.push_back(b.rec);
    if (b.rec.pixelCheckouts > b.rec.checkins) ++r.worldsNotCheckedIn;
  }
  r.uploads = job.uploads;
  std::vector<std::shared_ptr<WorldRecord>> left;
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    for (auto it = effectWorlds.begin(); it != effectWorlds.end();) {
      if (it->second->renderId == job.id) {
        left.push_back(it->second);
        it = effectWorlds.erase(it);
      } else {
        ++it;
      }
    }
  }
  r.effectWorldsLeft = left.size();
  return r;
}

RenderResult AeHost::Render(A_long time, RenderPath path) { return impl_->RenderOne(time, path); }

std::vector<RenderResult> AeHost::RenderMany(const std::vector<A_long>& times, int threads, RenderPath path) {
  std::vector<RenderResult> results(times.size());
  std::atomic<size_t> next{0};
  std::exception_ptr failure;
  std::mutex failureMutex;
  auto work = [&] {
    for (size_t i = next++; i < times.size(); i = next++) {
      try {
        results[i] = impl_->RenderOne(times[i], path);
      } catch (...) {
        std::lock_guard<std::mutex> lock(failureMutex);
        if (!failure) failure = std::current_exception();
      }
    }
  };
  std::vector<std::thread> pool;
  const size_t n = std::min(times.size(), static_cast<size_t>(threads > 1 ? threads : 1));
  for (size_t t = 0; t < n; ++t) pool.emplace_back(work);
  for (auto& t : pool) t.join();
  if (failure) std::rethrow_exception(failure);
  return results;
}

// ---- Cache, resources, log, injection ----

size_t AeHost::UploadCount() const { return impl_->uploads; }
void AeHost::ResetUploadCount() { impl_->uploads = 0; }

size_t AeHost::CachedFrameCount() const {
  std::lock_guard<std::mutex> lock(impl_->cacheMutex);
  return impl_->gpuCache.size();
}

void AeHost::ClearFrameCache() {
  std::lock_guard<std::mutex> lock(impl_->cacheMutex);
  impl_->gpuCache.clear();
  impl_->softCache.clear();
}

size_t AeHost::LiveHandleCount() const { return impl_->LiveHandles(); }

size_t AeHost::LiveGpuWorldCount() const {
  std::lock_guard<std::mutex> lock(impl_->worldsMutex);
  size_t n = 0;
  for (const WorldRecord* w : impl_->liveWorlds) n += w->gpu;
  return n;
}

std::vector<CallRecord> AeHost::CallLog() const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  return impl_->log;
}

void AeHost::ClearCallLog() {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  impl_->log.clear();
}

std::vector<CommandRecord> AeHost::Commands() const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  return impl_->commands;
}

std::optional<CommandRecord> AeHost::LastCommand(PF_Cmd cmd) const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  for (auto it = impl_->commands.rbegin(); it != impl_->commands.rend(); ++it)
    if (it->cmd == cmd) return *it;
  return std::nullopt;
}

void AeHost::ClearCommands() {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  impl_->commands.clear();
}

void AeHost::RemoveSuite(const std::string& name) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->missingSuites.insert(name);
}

void AeHost::RestoreSuite(const std::string& name) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->missingSuites.erase(name);
}

void AeHost::FailOperation(const std::string& op, PF_Err code, int nth) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->injections.push_back(Injection{op, code, nth, false, 0});
}

void AeHost::NullOperation(const std::string& op, int nth) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->injections.push_back(Injection{op, 0, nth, true, 0});
}

void AeHost::NullCheckout(A_long checkoutIdx) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->nullCheckouts.insert(checkoutIdx);
}

void AeHost::ClearInjections() {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->injections.clear();
  impl_->missingSuites.clear();
  impl_->nullCheckouts.clear();
}

}  // namespace aehost
