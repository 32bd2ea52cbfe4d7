target_sources(process_generation_test PRIVATE ${PROJECT_SOURCE_DIR}/util/src/process_generation.cpp)
target_include_directories(process_generation_test PRIVATE ${PROJECT_SOURCE_DIR}/util)
