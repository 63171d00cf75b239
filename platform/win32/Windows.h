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
