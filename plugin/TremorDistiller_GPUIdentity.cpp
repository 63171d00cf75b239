// What GPU and OS the effect runs on, for the log and the UI, and the texts of
// OpenCL error codes. Informational only: nothing decides on these strings.
#include <Windows.h>
#include <d3d9.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include "LogsController.h"
#include "TremorDistiller_GPURecords.h"

namespace {

struct OpenCLErrorName {
  int32_t code;
  const char* text;
};

// OpenCL's codes, our words.
constexpr OpenCLErrorName OpenCLErrorNames[] = {
    {0, "Success"},
    {-1, "Device not found"},
    {-2, "Device not available"},
    {-3, "Compiler not available"},
    {-4, "Memory object allocation failure"},
    {-5, "Out of resources"},
    {-6, "Out of host memory"},
    {-7, "Profiling information not available"},
    {-8, "Memory copy overlap"},
    {-9, "Image format mismatch"},
    {-10, "Image format not supported"},
    {-11, "Build program failure"},
    {-12, "Map failure"},
    {-13, "Misaligned sub-buffer offset"},
    {-14, "Execution status error for events in wait list"},
    {-15, "Compile program failure"},
    {-16, "Linker not available"},
    {-17, "Link program failure"},
    {-18, "Device partition failed"},
    {-19, "Kernel argument information not available"},
    {-30, "Invalid value"},
    {-31, "Invalid device type"},
    {-32, "Invalid platform"},
    {-33, "Invalid device"},
    {-34, "Invalid context"},
    {-35, "Invalid queue properties"},
    {-36, "Invalid command queue"},
    {-37, "Invalid host pointer"},
    {-38, "Invalid memory object"},
    {-39, "Invalid image format descriptor"},
    {-40, "Invalid image size"},
    {-41, "Invalid sampler"},
    {-42, "Invalid binary"},
    {-43, "Invalid build options"},
    {-44, "Invalid program"},
    {-45, "Invalid program executable"},
    {-46, "Invalid kernel name"},
    {-47, "Invalid kernel definition"},
    {-48, "Invalid kernel"},
    {-49, "Invalid argument index"},
    {-50, "Invalid argument value"},
    {-51, "Invalid argument size"},
    {-52, "Invalid kernel arguments"},
    {-53, "Invalid work dimension"},
    {-54, "Invalid work group size"},
    {-55, "Invalid work item size"},
    {-56, "Invalid global offset"},
    {-57, "Invalid event wait list"},
    {-58, "Invalid event"},
    {-59, "Invalid operation"},
    {-60, "Invalid OpenGL object"},
    {-61, "Invalid buffer size"},
    {-62, "Invalid mipmap level"},
    {-63, "Invalid global work size"},
    {-64, "Invalid property"},
    {-65, "Invalid image descriptor"},
    {-66, "Invalid compiler options"},
    {-67, "Invalid linker options"},
    {-68, "Invalid device partition count"},
};
static_assert(std::size(OpenCLErrorNames) == 59, "codes 0..-19 and -30..-68");

// D3D_SDK_VERSION without the debug-runtime bit that D3D_DEBUG_INFO adds.
constexpr UINT kDirect3DSdkVersion = 32;

// The runtime promises NUL-terminated fields; reading stops at the field's end
// regardless, so a driver that fills one to the brim can't run us past it.
template <std::size_t N>
std::string FieldText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

void LogPlain(const std::string& label, const std::string& value) { LOG_INFO(label, value); }

}  // namespace

void FillGPUIdentity(GPUStatusText& text) {
  // Always adapter 0, whichever device the host renders on: only a name for
  // the log and the UI hangs on it.
  if (IDirect3D9* d3d = Direct3DCreate9(kDirect3DSdkVersion)) {
    D3DADAPTER_IDENTIFIER9 identifier = {};
    if (SUCCEEDED(d3d->GetAdapterIdentifier(0, 0, &identifier))) {
      LogPlain("GPU DeviceName: ", FieldText(identifier.DeviceName));
      LogPlain("GPU Driver: ", FieldText(identifier.Driver));
      LogPlain("GPU Description: ", FieldText(identifier.Description));
      text.gpuName = ShortGPUName(FieldText(identifier.Description));
    }
    d3d->Release();
  }

  // The extended record, as its 156 in the size field announces.
  OSVERSIONINFOEXA version = {};
  version.dwOSVersionInfoSize = sizeof(version);
  GetVersionExA(reinterpret_cast<LPOSVERSIONINFOA>(&version));
  text.osVersion = std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion);

  // Also when no adapter was read: gpuName then stays empty, and this line
  // comes again with every GPU render until a name is found.
  LOG_INFO("GPU: ", text.gpuName, ", OS: ", text.osVersion);
}

std::string ShortGPUName(const std::string& description) {
  // The greedy lead makes the last family word followed by digits win, so
  // "GeForce RTX 3080" gives RTX and a bare "Quadro K2200" gives nothing.
  const std::regex pattern(R"(.*(GeForce|Quadro|Radeon|RX|GTX|RTX|Navi)\s*([0-9]+)([A-Za-z]*)\s*.*)",
                           std::regex::ECMAScript);
  std::smatch match;
  if (!std::regex_search(description, match, pattern)) {
    return description;
  }
  return match[1].str() + " " + match[2].str() + match[3].str();
}

std::string OpenCLErrorText(int32_t code) {
  const auto row = std::find_if(std::begin(OpenCLErrorNames), std::end(OpenCLErrorNames),
                                [code](const OpenCLErrorName& entry) { return entry.code == code; });
  std::ostringstream stream;
  stream << "Code: 0x" << std::hex << std::uppercase << static_cast<uint32_t>(code) << " ("
         << (row == std::end(OpenCLErrorNames) ? "Unknown error" : row->text) << ")";
  return stream.str();
}
