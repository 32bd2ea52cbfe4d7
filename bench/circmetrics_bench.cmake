# The CMake package of prometheus-cpp also asks for the development files of a web
# server and a web client, which the metrics don't need.
find_path(PROMETHEUS_INCLUDE_DIR prometheus/counter.h REQUIRED)
find_library(PROMETHEUS_CORE prometheus-cpp-core REQUIRED)
target_include_directories(circmetrics_bench SYSTEM PRIVATE ${PROMETHEUS_INCLUDE_DIR})
target_link_libraries(circmetrics_bench PRIVATE circmetrics ${PROMETHEUS_CORE})
