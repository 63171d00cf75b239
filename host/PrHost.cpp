// The stand-in Premiere Pro host: loading, instances, the query loop, the frame
// array and the renders. The suites it hands the filter are in PrHostSuites.cpp.

#include <algorithm>
#include <climits>
#include <cmath>
#include <exception>
#include <thread>
#include <cstring>

#include "ModuleLoad.h"
#include "PrHostInternal.h"

namespace prhost {

uint16_t FloatToHalf(float value) {
  uint32_t u;
  std::memcpy(&u, &value, 4);
  const uint16_t sign = static_cast<uint16_t>((u >> 16) & 0x8000u);
  const int exp = static_cast<int>((u >> 23) & 0xffu);
  uint32_t mant = u & 0x7fffffu;
  if (exp == 0xff) return static_cast<uint16_t>(sign | 0x7c00u | (mant ? 0x200u : 0u));
  const int e = exp - 127 + 15;
  if (e >= 0x1f) return static_cast<uint16_t>(sign | 0x7bffu);  // toward zero: the largest finite
  if (e <= 0) {
    if (e < -10) return sign;
    mant |= 0x800000u;
    return static_cast<uint16_t>(sign | (mant >> (14 - e)));
  }
  return static_cast<uint16_t>(sign | (e << 10) | (mant >> 13));
}

float HalfToFloat(uint16_t half) {
  const uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  const uint32_t exp = (half >> 10) & 0x1fu, mant = half & 0x3ffu;
  if (exp == 0) {
    const float v = std::ldexp(static_cast<float>(mant), -24);
    return sign ? -v : v;
  }
  const uint32_t u = sign | (exp == 31 ? 0x7f800000u : (exp + 112) << 23) | (mant << 13);
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

// ---- Frames ----

size_t PixelBytes(PrPixelFormat format) { return format == PrPixelFormat_GPU_BGRA_4444_32f ? 16 : 8; }

PPix* Impl::NewPPix(PrPixelFormat format, int32_t width, int32_t height, csSDK_uint32 parNum, csSDK_uint32 parDen,
                    prFieldType field, bool byFilter) {
  auto pix = std::make_unique<PPix>();
  pix->host = this;
  pix->format = format;
  pix->width = width;
  pix->height = height;
  pix->rowBytes = static_cast<int32_t>(width * PixelBytes(format)) + options.rowPaddingBytes;
  pix->parNum = parNum;
  pix->parDen = parDen;
  pix->field = field;
  pix->byFilter = byFilter;
  pix->render = CurrentRender();
  pix->bytes = static_cast<size_t>(pix->rowBytes) * height;
  pix->buffer = device.kind->allocate(device, pix->bytes ? pix->bytes : 1);
  if (byFilter && options.poisonNewFrames) device.kind->fill(device, pix->buffer, 0xFF, pix->bytes);  // NaNs
  PPix* made = pix.get();
  std::lock_guard<std::mutex> lock(pixMutex);
  live[made] = std::move(pix);
  return made;
}

bool Impl::Live(const PPix* pix) const {
  std::lock_guard<std::mutex> lock(pixMutex);
  return live.count(const_cast<PPix*>(pix)) > 0;
}

bool Impl::Free(PPix* pix) {
  std::unique_ptr<PPix> gone;
  {
    std::lock_guard<std::mutex> lock(pixMutex);
    auto it = live.find(pix);
    if (it == live.end()) return false;
    gone = std::move(it->second);
    live.erase(it);
  }
  device.kind->release(device, gone->buffer);
  return true;
}

// Frames hold B, G, R, A, as 32-bit floats or as halves.
void Impl::Upload(PPix& pix, const Image& image) {
  DeviceBytes bytes(device, pix.buffer, pix.bytes, false);
  const bool half = PixelBytes(pix.format) == 8;
  for (int32_t y = 0; y < pix.height; ++y)
    for (int32_t x = 0; x < pix.width; ++x) {
      const float* p = image.At(x, y);
      const float bgra[4] = {p[2], p[1], p[0], p[3]};
      uint8_t* at = bytes.data() + static_cast<size_t>(y) * pix.rowBytes + x * PixelBytes(pix.format);
      if (!half) {
        std::memcpy(at, bgra, 16);
        continue;
      }
      const uint16_t h[4] = {FloatToHalf(bgra[0]), FloatToHalf(bgra[1]), FloatToHalf(bgra[2]), FloatToHalf(bgra[3])};
      std::memcpy(at, h, 8);
    }
  bytes.Publish();
}

Image Impl::Download(const PPix& pix) {
  const DeviceBytes bytes(device, pix.buffer, pix.bytes, true);
  Image image(pix.width, pix.height);
  const bool half = PixelBytes(pix.format) == 8;
  for (int32_t y = 0; y < pix.height; ++y)
    for (int32_t x = 0; x < pix.width; ++x) {
      const uint8_t* at = bytes.data() + static_cast<size_t>(y) * pix.rowBytes + x * PixelBytes(pix.format);
      float bgra[4];
      if (half) {
        uint16_t h[4];
        std::memcpy(h, at, 8);
        for (int c = 0; c < 4; ++c) bgra[c] = HalfToFloat(h[c]);
      } else {
        std::memcpy(bgra, at, 16);
      }
      float* p = image.At(x, y);
      p[0] = bgra[2], p[1] = bgra[1], p[2] = bgra[0], p[3] = bgra[3];
    }
  return image;
}

// Clip frames are uploaded once per format and kept while the clip holds them.
Uploaded::~Uploaded() { host->Free(pix); }

std::shared_ptr<Uploaded> Impl::UploadedFrame(int64_t k, PrPixelFormat format) {
  std::lock_guard<std::mutex> lock(cacheMutex);  // held across the upload: one upload a frame
  auto& slot = uploaded[{k, format}];
  if (slot) return slot;
  Image image;
  {
    std::lock_guard<std::mutex> frameLock(framesMutex);
    image = frames.at(k);
  }
  auto made = std::shared_ptr<Uploaded>(
      new Uploaded{this, NewPPix(format, image.width, image.height, 1, 1, prFieldsNone, false)});
  Upload(*made->pix, image);
  ++uploads;
  slot = made;
  return slot;
}

void Impl::DropUploaded(int64_t first, int64_t last) {
  std::vector<std::shared_ptr<Uploaded>> gone;  // freed outside the lock
  std::lock_guard<std::mutex> lock(cacheMutex);
  for (auto it = uploaded.begin(); it != uploaded.end();) {
    if (it->first.first >= first && it->first.first <= last) {
      gone.push_back(std::move(it->second));
      it = uploaded.erase(it);
    } else {
      ++it;
    }
  }
}

// A time before the clip gives its first frame, one after it its last: the
// host holds the clip's ends.
int64_t Impl::ClipFrameAt(PrTime time) const {
  std::lock_guard<std::mutex> lock(framesMutex);
  if (frames.empty()) throw HostError("the clip has no frames");
  const PrTime p = options.ticksPerFrame;
  const int64_t k = time >= 0 ? time / p : -((-time + p - 1) / p);
  auto it = frames.upper_bound(k);
  return it == frames.begin() ? it->first : std::prev(it)->first;
}

// ---- The host ----

PrHost::PrHost(const std::string& modulePath, PrHostOptions options) : impl_(std::make_unique<Impl>()) {
  Impl& h = *impl_;
  h.options = std::move(options);
  if (h.options.rowPaddingBytes < 0 || h.options.rowPaddingBytes % 16)
    throw HostError(Args("row padding must be a multiple of 16 bytes, not ", h.options.rowPaddingBytes));
  if (h.options.ticksPerFrame <= 0) throw HostError("ticks per frame must be positive");
  aehost::HostOptions effectOptions = h.options.effect;
  effectOptions.applId = aehost::kApplIdPremiere;
  effect_ = std::make_unique<aehost::AeHost>(modulePath, effectOptions);
  h.effect = effect_.get();

  h.dl = aehost::LoadModule(modulePath);
  h.entry = reinterpret_cast<PrGPUFilterEntry>(aehost::ModuleSymbol(h.dl, "xGPUFilterEntry"));
  if (!h.entry) {
    aehost::UnloadModule(h.dl);
    throw HostError("module " + modulePath + " has no export xGPUFilterEntry");
  }
  if (effect_->SetUp() != 0) {
    aehost::UnloadModule(h.dl);
    throw HostError("the effect's global or parameter set-up failed");
  }
  try {
    h.device = OpenDevice(h.options.device);
  } catch (const DeviceError& e) {
    aehost::UnloadModule(h.dl);
    throw HostError(e.what());
  }
  RegisterHost(&h);
}

PrHost::~PrHost() {
  Impl& h = *impl_;
  DisposeInstances();
  h.DropUploaded(INT64_MIN, INT64_MAX);
  if (h.started) {
    csSDK_int32 index = 0;
    PrGPUFilter filter{};
    PrGPUFilterInfo info{};
    Entry(&index, 0, &filter, &info);
  }
  {
    std::lock_guard<std::mutex> lock(h.pixMutex);
    for (auto& [pix, owned] : h.live) h.device.kind->release(h.device, owned->buffer);
    h.live.clear();
  }
  CloseDevice(h.device);
  UnregisterHost(&h);
  aehost::UnloadModule(h.dl);
  effect_.reset();
}

aehost::AeHost& PrHost::Effect() { return *effect_; }
PrHostOptions& PrHost::Options() { return impl_->options; }
std::string PrHost::DeviceName() const { return impl_->device.name; }

prSuiteError PrHost::Entry(csSDK_int32* ioIndex, prBool inStartup, PrGPUFilter* outFilter,
                           PrGPUFilterInfo* outFilterInfo) {
  Impl& h = *impl_;
  CurrentScope scope(&h);
  const csSDK_int32 before = ioIndex ? *ioIndex : 0;
  const prSuiteError r = h.entry(kPrGPUHostInterfaceVersion, ioIndex, inStartup, PiSuites(), outFilter, outFilterInfo);
  h.Record("", "xGPUFilterEntry", Args("index=", before, "->", ioIndex ? *ioIndex : 0, " startup=", inStartup), r);
  return r;
}

prSuiteError PrHost::Instance(csSDK_int32 node, PrGPUFilterInstance** instance) {
  Impl& h = *impl_;
  std::lock_guard<std::mutex> lock(h.instancesMutex);
  if (!h.started) {
    csSDK_int32 index = -1;
    PrGPUFilterInfo info{};
    const prSuiteError r = Entry(&index, 1, &h.filter, &info);
    if (r != suiteError_NoError) return r;
    h.started = true;
  }
  auto it = h.instances.find(node);
  if (it == h.instances.end()) {
    auto made = std::make_unique<PrGPUFilterInstance>();
    made->piSuites = PiSuites();
    made->inDeviceIndex = 0;
    made->inTimelineID = 1;
    made->inNodeID = node;
    CurrentScope scope(&h);
    h.device.kind->bindThread(h.device);
    const prSuiteError r = h.filter.CreateInstance(made.get());
    h.Record("", "CreateInstance", Args("node=", node), r);
    if (r < 0) return r;
    it = h.instances.emplace(node, std::move(made)).first;
  }
  *instance = it->second.get();
  return suiteError_NoError;
}

void PrHost::DisposeInstances() {
  Impl& h = *impl_;
  std::lock_guard<std::mutex> lock(h.instancesMutex);
  CurrentScope scope(&h);
  for (auto& [node, instance] : h.instances) {
    const prSuiteError r = h.filter.DisposeInstance(instance.get());
    h.Record("", "DisposeInstance", Args("node=", node), r);
  }
  h.instances.clear();
}

void PrHost::SetParam(int32_t diskId, double value) {
  const PF_ParamIndex index = effect_->FindParam(diskId);
  if (index < 0) throw HostError(Args("no parameter with Disk ID ", diskId));
  effect_->SetParamValue(index, value);
}

void PrHost::AddFrame(int64_t k, Image frame) {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames[k] = std::move(frame);
  }
  impl_->DropUploaded(k, k);
}

void PrHost::RemoveFrame(int64_t k) {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames.erase(k);
  }
  impl_->DropUploaded(k, k);
}

