// Stand-in After Effects host: loads an effect module through its exports and
// plays the host around it: the command sequence, parameters, an input layer
// of frames by time, suites over real memory and a real device (OpenCL, or
// CUDA where built and present), a call log, failure injection and threaded
// rendering. Tests and the command-line renderer share it.
//
// Times are in units of the host's time base (HostOptions::timeStep and
// timeScale): frame k of a clip usually sits at k * timeStep.
#ifndef TREMOR_HOST_AEHOST_H
#define TREMOR_HOST_AEHOST_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "AE_Effect.h"
#include "AE_EffectSuites.h"
#include "AE_EffectUI.h"

namespace aehost {

// Failures of the host itself (module not loadable, export or property list
// missing, device not openable, misuse); the message is one line.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

constexpr A_long kApplIdAfterEffects = 0x46585443;  // "FXTC"
constexpr A_long kApplIdPremiere = PF_APPL_ID_PREMIERE;

// A picture as callers see it: rows top to bottom, R, G, B, A floats, no padding.
struct Image {
  A_long width = 0;
  A_long height = 0;
  std::vector<float> rgba;

  Image() = default;
  Image(A_long w, A_long h, float fill = 0.0f) : width(w), height(h), rgba(static_cast<size_t>(w) * h * 4, fill) {}
  float* At(A_long x, A_long y) { return rgba.data() + (static_cast<size_t>(y) * width + x) * 4; }
  const float* At(A_long x, A_long y) const { return rgba.data() + (static_cast<size_t>(y) * width + x) * 4; }
};

struct DeviceOptions {
  // What Device.h's OpenDevice takes: "opencl" (its first GPU, else its first
  // device), "opencl:0.1", "cuda:0", "auto".
  std::string device = "opencl";
  // what_gpu told to the effect; -1 means the device's own framework. Other
  // values (Metal, none) let tests see how the effect refuses them.
  A_long whatGpu = -1;
};

struct HostOptions {
  A_long applId = kApplIdAfterEffects;
  A_short versionMajor = 13;
  A_short versionMinor = 28;
  A_long timeStep = 1001;
  A_u_long timeScale = 30000;
  // Extra bytes at the end of every row of every world the host makes, so
  // rowbytes differs from width * pixel size. A multiple of 16.
  A_long rowPaddingBytes = 0;
  // Pixel format of software worlds. 0: "ae32" on After Effects; on Premiere
  // the first format the effect declared, else "ae32". "argb" gives 8-bit,
  // "ae16" 16-bit (0..32768), any other code 32-bit float ARGB storage.
  PF_PixelFormat softwareFormat = 0;
  // Fill GPU worlds that the effect asks for uncleared with NaN, so a reliance
  // on cleared memory shows.
  bool poisonUnclearedWorlds = false;
  // Frames kept uploaded on the device (and converted for software); 0 keeps all.
  size_t frameCacheLimit = 0;
  // Call and command records kept, the newest; 0 keeps all (tests read them
  // whole). A host that serves a user bounds them: a long render makes
  // about 75 calls a frame.
  size_t recordLimit = 0;
  // Called before every command with the records the effect will see; during
  // RenderMany from several threads at once.
  std::function<void(PF_Cmd, PF_InData&, PF_OutData&)> beforeCommand;
  bool unloadOnDestroy = true;
  // Commands go here instead of to the module's entry: the effect's objects
  // linked into the caller, whose process-wide records a test can then set.
  PF_EffectMainFunc effectMain = nullptr;
};

// Which command renders a frame. Auto plays the real host: smart render when
// the effect declared it, on the GPU when a device is set up and pre-render
// said a GPU render is possible, else in software (command 24), and the plain
// render command (11) for an effect without smart render.
enum class RenderPath { Auto, SmartGPU, SmartSoftware, Render };

// What the effect left in out_data after one command.
struct CommandRecord {
  PF_Cmd cmd = 0;
  PF_Err result = 0;
  uint64_t renderId = 0;  // 0 outside renders
  A_long time = 0;        // current_time sent
  A_u_long my_version = 0;
  A_long out_flags = 0;
  A_long out_flags2 = 0;
  A_long num_params = 0;
  std::string return_msg;
};

struct CallRecord {
  enum class Kind {
    Command,    // a command sent to EffectMain; result filled when it returns
    Suite,      // a suite operation the effect called
    Callback,   // an in_data or extra callback the effect called
    EffectCall  // another call into the module (plug-in data, delete function)
  };
  Kind kind = Kind::Command;
  std::string suite;  // suite name, empty for callbacks
  std::string op;     // operation, e.g. "CreateGPUWorld", "checkout_layer", "PF_Cmd_SMART_RENDER_GPU"
  std::string args;   // key arguments as "name=value" words
  PF_Err result = 0;
  uint64_t renderId = 0;
};

struct ParamInfo {
  PF_ParamIndex index = 0;                   // the host's index: 1 for the first add; 0 is the input layer
  PF_ParamIndex requestedIndex = 0;          // as given to add_param (-1 appends)
  PF_ParamDef def{};                         // as registered; popup and checkbox names point into host memory
  PF_ParamDef value{};                       // the current value, what checkout_param hands out
  std::shared_ptr<const std::string> names;  // copy of the popup or checkbox name text
};

// What PluginDataEntryFunction handed to its callback.
struct PluginData {
  int calls = 0;
  PF_Err result = 0;  // of PluginDataEntryFunction
  std::string name, matchName, category, entryPoint;
  A_long kind = 0, apiMajor = 0, apiMinor = 0, reserved = 0;
};

// One property of the plug-in property list, codes in reading order ("kind").
struct PiPLProperty {
  std::string vendor;
  std::string key;
  A_long id = 0;
  std::vector<uint8_t> data;  // without padding
};
// Throws HostError on a truncated or malformed list.
std::vector<PiPLProperty> ParsePiPL(const std::vector<uint8_t>& bytes);

// One checkout that pre-render booked, and what became of it.
struct CheckoutRecord {
  A_long checkoutIdx = 0;
  PF_ParamIndex layer = 0;
  A_long whatTime = 0;     // as asked, in the effect's time scale
  A_u_long timeScale = 0;  // as asked
  bool hasFrame = false;   // a frame of the layer lies at that time
  A_long frameTime = 0;    // the time of that frame, in the host's units
  int pixelCheckouts = 0;  // checkout_layer_pixels calls
  int checkins = 0;        // checkin_layer_pixels calls
};

struct RenderResult {
  uint64_t renderId = 0;
  A_long time = 0;
  PF_Err result = 0;                       // first non-zero of pre-render and render
  CommandRecord preRender;                 // cmd 0 and result 0 when the path has none
  CommandRecord render;                    // cmd 0 when no render command was sent
  PF_LRect resultRect{}, maxResultRect{};  // as pre-render left them
  PF_RenderOutputFlags outputFlags = 0;
  bool preRenderDataDeleted = false;
  std::vector<CheckoutRecord> checkouts;  // by checkout index
  size_t uploads = 0;                     // frames uploaded by this render
  size_t effectWorldsLeft = 0;            // GPU worlds the effect created and did not dispose
  size_t worldsNotCheckedIn = 0;          // checkouts fetched more often than checked in
  bool hasOutput = false;                 // the effect checked out the output
  Image output;                           // downloaded after the render
};

// One drawing call that the effect made through Drawbot and that drew.
struct DrawCall {
  std::string op;               // "FillPath" (one per rectangle), "DrawString", "DrawImage"
  std::string text;             // DrawString's text, as UTF-8
  float x = 0, y = 0;           // rectangle's left and top, text's baseline start, image's top left
  float width = 0, height = 0;  // rectangle, or image
  DRAWBOT_ColorRGBA color{};    // the brush (FillPath, DrawString)
  float fontSize = 0;           // DrawString
  float alpha = 0;              // DrawImage
};

// A PF_Cmd_EVENT as the host sends it for one panel of the effect.
struct UIEvent {
  PF_EventType type = PF_Event_DRAW;
  PF_WindowType window = PF_Window_EFFECT;
  PF_EffectArea area = PF_EA_CONTROL;  // effect controls panel only
  PF_LRect frame{0, 0, 250, 90};       // effect_win.current_frame
  PF_EventOutFlags outFlags = PF_EO_NONE;
  A_long width = 0, height = 0;                             // the panel's canvas; 0: frame.right, frame.bottom
  DRAWBOT_ColorRGBA background{0.16f, 0.16f, 0.16f, 1.0f};  // the panel before the effect draws
  bool nullExtra = false;                                   // send no PF_EventExtra at all
};

struct UIEventResult {
  PF_Err result = 0;
  PF_EventOutFlags outFlags = 0;  // evt_out_flags as the effect left it
  CommandRecord command;
  std::vector<DrawCall> calls;
  long objectsLeft = 0;  // Drawbot objects made and not released
  Image canvas;          // the panel as drawn, straight RGBA
};

class AeHost {
 public:
  // Loads the module and its property list (same folder, same stem, ".pipl"),
  // resolves the exports and calls PluginDataEntryFunction. Throws HostError.
  explicit AeHost(const std::string& modulePath, HostOptions options = {});
  ~AeHost();  // sets down what is set up, then unloads
  AeHost(const AeHost&) = delete;
  AeHost& operator=(const AeHost&) = delete;

