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
