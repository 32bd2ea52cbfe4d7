# A metrics recorder that reports what was counted. The library finds it before the real one.
add_library(cache_test_recorder SHARED support/counting_recorder.cpp)
set_target_properties(cache_test_recorder PROPERTIES
  OUTPUT_NAME circmetrics
  LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/cache_test_recorder")
target_link_libraries(cache_test_recorder PRIVATE qv_warnings)
foreach(test cache_test cache_memory_test cache_lookup_store_test)
  add_dependencies(${test} cache_test_recorder)
  target_compile_definitions(${test} PRIVATE
    QV_COUNTING_RECORDER_DIR="$<TARGET_FILE_DIR:cache_test_recorder>")
endforeach()
