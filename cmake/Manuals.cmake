# Manual pages from man/: compressed at build time (gzip -n, so that the
# bytes do not depend on the build's time) and installed by section: 3 with
# the development files, the others with the tools.
find_program(KEMAIL_GZIP gzip)
file(GLOB KEMAIL_MANUALS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/*.[1-8])
set(kemail_manual_outputs)
foreach(page ${KEMAIL_MANUALS})
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\.([1-8])$" "\\1" section ${name})
  set(out ${CMAKE_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "\"$1\" -9n -c \"$2\" > \"$3\"" sh ${KEMAIL_GZIP} ${page} ${out}
    DEPENDS ${page} VERBATIM)
  list(APPEND kemail_manual_outputs ${out})
  if(section STREQUAL "3")
    set(component dev)
  else()
    set(component tools)
  endif()
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(manuals ALL DEPENDS ${kemail_manual_outputs})
