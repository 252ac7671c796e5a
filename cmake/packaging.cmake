# The man pages and the completions, of which the table of commands is the source; what `cmake --install`
# puts where; and the Debian package, by `cpack` in the build folder.
include(GNUInstallDirs)

set(docs ${PROJECT_SOURCE_DIR}/docs)
set(made ${PROJECT_BINARY_DIR}/share)
set(make_docs ${PROJECT_SOURCE_DIR}/scripts/make-docs)
file(MAKE_DIRECTORY ${made})
add_custom_command(OUTPUT ${made}/kiv.1 ${made}/kiv.bash ${made}/_kiv
  COMMAND ${make_docs} man ${docs}/commands.md ${docs}/kiv.1.in ${PROJECT_VERSION} > ${made}/kiv.1
  COMMAND ${make_docs} bash ${docs}/commands.md > ${made}/kiv.bash
  COMMAND ${make_docs} zsh ${docs}/commands.md > ${made}/_kiv
  DEPENDS ${make_docs} ${docs}/commands.md ${docs}/kiv.1.in VERBATIM)

set(pages kiv)
install(TARGETS kiv kiv-check kiv-nv-save kiv-watch)
foreach(tool kiv-check kiv-nv-save kiv-watch)
  configure_file(${docs}/${tool}.1 ${made}/${tool}.1 COPYONLY)
  list(APPEND pages ${tool})
endforeach()
# As Debian has its man pages: compressed, without name and time.
foreach(page ${pages})
  add_custom_command(OUTPUT ${made}/${page}.1.gz
    COMMAND gzip -9nc ${made}/${page}.1 > ${made}/${page}.1.gz
    DEPENDS ${made}/${page}.1 VERBATIM)
  list(APPEND compressed ${made}/${page}.1.gz)
endforeach()
add_custom_target(share ALL DEPENDS ${compressed} ${made}/kiv.bash ${made}/_kiv)
install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# Looked up by the name of the program.
foreach(program ${pages})
  install(FILES ${made}/kiv.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME ${program})
endforeach()
install(FILES ${made}/_kiv DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
# The README links to the folder beside it.
install(FILES README.md CONTRIBUTING.md CHANGELOG.md TYPE DOC)
install(DIRECTORY docs TYPE DOC FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
install(DIRECTORY examples TYPE DOC USE_SOURCE_PERMISSIONS)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
# A placeholder: whoever hands packages out puts a name here that answers.
set(CPACK_PACKAGE_CONTACT "the developers of kiv <kiv@kiv.example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "test tool for the cellular modem of an Android handset")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# A static binary depends on nothing.
if(NOT KIV_STATIC_PIE)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"One run performs one operation against the modem and prints its result:
NV items and EFS files, raw DIAG commands, SIM and eSIM tests, SAR index,
restart and crash, live radio statistics, modem configuration, network
scans, AT and RF tests. A simulated modem is built in. Beside kiv there are
kiv-check, which judges runs for factory scripts, kiv-nv-save and kiv-watch.")
# Debian's own two files: the changelog in its form, of which the newest heading of CHANGELOG.md is
# the source, and the copyright.
file(STRINGS CHANGELOG.md newest REGEX "^## " LIMIT_COUNT 1)
string(REGEX REPLACE "^## ([^ ]+), (.*)$" "\\1;\\2" newest "${newest}")
list(GET newest 0 CHANGELOG_VERSION)
list(GET newest 1 CHANGELOG_DATE)
configure_file(cmake/changelog.in ${made}/changelog @ONLY)
add_custom_command(OUTPUT ${made}/changelog.gz
  COMMAND gzip -9nc ${made}/changelog > ${made}/changelog.gz DEPENDS ${made}/changelog VERBATIM)
add_custom_target(changelog ALL DEPENDS ${made}/changelog.gz)
install(FILES ${made}/changelog.gz cmake/copyright TYPE DOC)
include(CPack)
