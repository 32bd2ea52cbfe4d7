foreach(test
    circmetrics_test circmetrics_buckets_test circmetrics_fork_test circmetrics_histogram_test
    circmetrics_process_test circmetrics_threads_test)
  target_link_libraries(${test} PRIVATE circmetrics)
endforeach()
