# td_embed_opencl_text(OUT_VAR KERNEL_CL SYMBOL INCLUDE_DIRS...)
# Runs the C preprocessor over the OpenCL wrapper of the kernel unit (no host
# headers, no predefined macros) and embeds the result as a string constant.
if(CMAKE_CROSSCOMPILING)
  add_executable(embed_kernel_text IMPORTED)
  set_target_properties(embed_kernel_text PROPERTIES IMPORTED_LOCATION ${TD_NATIVE_BUILD}/embed_kernel_text)
else()
  add_executable(embed_kernel_text ${CMAKE_CURRENT_LIST_DIR}/tools/embed_kernel_text.cpp)
endif()

function(td_embed_opencl_text out_var kernel_cl symbol)
  set(gen_dir ${CMAKE_BINARY_DIR}/generated)
  file(MAKE_DIRECTORY ${gen_dir})
  get_filename_component(stem ${kernel_cl} NAME_WE)
  set(pre ${gen_dir}/${stem}.opencl.i)
  set(dep ${gen_dir}/${stem}.opencl.d)
  set(cpp ${gen_dir}/${stem}_Text.cpp)
  set(incs "")
  foreach(dir IN LISTS ARGN)
    list(APPEND incs -I${dir})
  endforeach()
  add_custom_command(
    OUTPUT ${pre}
    COMMAND ${CMAKE_C_COMPILER} -E -x c -undef -nostdinc ${incs}
            -MD -MF ${dep} -MT ${pre} ${kernel_cl} -o ${pre}
    DEPENDS ${kernel_cl}
    DEPFILE ${dep}
    COMMENT "Preprocessing ${stem} for OpenCL"
    VERBATIM)
  add_custom_command(
    OUTPUT ${cpp}
    COMMAND embed_kernel_text ${pre} ${cpp} ${symbol} ${CMAKE_SOURCE_DIR}
    DEPENDS ${pre} embed_kernel_text
    COMMENT "Embedding the OpenCL text of ${stem}"
    VERBATIM)
  set(${out_var} ${cpp} PARENT_SCOPE)
endfunction()

# td_embed_binary(OUT_VAR FILE SYMBOL [CPP]): a C++ source (CPP, else
# generated/SYMBOL.cpp) defining
#   extern const unsigned char SYMBOL[]; extern const size_t SYMBOL_size;
# with the file's bytes, regenerated when the file changes.
function(td_embed_binary out_var file symbol)
  set(gen_dir ${CMAKE_BINARY_DIR}/generated)
  get_filename_component(stem ${file} NAME_WE)
  set(cpp ${gen_dir}/${symbol}.cpp)
  if(ARGC GREATER 3)
    set(cpp ${ARGV3})
  endif()
  add_custom_command(
    OUTPUT ${cpp}
    COMMAND ${CMAKE_COMMAND} -DIN=${file} -DOUT=${cpp} -DSYMBOL=${symbol} -P ${TD_EMBED_BINARY_SCRIPT}
    DEPENDS ${file} ${TD_EMBED_BINARY_SCRIPT}
    COMMENT "Embedding ${stem}"
    VERBATIM)
  set(${out_var} ${cpp} PARENT_SCOPE)
endfunction()
set(TD_EMBED_BINARY_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/EmbedBinary.cmake)
