# The programs of the guide's incidents.
foreach(name reader builder)
  add_executable(guide_${name} qvutil_guide_test/${name}.cpp)
  set_target_properties(guide_${name} PROPERTIES
    OUTPUT_NAME ${name}
    RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin/guide")
  target_link_libraries(guide_${name} PRIVATE QVUtil::QVUtil qv_warnings)
  add_dependencies(qvutil_guide_test guide_${name})
endforeach()
add_dependencies(qvutil_guide_test QVTrace)
