# Run at the time of installation: fills "@...@" of files in, and installs them. The caller sets folder, files,
# libraries, programs, documentation, component, source and scratch.

macro(make_absolute variable)
  if(NOT IS_ABSOLUTE "${${variable}}")
    set(${variable} "${CMAKE_INSTALL_PREFIX}/${${variable}}")
  endif()
endmacro()

# "/" and "/usr" have their configuration in "/etc".
if(folder STREQUAL "etc" AND CMAKE_INSTALL_PREFIX MATCHES "^(/|/usr/?)$")
  set(folder /etc)
endif()
foreach(variable IN ITEMS folder libraries programs documentation)
  make_absolute(${variable})
endforeach()
set(directory "${libraries}/qixxwatch/")
set(examples "${documentation}/examples")
if(component STREQUAL "softcard")
  set(directory "${libraries}/qixxwatch-softcard/")
  set(examples "${documentation}-softcard/examples")
endif()

foreach(file IN LISTS files)
  get_filename_component(name "${file}" NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  if(name STREQUAL "qix.conf")
    if(NOT folder STREQUAL "/etc")
      message(STATUS "Left out: qix.conf, since the service reads it in /etc only")
      continue()
    elseif(EXISTS "$ENV{DESTDIR}/etc/qix.conf")
      message(STATUS "Left alone: $ENV{DESTDIR}/etc/qix.conf")
      continue()
    endif()
  endif()
  configure_file("${source}/${file}" "${scratch}/${component}/${name}" @ONLY)
  file(INSTALL "${scratch}/${component}/${name}" DESTINATION "${folder}"
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
