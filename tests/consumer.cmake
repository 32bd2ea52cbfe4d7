# The outside projects are built without sanitizers, and can't use a sanitized library.
if(NOT QV_SANITIZE)
  set(qv_consumer ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run)
  add_test(NAME Package.ServesOutsideProjects
    COMMAND ${qv_consumer} install ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
  set_tests_properties(Package.ServesOutsideProjects PROPERTIES TIMEOUT 300)
endif()
