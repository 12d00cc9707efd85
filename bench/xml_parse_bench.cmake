# The XML parse benchmark compares against other parsers from Debian's -dev
# packages; they are used by this benchmark only.
find_package(PkgConfig REQUIRED)
pkg_check_modules(MOLK_XML_PEERS REQUIRED IMPORTED_TARGET pugixml expat tinyxml2 libxml-2.0)
target_link_libraries(${name} PRIVATE PkgConfig::MOLK_XML_PEERS)