  // ---- The module ----
  const std::string& ModulePath() const;
  const std::vector<uint8_t>& PiPL() const;
  const PluginData& PluginDataRecord() const;
  int32_t NvOptimusEnablementCuda() const;
  // Options may be changed between commands, not during renders.
  HostOptions& Options();

  // ---- The command sequence ----
  PF_Err GlobalSetup();  // 1
  PF_Err ParamsSetup();  // 4
  // Opens the device (HostError when it cannot) and sends command 32. An effect
  // that did not declare GPU rendering gets no command; GpuReady() stays false.
  PF_Err SetupDevice(const DeviceOptions& device = {});
  PF_Err SetdownDevice();  // 33 when 32 was sent; then the device is closed
  PF_Err GlobalSetdown();  // 3
  PF_Err About();          // 0
  // 1 and 4, and 32 when a device is given; stops at the first error. Set-up
  // and set-down commands must not run beside renders.
  PF_Err SetUp(const DeviceOptions* device = nullptr);
  void SetDown();  // 33 and 3 as far as set up; never throws
  // Any command with fresh records at `time`: no layer, the given extra.
  PF_Err SendCommand(PF_Cmd cmd, void* extra = nullptr, A_long time = 0);

  bool GpuReady() const;  // command 32 succeeded
  std::string DeviceName() const;
  void* GpuData() const;  // what the effect left in gpu_data
  PF_Handle GlobalData() const;

