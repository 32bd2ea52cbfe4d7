target_sources(process_generation_test PRIVATE ${PROJECT_SOURCE_DIR}/util/src/process_generation.cpp)
target_include_directories(process_generation_test PRIVATE ${PROJECT_SOURCE_DIR}/util)
# clang-tidy reads this file with the test's options, and can't read gcc's precompiled header.
set_source_files_properties(${PROJECT_SOURCE_DIR}/util/src/process_generation.cpp
  PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
