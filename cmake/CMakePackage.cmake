# The CMake package beside molkutil.pc: find_package(molkutil 1 CONFIG) in a
# consumer gives molkutil::molkutil. A package of another major version is
# refused, as its SONAME differs. Paths are relative to the installed files,
# so a copy under a sysroot works as well.
include(CMakePackageConfigHelpers)
set(MOLK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/molkutil)

configure_file(cmake/molkutil-config.cmake.in molkutil-config.cmake @ONLY)
write_basic_package_version_file(molkutil-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(EXPORT molkutil NAMESPACE molkutil:: FILE molkutil-targets.cmake
        DESTINATION ${MOLK_CMAKE_DIR} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/molkutil-config.cmake
              ${PROJECT_BINARY_DIR}/molkutil-config-version.cmake
        DESTINATION ${MOLK_CMAKE_DIR} COMPONENT development)

configure_file(cmake/molkutil.pc.in molkutil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/molkutil.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
