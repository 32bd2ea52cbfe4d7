# The warnings that every target of this tree is clean under.
add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# gcc 12 takes the text + std::string of its own library for overlapping copies
# (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(qv_warnings INTERFACE -Wno-restrict)
endif()
if(QV_WERROR)
  target_compile_options(qv_warnings INTERFACE -Werror)
endif()
