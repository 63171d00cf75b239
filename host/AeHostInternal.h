// Inside of the stand-in After Effects host, shared by its units.
#ifndef TREMOR_HOST_AEHOSTINTERNAL_H
#define TREMOR_HOST_AEHOSTINTERNAL_H

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "AeHost.h"
#include "HostInjections.h"
#include "Device.h"

namespace aehost {

using Impl = AeHost::Impl;

// The host's framework number for a device, from the effect's numbering.
inline PF_GPU_Framework AeFrameworkOf(const Device& device) {
  switch (device.kind ? device.kind->framework : -1) {
    case 0: return PF_GPU_Framework_CUDA;
    case 1: return PF_GPU_Framework_OPENCL;
    case 2: return PF_GPU_Framework_METAL;
    default: return PF_GPU_Framework_NONE;
  }
}

// Host memory behind a PF_Handle: the handle points at `ptr`, so an effect
// that reads *handle directly gets the block, as with the real host.
struct HandleBlock {
  void* ptr = nullptr;
  A_u_longlong size = 0;
  int locks = 0;
  Impl* owner = nullptr;
};

// A world the host made. world.platform_ref points back here, so copies of
// the PF_EffectWorld (as in a layer parameter) still find their record.
struct WorldRecord {
  Impl* host = nullptr;
  bool gpu = false;
  bool effectOwned = false;  // created by CreateGPUWorld
  uint64_t renderId = 0;     // the render that created it
  PF_PixelFormat format = 0;
  size_t bytes = 0;
  std::vector<uint8_t> memory;  // software pixels
  void* buffer = nullptr;       // device memory of a GPU world
  PF_EffectWorld world{};
  WorldRecord() = default;
  WorldRecord(const WorldRecord&) = delete;
  WorldRecord& operator=(const WorldRecord&) = delete;
  ~WorldRecord();
};

struct Booking {
  CheckoutRecord rec;
  std::shared_ptr<const Image> frame;  // null outside the clip
  std::shared_ptr<WorldRecord> world;  // held while the render runs
};

struct RenderJob {
  uint64_t id = 0;
  A_long time = 0;
  bool gpu = false;  // the render command is 31
  A_long width = 0, height = 0;
  std::mutex mutex;  // the effect may call back from its own threads
  std::map<A_long, Booking> bookings;
  std::shared_ptr<WorldRecord> output;
  size_t uploads = 0;
};

// What effect_ref points at during one command.
struct CommandContext {
  static constexpr uint32_t kMagic = 0x41454843;  // "CHEA"
  uint32_t magic = kMagic;
  Impl* host = nullptr;
  RenderJob* job = nullptr;
};

struct CacheEntry {
  std::shared_ptr<WorldRecord> world;
  uint64_t lastUse = 0;
};

struct AeHost::Impl {
  HostOptions options;

  // Module
  std::string path;
  void* dl = nullptr;
  PF_EffectMainFunc effectMain = nullptr;
  PF_PluginDataEntryFunc pluginDataEntry = nullptr;
  const int32_t* nvOptimus = nullptr;
  std::vector<uint8_t> pipl;
  PluginData pluginData;

  // Global state, changed only by the set-up commands
  PF_Handle globalData = nullptr;
  bool globalSetupSent = false;
  A_long globalOutFlags = 0, globalOutFlags2 = 0;

  // Device
  Device device;  // kind null while none is open
  A_long whatGpu = PF_GPU_Framework_NONE;
  bool deviceSetupSent = false;
  bool gpuReady = false;
  void* gpuData = nullptr;

  // Parameters
  mutable std::mutex paramsMutex;
  std::vector<ParamInfo> params;
  std::optional<PF_CustomUIInfo> customUI;
  std::vector<PF_PixelFormat> formats;

  // Input layer
  mutable std::mutex framesMutex;
  std::map<A_long, std::shared_ptr<const Image>> frames;
  // Pixel memory of frames gone, for the next output images: frame-sized
  // buffers that keep their pages, where fresh ones fault every 4 KiB.
  static constexpr size_t kSparePixels = 2;
  std::vector<std::vector<float>> sparePixels;

  // Worlds and caches
  mutable std::mutex worldsMutex;
  std::unordered_set<const WorldRecord*> liveWorlds;
  std::unordered_map<const WorldRecord*, std::shared_ptr<WorldRecord>> effectWorlds;
  // Device buffers of worlds gone, by size, for the next worlds: a renderer
  // makes and drops frame-sized worlds every frame, and fresh memory costs
  // page faults on CPU devices. A few at most, freed with the device.
  static constexpr size_t kSpareBuffers = 4;
  std::multimap<size_t, void*> spareBuffers;
  std::mutex cacheMutex;  // held across an upload so one frame uploads once
  std::map<A_long, CacheEntry> gpuCache, softCache;
  std::multiset<A_long> pinned;  // frames booked by renders under way: never evicted
  uint64_t cacheClock = 0;
  std::atomic<size_t> uploads{0};

  // Log
  mutable std::mutex logMutex;
  std::vector<CallRecord> log;
  std::vector<CommandRecord> commands;
  size_t logDropped = 0;  // records of `log` dropped for recordLimit: indices count on from them
  void TrimRecords();     // under logMutex

  // Injection
  HostInjections injections;
  mutable std::mutex injectMutex;  // of nullCheckouts
  std::set<A_long> nullCheckouts;

  std::atomic<uint64_t> nextRenderId{1};

