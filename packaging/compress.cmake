# Compresses manual pages and changelogs before they are packed, as Debian wants them.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/man/*.[1-9]
                        ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/doc/changelog.Debian)
foreach(text ${texts})
  execute_process(COMMAND gzip --best --no-name ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
