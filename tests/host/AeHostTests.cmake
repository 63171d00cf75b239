# The stand-in After Effects host's own tests, driving the built module.
# Include this from tests/host/CMakeLists.txt (it uses td_add_test of
# tests/CMakeLists.txt).
td_add_test(test_ae_host ${CMAKE_CURRENT_LIST_DIR}/test_ae_host.cpp)
target_link_libraries(test_ae_host PRIVATE td_ae_host)
target_compile_definitions(test_ae_host PRIVATE TD_MODULE_PATH="$<TARGET_FILE:TremorDistiller>")
add_dependencies(test_ae_host TremorDistiller)
