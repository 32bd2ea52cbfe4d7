# These tests compile the programs of the documents and link them with the built library.
set(qv_sanitize_flag "")
if(QV_SANITIZE)
  set(qv_sanitize_flag "-fsanitize=${QV_SANITIZE}")
endif()
foreach(test guide_test readme_test)
  target_compile_definitions(${test} PRIVATE QV_SANITIZE_FLAG="${qv_sanitize_flag}")
endforeach()
