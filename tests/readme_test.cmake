# The first program links against the library as it was built here.
target_compile_definitions(readme_test PRIVATE
  QV_SANITIZE_FLAG="$<$<BOOL:${QV_SANITIZE}>:-fsanitize=${QV_SANITIZE}>")
