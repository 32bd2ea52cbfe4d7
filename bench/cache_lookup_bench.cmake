find_package(absl REQUIRED)
find_library(LMDB_LIBRARY lmdb REQUIRED)
target_link_libraries(cache_lookup_bench PRIVATE absl::flat_hash_map ${LMDB_LIBRARY})
