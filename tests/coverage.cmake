# The library and each internal test link these objects, and so have counters of their own to save.
if(QV_COVERAGE)
  target_sources(qvutil_objects PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/coverage.cpp)
  target_sources(qv_test_support PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/coverage_exit.cpp)
endif()
