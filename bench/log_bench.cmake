find_package(spdlog REQUIRED)
target_link_libraries(log_bench PRIVATE spdlog::spdlog)
