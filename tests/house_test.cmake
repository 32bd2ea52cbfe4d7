add_executable(house_c_program support/c_program.c)
target_link_libraries(house_c_program PRIVATE QVUtil::QVUtil qv_warnings)
if(QV_SANITIZE)
  # Only the C++ driver finds the runtime of a sanitized C++ library.
  set_target_properties(house_c_program PROPERTIES LINKER_LANGUAGE CXX)
endif()
add_dependencies(house_test house_c_program QVRemote QVTrace)
