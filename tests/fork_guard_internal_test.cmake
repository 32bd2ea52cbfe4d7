# A program that loads the library at run time, after it has registered fork handlers.
add_executable(fork_guard_internal_test_loader fork_guard_internal_test/loader.cpp)
target_include_directories(fork_guard_internal_test_loader PRIVATE
  ${PROJECT_SOURCE_DIR}/util/include ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(fork_guard_internal_test_loader PRIVATE qv_warnings ${CMAKE_DL_LIBS})
add_dependencies(fork_guard_internal_test fork_guard_internal_test_loader)
target_compile_definitions(fork_guard_internal_test PRIVATE
  QV_FORK_GUARD_LOADER="$<TARGET_FILE:fork_guard_internal_test_loader>"
  QV_LIBRARY="$<TARGET_FILE:QVUtil>")
add_dependencies(fork_guard_internal_test QVUtil)
