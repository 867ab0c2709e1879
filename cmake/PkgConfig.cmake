# kemail.pc names its directories relative to its own place (${pcfiledir}),
# so the file stays right for whatever prefix `cmake --install --prefix`
# is given.
file(RELATIVE_PATH kemail_pc_to_prefix
     "/kemail-prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/kemail-prefix")
string(REGEX REPLACE "/$" "" kemail_pc_to_prefix "${kemail_pc_to_prefix}")
set(KEMAIL_PC_PREFIX "\${pcfiledir}/${kemail_pc_to_prefix}")
configure_file(${CMAKE_SOURCE_DIR}/kemail.pc.in ${CMAKE_BINARY_DIR}/kemail.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kemail.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
