# A program that loads the library at run time, after its first thread has begun.
add_executable(log_test_loader log_test/loader.cpp)
target_include_directories(log_test_loader PRIVATE ${PROJECT_SOURCE_DIR}/util/include)
target_link_libraries(log_test_loader PRIVATE qv_warnings Threads::Threads ${CMAKE_DL_LIBS})
add_dependencies(log_test log_test_loader)
target_compile_definitions(log_test PRIVATE
  QV_LOG_LOADER="$<TARGET_FILE:log_test_loader>"
  QV_LIBRARY="$<TARGET_FILE:QVUtil>")
