# molk_man_page(SOURCE COMPONENT): installs a troff page gzipped, as Debian
# ships them, in the section that its file name ends with (molkshm.1: man1).
function(molk_man_page source component)
  get_filename_component(name ${source} NAME)
  string(REGEX MATCH "[1-9]$" section ${name})
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
  # -n: no name or time stamp in the archive, so that packages are reproducible.
  add_custom_command(OUTPUT ${page}
    COMMAND gzip -9n -c ${CMAKE_CURRENT_SOURCE_DIR}/${source} > ${page}
    DEPENDS ${source})
  add_custom_target(man_${name} ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
