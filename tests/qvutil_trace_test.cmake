# The programs of these tests preload the tracer.
foreach(name qvutil_trace_test qvutil_guide_test)
  add_dependencies(${name} QVTrace)
  target_compile_definitions(${name} PRIVATE QV_TRACE_LIBRARY="$<TARGET_FILE:QVTrace>")
endforeach()
