// The stand-in host's call log, command records, failure injection, and the
// registry that tells suites without effect_ref which host they serve.
#include <algorithm>

#include "AeHostInternal.h"

namespace aehost {

namespace {

thread_local CommandContext* tContext = nullptr;
std::mutex gHostsMutex;
std::vector<Impl*> gHosts;

constexpr const char* kCommandNames[] = {"PF_Cmd_ABOUT",
                                         "PF_Cmd_GLOBAL_SETUP",
                                         "PF_Cmd_UNUSED_0",
                                         "PF_Cmd_GLOBAL_SETDOWN",
                                         "PF_Cmd_PARAMS_SETUP",
                                         "PF_Cmd_SEQUENCE_SETUP",
                                         "PF_Cmd_SEQUENCE_RESETUP",
                                         "PF_Cmd_SEQUENCE_FLATTEN",
                                         "PF_Cmd_SEQUENCE_SETDOWN",
                                         "PF_Cmd_DO_DIALOG",
                                         "PF_Cmd_FRAME_SETUP",
                                         "PF_Cmd_RENDER",
                                         "PF_Cmd_FRAME_SETDOWN",
                                         "PF_Cmd_USER_CHANGED_PARAM",
                                         "PF_Cmd_UPDATE_PARAMS_UI",
                                         "PF_Cmd_EVENT",
                                         "PF_Cmd_GET_EXTERNAL_DEPENDENCIES",
                                         "PF_Cmd_COMPLETELY_GENERAL",
                                         "PF_Cmd_QUERY_DYNAMIC_FLAGS",
                                         "PF_Cmd_AUDIO_RENDER",
                                         "PF_Cmd_AUDIO_SETUP",
                                         "PF_Cmd_AUDIO_SETDOWN",
                                         "PF_Cmd_ARBITRARY_CALLBACK",
                                         "PF_Cmd_SMART_PRE_RENDER",
                                         "PF_Cmd_SMART_RENDER",
                                         "PF_Cmd_RESERVED1",
                                         "PF_Cmd_RESERVED2",
                                         "PF_Cmd_RESERVED3",
                                         "PF_Cmd_GET_FLATTENED_SEQUENCE_DATA",
                                         "PF_Cmd_TRANSLATE_PARAMS_TO_PREFS",
                                         "PF_Cmd_RESERVED4",
                                         "PF_Cmd_SMART_RENDER_GPU",
                                         "PF_Cmd_GPU_DEVICE_SETUP",
                                         "PF_Cmd_GPU_DEVICE_SETDOWN"};
static_assert(sizeof kCommandNames / sizeof *kCommandNames == PF_Cmd_NUM_CMDS, "one name per command");

uint64_t ThreadRenderId() { return RenderIdOf(tContext); }

}  // namespace

const char* CommandName(PF_Cmd cmd) {
  return cmd >= 0 && cmd < PF_Cmd_NUM_CMDS ? kCommandNames[cmd] : "PF_Cmd_UNKNOWN";
}

std::string FormatName(PF_PixelFormat format) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>((format >> (8 * i)) & 0xFF);
    if (c < 0x20 || c > 0x7E) return Args("0x", std::hex, format);
    s += c;
  }
  return s;
}

uint64_t RenderIdOf(const CommandContext* c) { return c && c->job ? c->job->id : 0; }

CommandContext* FromRef(PF_ProgPtr ref) {
  auto* c = static_cast<CommandContext*>(ref);
  return c && c->magic == CommandContext::kMagic ? c : nullptr;
}

std::string Ptr(const void* p) {
  if (!p) return "null";
  std::ostringstream s;
  s << p;
  return s.str();
}

void RecordHere(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result) {
  if (Impl* h = CurrentHost()) h->Record(kind, suite, op, args, result, ThreadRenderId());
}

Trigger CheckHere(const char* op) {
  Impl* h = CurrentHost();
  return h ? h->Check(op) : Trigger{};
}

// ---- Which host is current ----

Impl* CurrentHost() {
  if (tContext) return tContext->host;
  std::lock_guard<std::mutex> lock(gHostsMutex);
  return gHosts.empty() ? nullptr : gHosts.back();
}

CommandContext* CurrentContext() { return tContext; }
void SetCurrentContext(CommandContext* context) { tContext = context; }

void RegisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.push_back(host);
}

void UnregisterHost(Impl* host) {
  std::lock_guard<std::mutex> lock(gHostsMutex);
  gHosts.erase(std::remove(gHosts.begin(), gHosts.end(), host), gHosts.end());
}

// ---- Impl: log, injection, handles ----

// Past twice the limit the oldest records go, down to the limit: a bounded
// log at a constant cost per record.
void Impl::TrimRecords() {
  const size_t limit = options.recordLimit;
  if (limit == 0) return;
  if (log.size() > 2 * limit) {
    const size_t gone = log.size() - limit;
    log.erase(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(gone));
    logDropped += gone;
  }
  if (commands.size() > 2 * limit) commands.erase(commands.begin(), commands.end() - static_cast<std::ptrdiff_t>(limit));
}

void Impl::Record(CallRecord::Kind kind, const char* suite, const char* op, const std::string& args, PF_Err result,
                  uint64_t renderId) {
  std::lock_guard<std::mutex> lock(logMutex);
  log.push_back(CallRecord{kind, suite, op, args, result, renderId});
  TrimRecords();
}

size_t Impl::BeginCommand(PF_Cmd cmd, const std::string& args, uint64_t renderId) {
  std::lock_guard<std::mutex> lock(logMutex);
  log.push_back(CallRecord{CallRecord::Kind::Command, "", CommandName(cmd), args, 0, renderId});
  const size_t at = logDropped + log.size() - 1;
  TrimRecords();
  return at;
}

void Impl::EndCommand(size_t at, PF_Err result) {
  std::lock_guard<std::mutex> lock(logMutex);
  // The log may have been cleared or trimmed meanwhile.
  if (at >= logDropped && at - logDropped < log.size()) log[at - logDropped].result = result;
}

Trigger Impl::Check(const char* op) { return injections.Check(op); }

bool Impl::SuiteMissing(const std::string& name) { return injections.SuiteMissing(name); }

std::vector<CallRecord> AeHost::CallLog() const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  return impl_->log;
}

void AeHost::ClearCallLog() {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  impl_->logDropped += impl_->log.size();
  impl_->log.clear();
}

std::vector<CommandRecord> AeHost::Commands() const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  return impl_->commands;
}

std::optional<CommandRecord> AeHost::LastCommand(PF_Cmd cmd) const {
  std::lock_guard<std::mutex> lock(impl_->logMutex);
  for (auto it = impl_->commands.rbegin(); it != impl_->commands.rend(); ++it)
    if (it->cmd == cmd) return *it;
  return std::nullopt;
}

void AeHost::RemoveSuite(const std::string& name) { impl_->injections.RemoveSuite(name); }

void AeHost::FailOperation(const std::string& op, PF_Err code, int nth) { impl_->injections.Fail(op, code, nth); }

void AeHost::NullOperation(const std::string& op, int nth) { impl_->injections.Null(op, nth); }

void AeHost::NullCheckout(A_long checkoutIdx) {
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->nullCheckouts.insert(checkoutIdx);
}

void AeHost::ClearInjections() {
  impl_->injections.Clear();
  std::lock_guard<std::mutex> lock(impl_->injectMutex);
  impl_->nullCheckouts.clear();
}

}  // namespace aehost
