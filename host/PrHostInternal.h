// Inside of the stand-in Premiere Pro host, shared by its units.
#ifndef TREMOR_HOST_PRHOSTINTERNAL_H
#define TREMOR_HOST_PRHOSTINTERNAL_H

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Device.h"
#include "HostInjections.h"
#include "PrHost.h"

// A frame the host made, behind the module's opaque handle.
struct PPix {
  prhost::PrHost::Impl* host = nullptr;
  PrPixelFormat format = PrPixelFormat_Invalid;
  int32_t width = 0, height = 0, rowBytes = 0;
  csSDK_uint32 parNum = 1, parDen = 1;
  prFieldType field = prFieldsNone;
  bool byFilter = false;  // made by CreateGPUPPix
  uint64_t render = 0;    // the render that made it; 0 outside renders
  void* buffer = nullptr;
  size_t bytes = 0;
};

namespace prhost {

using Impl = PrHost::Impl;

constexpr csSDK_uint32 kPrGPUHostInterfaceVersion = 2;

size_t PixelBytes(PrPixelFormat format);

template <typename... T>
std::string Args(const T&... parts) {
  std::ostringstream s;
  (s << ... << parts);
  return s.str();
}

using aehost::Trigger;

// A clip frame on the device in one format, freed with its last holder.
struct Uploaded {
  Impl* host;
  PPix* pix;
  ~Uploaded();
};

struct PrHost::Impl {
  PrHostOptions options;
  aehost::AeHost* effect = nullptr;
  void* dl = nullptr;
  PrGPUFilterEntry entry = nullptr;
  Device device;

  std::mutex instancesMutex;
  bool started = false;  // the entry was called at start-up
  PrGPUFilter filter{};
  std::map<csSDK_int32, std::unique_ptr<PrGPUFilterInstance>> instances;

  mutable std::mutex framesMutex;
  std::map<int64_t, Image> frames;

  mutable std::mutex cacheMutex;
  std::map<std::pair<int64_t, PrPixelFormat>, std::shared_ptr<Uploaded>> uploaded;
  std::atomic<size_t> uploads{0};

  std::atomic<uint64_t> nextRender{1};
  mutable std::mutex pixMutex;
  std::map<PPix*, std::unique_ptr<PPix>> live;

  mutable std::mutex logMutex;
  std::vector<CallRecord> log;

  aehost::HostInjections injections;

  PPix* NewPPix(PrPixelFormat format, int32_t width, int32_t height, csSDK_uint32 parNum, csSDK_uint32 parDen,
                prFieldType field, bool byFilter);
  bool Live(const PPix* pix) const;
  bool Free(PPix* pix);  // false when the handle is not a live frame
  void Upload(PPix& pix, const Image& image);
  Image Download(const PPix& pix);
  int64_t ClipFrameAt(PrTime time) const;
  std::shared_ptr<Uploaded> UploadedFrame(int64_t k, PrPixelFormat format);
  void DropUploaded(int64_t first, int64_t last);  // clip frames first..last

  void Record(const char* suite, const char* op, const std::string& args, prSuiteError result);
  Trigger Check(const char* op);
  bool SuiteMissing(const std::string& name);
};

// The way to the basic suite that instances are given.
piSuitesPtr PiSuites();

// The host the suites without a frame handle answer for: the one calling into
// the module on this thread, else the one constructed last; and the render
// under way on this thread.
Impl* CurrentHost();
uint64_t CurrentRender();
void RegisterHost(Impl* host);
void UnregisterHost(Impl* host);
class CurrentScope {
 public:
  explicit CurrentScope(Impl* host, uint64_t render = 0);
  ~CurrentScope();
  CurrentScope(const CurrentScope&) = delete;
  CurrentScope& operator=(const CurrentScope&) = delete;

 private:
  Impl* saved_;
  uint64_t savedRender_;
};

}  // namespace prhost

#endif