  // ---- AeHost.cpp ----
  PF_Err Send(PF_Cmd cmd, A_long time, void* extra, RenderJob* job, PF_ParamDef** params, PF_LayerDef* output,
              CommandRecord* record);
  std::vector<PF_ParamDef> ParamArray(const PF_EffectWorld* layer) const;
  std::optional<A_long> FrameKeyAt(A_long time) const;
  std::shared_ptr<const Image> FrameByKey(A_long key) const;
  PF_PixelFormat SoftwareFormat() const;

  // ---- AeHostRender.cpp ----
  RenderResult RenderOne(A_long time, RenderPath path);

  // ---- AeHostCallLog.cpp ----
  void Record(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result,
              uint64_t renderId);
  size_t BeginCommand(PF_Cmd cmd, const std::string& args, uint64_t renderId);
  void EndCommand(size_t at, PF_Err result);
  Trigger Check(const char* op);
  bool SuiteMissing(const std::string& name);

  // ---- AeHostWorlds.cpp ----
  std::shared_ptr<WorldRecord> NewWorld(bool gpu, A_long width, A_long height, PF_PixelFormat format, bool clear,
                                        bool poison);
  void UploadImage(WorldRecord& world, const Image& image);
  Image DownloadImage(const WorldRecord& world);
  const WorldRecord* FindWorld(const PF_EffectWorld* world) const;
  void SelectDeviceOnThisThread();
  // Device memory of every kind back to the device, then the device closed.
  void KeepPixels(std::shared_ptr<const Image> frame);  // when no one else holds it
  std::vector<float> TakePixels();                      // empty when none is spare
  void* TakeBuffer(size_t bytes);
  void ReturnBuffer(void* buffer, size_t bytes);
  void ReleaseDevice();

  // ---- AeHostFrameCache.cpp ----
  std::shared_ptr<WorldRecord> CachedWorld(bool gpu, A_long key, const std::shared_ptr<const Image>& frame,
                                           bool* uploaded);
  void Pin(A_long key);
  void Unpin(A_long key);
  void DropCached(A_long key);

  // ---- AeHostSuites.cpp ----
  size_t LiveHandles() const;
  void FreeAllHandles();
};

// What a Drawbot reference of one event draws into; its supplier and surface
// references are this record too (Drawbot.cpp).
struct DrawTarget {
  static constexpr uint32_t kMagic = 0x44524157;  // "DRAW"
  uint32_t magic = kMagic;
  Image* canvas = nullptr;
  std::vector<DrawCall> calls;
  long liveObjects = 0;
};

// The panel a UI event comes from: PF_ContextH points at `self`.
struct UIContext {
  PF_Context context{};
  PF_Context* self = &context;
  DrawTarget* target = nullptr;
};
static_assert(std::is_standard_layout_v<UIContext>, "the context leads its record");

extern const DRAWBOT_DrawbotSuite1 kDrawbotDrawSuite;
extern const DRAWBOT_SupplierSuite1 kDrawbotSupplierSuite;
extern const DRAWBOT_SurfaceSuite2 kDrawbotSurfaceSuite;
extern const DRAWBOT_PathSuite1 kDrawbotPathSuite;
extern const PF_EffectCustomUISuite1 kCustomUISuite;  // AeHostEvents.cpp
// The font for Drawbot's text, found once; throws HostError when missing.
std::string DrawbotFontPath();
void LoadDrawbotFont();

// The suites and callbacks the host hands out: the basic suite and the util
// callbacks (AeHostSuites.cpp), the GPU device suite (AeHostWorlds.cpp), the
// interact, pre-render and smart render callbacks (AeHostCallbacks.cpp).
extern const SPBasicSuite kBasicSuite;
extern PF_UtilCallbacks kUtilCallbacks;
extern const PF_GPUDeviceSuite1 kGPUDeviceSuite;
PF_InteractCallbacks InteractCallbacks();
extern PF_PreRenderCallbacks kPreRenderCallbacks;
extern PF_SmartRenderCallbacks kSmartRenderCallbacks;
// The callback of PluginDataEntryFunction (AeHostLoad.cpp).
PF_Err RecordPluginData(PF_PluginDataPtr inPtr, const A_u_char* name, const A_u_char* matchName,
                        const A_u_char* category, const A_u_char* entryPoint, A_long kind, A_long apiMajor,
                        A_long apiMinor, A_long reserved);

// The host that suites without effect_ref report to: the one whose command
// runs on this thread, else the one constructed last (AeHostCallLog.cpp).
Impl* CurrentHost();
CommandContext* CurrentContext();
void SetCurrentContext(CommandContext* context);
void RegisterHost(Impl* host);
void UnregisterHost(Impl* host);

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

// Shared by the suite and callback entries (AeHostCallLog.cpp).
constexpr auto kSuite = CallRecord::Kind::Suite;
constexpr auto kCallback = CallRecord::Kind::Callback;
CommandContext* FromRef(PF_ProgPtr ref);  // null unless ref is a context of ours
uint64_t RenderIdOf(const CommandContext* c);
std::string Ptr(const void* p);
// Through the thread's host when there is one; suites without effect_ref may
// be called where no host is current.
void RecordHere(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result);
Trigger CheckHere(const char* op);

inline std::vector<PF_ParamDef*> Pointers(std::vector<PF_ParamDef>& defs) {
  std::vector<PF_ParamDef*> p;
  for (auto& d : defs) p.push_back(&d);
  return p;
}

template <typename... T>
std::string Args(const T&... parts) {
  std::ostringstream s;
  (s << ... << parts);
  return s.str();
}

}  // namespace aehost

#endif
