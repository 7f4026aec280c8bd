# Checks the platform header directory and decides where consumers find it
# after installation.
#   ZNPDK_PLATFORM_BUNDLED         ON when the bundled headers are used
#   ZNPDK_PLATFORM_INSTALL_INCLUDE include directory named to consumers
#                                  (relative to the prefix when bundled)
set(ZNPDK_PLATFORM_HEADERS ipmi_stack.h sp_sysobj.h znlib.h sp_trace.h sputil.h mbc_driver.h)

get_filename_component(_znpdk_platform_dir "${ZNPDK_PLATFORM_INCLUDE_DIR}" ABSOLUTE
                       BASE_DIR "${CMAKE_BINARY_DIR}")
if(NOT IS_DIRECTORY "${_znpdk_platform_dir}")
  message(FATAL_ERROR "ZNPDK_PLATFORM_INCLUDE_DIR: ${_znpdk_platform_dir} is not a directory")
endif()
set(_znpdk_missing "")
foreach(_h IN LISTS ZNPDK_PLATFORM_HEADERS)
  if(NOT EXISTS "${_znpdk_platform_dir}/${_h}")
    list(APPEND _znpdk_missing "${_h}")
  endif()
endforeach()
if(_znpdk_missing)
  list(JOIN _znpdk_missing ", " _znpdk_missing_text)
  list(JOIN ZNPDK_PLATFORM_HEADERS ", " _znpdk_all_text)
  # Indented lines are not rewrapped, so each name stays whole for scripts.
  message(FATAL_ERROR "ZNPDK_PLATFORM_INCLUDE_DIR lacks platform headers:\n"
                      "  directory: ${_znpdk_platform_dir}\n"
                      "  missing: ${_znpdk_missing_text}\n"
                      "  required: ${_znpdk_all_text}")
endif()
set(ZNPDK_PLATFORM_INCLUDE_DIR "${_znpdk_platform_dir}")

get_filename_component(_znpdk_real_given "${_znpdk_platform_dir}" REALPATH)
get_filename_component(_znpdk_real_bundled "${ZNPDK_BUNDLED_PLATFORM_DIR}" REALPATH)
if(_znpdk_real_given STREQUAL _znpdk_real_bundled)
  set(ZNPDK_PLATFORM_BUNDLED ON)
  set(ZNPDK_PLATFORM_INSTALL_INCLUDE "${CMAKE_INSTALL_INCLUDEDIR}/znpdk/platform")
else()
  set(ZNPDK_PLATFORM_BUNDLED OFF)
  set(ZNPDK_PLATFORM_INSTALL_INCLUDE "${_znpdk_platform_dir}")
  message(STATUS "znpdk: building against the platform headers in ${_znpdk_platform_dir}")
endif()
