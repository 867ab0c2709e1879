# Installed programs find libkemail beside them: bin/../lib/<multiarch>. A
# run path is only set when the library does not go to a directory the
# dynamic loader searches anyway (a package into /usr needs none, and Debian
# policy wants none there).
list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES
     "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}" kemail_libdir_is_system)
if(kemail_libdir_is_system EQUAL -1)
  file(RELATIVE_PATH kemail_bin_to_lib
       "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}"
       "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
  set(KEMAIL_INSTALL_RPATH "$ORIGIN/${kemail_bin_to_lib}")
else()
  set(KEMAIL_INSTALL_RPATH "")
endif()
