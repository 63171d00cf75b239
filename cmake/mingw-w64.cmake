# Cross build of the Windows module with Debian's mingw-w64. The -posix
# compilers give std::thread and std::mutex through winpthreads, which the
# module links statically so that it imports system DLLs only.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TD_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TD_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TD_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${TD_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${TD_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
