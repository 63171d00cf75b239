// Worlds the stand-in host makes: software memory or device buffers, the
// conversion between callers' images and the worlds' pixel formats, and the
// GPU device suite that hands them to the effect. All device-specific code of
// the host, apart from opening and closing the device, lives here.
#include <cmath>
#include <cstring>
#include <algorithm>
#include <optional>

#include "AeHostInternal.h"

namespace aehost {

namespace {

size_t BytesPerPixel(PF_PixelFormat format) {
  if (format == PF_PixelFormat_ARGB32) return 4;
  if (format == PF_PixelFormat_ARGB64) return 8;
  return 16;
}

// ---- PF GPU Device Suite, version 1 ----

bool DeviceIndexOk(const Impl& h, A_u_long index) { return h.device.kind && index == 0; }

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
      info->device_framework = AeFrameworkOf(h->device);
      info->platformPV = h->device.platform;
      info->devicePV = h->device.device;
      info->contextPV = h->device.context;
      info->command_queuePV = h->device.queue;
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
      data = rec->buffer;
  }
  if (pixels) *pixels = data;
  if (h)
    h->Record(kSuite, kPFGPUDeviceSuite, "GetGPUWorldData", Args("world=", Ptr(world), " data=", Ptr(data)), err,
              RenderIdOf(c));
  return err;
}

}  // namespace

const PF_GPUDeviceSuite1 kGPUDeviceSuite = {GetDeviceInfo, CreateGPUWorld, DisposeGPUWorld, GetGPUWorldData};

// ---- Worlds and device memory ----

WorldRecord::~WorldRecord() {
  if (buffer) host->ReturnBuffer(buffer, bytes ? bytes : 1);
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
    if (!device.kind) throw HostError("no device for a GPU world");
    rec->buffer = TakeBuffer(allocBytes);
    rec->host = this;  // from here on the record frees its buffer
    if (poison || clear) device.kind->fill(device, rec->buffer, poison ? 0xFF : 0, allocBytes);  // 0xFF: NaNs
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

void Impl::KeepPixels(std::shared_ptr<const Image> frame) {
  if (!frame || frame.use_count() != 1) return;
  // Frames are made non-const (AddFrame), so their memory may be taken back.
  std::vector<float> pixels = std::move(std::const_pointer_cast<Image>(frame)->rgba);
  std::lock_guard<std::mutex> lock(framesMutex);
  if (sparePixels.size() < kSparePixels) sparePixels.push_back(std::move(pixels));
}

std::vector<float> Impl::TakePixels() {
  std::lock_guard<std::mutex> lock(framesMutex);
  if (sparePixels.empty()) return {};
  std::vector<float> pixels = std::move(sparePixels.back());
  sparePixels.pop_back();
  return pixels;
}

void* Impl::TakeBuffer(size_t bytes) {
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    const auto spare = spareBuffers.find(bytes);
    if (spare != spareBuffers.end()) {
      void* buffer = spare->second;
      spareBuffers.erase(spare);
      return buffer;
    }
  }
  return device.kind->allocate(device, bytes);
}

void Impl::ReturnBuffer(void* buffer, size_t bytes) {
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    if (spareBuffers.size() < kSpareBuffers) {
      spareBuffers.emplace(bytes, buffer);
      return;
    }
  }
  device.kind->release(device, buffer);
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

// R, G, B, A floats to B, G, R, A, or back: a plain loop over a row that the
// compiler vectorises, where a test of the world's format per pixel kept it
// scalar.
void SwapRedBlue(const float* in, float* out, A_long pixels) {
  for (A_long i = 0; i < pixels; ++i) {
    out[4 * i] = in[4 * i + 2];
    out[4 * i + 1] = in[4 * i + 1];
    out[4 * i + 2] = in[4 * i];
    out[4 * i + 3] = in[4 * i + 3];
  }
}

}  // namespace

// A world's bytes in host memory: software memory, or the device buffer's
// bytes as DeviceBytes gives them.
class WorldBytes {
 public:
  WorldBytes(const Device& device, const WorldRecord& world, bool read) : world_(world) {
    if (world.gpu) gpu_.emplace(device, world.buffer, world.bytes, read);
  }
  void Publish() {
    if (gpu_) gpu_->Publish();
  }
  uint8_t* Row(A_long y) const {
    uint8_t* base = gpu_ ? gpu_->data() : const_cast<uint8_t*>(world_.memory.data());
    return base + static_cast<size_t>(y) * world_.world.rowbytes;
  }

 private:
  const WorldRecord& world_;
  std::optional<DeviceBytes> gpu_;
};

// GPU worlds hold B, G, R, A floats; software worlds A, R, G, B in their depth.
void Impl::UploadImage(WorldRecord& world, const Image& image) {
  const PF_EffectWorld& w = world.world;
  if (image.width != w.width || image.height != w.height) throw HostError("image and world sizes differ");
  WorldBytes bytes(device, world, false);
  for (A_long y = 0; y < w.height; ++y) {
    uint8_t* row = bytes.Row(y);
    if (world.gpu) {
      SwapRedBlue(image.At(0, y), reinterpret_cast<float*>(row), w.width);
      continue;
    }
    for (A_long x = 0; x < w.width; ++x) {
      const float* p = image.At(x, y);
      if (world.format == PF_PixelFormat_ARGB32) {
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
  bytes.Publish();
}

Image Impl::DownloadImage(const WorldRecord& world) {
  const PF_EffectWorld& w = world.world;
  Image image;
  image.width = w.width;
  image.height = w.height;
  // Rows are appended from a small buffer, so the image's memory is written once.
  image.rgba = TakePixels();
  image.rgba.clear();
  image.rgba.reserve(static_cast<size_t>(w.width) * w.height * 4);
  std::vector<float> line(static_cast<size_t>(w.width) * 4);
  WorldBytes bytes(device, world, true);
  for (A_long y = 0; y < w.height; ++y) {
    const uint8_t* row = bytes.Row(y);
    if (world.gpu) SwapRedBlue(reinterpret_cast<const float*>(row), line.data(), w.width);
    for (A_long x = 0; x < w.width && !world.gpu; ++x) {
      float* p = line.data() + static_cast<size_t>(x) * 4;
      if (world.format == PF_PixelFormat_ARGB32) {
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
    image.rgba.insert(image.rgba.end(), line.begin(), line.end());
  }
  return image;
}

void Impl::SelectDeviceOnThisThread() {
  try {
    if (device.kind) device.kind->bindThread(device);
  } catch (const DeviceError& e) {
    throw HostError(e.what());
  }
}

size_t AeHost::LiveGpuWorldCount() const {
  std::lock_guard<std::mutex> lock(impl_->worldsMutex);
  size_t n = 0;
  for (const WorldRecord* w : impl_->liveWorlds) n += w->gpu;
  return n;
}

}  // namespace aehost
