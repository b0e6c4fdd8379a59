# Installation (GNUInstallDirs) and the Debian package (CPack's DEB generator).
#   cmake --install build [--prefix /usr/local]       varoft, varoft(1), bash completion, docs
#   cmake --install build --component loopback        also the loopback desktop (libexec/varoft)
#   cpack --config build/CPackConfig.cmake            varoft_<version>-<release>_<arch>.deb
include(GNUInstallDirs)

set(VAROFT_DEB_RELEASE 1)
set(VAROFT_DEB_VERSION "${PROJECT_VERSION}-${VAROFT_DEB_RELEASE}")

# Man page and changelog compressed as Debian ships them: gzip -9n (no name, no time stamp), so
# the package is the same from build to build.
find_program(VAROFT_GZIP gzip REQUIRED)
set(_dist ${CMAKE_CURRENT_BINARY_DIR}/dist)
configure_file(dist/changelog.in ${_dist}/changelog.Debian @ONLY)
add_custom_command(OUTPUT ${_dist}/varoft.1.gz ${_dist}/changelog.Debian.gz
                   COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/doc/varoft.1 ${_dist}/varoft.1
                   COMMAND ${VAROFT_GZIP} -9nf ${_dist}/varoft.1
                   COMMAND ${VAROFT_GZIP} -9nkf ${_dist}/changelog.Debian
                   DEPENDS doc/varoft.1 ${_dist}/changelog.Debian VERBATIM)
add_custom_target(varoft_dist ALL DEPENDS ${_dist}/varoft.1.gz ${_dist}/changelog.Debian.gz)

install(TARGETS varoft RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${_dist}/varoft.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES dist/varoft.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME varoft)
install(FILES dist/copyright ${_dist}/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The loopback desktop is a far-side stand-in for tests and demos, not part of the tool: only an
# explicit `--component loopback` installs it, and the package leaves it out.
if(NOT WIN32)
  install(TARGETS loopback-desktop RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/varoft
          COMPONENT loopback EXCLUDE_FROM_ALL)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varoft)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "varoft maintainers <maintainers@users.noreply.c-seed-1b1de31f.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "move files to and from a remote desktop over X11")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "varoft is a console client for people who work at a thin client beside a remote
desktop. It copies files and whole directories between this machine and the
remote desktop, lets the desktop browse, delete and rename local files, sends a
local file to be opened there, and sends text, PostScript and PDF files to be
printed there. It talks to the desktop's X proxy over one X11 connection.")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VAROFT_DEB_RELEASE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL Unspecified)
include(CPack)

if(VAROFT_TESTS AND NOT WIN32)
  add_test(NAME Packaging.Deb COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tests/packaging/check_deb.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(Packaging.Deb PROPERTIES SKIP_RETURN_CODE 77)
endif()
