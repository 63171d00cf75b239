#include "Windows.h"

#if !defined(_WIN32)

#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

#include <unistd.h>

namespace {

std::mutex gSinkMutex;
DebugOutputSink gSink = nullptr;
void* gSinkUser = nullptr;

}  // namespace

DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer)
{
    try {
        std::error_code error;
        const std::filesystem::path dir = std::filesystem::temp_directory_path(error);
        if (error || dir.empty()) {
            return 0;
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

BOOL DeleteFileA(LPCSTR lpFileName)
{
    if (lpFileName == nullptr) {
        return 0;
    }
    // unlink, not remove(): DeleteFileA leaves directories alone.
    return ::unlink(lpFileName) == 0 ? 1 : 0;
}

void OutputDebugStringA(LPCSTR lpOutputString)
{
    if (lpOutputString == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(gSinkMutex);
    if (gSink != nullptr) {
        gSink(lpOutputString, gSinkUser);
    }
}

void SetDebugOutputSink(DebugOutputSink sink, void* user)
{
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

BOOL GetVersionExA(LPOSVERSIONINFOA lpVersionInformation)
{
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
