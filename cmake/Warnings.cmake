# Every target compiles without these warnings.
add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# gcc 12 wrongly reports overlapping copies inside its own operator+ of a C string and a
# std::string (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(qv_warnings INTERFACE -Wno-restrict)
endif()
if(QV_WERROR)
  target_compile_options(qv_warnings INTERFACE -Werror)
endif()
