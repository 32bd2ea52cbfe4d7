# The bench asks for the recorder that the library has loaded, by its name.
target_link_libraries(stats_bench PRIVATE ${CMAKE_DL_LIBS})
add_dependencies(stats_bench circmetrics)
