# Run at the time of installation: installs documents side by side. Links among them follow; one to what is not
# installed becomes plain text. The caller sets folder, files, source and scratch.

if(NOT IS_ABSOLUTE "${folder}")
  set(folder "${CMAKE_INSTALL_PREFIX}/${folder}")
endif()
foreach(file IN LISTS files)
  get_filename_component(name "${file}" NAME)
  file(READ "${source}/${file}" text)
  string(REGEX REPLACE "(\\[|\\]\\()(\\.\\./|docs/)" "\\1" text "${text}")
  string(REGEX REPLACE "\\[([^]]*)\\]\\((design\\.md|CONTRIBUTING\\.md|softcard/README\\.md|packaging/[^)]*)\\)" "\\1"
         text "${text}")
  file(WRITE "${scratch}/${name}" "${text}")
  file(INSTALL "${scratch}/${name}" DESTINATION "${folder}"
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
