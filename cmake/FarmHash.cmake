# Finds the function of libfarmhash that gives the digests of a release build. A library
# built without NDEBUG alters the results of util::Hash128WithSeed, but its CityHash
# variant is the same function, unaltered. The check hashes "abc" with seed 0.
include(CheckCXXSourceRuns)

find_library(FARMHASH_LIBRARY farmhash REQUIRED)
find_path(FARMHASH_INCLUDE_DIR farmhash.h REQUIRED)

set(qv_farmhash_check [[
#include <farmhash.h>
#ifdef QV_FARMHASH_USE_CITY
namespace farmhashcc {
util::uint128_t CityHash128WithSeed(const char* s, size_t len, util::uint128_t seed);
}
#define HASH farmhashcc::CityHash128WithSeed
#else
#define HASH util::Hash128WithSeed
#endif
int main() {
  util::uint128_t h = HASH("abc", 3, util::uint128_t(0, 0));
  return h.first == 0x7bdf9710d7138126ULL && h.second == 0x7eb8475c7d158d84ULL ? 0 : 1;
}
]])
set(CMAKE_REQUIRED_LIBRARIES ${FARMHASH_LIBRARY})
set(CMAKE_REQUIRED_INCLUDES ${FARMHASH_INCLUDE_DIR})
check_cxx_source_runs("${qv_farmhash_check}" QV_FARMHASH_PLAIN_IS_RELEASE)
if(NOT QV_FARMHASH_PLAIN_IS_RELEASE)
  set(CMAKE_REQUIRED_DEFINITIONS -DQV_FARMHASH_USE_CITY)
  check_cxx_source_runs("${qv_farmhash_check}" QV_FARMHASH_CITY_IS_RELEASE)
  if(NOT QV_FARMHASH_CITY_IS_RELEASE)
    message(FATAL_ERROR "libfarmhash offers no function that gives the release 128-bit digests")
  endif()
  set(QV_FARMHASH_DEFINITIONS QV_FARMHASH_USE_CITY)
endif()
unset(CMAKE_REQUIRED_LIBRARIES)
unset(CMAKE_REQUIRED_INCLUDES)
unset(CMAKE_REQUIRED_DEFINITIONS)
