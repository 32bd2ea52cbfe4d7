# Programs with the tracer. The sources of these tests report to it themselves.
foreach(name trace_test trace_refusals_test trace_threads_test)
  target_link_libraries(${name} PRIVATE QVUtil::QVTrace)
  target_compile_definitions(${name} PRIVATE QV_TRACE_LIBRARY="$<TARGET_FILE:QVTrace>")
endforeach()

# A program without a tracer, and one without libQVUtil.so.
add_dependencies(trace_test circular_buffer_pool_test_untraced)
target_compile_definitions(trace_test PRIVATE
  QV_UNTRACED_PROGRAM="$<TARGET_FILE:circular_buffer_pool_test_untraced>")
add_executable(trace_test_alone trace_test/alone.cpp)
target_include_directories(trace_test_alone PRIVATE ${PROJECT_SOURCE_DIR}/util/include)
target_link_libraries(trace_test_alone PRIVATE QVUtil::QVTrace qv_warnings)
add_dependencies(trace_refusals_test trace_test_alone)
target_compile_definitions(trace_refusals_test PRIVATE
  QV_TRACED_ALONE="$<TARGET_FILE:trace_test_alone>")
