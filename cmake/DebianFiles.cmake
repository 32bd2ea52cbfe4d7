# cpack runs this before it packs the installed files. Adds what else a Debian package
# holds, and compresses the changelog, the manual pages and the documents.
set(source ${CMAKE_CURRENT_LIST_DIR}/..)
set(plain OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} variable)
  set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}/share)
  set(doc ${share}/doc/${CPACK_DEBIAN_${variable}_PACKAGE_NAME})
  file(COPY ${source}/cmake/copyright DESTINATION ${doc} FILE_PERMISSIONS ${plain})
  file(COPY ${source}/CHANGELOG.md DESTINATION ${doc} FILE_PERMISSIONS ${plain})
  file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)

  file(GLOB pages ${share}/man/man*/* ${doc}/*.md)
  execute_process(COMMAND gzip -9n ${doc}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# The modes of the directories depend on the umask.
execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -type d -exec chmod 755 {} +
  COMMAND_ERROR_IS_FATAL ANY)
