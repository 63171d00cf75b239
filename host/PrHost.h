// Stand-in Premiere Pro host: loads the effect module through its exports and
// plays the host's GPU filter around it: the entry, one filter instance per
// device and effect node, the frame-dependency queries, the frame array in
// the order they asked for, renders in the 128-bit and half-float formats,
// the suites over real device memory, a call log and failure injection. The
// effect's EffectMain side (global and parameter set-up, the software path)
// runs through an After Effects-style host told it is Premiere.
//
// Times are ticks; frame k of the clip lies at k * ticksPerFrame.
#ifndef TREMOR_HOST_PRHOST_H
#define TREMOR_HOST_PRHOST_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AeHost.h"
#include "PrGPU/PrSDKGPUSuites.h"

namespace prhost {

using aehost::CallRecord;
using aehost::HostError;
using aehost::Image;

constexpr PrTime kTicksPerSecond = 254016000000;

struct PrHostOptions {
  std::string device = "opencl";  // as Device.h's OpenDevice takes it
  PrTime ticksPerFrame = kTicksPerSecond / 30;
  // Extra bytes at the end of every row of every frame; a multiple of 16.
  int32_t rowPaddingBytes = 0;
  // Frames that CreateGPUPPix makes hold NaN, so a reliance on their content shows.
  bool poisonNewFrames = true;
  aehost::HostOptions effect;  // the EffectMain side; its application id becomes Premiere's
};

struct PrRenderRequest {
  int64_t frame = 0;  // the clip frame rendered: sequence and clip time frame * ticksPerFrame
  PrPixelFormat format = PrPixelFormat_GPU_BGRA_4444_32f;
  int32_t width = 0, height = 0;  // 0: frame 0's size
  csSDK_int32 node = 1;           // the effect node, one instance each
};

struct PrRenderResult {
  prSuiteError result = 0;         // of Render, or of the first query that failed
  std::vector<PrTime> requested;   // outSequenceTime of each request, in query order
  std::vector<int64_t> delivered;  // clip frame of each entry of the frame array
  size_t framesLeft = 0;           // frames the filter made and did not dispose, the output aside
  bool hasOutput = false;          // *outFrame held a frame of the host's after Render
  Image output;                    // R, G, B, A, downloaded from *outFrame
};

class PrHost {
 public:
  // Loads the module, resolves xGPUFilterEntry, runs global and parameter
  // set-up through EffectMain and opens the device. Throws HostError.
  explicit PrHost(const std::string& modulePath, PrHostOptions options = {});
  ~PrHost();  // instances disposed, entry told of shutdown, device closed
  PrHost(const PrHost&) = delete;
  PrHost& operator=(const PrHost&) = delete;

  aehost::AeHost& Effect();  // parameters live here, by After Effects' index
  PrHostOptions& Options();
  std::string DeviceName() const;

  // The exported entry, as is.
  prSuiteError Entry(csSDK_int32* ioIndex, prBool inStartup, PrGPUFilter* outFilter, PrGPUFilterInfo* outFilterInfo);
  // The instance of a node on the device, created on first use.
  prSuiteError Instance(csSDK_int32 node, PrGPUFilterInstance** instance);
  void DisposeInstances();

  // Sets a parameter by Disk ID as After Effects counts (popups from 1).
  void SetParam(int32_t diskId, double value);

  void AddFrame(int64_t k, Image frame);
  void RemoveFrame(int64_t k);
  void RemoveFramesBefore(int64_t k);
  void ClearFrames();

  // The query loop alone: the requests' sequence times, until a call leaves
  // the index. Throws HostError when the index runs away.
  std::vector<PrTime> FrameDependencies(const PrGPUFilterRenderParams& params, csSDK_int32 node = 1,
                                        prSuiteError* result = nullptr);
  // Safe from several threads at once; each render owns what it lends and
  // what the filter makes during it.
  PrRenderResult Render(const PrRenderRequest& request);
  std::vector<PrRenderResult> RenderMany(const std::vector<PrRenderRequest>& requests, int threads);

  // Frames alive besides the clip frames kept uploaded; 0 between renders
  // unless something leaked.
  size_t LiveFrameCount() const;
  size_t UploadCount() const;  // clip frames uploaded so far, once per frame and format
  std::vector<CallRecord> CallLog() const;
  void ClearCallLog();

  // AcquireSuite of that name fails, for any version.
  void RemoveSuite(const std::string& name);
  // The operation returns `code` and does nothing; nth 0 on every call, else
  // only its nth call from now.
  void FailOperation(const std::string& op, prSuiteError code, int nth = 0);
  // The operation succeeds with a null result (CreateGPUPPix, GetGPUPPixData).
  void NullOperation(const std::string& op, int nth = 0);
  void ClearInjections();

  struct Impl;

 private:
  std::unique_ptr<aehost::AeHost> effect_;
  std::unique_ptr<Impl> impl_;
};

// Half floats as the host stores them in the 16-bit format (toward zero).
uint16_t FloatToHalf(float value);
float HalfToFloat(uint16_t half);

}  // namespace prhost

#endif
