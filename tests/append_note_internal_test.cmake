# The test computes the checksums of forged notes with the hash library.
include(${PROJECT_SOURCE_DIR}/cmake/FarmHash.cmake)
target_include_directories(append_note_internal_test PRIVATE ${FARMHASH_INCLUDE_DIR})
target_link_libraries(append_note_internal_test PRIVATE ${FARMHASH_LIBRARY})
