# Debian packages through CPack, one per install component:
#   libmolkutil1     runtime      the shared object and its SONAME link
#   libmolkutil-dev  development  headers, the .so link, molkutil.pc, the CMake package
#   molkutil-tools   tools        molkshm and molkmod with their manual pages, the stand-ins
# `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr makes
# them; packaging/build-debs.sh does so for amd64 and armhf. Their version is
# the project version, their architecture the compiler's target.
set(MOLK_DEB_MAINTAINER "libmolkutil developers <libmolkutil@example.com>" CACHE STRING
    "Maintainer of the Debian packages, as \"Name <address>\"")

set(MOLK_DEB_LIB libmolkutil${PROJECT_VERSION_MAJOR})
set(MOLK_DEB_COMPONENTS runtime development tools)
set(MOLK_DEB_NAMES ${MOLK_DEB_LIB} libmolkutil-dev molkutil-tools)

# /usr/share/doc/PACKAGE/ holds the copyright and the changelog in each package.
string(TIMESTAMP MOLK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)  # honours SOURCE_DATE_EPOCH
configure_file(packaging/changelog.in changelog @ONLY)
add_custom_command(OUTPUT changelog.gz
  COMMAND gzip -9n -c ${PROJECT_BINARY_DIR}/changelog > ${PROJECT_BINARY_DIR}/changelog.gz
  DEPENDS ${PROJECT_BINARY_DIR}/changelog)
add_custom_target(deb_changelog ALL DEPENDS changelog.gz)
foreach(i RANGE 2)
  list(GET MOLK_DEB_COMPONENTS ${i} component)
  list(GET MOLK_DEB_NAMES ${i} package)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME molkutil)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${MOLK_DEB_MAINTAINER})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${MOLK_DEB_COMPONENTS})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)

# Dependencies: libc's from dpkg-shlibdeps on the binaries; between the
# packages, the exact version, since the dev files and the tools are built
# against this very library (the tools read the segment's private layout).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
# The shlibs file lets other packages' dpkg-shlibdeps depend on this one;
# the trigger has ldconfig run once after dpkg installs the library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${PROJECT_BINARY_DIR}/deb-runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb-runtime/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Where dpkg-shlibdeps finds the libraries that the binaries need: this
# build's own, and a cross compiler's C library.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  foreach(root ${CMAKE_FIND_ROOT_PATH})
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${root}/lib)
  endforeach()
endif()

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"frame store, XML processor and module services of a video device
libmolkutil.so.${PROJECT_VERSION_MAJOR} is the shared library of an embedded Linux video device's
processes: a frame store in System V shared memory, where one writer per
ring appends encoded frames and readers follow it, a small in-place XML
processor, and the module services (analytics registration, package and
system files, run status, time). Its only run-time dependency is libc.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"frame store, XML processor and module services - development files
The C headers of libmolkutil (sharedmem.h, molkxmlprocessor.h, molkutil.h),
the link for -lmolkutil, molkutil.pc for pkg-config and the CMake package:
find_package(molkutil ${PROJECT_VERSION_MAJOR} CONFIG) gives the imported target molkutil::molkutil.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"command-line tools for libmolkutil's frame store and module services
molkshm creates, inspects, writes and reads frame store blocks; molkmod
registers analytics modules and queries the package, system and time
files. Also in ${CMAKE_INSTALL_LIBEXECDIR}/molkutil: test stand-ins for daemons that a
device provides itself (configuration daemon, ONVIF daemons, time-zone
writer), for trying the module services on a development machine.")

include(CPack)
