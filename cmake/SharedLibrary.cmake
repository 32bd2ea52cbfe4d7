# Exports nothing of a shared library but what its version script names, and gives it the
# project's version. Never unloaded: its fork handlers, and what it runs in threads of its own and
# at the end of the process, must outlive dlclose.
function(qv_finish_shared_library target version_script)
  target_link_options(${target} PRIVATE
    -Wl,--version-script=${version_script} -Wl,-z,nodelete -Wl,-Bsymbolic-functions)
  if(NOT QV_SANITIZE AND NOT QV_BUILD_FUZZ)
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${version_script})
endfunction()
