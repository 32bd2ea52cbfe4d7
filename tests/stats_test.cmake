# Recorders that replace the real one: a fake one that prints its calls, and nine more that
# each lack one of the nine functions.
function(add_fake_recorder name)
  add_library(stats_test_${name} SHARED stats_test/fake_recorder.cpp)
  target_link_libraries(stats_test_${name} PRIVATE qv_warnings)
  target_include_directories(stats_test_${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  set_target_properties(stats_test_${name} PROPERTIES
    OUTPUT_NAME circmetrics
    LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/stats_test/${name}")
  target_compile_definitions(stats_test_${name} PRIVATE ${ARGN})
  list(APPEND stats_test_needs stats_test_${name})
  set(stats_test_needs ${stats_test_needs} PARENT_SCOPE)
endfunction()

add_fake_recorder(fake)
foreach(symbol
    stats_recorder_alloc stats_recorder_global_ns stats_register_ns stats_register
    stats_observe stats_add64 stats_set_hist stats_set_hist_intscale
    stats_recorder_output_json)
  add_fake_recorder(without_${symbol} WITHOUT_${symbol})
endforeach()

# A library that links the fake recorder and so keeps it loaded.
add_library(stats_test_holder SHARED stats_test/holder.cpp)
target_link_libraries(stats_test_holder PRIVATE qv_warnings stats_test_fake)
target_link_options(stats_test_holder PRIVATE -Wl,--no-as-needed)
set_target_properties(stats_test_holder PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/stats_test")

# A plugin that the test programs load.
add_library(stats_test_plugin SHARED stats_test/plugin.cpp)
target_link_libraries(stats_test_plugin PRIVATE qv_warnings)
set_target_properties(stats_test_plugin PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/stats_test")

# Programs without a run path that could find the recorder.
foreach(program loader forker)
  add_executable(stats_test_${program} stats_test/${program}.cpp)
  target_link_libraries(stats_test_${program} PRIVATE qv_warnings Threads::Threads ${CMAKE_DL_LIBS})
  target_include_directories(stats_test_${program} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  set_target_properties(stats_test_${program} PROPERTIES SKIP_BUILD_RPATH ON)
endforeach()

foreach(test
    stats_test stats_concurrency_test stats_fork_test stats_recorder_test stats_reports_test
    stats_timing_test)
  add_dependencies(${test} ${stats_test_needs}
    stats_test_holder stats_test_plugin stats_test_loader stats_test_forker)
  # Plugins and recorders call functions of the program. A recorder must still call its own
  # functions where the program has some of the same names.
  set_target_properties(${test} PROPERTIES ENABLE_EXPORTS ON)
  target_compile_definitions(${test} PRIVATE
    QV_FAKE_RECORDERS="${CMAKE_BINARY_DIR}/stats_test"
    QV_STATS_LOADER="$<TARGET_FILE:stats_test_loader>"
    QV_STATS_FORKER="$<TARGET_FILE:stats_test_forker>"
    QV_LIBRARY="$<TARGET_FILE:QVUtil>")
endforeach()
