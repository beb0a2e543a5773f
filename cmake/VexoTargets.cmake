# What every target of the tree is compiled with, and what the libraries are compiled and linked with on top.

# What a file declares in a function may well be called as something of a file that it is compiled together with.
set(unity $<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>)
set(shadow $<IF:${unity},$<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>,-Wshadow>)

add_library(vexo_warnings INTERFACE)
# g++ looks for memory to use again every few megabytes, which takes a fifth of a file's time. Left alone it takes no more
# than a tenth more.
target_compile_options(vexo_warnings INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:--param=ggc-min-heapsize=600000>)
target_compile_options(vexo_warnings INTERFACE
  -Wall -Wextra $<$<BOOL:${VEXOFILEOP_WERROR}>:-Werror> ${shadow} -Wformat=2 -Wcast-align -Wundef -Wpointer-arith -Wwrite-strings
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual>)

add_library(vexo_build INTERFACE)
target_link_libraries(vexo_build INTERFACE vexo_warnings)
target_include_directories(vexo_build INTERFACE "${CMAKE_SOURCE_DIR}")
target_compile_definitions(vexo_build INTERFACE _GNU_SOURCE)
# The names in log lines are paths from the tree's root, also where a compiler cache makes paths relative.
file(RELATIVE_PATH up_to_source "${CMAKE_BINARY_DIR}" "${CMAKE_SOURCE_DIR}")
string(REGEX REPLACE "([^/])$" "\\1/" up_to_source "${up_to_source}") # a name at its end comes without
target_compile_options(vexo_build INTERFACE "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=" "-ffile-prefix-map=${up_to_source}=")
if(VEXOFILEOP_SANITIZE)
  target_compile_options(vexo_build INTERFACE -fsanitize=${VEXOFILEOP_SANITIZE} -fno-omit-frame-pointer
                                              -fno-sanitize-recover=all)
  target_link_options(vexo_build INTERFACE -fsanitize=${VEXOFILEOP_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND VEXOFILEOP_SANITIZE MATCHES "undefined")
    # As a relative path where a compiler cache can make use of that.
    set(ignorelist "${CMAKE_SOURCE_DIR}/cmake/sanitizer-ignorelist.txt")
    if(CMAKE_GENERATOR MATCHES "Ninja")
      set(ignorelist "${up_to_source}cmake/sanitizer-ignorelist.txt")
    endif()
    target_compile_options(vexo_build INTERFACE -fsanitize-ignorelist=${ignorelist})
    target_compile_definitions(vexo_build INTERFACE _GLIBCXX_ASSERTIONS)
  endif()
endif()

# The C++ of the libraries: C services load them, so they carry no C++ run-time library, no exceptions, no RTTI and
# no constructors that run at load time.
add_library(vexo_freestanding INTERFACE)
target_link_libraries(vexo_freestanding INTERFACE vexo_build)
# Nor do they look for misuse of the containers that they do not use: that look calls the C++ run-time library.
target_compile_options(vexo_freestanding INTERFACE
  -fvisibility=hidden -U_GLIBCXX_ASSERTIONS
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

# vexo_join(TARGET [APART FILE...]): in a unity build (VEXOFILEOP_UNITY) the files of a target are compiled together, about
# so many at a time (VEXOFILEOP_UNITY_FILES): what their headers and templates cost is paid once for all of them. APART
# are those that have a hidden name in common with another file.
function(vexo_join target)
  cmake_parse_arguments(arg "" "" "APART" ${ARGN})
  get_target_property(sources ${target} SOURCES)
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  foreach(source IN LISTS arg_APART)
    list(FILTER sources EXCLUDE REGEX "(^|/)${source}$")
  endforeach()
  list(LENGTH sources number)
  math(EXPR groups "(${number} + ${VEXOFILEOP_UNITY_FILES} - 1) / ${VEXOFILEOP_UNITY_FILES}")
  set(index 0)
  foreach(source IN LISTS sources)
    math(EXPR group "${index} * ${groups} / ${number}")
    math(EXPR index "${index} + 1")
    get_source_file_property(known "${source}" UNITY_GROUP)
    if(known)
      continue() # of another target too: what it is grouped with there, it is here
    endif()
    set_source_files_properties("${source}" PROPERTIES UNITY_GROUP ${target}_${group})
  endforeach()
  set_target_properties(${target} PROPERTIES UNITY_BUILD_MODE GROUP)
endfunction()
