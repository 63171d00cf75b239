// Failures the stand-in hosts make on demand, for tests: an operation, by
// name, fails with a code or answers null, on every call or on its nth; a
// suite can be made missing. Each host holds one; calls may come from any
// thread.
#ifndef TREMOR_HOST_HOSTINJECTIONS_H
#define TREMOR_HOST_HOSTINJECTIONS_H

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace aehost {

// What one call of an operation is to do: fired, it fails with `code`, or
// with `null` it answers null and succeeds (code 0).
struct Trigger {
  bool fired = false;
  bool null = false;
  int32_t code = 0;
};

class HostInjections {
 public:
  void Fail(const std::string& op, int32_t code, int nth);  // nth 0: every call
  void Null(const std::string& op, int nth);
  void RemoveSuite(const std::string& name);
  void Clear();
  // Counts a call of `op` and says what it is to do.
  Trigger Check(const std::string& op);
  bool SuiteMissing(const std::string& name) const;

 private:
  struct Injection {
    std::string op;
    int32_t code = 0;
    int nth = 0;
    bool null = false;
    int calls = 0;
  };
  mutable std::mutex mutex_;
  std::vector<Injection> injections_;
  std::set<std::string> missingSuites_;
};

}  // namespace aehost

#endif
