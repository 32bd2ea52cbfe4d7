add_executable(house_c_program support/c_program.c)
target_link_libraries(house_c_program PRIVATE QVUtil::QVUtil qv_warnings)
add_dependencies(house_test house_c_program)
