# Its programs preload the tracer.
add_dependencies(qvutil_trace_test QVTrace)
target_compile_definitions(qvutil_trace_test PRIVATE QV_TRACE_LIBRARY="$<TARGET_FILE:QVTrace>")
