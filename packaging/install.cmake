# What `cmake --install` puts where. A component is one package of packaging/packages.cmake.

if(CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Libraries, below the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The platform's libraries stand in a directory of their own that the dynamic loader does not search: only what carries
# its name as RUNPATH finds them, so that an appliance's libraries of the same names stay in use by everything else.
set(VEXO_PLATFORM_LIBDIR "${CMAKE_INSTALL_LIBDIR}/vexofileop")
file(RELATIVE_PATH tool_to_platform "/${CMAKE_INSTALL_BINDIR}" "/${VEXO_PLATFORM_LIBDIR}")
file(RELATIVE_PATH tool_to_library "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
# In the build tree they look at the same places, where links lead to what was built. A path of the build tree itself CMake
# would end in a colon, and the loader takes that for the working directory, which may be anybody's.
get_target_property(tool_dir vexofileop_tool BINARY_DIR)
get_target_property(library_dir vexofileop BINARY_DIR)
get_target_property(platform_dir vexocore BINARY_DIR)
cmake_path(ABSOLUTE_PATH tool_to_library BASE_DIRECTORY "${tool_dir}" NORMALIZE OUTPUT_VARIABLE built_libdir)
cmake_path(IS_PREFIX CMAKE_BINARY_DIR "${built_libdir}" built_as_installed)
if(built_as_installed)
  file(MAKE_DIRECTORY "${built_libdir}")
  foreach(stands IN ITEMS "${platform_dir}|${built_libdir}/vexofileop" "${platform_dir}|${library_dir}/vexofileop"
                          "${library_dir}/libvexofileop.so.7|${built_libdir}/libvexofileop.so.7")
    string(REPLACE "|" ";" link "${stands}")
    list(GET link 0 to)
    list(GET link 1 name)
    file(CREATE_LINK "${to}" "${name}" SYMBOLIC)
  endforeach()
  set_target_properties(vexofileop_tool vexofileop PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
endif()
set_target_properties(vexofileop_tool PROPERTIES
  INSTALL_RPATH "$ORIGIN/${tool_to_platform};$ORIGIN/${tool_to_library}")
set_target_properties(vexofileop PROPERTIES INSTALL_RPATH "$ORIGIN/vexofileop")
# They stand side by side in the build tree too.
set_target_properties(${VEXO_PLATFORM_LIBRARIES} PROPERTIES INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON)
foreach(target IN ITEMS vexofileop ${VEXO_PLATFORM_LIBRARIES})
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
endforeach()

install(TARGETS vexofileop EXPORT vexofileop
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libvexofileop7 NAMELINK_COMPONENT libvexofileop-dev)
install(TARGETS ${VEXO_PLATFORM_LIBRARIES} EXPORT vexofileop
  LIBRARY DESTINATION "${VEXO_PLATFORM_LIBDIR}" COMPONENT libvexo-platform-linux NAMELINK_COMPONENT libvexofileop-dev)
if(VEXO_PYTHON_PACKAGE)
  set(binding_dir "${VEXO_PYTHONDIR}/vexofileop")
  file(RELATIVE_PATH binding_to_platform "/${binding_dir}" "/${VEXO_PLATFORM_LIBDIR}")
  file(RELATIVE_PATH binding_to_library "/${binding_dir}" "/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(vexofileop_binding PROPERTIES
    INSTALL_RPATH "$ORIGIN/${binding_to_platform};$ORIGIN/${binding_to_library}")
  if(built_as_installed)
    file(RELATIVE_PATH library_to_binding "/${CMAKE_INSTALL_LIBDIR}" "/${binding_dir}")
    cmake_path(ABSOLUTE_PATH library_to_binding BASE_DIRECTORY "${built_libdir}" NORMALIZE OUTPUT_VARIABLE built_binding)
    cmake_path(IS_PREFIX CMAKE_BINARY_DIR "${built_binding}" binding_as_installed)
    if(binding_as_installed)
      # The package has a link to it, which its loader follows first.
      set_target_properties(vexofileop_binding PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY "${built_binding}" BUILD_WITH_INSTALL_RPATH ON)
      set(file_name "${CMAKE_SHARED_LIBRARY_PREFIX}vexofileop-binding${CMAKE_SHARED_LIBRARY_SUFFIX}")
      file(CREATE_LINK "${built_binding}/${file_name}" "${CMAKE_BINARY_DIR}/python/vexofileop/${file_name}" SYMBOLIC)
    endif()
  endif()
  install(TARGETS vexofileop_binding LIBRARY DESTINATION "${binding_dir}" COMPONENT python3-vexofileop)
  install(FILES "${CMAKE_SOURCE_DIR}/docs/python.md" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/python3-vexofileop"
    COMPONENT python3-vexofileop)
endif()
install(TARGETS vexofileop_tool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT vexofileop)

# In the tree the headers name each other from its root; installed, all stand in one directory of their own.
set(header_dir "${CMAKE_BINARY_DIR}/include")
foreach(header IN ITEMS copy/copy.h ea/ea.h index/index.h backup/backup.h notify/notify.h
                        platform/core.h platform/sdk.h platform/acl.h
                        cpp/vexofileop.hpp cpp/result.hpp cpp/copy.hpp cpp/attributes.hpp cpp/apple_double.hpp
                        cpp/services.hpp)
  string(REGEX REPLACE "^(copy|ea|index|backup|notify)/" "" installed "${header}")
  string(REPLACE "cpp/vexofileop.hpp" "vexofileop.hpp" installed "${installed}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/${header}")
  file(READ "${CMAKE_SOURCE_DIR}/${header}" text)
  string(REGEX REPLACE "#include \"(copy|ea|index|backup|notify)/([a-z]+\\.h)\"" "#include <vexofileop/\\2>" text "${text}")
  string(REGEX REPLACE "#include \"(platform|cpp)/([a-z_]+\\.h(pp)?)\"" "#include <vexofileop/\\1/\\2>" text "${text}")
  if(text MATCHES "#include \"")
    message(FATAL_ERROR "${header} includes a header that is not installed")
  endif()
  file(CONFIGURE OUTPUT "${header_dir}/vexofileop/${installed}" CONTENT "${text}" @ONLY)
endforeach()
install(DIRECTORY "${header_dir}/vexofileop" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT libvexofileop-dev)

# Programs to begin with.
install(DIRECTORY "${CMAKE_SOURCE_DIR}/docs/examples" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libvexofileop-dev"
  COMPONENT libvexofileop-dev)

# find_package(vexofileop)
set(config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/vexofileop")
install(EXPORT vexofileop NAMESPACE vexofileop:: FILE vexofileopTargets.cmake DESTINATION "${config_dir}"
  COMPONENT libvexofileop-dev)
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/vexofileopConfig.cmake.in"
  "${CMAKE_BINARY_DIR}/vexofileopConfig.cmake" INSTALL_DESTINATION "${config_dir}" PATH_VARS VEXO_PLATFORM_LIBDIR)
write_basic_package_version_file("${CMAKE_BINARY_DIR}/vexofileopConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/vexofileopConfig.cmake" "${CMAKE_BINARY_DIR}/vexofileopConfigVersion.cmake"
  DESTINATION "${config_dir}" COMPONENT libvexofileop-dev)

# pkg-config files name the prefix, which is known when they are installed.
foreach(module IN ITEMS vexofileop vexo-platform)
  install(CODE "
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    get_filename_component(PREFIX \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
    configure_file(\"${CMAKE_CURRENT_LIST_DIR}/${module}.pc.in\" \"${CMAKE_BINARY_DIR}/pkgconfig/${module}.pc\" @ONLY)
    file(INSTALL \"${CMAKE_BINARY_DIR}/pkgconfig/${module}.pc\"
         DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")"
    COMPONENT libvexofileop-dev)
endforeach()

# Completion.
set(completion "${CMAKE_SOURCE_DIR}/tools/vexofileop/completion")
install(FILES "${completion}/vexofileop.bash" RENAME vexofileop COMPONENT vexofileop
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
install(FILES "${completion}/_vexofileop" COMPONENT vexofileop
  DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")
install(FILES "${completion}/vexofileop.fish" COMPONENT vexofileop
  DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
