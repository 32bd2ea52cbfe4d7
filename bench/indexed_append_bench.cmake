find_library(LMDB_LIBRARY lmdb REQUIRED)
target_link_libraries(indexed_append_bench PRIVATE ${LMDB_LIBRARY})
