# The Debian packages, which packaging/make-packages makes.

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libvexofileop7 libvexofileop-dev vexofileop libvexo-platform-linux)
if(VEXO_PYTHON_PACKAGE)
  list(APPEND CPACK_COMPONENTS_ALL python3-vexofileop)
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES OFF) # the debug symbols go into packages of their own, which strips
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_CONTACT "vexofileop maintainers <maintainers@vexofileop.invalid>" CACHE STRING "Maintainer of the packages")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/packaging" "${CMAKE_BINARY_DIR}/platform/linux")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/debug_packages.cmake")
set(same "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_LIBVEXOFILEOP7_PACKAGE_NAME libvexofileop7)
set(CPACK_DEBIAN_LIBVEXOFILEOP7_PACKAGE_SECTION libs)
# An appliance brings libraries of its own: whoever packs them there provides this name.
set(CPACK_DEBIAN_LIBVEXOFILEOP7_PACKAGE_DEPENDS "libvexo-platform-linux | libvexo-platform")
set(CPACK_COMPONENT_LIBVEXOFILEOP7_DESCRIPTION
  "library that copies files with everything that belongs to them
Copies, moves, renames and deletes files and trees on the volumes of a storage
appliance: owner, mode, ACL, DOS attributes, times, Finder Info, resource fork
and named streams arrive with the data.")
file(WRITE "${CMAKE_BINARY_DIR}/debian/shlibs" "libvexofileop 7 libvexofileop7 (>= ${PROJECT_VERSION})\n")
file(WRITE "${CMAKE_BINARY_DIR}/debian/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBVEXOFILEOP7_PACKAGE_CONTROL_EXTRA
  "${CMAKE_BINARY_DIR}/debian/shlibs;${CMAKE_BINARY_DIR}/debian/triggers")

set(CPACK_DEBIAN_LIBVEXOFILEOP-DEV_PACKAGE_NAME libvexofileop-dev)
set(CPACK_DEBIAN_LIBVEXOFILEOP-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBVEXOFILEOP-DEV_PACKAGE_DEPENDS "libvexofileop7 ${same}, libvexo-platform-linux ${same}")
set(CPACK_DEBIAN_LIBVEXOFILEOP-DEV_DEBUGINFO_PACKAGE OFF)
set(CPACK_COMPONENT_LIBVEXOFILEOP-DEV_DESCRIPTION
  "headers of libvexofileop
What is needed to compile programs with libvexofileop: headers, pkg-config and
CMake files and manual pages of the functions.")

set(CPACK_DEBIAN_VEXOFILEOP_PACKAGE_NAME vexofileop)
set(CPACK_DEBIAN_VEXOFILEOP_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_VEXOFILEOP_PACKAGE_DEPENDS "libvexofileop7 ${same}")
set(CPACK_COMPONENT_VEXOFILEOP_DESCRIPTION
  "command-line tool that copies files with everything that belongs to them
Does from a shell what libvexofileop does for the services of a storage
appliance, with the habits of cp and mv, a progress bar and JSON output.")

set(CPACK_DEBIAN_LIBVEXO-PLATFORM-LINUX_PACKAGE_NAME libvexo-platform-linux)
set(CPACK_DEBIAN_LIBVEXO-PLATFORM-LINUX_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBVEXO-PLATFORM-LINUX_PACKAGE_PROVIDES libvexo-platform)
set(CPACK_COMPONENT_LIBVEXO-PLATFORM-LINUX_DESCRIPTION
  "platform libraries of libvexofileop for stock Linux
Last error, key/value files, ACLs, volumes and shared folders as libvexofileop
asks for them, in a private directory: an appliance's own libraries of these
names stay in use by everything else.")

# What it calls of cffi is told by a number, that of the declarations. The scripts compile its modules and remove what
# that has made, so that nothing of it stays.
set(cffi 9729)
set(CPACK_DEBIAN_PYTHON3-VEXOFILEOP_PACKAGE_NAME python3-vexofileop)
set(CPACK_DEBIAN_PYTHON3-VEXOFILEOP_PACKAGE_SECTION python)
string(CONCAT CPACK_DEBIAN_PYTHON3-VEXOFILEOP_PACKAGE_DEPENDS "libvexofileop7 ${same}, python3 (>= 3.9), "
  "python3-cffi-backend-api-min (<= ${cffi}), python3-cffi-backend-api-max (>= ${cffi})")
set(CPACK_DEBIAN_PYTHON3-VEXOFILEOP_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_LIST_DIR}/debian/python3-vexofileop/postinst;${CMAKE_CURRENT_LIST_DIR}/debian/python3-vexofileop/prerm")
set(CPACK_COMPONENT_PYTHON3-VEXOFILEOP_DESCRIPTION
  "Python package that copies files with everything that belongs to them
Copies, moves, compares and removes files and trees as shutil does, with owner,
ACL, DOS attributes, times, Finder Info, resource fork and named streams; plans
and receipts, named attributes as a mapping, the resource fork as a file.")

# Every package has its licence notice and its changes.
find_program(GZIP gzip REQUIRED)
set(change "vexofileop (${PROJECT_VERSION}-1) unstable; urgency=medium\n\n  * See CHANGELOG.md.\n\n")
string(APPEND change " -- vexofileop maintainers <maintainers@vexofileop.invalid>  Sat, 21 Nov 2026 00:00:00 +0000\n")
file(WRITE "${CMAKE_BINARY_DIR}/debian/changelog.Debian" "${change}")
execute_process(COMMAND "${GZIP}" -9nkf "${CMAKE_BINARY_DIR}/debian/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
configure_file("${CMAKE_SOURCE_DIR}/CHANGELOG.md" "${CMAKE_BINARY_DIR}/debian/changelog" COPYONLY)
execute_process(COMMAND "${GZIP}" -9nkf "${CMAKE_BINARY_DIR}/debian/changelog" COMMAND_ERROR_IS_FATAL ANY)
set(copyright "${CMAKE_CURRENT_LIST_DIR}/debian/copyright")
foreach(name IN ITEMS LICENSE COPYING)
  if(EXISTS "${CMAKE_SOURCE_DIR}/${name}")
    set(copyright "${CMAKE_SOURCE_DIR}/${name}")
  endif()
endforeach()
foreach(package IN LISTS CPACK_COMPONENTS_ALL)
  install(FILES "${copyright}" RENAME copyright COMPONENT ${package}
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}")
  install(FILES "${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz" "${CMAKE_BINARY_DIR}/debian/changelog.gz"
    COMPONENT ${package} DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}")
endforeach()
include(CPack)