void PrHost::RemoveFramesBefore(int64_t k) {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames.erase(impl_->frames.begin(), impl_->frames.lower_bound(k));
  }
  impl_->DropUploaded(INT64_MIN, k - 1);
}

void PrHost::ClearFrames() {
  {
    std::lock_guard<std::mutex> lock(impl_->framesMutex);
    impl_->frames.clear();
  }
  impl_->DropUploaded(INT64_MIN, INT64_MAX);
}

std::vector<PrTime> PrHost::FrameDependencies(const PrGPUFilterRenderParams& params, csSDK_int32 node,
                                              prSuiteError* result) {
  Impl& h = *impl_;
  std::vector<PrTime> times;
  PrGPUFilterInstance* instance = nullptr;
  prSuiteError r = Instance(node, &instance);
  CurrentScope scope(&h);
  // Again and again from 0, until a call leaves the index where it was.
  for (csSDK_int32 index = 0; r == suiteError_NoError;) {
    PrGPUFilterFrameDependency dependency{};
    const csSDK_int32 before = index;
    r = h.filter.GetFrameDependencies(instance, &params, &index, &dependency);
    h.Record("", "GetFrameDependencies", Args("query=", before, "->", index), r);
    if (r != suiteError_NoError || index == before) break;
    if (index != before + 1 || times.size() > 10000) throw HostError("the query index ran away");
    times.push_back(dependency.outSequenceTime);
  }
  if (result) *result = r;
  return times;
}

