# QV_SANITIZE applies to all targets, the recorder included.
if(QV_SANITIZE)
  add_compile_options(-fsanitize=${QV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QV_SANITIZE})
  # Under a sanitizer, dlopen with RTLD_DEEPBIND ends the process.
  add_compile_definitions(QV_NO_DEEPBIND)
endif()
if(QV_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
