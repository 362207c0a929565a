# Run by cpack over the staged files of each component: Debian wants changelog and copyright, and manual pages and
# changelogs packed, without a time in them.

file(GLOB roots LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(root IN LISTS roots)
  get_filename_component(component "${root}" NAME)
  if(component STREQUAL "service")
    set(package qixxwatch)
  elseif(component STREQUAL "softcard")
    set(package qixxwatch-softcard)
  else()
    continue()
  endif()
  set(documentation "${root}/usr/share/doc/${package}")
  file(COPY "${CPACK_QIXX_SOURCE}/packaging/debian/copyright" DESTINATION "${documentation}"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(COPY "${CPACK_QIXX_SOURCE}/packaging/debian/changelog" DESTINATION "${documentation}"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB packed "${root}/usr/share/man/man*/*.[1-8]" "${documentation}/changelog")
  execute_process(COMMAND gzip -9n -f ${packed} COMMAND_ERROR_IS_FATAL ANY)
  # Where the unit of the machine may trace: a configuration that says so is right before its first start.
  if(component STREQUAL "service")
    file(MAKE_DIRECTORY "${root}/var/log/qixxwatch")
  endif()
  # A umask other than the usual one must not reach the package.
  execute_process(COMMAND find "${root}" -type d -exec chmod 755 {} + COMMAND_ERROR_IS_FATAL ANY)
endforeach()
