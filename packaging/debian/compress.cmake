# Debian wants these compressed; elsewhere they are installed as they are.
file(GLOB pages ${CPACK_TEMPORARY_DIRECTORY}/usr/share/man/*/*.[0-9]
                ${CPACK_TEMPORARY_DIRECTORY}/usr/share/doc/vvlan/changelog)
execute_process(COMMAND gzip -9n ${pages} COMMAND_ERROR_IS_FATAL ANY)
