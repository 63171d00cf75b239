# What the cross build takes from the machine it runs on: the native build's
# generator tools (TD_NATIVE_BUILD), the Khronos OpenCL headers, and an import
# library for the OpenCL loader, made from the exports of Wine's opencl.dll.
# Nothing of a Windows SDK beyond mingw-w64 is used.
if(NOT TD_NATIVE_BUILD OR NOT EXISTS ${TD_NATIVE_BUILD}/embed_kernel_text)
  message(FATAL_ERROR "The Windows build takes its generator tools from a native build: "
                      "pass -DTD_NATIVE_BUILD=<native build folder> (configure it through the native build).")
endif()

find_program(TD_GENDEF gendef REQUIRED)
find_program(TD_DLLTOOL ${TD_MINGW_PREFIX}-dlltool REQUIRED)
set(TD_WINE_OPENCL_DLL /usr/lib/x86_64-linux-gnu/wine/x86_64-windows/opencl.dll
    CACHE FILEPATH "An opencl.dll whose exports the import library lists")
if(NOT EXISTS ${TD_WINE_OPENCL_DLL})
  message(FATAL_ERROR "No OpenCL loader DLL at ${TD_WINE_OPENCL_DLL} (Debian's wine64 has one)")
endif()

set(_td_cl ${CMAKE_BINARY_DIR}/opencl)
file(MAKE_DIRECTORY ${_td_cl}/include)
# Only the CL folder: the rest of /usr/include is the native C library's.
file(CREATE_LINK /usr/include/CL ${_td_cl}/include/CL SYMBOLIC)
add_custom_command(
  OUTPUT ${_td_cl}/libOpenCL.dll.a
  COMMAND ${TD_GENDEF} ${TD_WINE_OPENCL_DLL}
  COMMAND ${TD_DLLTOOL} -d opencl.def -l libOpenCL.dll.a -D OpenCL.dll
  WORKING_DIRECTORY ${_td_cl}
  DEPENDS ${TD_WINE_OPENCL_DLL}
  COMMENT "Import library for OpenCL.dll"
  VERBATIM)
add_custom_target(td_opencl_import DEPENDS ${_td_cl}/libOpenCL.dll.a)
add_library(td_opencl INTERFACE)
target_include_directories(td_opencl INTERFACE ${_td_cl}/include)
target_link_libraries(td_opencl INTERFACE ${_td_cl}/libOpenCL.dll.a)
add_dependencies(td_opencl td_opencl_import)
add_library(OpenCL::OpenCL ALIAS td_opencl)

# Everything from libgcc, libstdc++ and winpthreads goes into each binary, so
# it imports system DLLs (and OpenCL.dll) only.
add_link_options(-static -static-libgcc -static-libstdc++)
