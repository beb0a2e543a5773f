# What every target of the tree is compiled with, and what the libraries are compiled and linked with on top.

add_library(vexo_warnings INTERFACE)
target_compile_options(vexo_warnings INTERFACE
  -Wall -Wextra $<$<BOOL:${VEXOFILEOP_WERROR}>:-Werror> -Wshadow -Wformat=2 -Wcast-align -Wundef -Wpointer-arith -Wwrite-strings
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual>)

add_library(vexo_build INTERFACE)
target_link_libraries(vexo_build INTERFACE vexo_warnings)
target_include_directories(vexo_build INTERFACE "${CMAKE_SOURCE_DIR}")
target_compile_definitions(vexo_build INTERFACE _GNU_SOURCE)
# The names in log lines are paths from the tree's root, also where a compiler cache makes paths relative.
file(RELATIVE_PATH up_to_source "${CMAKE_BINARY_DIR}" "${CMAKE_SOURCE_DIR}/")
target_compile_options(vexo_build INTERFACE "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=" "-ffile-prefix-map=${up_to_source}=")
if(VEXOFILEOP_SANITIZE)
  target_compile_options(vexo_build INTERFACE -fsanitize=${VEXOFILEOP_SANITIZE} -fno-omit-frame-pointer
                                              -fno-sanitize-recover=all)
  target_link_options(vexo_build INTERFACE -fsanitize=${VEXOFILEOP_SANITIZE})
endif()

# The C++ of the libraries: C services load them, so they carry no C++ run-time library, no exceptions, no RTTI and
# no constructors that run at load time.
add_library(vexo_freestanding INTERFACE)
target_link_libraries(vexo_freestanding INTERFACE vexo_build)
target_compile_options(vexo_freestanding INTERFACE
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility-inlines-hidden>)

# vexo_library_links(TARGET): link a shared library by the C driver, complete, needing only what it uses.
function(vexo_library_links target)
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
  target_link_options(${target} PRIVATE -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)
  if(NOT VEXOFILEOP_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
endfunction()

# vexo_precompile(TARGET HEADER...): compile these headers once for all files of a target. A file still includes what it
# uses; -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON finds where one does not. Clang writes no time into what it compiles, so
# that a compiler cache knows it again.
function(vexo_precompile target)
  target_precompile_headers(${target} PRIVATE ${ARGN})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
endfunction()
