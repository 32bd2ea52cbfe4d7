find_library(LMDB_LIBRARY lmdb REQUIRED)
find_library(CDB_LIBRARY cdb REQUIRED)
target_link_libraries(indexed_lookup_bench PRIVATE ${LMDB_LIBRARY} ${CDB_LIBRARY})
