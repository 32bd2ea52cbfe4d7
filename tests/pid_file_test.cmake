# A program that loads the library at run time, after it has registered an exit handler.
add_executable(pid_file_test_loader pid_file_test/loader.cpp)
target_link_libraries(pid_file_test_loader PRIVATE qv_warnings ${CMAKE_DL_LIBS})
add_dependencies(pid_file_test pid_file_test_loader)
target_compile_definitions(pid_file_test PRIVATE
  QV_PID_FILE_LOADER="$<TARGET_FILE:pid_file_test_loader>"
  QV_LIBRARY="$<TARGET_FILE:QVUtil>")
