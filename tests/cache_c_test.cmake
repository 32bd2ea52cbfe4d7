add_executable(cache_c_program support/cache_c_program.c)
target_link_libraries(cache_c_program PRIVATE QVUtil::QVUtil)
target_compile_options(cache_c_program PRIVATE -Wall -Wextra -Wpedantic -Werror)
set_target_properties(cache_c_program PROPERTIES C_STANDARD 11 C_EXTENSIONS OFF)
if(QV_SANITIZE)
  # Only the C++ driver finds the runtime of a sanitized C++ library.
  set_target_properties(cache_c_program PROPERTIES LINKER_LANGUAGE CXX)
  # A sanitizer's dlopen ignores the library's run path, but heeds an RPATH of the program.
  foreach(program cache_c_test cache_c_program)
    target_link_options(${program} PRIVATE LINKER:--disable-new-dtags)
  endforeach()
endif()
add_dependencies(cache_c_test cache_c_program QVRemote)
