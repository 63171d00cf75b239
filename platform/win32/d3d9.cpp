#include "d3d9.h"

#if !defined(_WIN32)

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

enum class Steering { System, Missing, Unreadable, Fixed };

struct StandInState {
  Steering steering = Steering::System;
  std::string root = "/proc";
  D3DADAPTER_IDENTIFIER9 fixed{};
};

std::mutex gStateMutex;
StandInState gState;
std::atomic<unsigned> gAlive{0};

template <std::size_t N>
void CopyField(char (&field)[N], const std::string& text) {
  const std::size_t length = text.copy(field, N - 1);
  field[length] = '\0';
}

std::string Trim(const std::string& text) {
  const char* const blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// "Model: \t\t NVIDIA H100 80GB HBM3" -> "NVIDIA H100 80GB HBM3". The value of
// "Bus Location" holds colons itself, so only the first one splits.
std::string InformationValue(const std::filesystem::path& file, const std::string& key) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos && Trim(line.substr(0, colon)) == key) {
      return Trim(line.substr(colon + 1));
    }
  }
  return {};
}

// One GPU folder per adapter, ordered by name (the bus location), so adapter 0
// is the lowest bus address.
std::vector<std::filesystem::path> ListAdapters(const std::string& root) {
  std::vector<std::filesystem::path> adapters;
  std::error_code error;
  for (std::filesystem::directory_iterator it(root + "/driver/nvidia/gpus", error), end; !error && it != end;
       it.increment(error)) {
    if (std::filesystem::exists(it->path() / "information", error)) {
      adapters.push_back(it->path());
    }
  }
  std::sort(adapters.begin(), adapters.end());
  return adapters;
}

class StandInDirect3D9 final : public IDirect3D9 {
 public:
  StandInDirect3D9(StandInState state, std::vector<std::filesystem::path> adapters)
      : state_(std::move(state)), adapters_(std::move(adapters)) {
    ++gAlive;
  }

  HRESULT GetAdapterIdentifier(UINT Adapter, DWORD /*Flags*/, D3DADAPTER_IDENTIFIER9* pIdentifier) override {
    if (pIdentifier == nullptr) {
      return D3DERR_INVALIDCALL;
    }
    switch (state_.steering) {
      case Steering::Unreadable: return D3DERR_NOTAVAILABLE;
      case Steering::Fixed:
        if (Adapter != 0) {
          return D3DERR_INVALIDCALL;
        }
        *pIdentifier = state_.fixed;
        return D3D_OK;
      default: break;
    }
    if (Adapter >= adapters_.size()) {
      return D3DERR_INVALIDCALL;
    }
    try {
      const std::filesystem::path information = adapters_[Adapter] / "information";
      if (!std::filesystem::exists(information)) {
        return D3DERR_NOTAVAILABLE;  // the GPU went away since creation
      }
      std::string driver;
      std::ifstream version(state_.root + "/driver/nvidia/version");
      std::getline(version, driver);

      *pIdentifier = D3DADAPTER_IDENTIFIER9{};
      CopyField(pIdentifier->Driver, Trim(driver));
      CopyField(pIdentifier->Description, InformationValue(information, "Model"));
      CopyField(pIdentifier->DeviceName, InformationValue(information, "Bus Location"));
      return D3D_OK;
    } catch (...) {
      // A COM method: failures are told by the result only.
      return D3DERR_NOTAVAILABLE;
    }
  }

  ULONG Release() override {
    // No AddRef here, so the count is one and the first Release ends it.
    --gAlive;
    delete this;
    return 0;
  }

 private:
  ~StandInDirect3D9() override = default;

  const StandInState state_;
  const std::vector<std::filesystem::path> adapters_;
};

}  // namespace

IDirect3D9* Direct3DCreate9(UINT SDKVersion) {
  if (SDKVersion != D3D_SDK_VERSION) {
    return nullptr;  // as the runtime refuses headers of another SDK
  }
  try {
    StandInState state;
    {
      std::lock_guard<std::mutex> lock(gStateMutex);
      state = gState;
    }
    std::vector<std::filesystem::path> adapters;
    switch (state.steering) {
      case Steering::Missing: return nullptr;
      case Steering::System:
        adapters = ListAdapters(state.root);
        if (adapters.empty()) {
          return nullptr;
        }
        break;
      default: break;
    }
    return new StandInDirect3D9(std::move(state), std::move(adapters));
  } catch (...) {
    return nullptr;
  }
}

void SetAdapterIdentifierOverride(const D3DADAPTER_IDENTIFIER9* id) {
  std::lock_guard<std::mutex> lock(gStateMutex);
  gState = StandInState{};
  if (id != nullptr) {
    gState.steering = Steering::Fixed;
    gState.fixed = *id;
  }
}

void SetAdapterStandIn(AdapterStandIn mode) {
  std::lock_guard<std::mutex> lock(gStateMutex);
  gState = StandInState{};
  switch (mode) {
    case AdapterStandIn::System: gState.steering = Steering::System; break;
    case AdapterStandIn::Missing: gState.steering = Steering::Missing; break;
    case AdapterStandIn::Unreadable: gState.steering = Steering::Unreadable; break;
  }
}

unsigned Direct3D9ObjectsAlive() { return gAlive.load(); }

#endif
