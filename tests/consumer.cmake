# A sanitized library needs sanitized programs.
if(NOT QV_SANITIZE)
  add_test(NAME Package.ServesOutsideProjects
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
  set_tests_properties(Package.ServesOutsideProjects PROPERTIES TIMEOUT 120)
endif()
