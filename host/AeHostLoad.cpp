// Loading the module: the property list beside it, its exports, the plug-in
// data entry, and unloading.
#include <cstring>

#include "AeHostInternal.h"
#include "ModuleLoad.h"

namespace aehost {

namespace {

uint32_t ReadU32(const std::vector<uint8_t>& b, size_t at) {
  return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 | static_cast<uint32_t>(b[at + 2]) << 16 |
         static_cast<uint32_t>(b[at + 3]) << 24;
}

// Codes stand with their bytes reversed in the list.
std::string ReadCode(const std::vector<uint8_t>& b, size_t at) {
  return std::string{static_cast<char>(b[at + 3]), static_cast<char>(b[at + 2]), static_cast<char>(b[at + 1]),
                     static_cast<char>(b[at])};
}

}  // namespace

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

  h.dl = LoadModule(modulePath);
  struct Unload {
    void* dl;
    bool armed = true;
    ~Unload() {
      if (armed) UnloadModule(dl);
    }
  } unloadOnThrow{h.dl};

  // The property list names the entry point, as the host finds it.
  h.pipl = ReadPropertyList(h.dl, modulePath);
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
    void* s = ModuleSymbol(h.dl, name.c_str());
    if (!s) throw HostError("module " + modulePath + " has no export " + name);
    return s;
  };
  h.effectMain = reinterpret_cast<PF_EffectMainFunc>(resolve(entry));
  if (h.options.effectMain) h.effectMain = h.options.effectMain;
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
    h.softCache.clear();
  }
  h.ReleaseDevice();
  h.FreeAllHandles();
  UnregisterHost(&h);
  if (h.options.unloadOnDestroy && h.dl) UnloadModule(h.dl);
}

const std::string& AeHost::ModulePath() const { return impl_->path; }
const std::vector<uint8_t>& AeHost::PiPL() const { return impl_->pipl; }
const PluginData& AeHost::PluginDataRecord() const { return impl_->pluginData; }
int32_t AeHost::NvOptimusEnablementCuda() const { return *impl_->nvOptimus; }
HostOptions& AeHost::Options() { return impl_->options; }
const SPBasicSuite* AeHost::BasicSuite() const { return &kBasicSuite; }

PF_Err RecordPluginData(PF_PluginDataPtr inPtr, const A_u_char* name, const A_u_char* matchName,
                        const A_u_char* category, const A_u_char* entryPoint, A_long kind, A_long apiMajor,
                        A_long apiMinor, A_long reserved) {
  auto* data = static_cast<PluginData*>(inPtr);
  if (!data) return PF_Err_BAD_CALLBACK_PARAM;
  auto text = [](const A_u_char* s) { return s ? std::string(reinterpret_cast<const char*>(s)) : std::string(); };
  ++data->calls;
  data->name = text(name);
  data->matchName = text(matchName);
  data->category = text(category);
  data->entryPoint = text(entryPoint);
  data->kind = kind;
  data->apiMajor = apiMajor;
  data->apiMinor = apiMinor;
  data->reserved = reserved;
  return PF_Err_NONE;
}

}  // namespace aehost
