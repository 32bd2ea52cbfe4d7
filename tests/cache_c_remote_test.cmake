target_link_libraries(cache_c_remote_test PRIVATE qv_redis_servers)
add_dependencies(cache_c_remote_test QVRemote)  # which libQVUtil.so opens
