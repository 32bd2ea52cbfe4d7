add_dependencies(example_trace_test c_cache QVTrace)
target_compile_definitions(example_trace_test PRIVATE QV_TRACE_LIBRARY="$<TARGET_FILE:QVTrace>")
