# What `cmake --install` lays out, and the Debian packages that `cpack` makes of
# it: libqvutil1 (component runtime), libqvutil-dev (devel), libcircmetrics
# (recorder). Configure with -DCMAKE_INSTALL_PREFIX=/usr for packages.
include(CMakePackageConfigHelpers)

install(TARGETS QVUtil EXPORT QVUtilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
install(DIRECTORY util/include/quorvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel)

set(qv_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QVUtil)
install(EXPORT QVUtilTargets NAMESPACE QVUtil:: DESTINATION ${qv_cmake_dir} COMPONENT devel)
configure_package_config_file(cmake/QVUtilConfig.cmake.in ${PROJECT_BINARY_DIR}/QVUtilConfig.cmake
  INSTALL_DESTINATION ${qv_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QVUtilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QVUtilConfig.cmake ${PROJECT_BINARY_DIR}/QVUtilConfigVersion.cmake
  DESTINATION ${qv_cmake_dir} COMPONENT devel)

# Relative to the file itself, so that an unpacked tree works wherever it lies.
file(RELATIVE_PATH QV_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" QV_PC_PREFIX "${QV_PC_PREFIX}")
configure_file(cmake/qvutil.pc.in ${PROJECT_BINARY_DIR}/qvutil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvutil.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT devel)

file(GLOB qv_man3 CONFIGURE_DEPENDS docs/man/*.3)
file(GLOB qv_man7 CONFIGURE_DEPENDS docs/man/*.7)
install(FILES ${qv_man3} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT devel)
install(FILES ${qv_man7} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT devel)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "QVUtil maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Utility library for the processes of a distributed product")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime devel recorder)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvutil1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS libcircmetrics)
set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libqvutil-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "libqvutil1 (= ${PROJECT_VERSION}), libboost-dev")
set(CPACK_DEBIAN_RECORDER_PACKAGE_NAME libcircmetrics)
set(CPACK_DEBIAN_RECORDER_PACKAGE_SECTION libs)
include(CPack)
