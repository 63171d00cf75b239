// The After Effects side of the module: global data, the handlers that the
// command dispatcher calls, and scoped access to the host's suites.
#ifndef TREMORDISTILLER_H
#define TREMORDISTILLER_H

#include <cstdint>

#include "AE_Effect.h"
#include "AE_EffectSuites.h"
#include "AE_EffectUI.h"
#include "Kernel_Data.h"

// The effect's identity, shared by the property list, PluginDataEntryFunction,
// GlobalSetup, About and the log.
inline constexpr char kEffectName[] = "Tremor Distiller";
inline constexpr char kEffectMatchName[] = "HLTRDI";
inline constexpr char kEffectCategory[] = "Harbour Lantern Lab";
inline constexpr char kEffectVersionText[] = "1.0.0";
inline constexpr A_long kEffectMajorVersion = 1;
inline constexpr A_long kEffectMinorVersion = 0;
inline constexpr A_u_long kEffectVersion = 0x00080001;               // my_version, "eVER"
inline constexpr A_long kGlobalOutFlags = 0x06008404;                // "eGLO"
inline constexpr A_long kGlobalOutFlags2 = 0x0B001408;               // "eGL2"
inline constexpr A_long kEffectApiMajor = 13, kEffectApiMinor = 28;  // "eSVR"
inline constexpr A_long kEffectReservedInfo = 8;                     // "aeFL"

// The decoded about picture, B, G, R, A rows top to bottom.
struct AboutImage {
  PF_Handle pixels;
  int32_t channels;
  int32_t width;
  int32_t height;
  int32_t pixelLayout;  // kDRAWBOT_PixelLayout_32BGR
};

// When the about picture did not load the control keeps the size the picture
// would have given, so the panel's layout does not jump; its text stays put.
inline constexpr A_long kAboutFallbackWidth = 250;
inline constexpr A_long kAboutFallbackHeight = 70;

// Contents of the host handle in global_data, locked from set-up to set-down.
struct GlobalData {
  AboutImage* aboutImage;  // null when the picture could not be loaded
};

// Thrown by a scoped suite that the host does not have (no PF_Err constant).
inline constexpr int32_t kSuiteUnavailable = 13;

template <typename Suite>
struct SuiteTraits;
template <>
struct SuiteTraits<PF_HandleSuite2> {
  static constexpr const char* name = kPFHandleSuite;
  static constexpr int32_t version = kPFHandleSuiteVersion2;
};
template <>
struct SuiteTraits<PF_WorldSuite2> {
  static constexpr const char* name = kPFWorldSuite;
  static constexpr int32_t version = kPFWorldSuiteVersion2;
};
template <>
struct SuiteTraits<PF_GPUDeviceSuite1> {
  static constexpr const char* name = kPFGPUDeviceSuite;
  static constexpr int32_t version = kPFGPUDeviceSuiteVersion1;
};
template <>
struct SuiteTraits<PF_PixelFormatSuite1> {
  static constexpr const char* name = kPFPixelFormatSuite;
  static constexpr int32_t version = kPFPixelFormatSuiteVersion1;
};
template <>
struct SuiteTraits<PF_ANSICallbacksSuite1> {
  static constexpr const char* name = kPFANSISuite;
  static constexpr int32_t version = kPFANSISuiteVersion1;
};

// A suite held for the length of a scope. A missing suite throws
// PF_Err_BAD_CALLBACK_PARAM (516), which the dispatcher turns into the result.
template <typename Suite>
class SuiteAccess {
 public:
  explicit SuiteAccess(const PF_InData* in_data) : basic_(in_data->pica_basicP) {
    const void* suite = nullptr;
    if (!basic_ || basic_->AcquireSuite(SuiteTraits<Suite>::name, SuiteTraits<Suite>::version, &suite) != 0 || !suite)
      throw static_cast<int32_t>(PF_Err_BAD_CALLBACK_PARAM);
    suite_ = static_cast<const Suite*>(suite);
  }
  ~SuiteAccess() { basic_->ReleaseSuite(SuiteTraits<Suite>::name, SuiteTraits<Suite>::version); }
  SuiteAccess(const SuiteAccess&) = delete;
  SuiteAccess& operator=(const SuiteAccess&) = delete;
  const Suite* operator->() const { return suite_; }

 private:
  const SPBasicSuite* basic_;
  const Suite* suite_ = nullptr;
};

// The same, for sites that tell the user: a missing suite sets
// PF_OutFlag_DISPLAY_ERROR_MESSAGE, writes "Not able to acquire AEFX Suite."
// to return_msg and throws kSuiteUnavailable.
template <typename Suite>
class ScopedSuite {
 public:
  ScopedSuite(const PF_InData* in_data, PF_OutData* out_data) : basic_(in_data->pica_basicP) {
    const void* suite = nullptr;
    if (!basic_ || basic_->AcquireSuite(SuiteTraits<Suite>::name, SuiteTraits<Suite>::version, &suite) != 0 || !suite) {
      if (out_data) {
        out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
        in_data->utils->ansi.sprintf(out_data->return_msg, "Not able to acquire AEFX Suite.");
      }
      throw kSuiteUnavailable;
    }
    suite_ = static_cast<const Suite*>(suite);
  }
  ~ScopedSuite() { basic_->ReleaseSuite(SuiteTraits<Suite>::name, SuiteTraits<Suite>::version); }
  ScopedSuite(const ScopedSuite&) = delete;
  ScopedSuite& operator=(const ScopedSuite&) = delete;
  const Suite* operator->() const { return suite_; }

 private:
  const SPBasicSuite* basic_;
  const Suite* suite_ = nullptr;
};

inline bool IsPremiere(const PF_InData* in_data) { return in_data->appl_id == PF_APPL_ID_PREMIERE; }

// ---- Handlers (one per command, dispatched by EffectMain) ----

PF_Err About(PF_InData* in_data, PF_OutData* out_data);
PF_Err GlobalSetup(PF_InData* in_data, PF_OutData* out_data);
PF_Err GlobalSetdown(PF_InData* in_data);
PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data);
PF_Err PreRender(PF_InData* in_data, PF_OutData* out_data, PF_PreRenderExtra* extra);
PF_Err SmartRender(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra, bool useGPU);
PF_Err RenderCPU(PF_InData* in_data, PF_OutData* out_data, PF_EffectWorld* input, PF_EffectWorld* output);
PF_Err SmartRenderGPU(PF_InData* in_data, PF_OutData* out_data, PF_PixelFormat format, PF_EffectWorld** frames,
                      PF_EffectWorld* output, PF_SmartRenderExtra* extra, KernelData* kernelData);
PF_Err GPUDeviceSetup(PF_InData* in_data, PF_OutData* out_data, PF_GPUDeviceSetupExtra* extra);
PF_Err GPUDeviceSetdown(PF_InData* in_data, PF_OutData* out_data, PF_GPUDeviceSetdownExtra* extra);
PF_Err HandleEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output,
                   PF_EventExtra* extra);

// The custom control in the effect controls panel, and the notice in the
// composition and layer panels.
PF_Err DrawEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output,
                 PF_EventExtra* extra);
PF_Err DrawCompUIEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output,
                       PF_EventExtra* extra);

// Decodes the about picture from the module's resources into `about`.
PF_Err LoadAboutImage(PF_InData* in_data, AboutImage* about);

#endif
