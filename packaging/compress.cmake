# Compresses manual pages and changelogs before they are packed, as Debian wants them.
file(GLOB texts ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man1/*.1
                ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog)
foreach(text ${texts})
  execute_process(COMMAND gzip --best --no-name ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
