#include "ModuleLoad.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <filesystem>
#include <fstream>
#include <iterator>

#include "AeHost.h"

namespace aehost {

#if defined(_WIN32)

namespace {

std::string LastErrorText() {
  const DWORD code = GetLastError();
  char* text = nullptr;
  FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                 code, 0, reinterpret_cast<LPSTR>(&text), 0, nullptr);
  std::string out = text ? text : "error " + std::to_string(code);
  LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

}  // namespace

void* LoadModule(const std::string& path) {
  HMODULE module = LoadLibraryA(path.c_str());
  if (!module) throw HostError("cannot load module " + path + ": " + LastErrorText());
  return reinterpret_cast<void*>(module);
}

void* ModuleSymbol(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void UnloadModule(void* module) { FreeLibrary(static_cast<HMODULE>(module)); }

std::vector<uint8_t> ReadPropertyList(void* module, const std::string& path) {
  const HMODULE m = static_cast<HMODULE>(module);
  const HRSRC found = FindResourceA(m, MAKEINTRESOURCEA(16000), "PIPL");
  const HGLOBAL loaded = found ? LoadResource(m, found) : nullptr;
  const auto* bytes = static_cast<const uint8_t*>(loaded ? LockResource(loaded) : nullptr);
  if (!bytes) throw HostError("no property list (resource PIPL 16000) in " + path);
  return std::vector<uint8_t>(bytes, bytes + SizeofResource(m, found));
}

#else

void* LoadModule(const std::string& path) {
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    const char* why = dlerror();
    throw HostError("cannot load module " + path + ": " + (why ? why : "unknown error"));
  }
  return module;
}

void* ModuleSymbol(void* module, const char* name) { return dlsym(module, name); }

void UnloadModule(void* module) { dlclose(module); }

std::vector<uint8_t> ReadPropertyList(void*, const std::string& path) {
  const std::filesystem::path piplPath = std::filesystem::path(path).replace_extension(".pipl");
  std::ifstream in(piplPath, std::ios::binary);
  if (!in) throw HostError("no property list beside the module: " + piplPath.string());
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

#endif

}  // namespace aehost
