# The benchmark looks up, by name, the recorder that the library has loaded.
target_link_libraries(stats_bench PRIVATE ${CMAKE_DL_LIBS})
add_dependencies(stats_bench circmetrics)
