// Linux counterparts of the few Windows calls the effect makes, under Windows'
// own names, so the effect's sources include <Windows.h> on every platform.
#pragma once

#if defined(_WIN32)
// A Windows build that still has this folder on its include path gets the
// real header (the SDK spells it in lower case).
#include <windows.h>
#else

#include <cstdint>

using DWORD = std::uint32_t;
using BOOL = int;
using LPSTR = char*;
using LPCSTR = const char*;

// Writes the temporary directory (TMPDIR or the system default), ending in '/',
// NUL-terminated. Returns the length written without the NUL; 0 when there is
// no usable temporary directory or it does not fit into nBufferLength bytes.
DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer);

// Non-zero when the file was removed.
BOOL DeleteFileA(LPCSTR lpFileName);

// Hands the text to the debugger channel: the installed sink, or nowhere.
void OutputDebugStringA(LPCSTR lpOutputString);

// --- Stand-in only: Windows has no such call. ---------------------------------
// Linux has no debugger channel, so OutputDebugStringA feeds a process-wide
// sink instead. With none installed (the default) the text is dropped, which
// keeps the console quiet. Calls into the sink are serialised, so it may be
// hit from several threads; it must not call OutputDebugStringA itself.
using DebugOutputSink = void (*)(const char* text, void* user);
void SetDebugOutputSink(DebugOutputSink sink, void* user);  // null: silence

#endif

// ==== Version query and the types of the Direct3D 9 stand-in ==================
// Added for identifying the GPU and OS; everything above is untouched.
#if !defined(_WIN32)

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using UINT = unsigned int;
using LONG = std::int32_t;  // Windows' long is 32 bits wide
using ULONG = std::uint32_t;
using HRESULT = LONG;

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

struct OSVERSIONINFOA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  char szCSDVersion[128];
};
using LPOSVERSIONINFOA = OSVERSIONINFOA*;

// The extended record is what a size field of 156 announces, so callers that
// say 156 pass this one, cast to LPOSVERSIONINFOA, exactly as on Windows.
struct OSVERSIONINFOEXA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  char szCSDVersion[128];
  WORD wServicePackMajor;
  WORD wServicePackMinor;
  WORD wSuiteMask;
  BYTE wProductType;
  BYTE wReserved;
};
static_assert(sizeof(OSVERSIONINFOA) == 148, "layout of the Windows record");
static_assert(sizeof(OSVERSIONINFOEXA) == 156, "layout of the Windows record");

// The kernel's release stands in for the Windows version: "6.1.0-18-amd64"
// gives major 6, minor 1, build 0. Platform, service pack and suite fields are
// zero. As on Windows, dwOSVersionInfoSize must be the size of one of the two
// records, else nothing is written and the result is 0.
BOOL GetVersionExA(LPOSVERSIONINFOA lpVersionInformation);

#endif

// ==== Module resources =========================================================
// Added for the about picture; everything above is untouched. Linux modules have
// no resource section, so resources live in a process-wide registry that a
// module fills from a static initialiser with bytes compiled into it.
#if !defined(_WIN32)

#include <cstddef>

struct HMODULE__;
struct HRSRC__;
using HMODULE = HMODULE__*;  // base address of the loaded object
using HRSRC = HRSRC__*;
using HGLOBAL = void*;
using LPVOID = void*;
using ULONG_PTR = std::uintptr_t;

#define MAKEINTRESOURCEA(i) (reinterpret_cast<LPSTR>(static_cast<ULONG_PTR>(static_cast<WORD>(i))))
#define IS_INTRESOURCE(r) ((reinterpret_cast<ULONG_PTR>(r) >> 16) == 0)

#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x00000001
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x00000002
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x00000004

// Only the FROM_ADDRESS form: lpModuleName is an address inside the wanted
// module. Modules are never unloaded through these handles, so there is no
// reference count and UNCHANGED_REFCOUNT changes nothing. 0 on failure, with
// *phModule null.
BOOL GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule);

// Numeric names and types only (MAKEINTRESOURCEA); a string name finds
// nothing, as does a null module. Null when the module holds no such resource.
HRSRC FindResourceA(HMODULE hModule, LPCSTR lpName, LPCSTR lpType);
DWORD SizeofResource(HMODULE hModule, HRSRC hResInfo);  // 0 for a null resource
HGLOBAL LoadResource(HMODULE hModule, HRSRC hResInfo);  // null for a null resource
LPVOID LockResource(HGLOBAL hResData);                  // the resource's first byte

// --- Stand-in only: Windows has no such calls. ---------------------------------
// Adds a resource to the module that holds `data` (the bytes must stay valid
// for the life of the process, as compiled-in arrays do). A second registration
// of the same module, type and name replaces the first.
void RegisterModuleResource(int type, int name, const void* data, std::size_t size);
// The same for the module holding `inModule`, wherever `data` lies; null data
// is a resource FindResourceA finds but LoadResource gives nothing of.
void RegisterModuleResource(const void* inModule, int type, int name, const void* data, std::size_t size);
// Afterwards FindResourceA finds no such resource in the module holding `inModule`.
void RemoveModuleResource(const void* inModule, int type, int name);

#endif
