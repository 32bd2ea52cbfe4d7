# For each module that has counters of the library: the library and the internal tests.
if(QV_COVERAGE)
  target_sources(qvutil_objects PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/coverage.cpp)
  target_sources(qv_test_support PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/coverage_exit.cpp)
endif()
