# The first program links against the library as it was built here.
set(qv_sanitize_flag "")
if(QV_SANITIZE)
  set(qv_sanitize_flag "-fsanitize=${QV_SANITIZE}")
endif()
target_compile_definitions(readme_test PRIVATE QV_SANITIZE_FLAG="${qv_sanitize_flag}")
