# What is installed where, and how it is taken away again. The folders follow GNUInstallDirs. There are two
# components: "service", and "softcard", which is installed only when it is asked for.

set(sample_folder ${CMAKE_INSTALL_DOCDIR}/examples)
set(softcard_folder ${CMAKE_INSTALL_LIBDIR}/qixxwatch-softcard)

install(TARGETS qixxwatch RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT service)
# In a folder of its own: it stands beside the suite's library and never in its place.
install(TARGETS bridge LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qixxwatch COMPONENT service)
install(TARGETS softcard LIBRARY DESTINATION ${softcard_folder} COMPONENT softcard EXCLUDE_FROM_ALL)
install(PROGRAMS scripts/card DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME qixxwatch-card
        COMPONENT softcard EXCLUDE_FROM_ALL)

install(FILES docs/qixxwatch.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT service)
install(FILES docs/qix.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT service)
install(FILES docs/qixxwatch-card.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT softcard EXCLUDE_FROM_ALL)
# What who runs the service needs; how it is built and changed stays with the source.
set(documents README.md CHANGELOG.md SECURITY.md
    docs/cards.md docs/real-cards.md docs/recipes.md docs/reliability.md)
install(CODE "
  set(folder \"${CMAKE_INSTALL_DOCDIR}\")
  set(files \"${documents}\")
  set(source \"${PROJECT_SOURCE_DIR}\")
  set(scratch \"${PROJECT_BINARY_DIR}/documents\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/InstallDocuments.cmake\")"
  COMPONENT service)
install(DIRECTORY docs/pictures DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT service)
install(FILES softcard/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}-softcard
        COMPONENT softcard EXCLUDE_FROM_ALL)

# Debian's zsh looks for the completions of its packages in a folder of their own.
set(zsh_folder site-functions)
if(EXISTS /etc/debian_version AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_folder vendor-completions)
endif()
install(FILES packaging/completions/qixxwatch.bash RENAME qixxwatch
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT service)
install(FILES packaging/completions/_qixxwatch
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder} COMPONENT service)
install(FILES packaging/completions/qixxwatch.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT service)

# Files that name installed folders: they are filled in when the prefix is known at last, so that
# "cmake --install build --prefix ..." gives what it says. A second argument makes a file of its own of one that is
# no sample.
function(install_filled component folder)
  set(more "")
  if(component STREQUAL "softcard")
    set(more EXCLUDE_FROM_ALL)
  endif()
  list(JOIN ARGN "\" \"" files)
  install(CODE "
    set(folder \"${folder}\")
    set(files \"${files}\")
    set(libraries \"${CMAKE_INSTALL_LIBDIR}\")
    set(programs \"${CMAKE_INSTALL_BINDIR}\")
    set(documentation \"${CMAKE_INSTALL_DOCDIR}\")
    set(component \"${component}\")
    set(source \"${PROJECT_SOURCE_DIR}\")
    set(scratch \"${PROJECT_BINARY_DIR}/filled\")
    include(\"${PROJECT_SOURCE_DIR}/cmake/InstallFilled.cmake\")"
    COMPONENT ${component} ${more})
endfunction()

install_filled(service ${sample_folder}
  packaging/samples/lock.conf packaging/samples/logon-values.conf packaging/samples/two-watchers.conf)
install_filled(softcard ${CMAKE_INSTALL_DOCDIR}-softcard/examples packaging/samples/softcard.conf)
# The service reads the system's configuration in /etc only, so that a sample elsewhere would mislead.
install_filled(service ${CMAKE_INSTALL_SYSCONFDIR} packaging/qix.conf.in)

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D build=${PROJECT_BINARY_DIR} -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
  VERBATIM)
