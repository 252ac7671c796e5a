# The man page and the completion, which are made from the table of commands; what `cmake --install`
# puts where; and the Debian package, by `cpack` in the build folder.
include(GNUInstallDirs)

set(docs ${PROJECT_SOURCE_DIR}/docs)
set(made ${PROJECT_BINARY_DIR}/share)
set(make_docs ${PROJECT_SOURCE_DIR}/scripts/make-docs)
file(MAKE_DIRECTORY ${made})
add_custom_command(OUTPUT ${made}/kiv.1 ${made}/kiv.bash
  COMMAND ${make_docs} man ${docs}/commands.md ${docs}/kiv.1.in ${PROJECT_VERSION} > ${made}/kiv.1
  COMMAND ${make_docs} completion ${docs}/commands.md > ${made}/kiv.bash
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
add_custom_target(share ALL DEPENDS ${compressed} ${made}/kiv.bash)
install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${made}/kiv.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME kiv)
# The README links to the folder beside it.
install(FILES README.md CONTRIBUTING.md TYPE DOC)
install(DIRECTORY docs TYPE DOC FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples TYPE DOC USE_SOURCE_PERMISSIONS)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_PACKAGE_CONTACT "kiv maintainers <kiv@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "test tool for the cellular modem of an Android handset")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# A static binary depends on nothing.
if(NOT KIV_STATIC_PIE)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
