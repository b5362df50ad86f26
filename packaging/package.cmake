# The Debian package (`make deb`, CPack's DEB generator): the two programs,
# their manual pages, bash completion, the scheduled backup (systemd
# template units and their script) and the documentation. Depends comes
# from the programs' shared libraries (dpkg-shlibdeps).
set(VONDRAL_PACKAGING ${CMAKE_CURRENT_SOURCE_DIR}/packaging)

# Debian ships manual pages compressed; -n keeps the package the same from
# one build to the next (no name or time in the gzip header).
set(VONDRAL_MANPAGES docs/vondral.1 docs/ctar.1 docs/vondral-backup.8)
set(VONDRAL_MANPAGES_GZ)
foreach(page ${VONDRAL_MANPAGES})
  get_filename_component(name ${page} NAME)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
    COMMAND gzip -9n -c ${CMAKE_CURRENT_SOURCE_DIR}/${page} > ${out}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${page} VERBATIM)
  list(APPEND VONDRAL_MANPAGES_GZ ${out})
endforeach()
add_custom_target(manpages ALL DEPENDS ${VONDRAL_MANPAGES_GZ})

# make deb builds what the package holds; installing must not build the tests too.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
install(TARGETS vondral ctar RUNTIME DESTINATION bin)
foreach(page ${VONDRAL_MANPAGES_GZ})
  string(REGEX MATCH "[0-9]\\.gz$" section ${page})
  string(SUBSTRING ${section} 0 1 section)
  install(FILES ${page} DESTINATION share/man/man${section})
endforeach()
install(FILES ${VONDRAL_PACKAGING}/completion/vondral ${VONDRAL_PACKAGING}/completion/ctar
  DESTINATION share/bash-completion/completions)
install(PROGRAMS ${VONDRAL_PACKAGING}/vondral-backup DESTINATION lib/vondral)
# Debian 12's systemd looks here for units of packages (as debhelper puts them).
install(FILES ${VONDRAL_PACKAGING}/vondral-backup@.service ${VONDRAL_PACKAGING}/vondral-backup@.timer
  DESTINATION /lib/systemd/system)
file(GLOB VONDRAL_DOCS ${CMAKE_CURRENT_SOURCE_DIR}/docs/*.md)
install(FILES README.md ${VONDRAL_DOCS} ${VONDRAL_PACKAGING}/copyright DESTINATION share/doc/vondral)
install(FILES ${VONDRAL_PACKAGING}/example.conf ${VONDRAL_PACKAGING}/example.include
  DESTINATION share/doc/vondral/examples)
# The operator's configuration and passphrases go here; the package ships
# the directory alone, closed to anyone but root.
install(DIRECTORY DESTINATION /etc/vondral
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vondral)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "vondral maintainers <maintainers@users.noreply.c-seed-3f748102.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "back up and restore an IBM i server over FTP")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "vondral has an IBM i (OS/400) server save its objects into save files over
the server's FTP service (in clear or FTPS) and keeps them in one local CTAR
archive; it restores such archives too. ctar lists, verifies, extracts and
salvages the archives. systemd timer units run a verified backup on a
schedule (vondral-backup@NAME.timer), keeping a chosen number of archives.")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)
include(CPack)
