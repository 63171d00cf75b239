# The stand-in After Effects host's own tests. They drive small effect modules
# of their own, so they don't depend on the real effect. Include this from
# tests/host/CMakeLists.txt (it uses td_add_test of tests/CMakeLists.txt).
foreach(_td_fake IN ITEMS td_fake_effect td_fake_effect_noentry)
  add_library(${_td_fake} MODULE ${CMAKE_CURRENT_LIST_DIR}/fake_module.cpp)
  target_include_directories(${_td_fake} PRIVATE ${CMAKE_SOURCE_DIR}/platform/AE)
  target_link_libraries(${_td_fake} PRIVATE OpenCL::OpenCL)
  set_target_properties(${_td_fake} PROPERTIES PREFIX "")
  if(TD_HAVE_CUDA)
    target_link_libraries(${_td_fake} PRIVATE CUDA::cudart_static)
    target_compile_definitions(${_td_fake} PRIVATE TD_HAVE_CUDA=1)
  endif()
endforeach()
target_compile_definitions(td_fake_effect_noentry PRIVATE FAKE_NO_EFFECT_MAIN=1)

td_add_test(test_ae_host ${CMAKE_CURRENT_LIST_DIR}/test_ae_host.cpp)
target_link_libraries(test_ae_host PRIVATE td_ae_host)
target_compile_definitions(test_ae_host PRIVATE
  TD_FAKE_EFFECT="$<TARGET_FILE:td_fake_effect>"
  TD_FAKE_EFFECT_NOENTRY="$<TARGET_FILE:td_fake_effect_noentry>")
add_dependencies(test_ae_host td_fake_effect td_fake_effect_noentry)
