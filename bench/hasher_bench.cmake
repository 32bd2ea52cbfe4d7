# The peers: the hash functions themselves.
include(${PROJECT_SOURCE_DIR}/cmake/FarmHash.cmake)
target_include_directories(hasher_bench PRIVATE ${FARMHASH_INCLUDE_DIR})
target_compile_definitions(hasher_bench PRIVATE ${QV_FARMHASH_DEFINITIONS})
target_link_libraries(hasher_bench PRIVATE ${B2_LIBRARY} ${FARMHASH_LIBRARY})
