# The guide's programs link against the library as it was built here.
set(qv_guide_sanitize_flag "")
if(QV_SANITIZE)
  set(qv_guide_sanitize_flag "-fsanitize=${QV_SANITIZE}")
endif()
target_compile_definitions(guide_test PRIVATE QV_SANITIZE_FLAG="${qv_guide_sanitize_flag}")
