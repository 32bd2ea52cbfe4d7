add_executable(house_c_program support/c_program.c)
target_link_libraries(house_c_program PRIVATE QVUtil::QVUtil qv_warnings)
if(QV_SANITIZE)
  # The runtime of a sanitized C++ library needs the C++ driver to be found.
  set_target_properties(house_c_program PROPERTIES LINKER_LANGUAGE CXX)
endif()
add_dependencies(house_test house_c_program)
