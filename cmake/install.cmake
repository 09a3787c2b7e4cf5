# Installation of libmgmt as a product, below one prefix:
#
#   lib/libmgmt.so.1, lib/libplatform.so.1    the library and the platform stand-in
#   lib/pkgconfig/libmgmt.pc                  pkg-config (relocatable: paths from ${pcfiledir})
#   lib/cmake/libmgmt/                        find_package(libmgmt): libmgmt::mgmt, libmgmt::platform
#   include/libmgmt/                          libmgmt.h, mgmt/*.h, mgmt/platform/*.h
#   bin/                                      mgd, app_daemon, and mgictl when it is built
#   share/libmgmt/examples/                   the C example daemon and front end, with their CMakeLists.txt
#   share/doc/libmgmt/                        README.md, LICENSE, and the guide (docs/) in guide/
#
# Run paths. The installed programs find the libraries through $ORIGIN/../lib, relative to their
# own place, so that the tree can be moved as a whole; libmgmt.so finds the stand-in beside itself
# through $ORIGIN. Programs built against the tree get no run path from it: a prefix outside the
# loader's search path needs -Wl,-rpath,$(pkg-config --variable=libdir libmgmt) (docs/README.md),
# while CMake puts the path into what it builds by itself.

include(CMakePackageConfigHelpers)

set(MGMT_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/libmgmt)
file(RELATIVE_PATH MGMT_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH MGMT_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" MGMT_PC_TO_PREFIX "${MGMT_PC_TO_PREFIX}")

# Libraries and headers, with the targets exported for find_package.
set_target_properties(mgmt PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS mgmt platform EXPORT libmgmtTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${MGMT_INSTALL_INCLUDEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ DESTINATION ${MGMT_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_BINARY_DIR}/include/mgmt/version.h DESTINATION ${MGMT_INSTALL_INCLUDEDIR}/mgmt)
install(EXPORT libmgmtTargets NAMESPACE libmgmt:: DESTINATION ${MGMT_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/libmgmtConfig.cmake.in
  ${CMAKE_BINARY_DIR}/libmgmtConfig.cmake INSTALL_DESTINATION ${MGMT_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/libmgmtConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/libmgmtConfig.cmake ${CMAKE_BINARY_DIR}/libmgmtConfigVersion.cmake
  DESTINATION ${MGMT_INSTALL_CMAKEDIR})
configure_file(${CMAKE_SOURCE_DIR}/cmake/libmgmt.pc.in ${CMAKE_BINARY_DIR}/libmgmt.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/libmgmt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Programs.
foreach(program mgd app_daemon mgictl mgload)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${MGMT_BIN_TO_LIB}")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The C examples as sources, and the guide.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/c/ DESTINATION ${CMAKE_INSTALL_DATADIR}/libmgmt/examples)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/guide)

# The licence and the README.
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
