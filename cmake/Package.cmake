# What `cmake --install` installs, and the Debian packages that `cpack` makes of
# it: libqvutil1 (component runtime), libqvremote1 (remote), libqvtrace1 (trace),
# libqvutil-dev (devel), libcircmetrics (recorder), qvutil (tool), and for each with programs or
# libraries one with its debug symbols, NAME-dbgsym. Configured with -DCMAKE_INSTALL_PREFIX=/usr,
# the libraries go where Debian has them, in a directory named after the architecture.
include(CMakePackageConfigHelpers)

install(TARGETS QVUtil EXPORT QVUtilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
install(TARGETS QVRemote EXPORT QVUtilRemoteTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT remote NAMELINK_COMPONENT devel)
install(TARGETS QVTrace EXPORT QVUtilTraceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT trace NAMELINK_COMPONENT devel)
install(DIRECTORY util/include/quorvane remote/include/quorvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel)

set(qv_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QVUtil)
install(EXPORT QVUtilTargets NAMESPACE QVUtil:: DESTINATION ${qv_cmake_dir} COMPONENT devel)
# Apart from the others: a project that needs those finds them without libqvremote.so and
# libqvtrace.so.
install(EXPORT QVUtilRemoteTargets NAMESPACE QVUtil:: DESTINATION ${qv_cmake_dir} COMPONENT devel)
install(EXPORT QVUtilTraceTargets NAMESPACE QVUtil:: DESTINATION ${qv_cmake_dir} COMPONENT devel)
configure_package_config_file(cmake/QVUtilConfig.cmake.in ${PROJECT_BINARY_DIR}/QVUtilConfig.cmake
  INSTALL_DESTINATION ${qv_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QVUtilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QVUtilConfig.cmake ${PROJECT_BINARY_DIR}/QVUtilConfigVersion.cmake
  DESTINATION ${qv_cmake_dir} COMPONENT devel)

# Relative to the file itself, so that an unpacked tree works wherever it is.
file(RELATIVE_PATH QV_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" QV_PC_PREFIX "${QV_PC_PREFIX}")
configure_file(cmake/qvutil.pc.in ${PROJECT_BINARY_DIR}/qvutil.pc @ONLY)
configure_file(cmake/qvremote.pc.in ${PROJECT_BINARY_DIR}/qvremote.pc @ONLY)
configure_file(cmake/qvtrace.pc.in ${PROJECT_BINARY_DIR}/qvtrace.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvutil.pc ${PROJECT_BINARY_DIR}/qvremote.pc
  ${PROJECT_BINARY_DIR}/qvtrace.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)

if(QV_BUILD_TOOLS)
  install(TARGETS qvutil RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES docs/man/qvutil.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
  install(FILES tools/qvutil/completion.bash RENAME qvutil
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tool)
endif()

file(GLOB qv_man3 CONFIGURE_DEPENDS docs/man/*.3)
file(GLOB qv_man7 CONFIGURE_DEPENDS docs/man/*.7)
# A page describes a family of functions. Each further function gets a page that links to it.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${qv_man3})
foreach(page ${qv_man3})
  get_filename_component(family ${page} NAME_WE)
  file(STRINGS ${page} names REGEX "^\\.Nm qv_")
  list(TRANSFORM names REPLACE "^\\.Nm ([a-z0-9_]+).*" "\\1")
  list(REMOVE_ITEM names ${family})
  foreach(name ${names})
    file(WRITE ${PROJECT_BINARY_DIR}/man/${name}.3 ".so man3/${family}.3\n")
    list(APPEND qv_man3 ${PROJECT_BINARY_DIR}/man/${name}.3)
  endforeach()
endforeach()
install(FILES ${qv_man3} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT devel)
install(FILES ${qv_man7} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT devel)
# The manual pages refer to them.
install(FILES docs/guide.md docs/formats.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libqvutil-dev COMPONENT devel)
# A project of its own: `cmake -S examples`, with the warnings that it includes.
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libqvutil-dev COMPONENT devel)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianFiles.cmake)
set(CPACK_PACKAGE_CONTACT "QVUtil maintainers")
set(CPACK_COMPONENTS_ALL runtime remote trace devel recorder tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)  # libQVUtil.so
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Strips what is packed, and puts the symbols into NAME-dbgsym packages.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

# A program that was linked against this version may use what earlier ones lack.
# Written here, since cpack would complain about the recorder, which has no soname
# to depend on.
set(qv_runtime libqvutil${PROJECT_VERSION_MAJOR})
set(qv_control ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${qv_control}/shlibs
  "libQVUtil ${PROJECT_VERSION_MAJOR} ${qv_runtime} (>= ${PROJECT_VERSION})\n")
set(qv_remote libqvremote${PROJECT_VERSION_MAJOR})
file(WRITE ${qv_control}/remote/shlibs
  "libqvremote ${PROJECT_VERSION_MAJOR} ${qv_remote} (>= ${PROJECT_VERSION})\n")
set(qv_trace libqvtrace${PROJECT_VERSION_MAJOR})
file(WRITE ${qv_control}/trace/shlibs
  "libqvtrace ${PROJECT_VERSION_MAJOR} ${qv_trace} (>= ${PROJECT_VERSION})\n")
# Runs ldconfig once for all packages of an installation, in the right order; the
# scripts that cpack adds would run it for each package.
file(WRITE ${qv_control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${qv_control}/shlibs ${qv_control}/triggers)
set(CPACK_DEBIAN_RECORDER_PACKAGE_CONTROL_EXTRA ${qv_control}/triggers)
set(CPACK_DEBIAN_REMOTE_PACKAGE_CONTROL_EXTRA ${qv_control}/remote/shlibs ${qv_control}/triggers)
set(CPACK_DEBIAN_TRACE_PACKAGE_CONTROL_EXTRA ${qv_control}/trace/shlibs ${qv_control}/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${qv_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Without the recorder, statistics count nothing.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS libcircmetrics)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "qvutil, ${qv_remote}, ${qv_trace}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "utility library for processes that fork (library)
QVUtil gives the processes of a distributed product logging, settings from the
environment, fault checks, hashing, statistics, and a key/value cache that they
share through files.")

set(CPACK_DEBIAN_REMOTE_PACKAGE_NAME ${qv_remote})
set(CPACK_DEBIAN_REMOTE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_REMOTE_PACKAGE_DEPENDS "${qv_runtime} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_REMOTE_DESCRIPTION "caches of QVUtil on Redis servers (library)
With it, the caches of processes on many machines share their entries through a
Redis Cluster or a single Redis server.")

# Needs no other package: a program may have the tracer without the library.
set(CPACK_DEBIAN_TRACE_PACKAGE_NAME ${qv_trace})
set(CPACK_DEBIAN_TRACE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_TRACE_DESCRIPTION "tracer for processes that use QVUtil (library)
With it, a process writes what its stores and pools do, and how long that takes,
to a file that Perfetto and chrome://tracing show.")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libqvutil-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
# Boost for its UUID header, which <quorvane/uuid.h> includes.
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "${qv_runtime} (= ${PROJECT_VERSION}), libboost-dev")
# Only recommended: who has no servers needs none of what the first depends on.
set(CPACK_DEBIAN_DEVEL_PACKAGE_RECOMMENDS
  "${qv_remote} (= ${PROJECT_VERSION}), ${qv_trace} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVEL_DESCRIPTION "utility library for processes that fork (development files)
Headers for C++17 and C11, the CMake package QVUtil, the pkg-config modules
qvutil, qvremote and qvtrace, and manual pages.")

set(CPACK_DEBIAN_RECORDER_PACKAGE_NAME libcircmetrics)
set(CPACK_DEBIAN_RECORDER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RECORDER_DESCRIPTION "metrics recorder that QVUtil loads at run time
With it, processes that use QVUtil can count, and report what they counted as
lines of JSON.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME qvutil)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${qv_runtime} (>= ${PROJECT_VERSION})")
# gnuplot draws the plots. The library for servers is opened when a cache goes there.
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "gnuplot-nox, ${qv_remote} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "caches, logs and statistics of QVUtil (tool)
Shows and mends what programs with QVUtil leave on disk: lists, checks and repairs
caches, merges logs and traces, and plots statistics.")
include(CPack)
