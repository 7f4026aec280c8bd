# Installation of libznpdk, in install components that match its Debian
# packages (scripts/packages.sh): `znpdk` the shared library itself, `znpdk_dev`
# what a program is built with (the unversioned link, the public headers,
# znpdk.pc and the CMake package: find_package(znpdk) -> znpdk::znpdk, and
# znpdk::znpdk_sim when the simulated platform is installed too).
include(CMakePackageConfigHelpers)

install(TARGETS znpdk EXPORT znpdkTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT znpdk
        NAMELINK_COMPONENT znpdk_dev)
install(FILES include/znpdk/znpdklib.h ${ZNPDK_GENERATED_INCLUDE_DIR}/znpdk_version.h component/znpdklib_types.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/znpdk COMPONENT znpdk_dev)
if(ZNPDK_PLATFORM_BUNDLED)
  install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/znpdk/platform
          COMPONENT znpdk_dev FILES_MATCHING PATTERN "*.h")
endif()

# .pc files name their prefix relative to their own place, so the tree can be
# installed with any --prefix, or into a target root file system, and moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "znpdk: CMAKE_INSTALL_LIBDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH ZNPDK_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
if(ZNPDK_PLATFORM_BUNDLED)
  set(ZNPDK_PC_PLATFORM_CFLAGS "-isystem \${includedir}/znpdk/platform")
else()
  set(ZNPDK_PC_PLATFORM_CFLAGS "-isystem ${ZNPDK_PLATFORM_INCLUDE_DIR}")
endif()
set(ZNPDK_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(ZNPDK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/znpdk)
configure_file(cmake/znpdk.pc.in ${CMAKE_BINARY_DIR}/znpdk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/znpdk.pc DESTINATION ${ZNPDK_PC_DIR} COMPONENT znpdk_dev)

install(EXPORT znpdkTargets NAMESPACE znpdk:: DESTINATION ${ZNPDK_CMAKE_DIR} COMPONENT znpdk_dev)
configure_package_config_file(cmake/znpdkConfig.cmake.in ${CMAKE_BINARY_DIR}/znpdkConfig.cmake
                              INSTALL_DESTINATION ${ZNPDK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/znpdkConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/znpdkConfig.cmake ${CMAKE_BINARY_DIR}/znpdkConfigVersion.cmake
        DESTINATION ${ZNPDK_CMAKE_DIR} COMPONENT znpdk_dev)
