# The test brings a tracer of its own, which the library finds in the executable.
set_target_properties(circular_buffer_pool_tracer_test PROPERTIES ENABLE_EXPORTS ON)

# A program without a tracer, and a tracer to preload into it.
add_executable(circular_buffer_pool_test_untraced circular_buffer_pool_test/untraced_program.cpp)
target_link_libraries(circular_buffer_pool_test_untraced PRIVATE QVUtil::QVUtil qv_warnings)
add_library(circular_buffer_pool_test_tracer SHARED circular_buffer_pool_test/print_tracer.cpp)
target_include_directories(circular_buffer_pool_test_tracer PRIVATE
  ${PROJECT_SOURCE_DIR}/util/include)
target_link_libraries(circular_buffer_pool_test_tracer PRIVATE qv_warnings)
add_dependencies(circular_buffer_pool_tracer_test
  circular_buffer_pool_test_untraced circular_buffer_pool_test_tracer)
target_compile_definitions(circular_buffer_pool_tracer_test PRIVATE
  QV_UNTRACED_PROGRAM="$<TARGET_FILE:circular_buffer_pool_test_untraced>"
  QV_PRINT_TRACER="$<TARGET_FILE:circular_buffer_pool_test_tracer>")
