# Debian packages from the tree with CPack (cpack -G DEB in the build
# directory; scripts/ci-packaging.sh does it all):
#   libkemail1     the shared library; its postinst makes the library's
#                  fixed directories with mode 0700
#   libkemail-dev  header, .so link, kemail.pc, section 3 manuals
#   kemail-tools   kemail-send, kemail-trace, their manuals and completions
# Build the packages with -DCMAKE_INSTALL_PREFIX=/usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kemail)
set(CPACK_PACKAGE_VENDOR "kemail developers")
set(CPACK_PACKAGE_CONTACT "kemail developers <kemail@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "send one e-mail over SMTP")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.org/kemail")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libkemail1)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIB_DESCRIPTION "send one e-mail over SMTP - shared library
 libkemail composes one MIME mail (Japanese text as ISO-2022-JP, RFC 2047
 subjects, base64 attachments, RFC 2046 message/partial pieces) and sends it
 over SMTP with AUTH CRAM-MD5, PLAIN or LOGIN, or POP before SMTP, with a
 time-out per protocol phase, a mail log and a trace ring.")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/libkemail1/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/libkemail1/postrm
    ${CMAKE_SOURCE_DIR}/packaging/debian/libkemail1/triggers)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkemail-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS lib)
set(CPACK_COMPONENT_DEV_DESCRIPTION "send one e-mail over SMTP - development files
 The header kemail.h, the link to the shared library, kemail.pc for
 pkg-config and the libkemail(3) manual.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kemail-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION mail)
set(CPACK_COMPONENT_TOOLS_DEPENDS lib)
# dpkg-shlibdeps cannot see libkemail1 while it is being built beside the
# tools, so the tools' run-time dependencies are named here: the library of
# this version (from the component dependency) and what it needs itself.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "send one e-mail over SMTP - command-line tools
 kemail-send sends one mail through libkemail from the command line;
 kemail-trace prints and searches the library's trace rings.")

# Debian wants a copyright file and a changelog in every package's doc
# directory.
foreach(component lib dev tools)
  set(package_lib libkemail1)
  set(package_dev libkemail-dev)
  set(package_tools kemail-tools)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/debian/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_${component}}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_${component}}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
  COMMAND sh -c "gzip -9n -c \"$1\" > \"$2\"" sh
          ${CMAKE_SOURCE_DIR}/packaging/debian/changelog
          ${CMAKE_BINARY_DIR}/packaging/changelog.gz
  DEPENDS ${CMAKE_SOURCE_DIR}/packaging/debian/changelog VERBATIM)
add_custom_target(package_docs ALL DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.gz)

include(CPack)