  // ---- Parameters ----
  std::vector<ParamInfo> Params() const;     // in index order, input layer not included
  PF_ParamIndex FindParam(A_long id) const;  // -1 when no parameter has that id
  // Sets the current value by type: float slider value, popup choice (from 1),
  // checkbox (non-zero), angle in degrees. Throws HostError for other types.
  void SetParamValue(PF_ParamIndex index, double value);
  PF_ParamDef ParamValue(PF_ParamIndex index) const;
  std::optional<PF_CustomUIInfo> CustomUI() const;  // from register_ui
  std::vector<PF_PixelFormat> SupportedPixelFormats() const;

  // ---- The input layer ----
  // A frame lasts from its time until the next frame or one time step later,
  // whichever comes first; a time no frame covers is outside the clip.
  void AddFrame(A_long time, Image frame);  // replaces a frame at that time
  A_long FrameTime(int k) const;            // k * timeStep
  void RemoveFramesBefore(A_long time);
  void RemoveFrame(A_long time);  // the frame at exactly that time, and its device copy
  void ClearFrames();
  size_t FrameCount() const;

  // ---- Rendering; safe from several threads at once ----
  RenderResult Render(A_long time, RenderPath path = RenderPath::Auto);
  std::vector<RenderResult> RenderMany(const std::vector<A_long>& times, int threads,
                                       RenderPath path = RenderPath::Auto);

  // ---- Custom UI ----
  // Sends PF_Cmd_EVENT for a panel with a Drawbot surface over a canvas of its
  // own. Throws HostError when no font for text can be found.
  UIEventResult SendEvent(const UIEvent& event);

  // ---- Upload cache and live host resources ----
  size_t UploadCount() const;
  void ResetUploadCount();
  void ClearFrameCache();
  size_t LiveHandleCount() const;
  size_t LiveGpuWorldCount() const;  // every GPU world, the cache's included

  // ---- Call log and command results ----
  std::vector<CallRecord> CallLog() const;
  void ClearCallLog();
  std::vector<CommandRecord> Commands() const;
  std::optional<CommandRecord> LastCommand(PF_Cmd cmd) const;

  // ---- Failure injection ----
  // AcquireSuite of that name fails, for any version.
  void RemoveSuite(const std::string& name);
  // The operation returns `code` without doing anything; nth 0 on every call,
  // else only on its nth call counted from now. For host_new_handle and
  // host_lock_handle a failure gives null.
  void FailOperation(const std::string& op, PF_Err code, int nth = 0);
  // The operation gives null with no error: host_new_handle, host_lock_handle,
  // checkout_layer_pixels, checkout_output.
  void NullOperation(const std::string& op, int nth = 0);
  // checkout_layer_pixels of that checkout index gives a null world, no error.
  void NullCheckout(A_long checkoutIdx);
  void ClearInjections();  // suites come back too

  // The basic suite as the effect gets it, for calling suites directly.
  const SPBasicSuite* BasicSuite() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// Text of a command number, e.g. "PF_Cmd_SMART_RENDER_GPU".
const char* CommandName(PF_Cmd cmd);
// A pixel format code as its four bytes, e.g. "ae32".
std::string FormatName(PF_PixelFormat format);

}  // namespace aehost

#endif