PrRenderResult PrHost::Render(const PrRenderRequest& request) {
  Impl& h = *impl_;
  PrRenderResult out;
  h.device.kind->bindThread(h.device);
  const PrTime now = request.frame * h.options.ticksPerFrame;
  int32_t width = request.width, height = request.height;
  {
    std::lock_guard<std::mutex> lock(h.framesMutex);
    const auto first = h.frames.find(request.frame);
    if (first == h.frames.end()) throw HostError(Args("no clip frame ", request.frame));
    if (!width) width = first->second.width;
    if (!height) height = first->second.height;
  }
  PrGPUFilterRenderParams params{};
  params.inClipTime = now;
  params.inSequenceTime = now;
  params.inRenderWidth = static_cast<uint32_t>(width);
  params.inRenderHeight = static_cast<uint32_t>(height);
  params.inRenderTicksPerFrame = h.options.ticksPerFrame;
  out.requested = FrameDependencies(params, request.node, &out.result);
  if (out.result != suiteError_NoError) return out;
  PrGPUFilterInstance* instance = nullptr;
  out.result = Instance(request.node, &instance);
  if (out.result != suiteError_NoError) return out;

  // frames[0] is the current one, then one frame per request in query order.
  out.delivered.push_back(request.frame);
  for (PrTime t : out.requested) out.delivered.push_back(h.ClipFrameAt(t));
  std::vector<PPixHand> array;
  std::vector<std::shared_ptr<Uploaded>> held;  // kept on the device while the render runs
  for (int64_t k : out.delivered) {
    held.push_back(h.UploadedFrame(k, request.format));
    array.push_back(held.back()->pix);
  }
  PPix* placed = h.NewPPix(request.format, width, height, 1, 1, prFieldsNone, false);
  PPixHand outFrame = placed;
  const uint64_t render = h.nextRender++;
  {
    CurrentScope scope(&h, render);
    out.result = h.filter.Render(instance, &params, array.data(), array.size(), &outFrame);
  }
  h.Record("", "Render", Args("frames=", array.size(), " format=", aehost::FormatName(request.format)), out.result);

  out.hasOutput = outFrame && h.Live(outFrame);
  if (out.hasOutput) {
    h.device.kind->finish(h.device);
    out.output = h.Download(*outFrame);
  }
  // What the render lent or made goes back; what the filter made and left,
  // besides the output, is counted first.
  std::vector<PPix*> made;
  {
    std::lock_guard<std::mutex> lock(h.pixMutex);
    for (auto& [pix, owned] : h.live)
      if (pix->byFilter && pix->render == render && pix != outFrame) made.push_back(pix);
  }
  out.framesLeft = made.size();
  for (PPix* pix : made) h.Free(pix);
  h.Free(placed);
  if (outFrame) h.Free(outFrame);
  return out;
}

std::vector<PrRenderResult> PrHost::RenderMany(const std::vector<PrRenderRequest>& requests, int threads) {
  std::vector<PrRenderResult> results(requests.size());
  std::atomic<size_t> next{0};
  std::exception_ptr failure;
  std::mutex failureMutex;
  auto work = [&] {
    for (size_t i = next++; i < requests.size(); i = next++) {
      try {
        results[i] = Render(requests[i]);
      } catch (...) {
        std::lock_guard<std::mutex> lock(failureMutex);
        if (!failure) failure = std::current_exception();
      }
    }
  };
  std::vector<std::thread> pool;
  const size_t n = std::min(requests.size(), static_cast<size_t>(threads > 1 ? threads : 1));
  for (size_t t = 0; t < n; ++t) pool.emplace_back(work);
  for (auto& t : pool) t.join();
  if (failure) std::rethrow_exception(failure);
  return results;
}

size_t PrHost::LiveFrameCount() const {
  std::lock_guard<std::mutex> cacheLock(impl_->cacheMutex);
  std::lock_guard<std::mutex> lock(impl_->pixMutex);
  return impl_->live.size() - impl_->uploaded.size();
}

size_t PrHost::UploadCount() const { return impl_->uploads; }

}  // namespace prhost
