# Run by CPack when the packages are made. The packages of debug symbols that it writes are not quite packages: their
# check sums name paths of the building machine, the files are executable, and neither licence notice nor changes are
# there. This makes them packages. (That they end in ".ddeb" is CPack's too, and nothing to dpkg and apt.)
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(NOT package MATCHES "/([^/_]+)-dbgsym_[^/]*\\.ddeb$")
    continue()
  endif()
  set(name "${CMAKE_MATCH_1}")
  set(root "${CPACK_TEMPORARY_DIRECTORY}/${name}-dbgsym-root")
  file(REMOVE_RECURSE "${root}")
  execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${root}" COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE symbols RELATIVE "${root}" "${root}/usr/*.debug")
  set(sums "")
  foreach(file IN LISTS symbols)
    file(CHMOD "${root}/${file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(MD5 "${root}/${file}" sum)
    string(APPEND sums "${sum}  ${file}\n")
  endforeach()
  file(WRITE "${root}/DEBIAN/md5sums" "${sums}")
  file(CHMOD "${root}/DEBIAN/md5sums" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  # The package of which these are the symbols has to be there anyway.
  file(MAKE_DIRECTORY "${root}/usr/share/doc")
  file(CREATE_LINK "${name}" "${root}/usr/share/doc/${name}-dbgsym" SYMBOLIC)
  file(CHMOD "${root}/usr/share" "${root}/usr/share/doc" PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${root}" "${package}"
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${root}")
endforeach()
