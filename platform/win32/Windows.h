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
