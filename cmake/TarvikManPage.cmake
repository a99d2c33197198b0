# tarvik_man_page(TARGET DESCRIPTION): a section-1 man page for a program, made at build
# time by help2man from the program's own --help, with the extra sections of
# cmake/man/<program>.h2m, and installed. Without help2man there are no man pages.
find_program(TARVIK_HELP2MAN help2man)
if(NOT TARVIK_HELP2MAN)
  message(STATUS "help2man not found: no man pages")
endif()

function(tarvik_man_page target description)
  if(NOT TARVIK_HELP2MAN)
    return()
  endif()
  get_target_property(program ${target} OUTPUT_NAME)
  if(NOT program)
    set(program ${target})
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1)
  set(include ${PROJECT_SOURCE_DIR}/cmake/man/${program}.h2m)
  # The version is the package's; help2man then needs no --version of the program.
  add_custom_command(OUTPUT ${page}
    COMMAND ${TARVIK_HELP2MAN} --no-info --no-discard-stderr --name=${description}
            --version-string=${PROJECT_VERSION} --include=${include} --output=${page} $<TARGET_FILE:${target}>
    DEPENDS ${target} ${include}
    COMMENT "Man page ${program}.1"
    VERBATIM)
  add_custom_target(${target}-man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()
