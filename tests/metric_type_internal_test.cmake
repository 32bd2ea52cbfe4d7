target_include_directories(metric_type_internal_test PRIVATE
  ${PROJECT_SOURCE_DIR}/circmetrics/include)
