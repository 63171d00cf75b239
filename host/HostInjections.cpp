#include "HostInjections.h"

namespace aehost {

void HostInjections::Fail(const std::string& op, int32_t code, int nth) {
  std::lock_guard<std::mutex> lock(mutex_);
  injections_.push_back(Injection{op, code, nth, false, 0});
}

void HostInjections::Null(const std::string& op, int nth) {
  std::lock_guard<std::mutex> lock(mutex_);
  injections_.push_back(Injection{op, 0, nth, true, 0});
}

void HostInjections::RemoveSuite(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  missingSuites_.insert(name);
}

void HostInjections::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  injections_.clear();
  missingSuites_.clear();
}

Trigger HostInjections::Check(const std::string& op) {
  std::lock_guard<std::mutex> lock(mutex_);
  Trigger t;
  for (auto& i : injections_) {
    if (i.op != op) continue;
    ++i.calls;  // every injection of the operation counts the call
    if (!t.fired && (i.nth == 0 || i.calls == i.nth)) {
      t.fired = true;
      t.null = i.null;
      t.code = i.null ? 0 : i.code;
    }
  }
  return t;
}

bool HostInjections::SuiteMissing(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return missingSuites_.count(name) > 0;
}

}  // namespace aehost
