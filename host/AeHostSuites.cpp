// The suites the stand-in After Effects host hands out through the basic suite,
// over real memory, each recorded in the call log and each able to fail on
// demand. Nothing thrown here may reach the module: every entry catches and
// answers with a host error code.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>

#include "AeHostInternal.h"

namespace aehost {

namespace {

// Handles outlive the command that made them and may come back on any thread,
// so their registry is process-wide; each block knows its host.
std::mutex gHandlesMutex;
std::unordered_set<HandleBlock*> gHandles;

HandleBlock* FindHandle(PF_Handle handle) {
  auto* block = reinterpret_cast<HandleBlock*>(handle);
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  return gHandles.count(block) ? block : nullptr;
}

// ---- PF Handle Suite, version 2 ----

PF_Handle HostNewHandle(A_u_longlong size) {
  const Trigger t = CheckHere("host_new_handle");
  if (t.fired) {
    RecordHere(kSuite, kPFHandleSuite, "host_new_handle", Args("size=", size, " handle=null"), t.code);
    return nullptr;
  }
  auto* block = new HandleBlock;
  block->ptr = std::calloc(size ? size : 1, 1);
  block->size = size;
  block->owner = CurrentHost();
  {
    std::lock_guard<std::mutex> lock(gHandlesMutex);
    gHandles.insert(block);
  }
  const PF_Handle handle = &block->ptr;
  RecordHere(kSuite, kPFHandleSuite, "host_new_handle", Args("size=", size, " handle=", Ptr(handle)), 0);
  return handle;
}

void* HostLockHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  const Trigger t = CheckHere("host_lock_handle");
  if (!block || t.fired) {
    RecordHere(kSuite, kPFHandleSuite, "host_lock_handle", Args("handle=", Ptr(handle), " ptr=null"),
               block ? t.code : PF_Err_BAD_CALLBACK_PARAM);
    return nullptr;
  }
  ++block->locks;
  RecordHere(kSuite, kPFHandleSuite, "host_lock_handle", Args("handle=", Ptr(handle), " ptr=", Ptr(block->ptr)), 0);
  return block->ptr;
}

void HostUnlockHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  if (block && block->locks > 0) --block->locks;
  RecordHere(kSuite, kPFHandleSuite, "host_unlock_handle", Args("handle=", Ptr(handle)),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
}

void HostDisposeHandle(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  if (block) {
    {
      std::lock_guard<std::mutex> lock(gHandlesMutex);
      gHandles.erase(block);
    }
    std::free(block->ptr);
    delete block;
  }
  RecordHere(kSuite, kPFHandleSuite, "host_dispose_handle", Args("handle=", Ptr(handle)),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
}

A_u_longlong HostGetHandleSize(PF_Handle handle) {
  HandleBlock* block = FindHandle(handle);
  const A_u_longlong size = block ? block->size : 0;
  RecordHere(kSuite, kPFHandleSuite, "host_get_handle_size", Args("handle=", Ptr(handle), " size=", size),
             block ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  return size;
}

const PF_HandleSuite2 kHandleSuite = {HostNewHandle, HostLockHandle, HostUnlockHandle, HostDisposeHandle,
                                      HostGetHandleSize};

// ---- Pixel formats of worlds: PF World Suite 2 and PF Pixel Format Suite 1 ----

PF_Err WorldFormat(const char* suite, const char* op, const PF_EffectWorld* world, PF_PixelFormat* format) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere(op);
  PF_Err err = t.code;
  if (!t.fired) {
    const WorldRecord* rec = h ? h->FindWorld(world) : nullptr;
    if (!rec || !format)
      err = PF_Err_BAD_CALLBACK_PARAM;
    else
      *format = rec->format;
  }
  RecordHere(kSuite, suite, op,
             Args("world=", Ptr(world), " format=", err || !format ? std::string("?") : FormatName(*format)), err);
  return err;
}

PF_Err WorldGetPixelFormat(const PF_EffectWorld* world, PF_PixelFormat* format) {
  return WorldFormat(kPFWorldSuite, "PF_GetPixelFormat", world, format);
}

const PF_WorldSuite2 kWorldSuite = {WorldGetPixelFormat};

PF_Err ClearSupportedPixelFormats(PF_ProgPtr) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere("ClearSupportedPixelFormats");
  if (h && !t.fired) {
    std::lock_guard<std::mutex> lock(h->paramsMutex);
    h->formats.clear();
  }
  RecordHere(kSuite, kPFPixelFormatSuite, "ClearSupportedPixelFormats", "", t.code);
  return t.code;
}

PF_Err AddSupportedPixelFormat(PF_ProgPtr, PF_PixelFormat format) {
  Impl* h = CurrentHost();
  const Trigger t = CheckHere("AddSupportedPixelFormat");
  if (h && !t.fired) {
    std::lock_guard<std::mutex> lock(h->paramsMutex);
    h->formats.push_back(format);
  }
  RecordHere(kSuite, kPFPixelFormatSuite, "AddSupportedPixelFormat", Args("format=", FormatName(format)), t.code);
  return t.code;
}

PF_Err PixelFormatGetPixelFormat(const PF_EffectWorld* world, PF_PixelFormat* format) {
  return WorldFormat(kPFPixelFormatSuite, "GetPixelFormat", world, format);
}

const PF_PixelFormatSuite1 kPixelFormatSuite = {ClearSupportedPixelFormats, AddSupportedPixelFormat,
                                                PixelFormatGetPixelFormat};

// ---- sprintf and strcpy: as the C library's, recorded ----

A_long FormatInto(const char* op, const char* suite, char* buffer, const char* format, va_list ap) {
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, format, ap);
  std::string text(n > 0 ? n : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  RecordHere(suite ? kSuite : kCallback, suite ? suite : "", op, Args("text=", text), 0);
  return n;
}

A_long SuiteSprintf(char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const A_long n = FormatInto("sprintf", kPFANSISuite, buffer, format, ap);
  va_end(ap);
  return n;
}

A_long UtilSprintf(char* buffer, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const A_long n = FormatInto("ansi.sprintf", nullptr, buffer, format, ap);
  va_end(ap);
  return n;
}

char* UtilStrcpy(char* dest, const char* src) {
  std::strcpy(dest, src);
  RecordHere(kCallback, "", "ansi.strcpy", Args("text=", src), 0);
  return dest;
}

const PF_ANSICallbacksSuite1 kANSISuite = {SuiteSprintf};

// ---- The basic suite ----

const void* SuiteTable(const std::string& name, int32_t version) {
  if (name == kPFHandleSuite && version == kPFHandleSuiteVersion2) return &kHandleSuite;
  if (name == kPFWorldSuite && version == kPFWorldSuiteVersion2) return &kWorldSuite;
  if (name == kPFGPUDeviceSuite && version == kPFGPUDeviceSuiteVersion1) return &kGPUDeviceSuite;
  if (name == kPFPixelFormatSuite && version == kPFPixelFormatSuiteVersion1) return &kPixelFormatSuite;
  if (name == kPFANSISuite && version == kPFANSISuiteVersion1) return &kANSISuite;
  if (name == kPFEffectCustomUISuite && version == kPFEffectCustomUISuiteVersion1) return &kCustomUISuite;
  if (name == kDRAWBOT_DrawSuite && version == kDRAWBOT_DrawSuite_Version1) return &kDrawbotDrawSuite;
  if (name == kDRAWBOT_SupplierSuite && version == kDRAWBOT_SupplierSuite_Version1) return &kDrawbotSupplierSuite;
  if (name == kDRAWBOT_SurfaceSuite && version == kDRAWBOT_SurfaceSuite_Version2) return &kDrawbotSurfaceSuite;
  if (name == kDRAWBOT_PathSuite && version == kDRAWBOT_PathSuite_Version1) return &kDrawbotPathSuite;
  return nullptr;
}

constexpr SPErr kSuiteNotFound = 0x53214e46;  // the basic suite's "not found"

SPErr AcquireSuite(const char* name, int32_t version, const void** suite) {
  Impl* h = CurrentHost();
  const std::string n = name ? name : "";
  const Trigger t = CheckHere("AcquireSuite");
  SPErr err = t.fired ? t.code : kSPNoError;
  const void* table = nullptr;
  if (!t.fired) {
    table = SuiteTable(n, version);
    if (!table || (h && h->SuiteMissing(n))) {
      table = nullptr;
      err = kSuiteNotFound;
    }
  }
  if (suite) *suite = table;
  RecordHere(kSuite, "SPBasic", "AcquireSuite", Args("name=", n, " version=", version), err);
  return err;
}

SPErr ReleaseSuite(const char* name, int32_t version) {
  RecordHere(kSuite, "SPBasic", "ReleaseSuite", Args("name=", name ? name : "", " version=", version), 0);
  return kSPNoError;
}

}  // namespace

const SPBasicSuite kBasicSuite = {AcquireSuite, ReleaseSuite};
PF_UtilCallbacks kUtilCallbacks = {{UtilSprintf, UtilStrcpy}};

size_t Impl::LiveHandles() const {
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  return static_cast<size_t>(
      std::count_if(gHandles.begin(), gHandles.end(), [this](const HandleBlock* b) { return b->owner == this; }));
}

void Impl::FreeAllHandles() {
  std::lock_guard<std::mutex> lock(gHandlesMutex);
  for (auto it = gHandles.begin(); it != gHandles.end();) {
    if ((*it)->owner == this) {
      std::free((*it)->ptr);
      delete *it;
      it = gHandles.erase(it);
    } else {
      ++it;
    }
  }
}

size_t AeHost::LiveHandleCount() const { return impl_->LiveHandles(); }

}  // namespace aehost
