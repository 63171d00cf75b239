// The suites the stand-in Premiere Pro host hands its GPU filter, over the
// device's memory, and the call log and failure injection behind them.
#include <algorithm>
#include <cstring>

#include "PrHostInternal.h"

namespace prhost {

namespace {

thread_local Impl* tCurrent = nullptr;
thread_local uint64_t tRender = 0;
std::mutex gHostsMutex;
std::vector<Impl*> gHosts;

// Each operation: the injection first, then the work, then the log line.
#define PR_CALL(suite, op, argsText, ...)         \
  Impl* h = host;                                 \
  const Trigger t = h ? h->Check(op) : Trigger{}; \
  prSuiteError err = t.code;                      \
  if (!h) err = suiteError_InvalidParms;          \
  if (h && (!t.fired || t.null)) __VA_ARGS__;     \
  if (h) h->Record(suite, op, argsText, err);     \
  return err

constexpr const char* kDevice = kPrSDKGPUDeviceSuite;
constexpr const char* kPPix = kPrSDKPPixSuite;

// A handle's host, when it is a live frame of one.
Impl* HostOf(PPixHand pix) {
  Impl* h = pix ? pix->host : nullptr;
  return h && h->Live(pix) ? h : nullptr;
}

// ---- MediaCore GPU Device Suite, version 2 ----

prSuiteError GetDeviceInfo(csSDK_uint32 version, csSDK_uint32 index, PrGPUDeviceInfo* info) {
  Impl* host = CurrentHost();
  PR_CALL(kDevice, "GetDeviceInfo", Args("version=", version, " device=", index), {
    if (version != kPrSDKGPUDeviceSuiteVersion || index != 0 || !info) {
      err = suiteError_InvalidParms;
    } else {
      *info = PrGPUDeviceInfo{};
      info->outDeviceFramework = h->device.kind->framework;  // same numbering as the effect's
      info->outPlatformHandle = h->device.platform;
      info->outDeviceHandle = h->device.device;
      info->outContextHandle = h->device.context;
      info->outCommandQueueHandle = h->device.queue;
    }
  });
}

prSuiteError CreateGPUPPix(csSDK_uint32 index, PrPixelFormat format, int32_t width, int32_t height, csSDK_uint32 parNum,
                           csSDK_uint32 parDen, prFieldType field, PPixHand* out) {
  Impl* host = CurrentHost();
  PPix* made = nullptr;
  if (out) *out = nullptr;
  PR_CALL(kDevice, "CreateGPUPPix",
          Args("device=", index, " format=", aehost::FormatName(format), " width=", width, " height=", height,
               " par=", parNum, "/", parDen, " field=", field, " made=", static_cast<const void*>(made)),
          {
            if (index != 0 || !out || width <= 0 || height <= 0) {
              err = suiteError_InvalidParms;
            } else if (!t.null) {
              try {
                made = h->NewPPix(format, width, height, parNum, parDen, field, true);
              } catch (const std::exception&) {
                err = suiteError_Fail;
              }
              *out = made;
            }
          });
}

prSuiteError GetGPUPPixData(PPixHand pix, void** data) {
  Impl* host = HostOf(pix);
  if (data) *data = nullptr;
  PR_CALL(kDevice, "GetGPUPPixData", Args("pix=", static_cast<const void*>(pix)), {
    if (!data)
      err = suiteError_InvalidParms;
    else if (!t.null)
      *data = pix->buffer;
  });
}

prSuiteError GetGPUPPixDeviceIndex(PPixHand pix, csSDK_uint32* index) {
  Impl* host = HostOf(pix);
  PR_CALL(kDevice, "GetGPUPPixDeviceIndex", Args("pix=", static_cast<const void*>(pix)), {
    if (index) *index = 0;
  });
}

// ---- Premiere PPix Suite, version 1, and PPix 2 Suite, version 3 ----

prSuiteError Dispose(PPixHand pix) {
  Impl* host = HostOf(pix);
  PR_CALL(kPPix, "Dispose", Args("pix=", static_cast<const void*>(pix)), { h->Free(pix); });
}

prSuiteError GetPixelFormat(PPixHand pix, PrPixelFormat* format) {
  Impl* host = HostOf(pix);
  PR_CALL(kPPix, "GetPixelFormat", Args("pix=", static_cast<const void*>(pix)), {
    if (format) *format = pix->format;
  });
}

prSuiteError GetBounds(PPixHand pix, prRect* bounds) {
  Impl* host = HostOf(pix);
  PR_CALL(kPPix, "GetBounds", Args("pix=", static_cast<const void*>(pix)), {
    if (bounds) *bounds = prRect{0, 0, pix->width, pix->height};
  });
}

prSuiteError GetRowBytes(PPixHand pix, csSDK_int32* rowBytes) {
  Impl* host = HostOf(pix);
  PR_CALL(kPPix, "GetRowBytes", Args("pix=", static_cast<const void*>(pix)), {
    if (rowBytes) *rowBytes = pix->rowBytes;
  });
}

prSuiteError GetPixelAspectRatio(PPixHand pix, csSDK_uint32* num, csSDK_uint32* den) {
  Impl* host = HostOf(pix);
  PR_CALL(kPPix, "GetPixelAspectRatio", Args("pix=", static_cast<const void*>(pix)), {
    if (num) *num = pix->parNum;
    if (den) *den = pix->parDen;
  });
}

prSuiteError GetFieldOrder(PPixHand pix, prFieldType* field) {
  Impl* host = HostOf(pix);
  PR_CALL(kPrSDKPPix2Suite, "GetFieldOrder", Args("pix=", static_cast<const void*>(pix)), {
    if (field) *field = pix->field;
  });
}

// ---- MediaCore Video Segment Suite, version 9 ----

// Parameters as the effect registered them through EffectMain; the index
// counts without the input layer, and popups count from 0.
prSuiteError GetParam(csSDK_int32 node, csSDK_int32 index, PrTime time, PrParam* out) {
  Impl* host = CurrentHost();
  PR_CALL(kPrSDKVideoSegmentSuite, "GetParam", Args("node=", node, " index=", index, " time=", time), {
    const auto params = h->effect->Params();
    if (!out || index < 0 || index >= static_cast<csSDK_int32>(params.size())) {
      err = suiteError_InvalidParms;
    } else {
      const PF_ParamDef v = h->effect->ParamValue(index + 1);
      std::memset(out, 0, sizeof *out);
      switch (v.param_type) {
        case PF_Param_FLOAT_SLIDER: out->mType = kPrParamType_Float64, out->mFloat64 = v.u.fs_d.value; break;
        case PF_Param_POPUP: out->mType = kPrParamType_Int32, out->mInt32 = v.u.pd.value - 1; break;
        case PF_Param_CHECKBOX: out->mType = kPrParamType_Bool, out->mBool = v.u.bd.value ? 1 : 0; break;
        default: err = suiteError_InvalidParms;
      }
    }
  });
}

const PrSDKGPUDeviceSuite kGPUDeviceSuite = {GetDeviceInfo, CreateGPUPPix, GetGPUPPixData, GetGPUPPixDeviceIndex};
const PrSDKPPixSuite kPPixSuite = {Dispose, GetPixelFormat, GetBounds, GetRowBytes, GetPixelAspectRatio};
const PrSDKPPix2Suite kPPix2Suite = {GetFieldOrder};
const PrSDKVideoSegmentSuite kVideoSegmentSuite = {GetParam};
// Suites the filter keeps but never calls: distinct tables with nothing in them.
const char kUncalledSuites[3] = {};

struct SuiteRow {
  const char* name;
  int32_t version;
  const void* table;
};
const SuiteRow kSuites[] = {
    {kPrSDKGPUDeviceSuite, kPrSDKGPUDeviceSuiteVersion, &kGPUDeviceSuite},
    {kPrSDKGPUImageProcessingSuite, kPrSDKGPUImageProcessingSuiteVersion, &kUncalledSuites[0]},
    {kPrSDKMemoryManagerSuite, kPrSDKMemoryManagerSuiteVersion, &kUncalledSuites[1]},
    {kPrSDKPPixSuite, kPrSDKPPixSuiteVersion, &kPPixSuite},
    {kPrSDKPPix2Suite, kPrSDKPPix2SuiteVersion, &kPPix2Suite},
    {kPrSDKTransitionSuite, kPrSDKTransitionSuiteVersion, &kUncalledSuites[2]},
    {kPrSDKVideoSegmentSuite, kPrSDKVideoSegmentSuiteVersion, &kVideoSegmentSuite},
};

SPErr AcquireSuite(const char* name, int32_t version, const void** suite) {
  Impl* h = CurrentHost();
  SPErr err = 1;  // no such suite
  if (suite) *suite = nullptr;
  for (const SuiteRow& row : kSuites)
    if (suite && name && std::strcmp(row.name, name) == 0 && row.version == version && h && !h->SuiteMissing(name)) {
      *suite = row.table;
      err = kSPNoError;
    }
  if (h) h->Record("SPBasic", "AcquireSuite", Args(name ? name : "", " v", version), err);
  return err;
}

SPErr ReleaseSuite(const char*, int32_t) { return kSPNoError; }

SPBasicSuite kBasicSuite = {AcquireSuite, ReleaseSuite};
SPBasicSuite* GetBasicSuite() { return &kBasicSuite; }
PlugUtilFuncs kUtilFuncs = {GetBasicSuite};
piSuites kPiSuites = {1, &kUtilFuncs};

}  // namespace

piSuitesPtr PiSuites() { return &kPiSuites; }

// ---- Current host ----

Impl* CurrentHost() {
  if (tCurrent) return tCurrent;
  std::lock_guard<std::mutex> lock(gHostsMutex);
  return gHosts.empty() ? nullptr : gHosts.back();
}
void RegisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.push_back(host);
}
void UnregisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.erase(std::remove(gHosts.begin(), gHosts.end(), host), gHosts.end());
}
uint64_t CurrentRender() { return tRender; }
CurrentScope::CurrentScope(Impl* host, uint64_t render) : saved_(tCurrent), savedRender_(tRender) {
  tCurrent = host;
  tRender = render;
}
CurrentScope::~CurrentScope() {
  tCurrent = saved_;
  tRender = savedRender_;
}

