# libFuzzer targets for every reader and encoder that takes outside bytes
# (server replies, ini files, subjects and texts, message files). Needs
# clang; configure with CC=clang CXX=clang++ -DKEMAIL_FUZZ=ON. The library's
# objects get the coverage instrumentation and both sanitizers; each program
# tests/fuzz/fuzz_<name>.cpp links libFuzzer's main, and its seed corpus is
# tests/fuzz/corpus/<name>/. Build them all with the target fuzz_all (the
# shared library and the tools are not meant for this build);
# scripts/fuzz.sh builds and runs them.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "KEMAIL_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()

# Applies to every target defined after this point, the library included.
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                    -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g)
add_link_options(-fsanitize=address,undefined)

# The programs link the library's static twin, so they reach the same code
# the shared library is made of. That target is defined further down in the
# top directory: the programs are added once that directory is done.
function(kemail_add_fuzz_targets)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/fuzz/fuzz_*.cpp)
  add_custom_target(fuzz_all)
  foreach(src ${sources})
    get_filename_component(name ${src} NAME_WE)
    add_executable(${name} ${src})
    target_link_libraries(${name} PRIVATE kemail_internal)
    # kemail-trace's reader is a tool's code, not the library's.
    if(name STREQUAL "fuzz_trace_reader")
      target_link_libraries(${name} PRIVATE kemail_trace_reader)
    endif()
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    add_dependencies(fuzz_all ${name})
  endforeach()
endfunction()
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL kemail_add_fuzz_targets)
