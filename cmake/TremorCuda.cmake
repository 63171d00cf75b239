# CUDA is optional. The module links no CUDA library: it carries its kernels as
# one image and launches them through the driver API, loaded at run time
# (plugin/TremorDistiller_CudaDriver.cpp). The image holds
#   - sm_61 PTX from clang's device-only compile without the toolkit
#     (-nocudainc -nocudalib), which the driver compiles for the card it finds;
#   - with a toolkit and TD_CUDA_SASS, SASS from nvcc for the oldest
#     architecture it lists at or above sm_61 (sm_75 for CUDA 13), joined with
#     the PTX by fatbinary.
#
# TD_HAVE_CUDA: the module carries the image and the driver path (clang can
# emit PTX). TD_HAVE_CUDA_TOOLKIT: a toolkit was found, which the stand-in
# hosts' CUDA devices need (they use the runtime), and which gives the SASS.
#
# After the plugin folder is processed, TD_CUDA_IMAGE is the image file
# (${CMAKE_BINARY_DIR}/plugin/TremorDistiller_Kernel.fatbin, or the bare .ptx
# without a toolkit) and TD_CUDA_IMAGE_CPP the generated C++ source holding it
# (${CMAKE_BINARY_DIR}/plugin/TremorDistiller_CudaImage.cpp), which needs no
# CUDA header: a cross build of the module can compile it as it is.
option(TD_CUDA_SASS "Put nvcc's SASS beside the PTX in the CUDA image" ON)
set(TD_HAVE_CUDA OFF)
set(TD_HAVE_CUDA_TOOLKIT OFF)
set(TD_CUDA_PTX_ARCH 61)
set(TD_CUDA_SASS_ARCH "")
set(TD_CUDA_TOOLKIT_ARCH "")  # the oldest the toolkit compiles for, at or above the PTX's
if(TD_WITH_CUDA)
  find_program(TD_CUDA_CLANG NAMES clang++-14 clang++ DOC "clang that compiles the kernels to PTX")
  if(TD_CUDA_CLANG)
    execute_process(COMMAND ${TD_CUDA_CLANG} -x cuda --cuda-device-only --cuda-gpu-arch=sm_${TD_CUDA_PTX_ARCH}
                            -nocudainc -nocudalib -Wno-unknown-cuda-version -S -o /dev/null /dev/null
                    RESULT_VARIABLE _td_rc OUTPUT_QUIET ERROR_QUIET)
    if(_td_rc EQUAL 0)
      set(TD_HAVE_CUDA ON)
    endif()
  endif()

  if(TD_HAVE_CUDA)
    find_package(CUDAToolkit QUIET)
  endif()
  if(CUDAToolkit_FOUND AND TARGET CUDA::cudart_static)
    set(TD_HAVE_CUDA_TOOLKIT ON)
    find_program(TD_FATBINARY fatbinary HINTS ${CUDAToolkit_BIN_DIR})
    find_program(TD_PTXAS ptxas HINTS ${CUDAToolkit_BIN_DIR})
    find_program(TD_CUOBJDUMP cuobjdump HINTS ${CUDAToolkit_BIN_DIR})
    # Toolkits from 13 on dropped everything below sm_75.
    execute_process(COMMAND ${CUDAToolkit_NVCC_EXECUTABLE} --list-gpu-code
                    OUTPUT_VARIABLE _td_codes ERROR_QUIET RESULT_VARIABLE _td_rc)
    if(_td_rc EQUAL 0)
      string(REGEX MATCHALL "sm_[0-9]+" _td_list "${_td_codes}")
      foreach(_c IN LISTS _td_list)
        string(REPLACE "sm_" "" _n "${_c}")
        if(_n GREATER_EQUAL TD_CUDA_PTX_ARCH AND (TD_CUDA_TOOLKIT_ARCH STREQUAL "" OR _n LESS TD_CUDA_TOOLKIT_ARCH))
          set(TD_CUDA_TOOLKIT_ARCH ${_n})
        endif()
      endforeach()
    endif()
  endif()

  if(TD_HAVE_CUDA AND TD_CUDA_SASS AND TD_FATBINARY AND NOT TD_CUDA_TOOLKIT_ARCH STREQUAL "")
    set(TD_CUDA_SASS_ARCH ${TD_CUDA_TOOLKIT_ARCH})
    message(STATUS "CUDA image: sm_${TD_CUDA_PTX_ARCH} PTX (clang) + sm_${TD_CUDA_SASS_ARCH} SASS (nvcc)")
  elseif(TD_HAVE_CUDA)
    message(STATUS "CUDA image: sm_${TD_CUDA_PTX_ARCH} PTX (clang) only")
  else()
    message(STATUS "CUDA: clang cannot emit PTX, building without CUDA")
  endif()
endif()