// ---- Call log and injection ----

void Impl::Record(const char* suite, const char* op, const std::string& args, prSuiteError result) {
  std::lock_guard<std::mutex> lock(logMutex);
  log.push_back(
      CallRecord{suite[0] ? CallRecord::Kind::Suite : CallRecord::Kind::EffectCall, suite, op, args, result, 0});
  // Bounded as the After Effects side's records are.
  const size_t limit = options.effect.recordLimit;
  if (limit && log.size() > 2 * limit) log.erase(log.begin(), log.end() - static_cast<std::ptrdiff_t>(limit));
}

Trigger Impl::Check(const char* op) { return injections.Check(op); }

bool Impl::SuiteMissing(const std::string& name) { return injections.SuiteMissing(name); }

std::vector<CallRecord> PrHost::CallLog() const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  return impl_->log;
}

void PrHost::ClearCallLog() {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  impl_->log.clear();
}

void PrHost::RemoveSuite(const std::string& name) { impl_->injections.RemoveSuite(name); }

void PrHost::FailOperation(const std::string& op, prSuiteError code, int nth) { impl_->injections.Fail(op, code, nth); }

void PrHost::NullOperation(const std::string& op, int nth) { impl_->injections.Null(op, nth); }

void PrHost::ClearInjections() { impl_->injections.Clear(); }

}  // namespace prhost
