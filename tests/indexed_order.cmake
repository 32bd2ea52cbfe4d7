# ThreadSanitizer agrees with the memory orders of the index, and objects when one is weakened.
if(NOT QV_SANITIZE STREQUAL "thread")
  return()
endif()

# Adds a program with `from` replaced by `to` in the index's source or header. Whoever loads slots
# is compiled with the other header.
function(qv_add_order_program name file from to)
  set(folder src/cache/indexed)
  set(original ${PROJECT_SOURCE_DIR}/util/${folder}/${file})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${original})
  file(READ ${original} text)
  string(REPLACE "${from}" "${to}" changed "${text}")
  if(changed STREQUAL text AND NOT from STREQUAL to)
    message(FATAL_ERROR "${original} has no ${from}")
  endif()
  set(copies ${CMAKE_CURRENT_BINARY_DIR}/${name}_sources)
  file(MAKE_DIRECTORY ${copies}/${folder})
  foreach(source index_file.cpp pair.cpp)
    configure_file(${PROJECT_SOURCE_DIR}/util/${folder}/${source} ${copies}/${folder}/${source} COPYONLY)
  endforeach()
  file(CONFIGURE OUTPUT ${copies}/${folder}/${file} CONTENT "${changed}" @ONLY)

  add_executable(${name} indexed_order/program.cpp
    ${copies}/${folder}/index_file.cpp ${copies}/${folder}/pair.cpp
    $<FILTER:$<FILTER:$<TARGET_OBJECTS:qvutil_objects>,EXCLUDE,/index_file>,EXCLUDE,/pair>)
  # Below -O2, gcc takes the order that an atomic_ref is given for one that it doesn't know, and
  # so for the strongest.
  target_compile_options(${name} PRIVATE -O2)
  target_include_directories(${name} PRIVATE
    ${copies} ${PROJECT_SOURCE_DIR}/util ${PROJECT_SOURCE_DIR}/util/include ${FARMHASH_INCLUDE_DIR})
  target_link_libraries(${name} PRIVATE qv_test_support qv_warnings Threads::Threads
    ${B2_LIBRARY} ${FARMHASH_LIBRARY} ${CMAKE_DL_LIBS})
endfunction()

function(qv_add_order_test test name expected file from to)
  qv_add_order_program(${name} ${file} "${from}" "${to}")
  add_test(NAME IndexedOrder.${test} COMMAND ${name})
  set_tests_properties(IndexedOrder.${test} PROPERTIES
    PASS_REGULAR_EXPRESSION "${expected}" TIMEOUT ${test_timeout} ENVIRONMENT "QV_LOG_FILE=/dev/null")
endfunction()

function(qv_add_weaker_order_test test name file from to)
  qv_add_order_test(${test} ${name} "ThreadSanitizer: data race" ${file} "${from}" "${to}")
endfunction()

qv_add_order_test(IsStrongEnough indexed_order "^all is found\n$" index_file.cpp "release" "release")
qv_add_weaker_order_test(ReleasesEachSlot indexed_order_slot_store index_file.cpp
  "store(slot, std::memory_order_release)" "store(slot, std::memory_order_relaxed)")
qv_add_weaker_order_test(AcquiresEachSlot indexed_order_slot_load index_file.h
  "[at]).load(std::memory_order_acquire)" "[at]).load(std::memory_order_relaxed)")
qv_add_weaker_order_test(ReleasesWhatIsCovered indexed_order_covered_store index_file.cpp
  "store(value, std::memory_order_release)" "store(value, std::memory_order_relaxed)")
qv_add_weaker_order_test(AcquiresWhatIsCovered indexed_order_covered_load index_file.cpp
  "*word).load(std::memory_order_acquire)" "*word).load(std::memory_order_relaxed)")
