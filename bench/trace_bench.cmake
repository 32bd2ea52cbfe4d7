target_link_libraries(trace_bench PRIVATE QVUtil::QVTrace)
