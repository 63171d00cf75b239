// Loading a module the way the platform's hosts do: dlopen on Linux,
// LoadLibrary on Windows.
#ifndef TD_HOST_MODULELOAD_H
#define TD_HOST_MODULELOAD_H

#include <cstdint>
#include <string>
#include <vector>

namespace aehost {

// Throws HostError naming the module and the loader's reason.
void* LoadModule(const std::string& path);
void* ModuleSymbol(void* module, const char* name);  // null when not exported
void UnloadModule(void* module);

// The effect's property list as the platform's host finds it: resource
// "PIPL" 16000 of the module on Windows, the file beside the module (same
// stem, ".pipl") elsewhere. Throws HostError when there is none.
std::vector<uint8_t> ReadPropertyList(void* module, const std::string& path);

}  // namespace aehost

#endif
