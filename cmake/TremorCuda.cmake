# CUDA is optional: without a toolkit the module builds without it and the CUDA
# branch of a pass fails with its error line.
#
# Target: sm_61 device code plus PTX. Toolkits from 13 on dropped everything
# below sm_75, so we take the oldest real architecture the found nvcc lists and
# add its PTX; a CUDA 12 toolkit gives sm_61 the same way.
set(TD_HAVE_CUDA OFF)
if(TD_WITH_CUDA)
  include(CheckLanguage)
  if(NOT CMAKE_CUDA_COMPILER AND EXISTS /usr/local/cuda/bin/nvcc)
    set(CMAKE_CUDA_COMPILER /usr/local/cuda/bin/nvcc)
  endif()
  check_language(CUDA)
  if(CMAKE_CUDA_COMPILER)
    execute_process(COMMAND ${CMAKE_CUDA_COMPILER} --list-gpu-code
                    OUTPUT_VARIABLE _td_codes ERROR_QUIET RESULT_VARIABLE _td_rc)
    set(_td_arch "")
    if(_td_rc EQUAL 0)
      string(REGEX MATCHALL "sm_[0-9]+" _td_list "${_td_codes}")
      foreach(_c IN LISTS _td_list)
        string(REPLACE "sm_" "" _n "${_c}")
        if(_n GREATER_EQUAL 61 AND (_td_arch STREQUAL "" OR _n LESS _td_arch))
          set(_td_arch ${_n})
        endif()
      endforeach()
    endif()
    if(_td_arch STREQUAL "")
      set(_td_arch 61)
    endif()
    set(CMAKE_CUDA_ARCHITECTURES "${_td_arch}-real;${_td_arch}-virtual")
    enable_language(CUDA)
    find_package(CUDAToolkit REQUIRED)
    set(TD_HAVE_CUDA ON)
    message(STATUS "CUDA kernels: sm_${_td_arch} device code + compute_${_td_arch} PTX")
  else()
    message(STATUS "CUDA kernels: no toolkit found, building without CUDA")
  endif()
endif()
