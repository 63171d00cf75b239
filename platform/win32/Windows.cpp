#include "Windows.h"

#if !defined(_WIN32)

#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

std::mutex gSinkMutex;
DebugOutputSink gSink = nullptr;
void* gSinkUser = nullptr;

}  // namespace

DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
  try {
    std::error_code error;
    std::filesystem::path dir = std::filesystem::temp_directory_path(error);
    if (error || dir.empty()) {
      return 0;
    }
    // Windows gives each user a temporary folder of their own. Where the
    // system's is shared (others may write there, as in /tmp), a folder of the
    // user's own inside it takes that place, so one user's files never stand
    // in another's way.
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0 && (st.st_mode & S_IWOTH)) {
      dir /= "user-" + std::to_string(::getuid());
      if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        return 0;
      }
      if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) {
        return 0;  // someone else's: not a place for this user's files
      }
    }
    std::string text = dir.string();
    if (text.back() != '/') {
      text += '/';
    }
    if (lpBuffer == nullptr || text.size() + 1 > nBufferLength) {
      return 0;
    }
    const std::size_t length = text.copy(lpBuffer, text.size());
    lpBuffer[length] = '\0';
    return static_cast<DWORD>(length);
  } catch (...) {
    // A C-style call: failures are told by the result only.
    return 0;
  }
}

BOOL DeleteFileA(LPCSTR lpFileName) {
  if (lpFileName == nullptr) {
    return 0;
  }
  // unlink, not remove(): DeleteFileA leaves directories alone.
  return ::unlink(lpFileName) == 0 ? 1 : 0;
}

void OutputDebugStringA(LPCSTR lpOutputString) {
  if (lpOutputString == nullptr) {
    return;
  }
  std::lock_guard<std::mutex> lock(gSinkMutex);
  if (gSink != nullptr) {
    gSink(lpOutputString, gSinkUser);
  }
}

void SetDebugOutputSink(DebugOutputSink sink, void* user) {
  std::lock_guard<std::mutex> lock(gSinkMutex);
  gSink = sink;
  gSinkUser = user;
}

#endif

// ==== Version query ===========================================================
#if !defined(_WIN32)

#include <cstdlib>
#include <cstring>

#include <sys/utsname.h>

BOOL GetVersionExA(LPOSVERSIONINFOA lpVersionInformation) {
  if (lpVersionInformation == nullptr) {
    return 0;
  }
  // Read as bytes: the record behind the pointer may be the extended one.
  DWORD size = 0;
  std::memcpy(&size, lpVersionInformation, sizeof(size));
  if (size != sizeof(OSVERSIONINFOA) && size != sizeof(OSVERSIONINFOEXA)) {
    return 0;
  }
  struct utsname name {};
  if (::uname(&name) != 0) {
    return 0;
  }

  // Leading numbers of "6.1.0-18-amd64"; parsing stops at the first non-digit.
  DWORD numbers[3] = {};
  const char* cursor = name.release;
  for (DWORD& number : numbers) {
    char* end = nullptr;
    number = static_cast<DWORD>(std::strtoul(cursor, &end, 10));
    if (end == cursor || *end != '.') {
      break;
    }
    cursor = end + 1;
  }

  OSVERSIONINFOEXA info{};
  info.dwOSVersionInfoSize = size;
  info.dwMajorVersion = numbers[0];
  info.dwMinorVersion = numbers[1];
  info.dwBuildNumber = numbers[2];
  std::memcpy(lpVersionInformation, &info, size);
  return 1;
}

#endif

// ==== Module resources ========================================================
#if !defined(_WIN32)

#include <list>

#include <dlfcn.h>

namespace {

struct ModuleResource {
  const void* module;  // dli_fbase of the object holding the bytes
  int type;
  int name;
  const void* data;
  std::size_t size;
};

// Function statics: modules register from their own static initialisers,
// which may run before this file's globals exist. A list keeps entries in
// place, since HRSRC points at them.
std::list<ModuleResource>& Resources() {
  static std::list<ModuleResource> resources;
  return resources;
}

std::mutex& ResourcesMutex() {
  static std::mutex mutex;
  return mutex;
}

const void* ModuleBaseOf(const void* address) {
  Dl_info info{};
  if (address == nullptr || ::dladdr(address, &info) == 0) {
    return nullptr;
  }
  return info.dli_fbase;
}

}  // namespace

BOOL GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule) {
  if (phModule == nullptr) {
    return 0;
  }
  *phModule = nullptr;
  if ((dwFlags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) == 0) {
    return 0;
  }
  const void* base = ModuleBaseOf(lpModuleName);
  *phModule = static_cast<HMODULE>(const_cast<void*>(base));
  return base != nullptr ? 1 : 0;
}

HRSRC FindResourceA(HMODULE hModule, LPCSTR lpName, LPCSTR lpType) {
  if (hModule == nullptr || !IS_INTRESOURCE(lpName) || !IS_INTRESOURCE(lpType)) {
    return nullptr;
  }
  const int name = static_cast<int>(reinterpret_cast<ULONG_PTR>(lpName));
  const int type = static_cast<int>(reinterpret_cast<ULONG_PTR>(lpType));
  std::lock_guard<std::mutex> lock(ResourcesMutex());
  for (ModuleResource& entry : Resources()) {
    if (entry.module == hModule && entry.type == type && entry.name == name) {
      return reinterpret_cast<HRSRC>(&entry);
    }
  }
  return nullptr;
}

DWORD SizeofResource(HMODULE, HRSRC hResInfo) {
  return hResInfo == nullptr ? 0 : static_cast<DWORD>(reinterpret_cast<const ModuleResource*>(hResInfo)->size);
}

HGLOBAL LoadResource(HMODULE, HRSRC hResInfo) {
  return hResInfo == nullptr ? nullptr : const_cast<void*>(reinterpret_cast<const ModuleResource*>(hResInfo)->data);
}

LPVOID LockResource(HGLOBAL hResData) { return hResData; }

void RegisterModuleResource(int type, int name, const void* data, std::size_t size) {
  RegisterModuleResource(data, type, name, data, size);
}

void RegisterModuleResource(const void* inModule, int type, int name, const void* data, std::size_t size) {
  const void* module = ModuleBaseOf(inModule);
  std::lock_guard<std::mutex> lock(ResourcesMutex());
  for (ModuleResource& entry : Resources()) {
    if (entry.module == module && entry.type == type && entry.name == name) {
      entry.data = data;
      entry.size = size;
      return;
    }
  }
  Resources().push_back(ModuleResource{module, type, name, data, size});
}

void RemoveModuleResource(const void* inModule, int type, int name) {
  const void* module = ModuleBaseOf(inModule);
  std::lock_guard<std::mutex> lock(ResourcesMutex());
  Resources().remove_if(
      [&](const ModuleResource& e) { return e.module == module && e.type == type && e.name == name; });
}

#endif
