# The test compares the digests with those of the hash libraries themselves.
include(${PROJECT_SOURCE_DIR}/cmake/FarmHash.cmake)
target_include_directories(hasher_test PRIVATE ${FARMHASH_INCLUDE_DIR})
target_compile_definitions(hasher_test PRIVATE ${QV_FARMHASH_DEFINITIONS})
target_link_libraries(hasher_test PRIVATE ${B2_LIBRARY} ${FARMHASH_LIBRARY})
