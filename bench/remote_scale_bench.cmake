find_library(HIREDIS_LIBRARY hiredis REQUIRED)
target_link_libraries(remote_scale_bench PRIVATE QVUtil::QVRemote ${HIREDIS_LIBRARY})
