# QV_SANITIZE applies to everything that is built, the recorder included.
if(QV_SANITIZE)
  add_compile_options(-fsanitize=${QV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QV_SANITIZE})
  # RTLD_DEEPBIND ends a process that runs under a sanitizer.
  add_compile_definitions(QV_NO_DEEPBIND)
endif()
if(QV_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
